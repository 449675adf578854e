// The agent's event loop: descriptors and timers dispatched on the thread
// that runs it, callbacks that change the registrations while a round runs,
// and stop() from another thread.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Loop/EventLoop.h"

namespace {

using namespace std::chrono_literals;

struct EventFd {
  int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  ~EventFd() { close(fd); }
  void ring() const {
    const std::uint64_t one = 1;
    ASSERT_EQ(write(fd, &one, sizeof one), 8);
  }
  void drain() const {
    std::uint64_t v;
    [[maybe_unused]] ssize_t n = read(fd, &v, sizeof v);
  }
};

TEST(EventLoop, DispatchesReadableDescriptorsLevelTriggered) {
  Loop::EventLoop loop;
  EventFd a, b;
  int ranA = 0, ranB = 0;
  loop.fdIs(a.fd, [&] { ++ranA; });  // leaves it readable
  loop.fdIs(b.fd, [&] {
    ++ranB;
    b.drain();
  });
  EXPECT_EQ(loop.runOnce(0ms), 0u);
  a.ring();
  b.ring();
  EXPECT_EQ(loop.runOnce(1s), 2u);
  EXPECT_EQ(loop.runOnce(0ms), 1u);  // a is still readable, b was drained
  EXPECT_EQ(ranA, 2);
  EXPECT_EQ(ranB, 1);
}

TEST(EventLoop, CallbacksMayRemoveRegistrationsDuringARound) {
  Loop::EventLoop loop;
  EventFd a, b;
  int ranA = 0, ranB = 0;
  Loop::EventLoop::Handle ha = 0, hb = 0;
  // Whichever runs first removes both; the other is not called.
  ha = loop.fdIs(a.fd, [&] {
    ++ranA;
    loop.del(ha);
    loop.del(hb);
  });
  hb = loop.fdIs(b.fd, [&] {
    ++ranB;
    loop.del(ha);
    loop.del(hb);
  });
  a.ring();
  b.ring();
  EXPECT_EQ(loop.runOnce(1s), 1u);
  EXPECT_EQ(ranA + ranB, 1);
  EXPECT_EQ(loop.fds(), 0u);
  EXPECT_EQ(loop.runOnce(0ms), 0u);
}

TEST(EventLoop, TimersRunInDueOrderOnceOrPeriodically) {
  Loop::EventLoop loop;
  std::vector<int> order;
  loop.timerIs(2ms, [&] { order.push_back(2); });
  loop.timerIs(1ms, [&] { order.push_back(1); });
  int ticks = 0;
  Loop::EventLoop::Handle periodic = 0;
  periodic = loop.timerIs(0ms, [&] {
    if (++ticks == 3) loop.del(periodic);
  }, 1ms);
  while (loop.timers() > 0) loop.runOnce(-1ms);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(ticks, 3);
}

TEST(EventLoop, RunReturnsOnStopFromAnotherThreadOrACallback) {
  Loop::EventLoop loop;
  EventFd started;
  std::thread stopper([&] {
    // Waits for the loop to be running (its first callback), then stops it.
    pollfd p{started.fd, POLLIN, 0};
    while (::poll(&p, 1, -1) != 1) {
    }
    loop.stop();
  });
  bool announced = false;
  loop.fdIs(started.fd, [&] {});
  loop.timerIs(0ms, [&] {
    announced = true;
    started.ring();
  });
  loop.run();
  stopper.join();
  EXPECT_TRUE(announced);
  // The request ended with that run; a stop() from a callback ends the next.
  EXPECT_FALSE(loop.stopping());
  loop.timerIs(0ms, [&] { loop.stop(); });
  loop.run();
  // A stop() before run() makes it return at once.
  loop.stop();
  loop.run();
  SUCCEED();
}

}  // namespace
