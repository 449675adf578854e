#include "Loop/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Cog/Exception.h"

namespace Loop {
namespace {

[[noreturn]] void fail(const char* what) {
  throw Cog::RangeException(std::string("EventLoop: ") + what + ": " + std::strerror(errno));
}

constexpr EventLoop::Handle kWakeHandle = 0;

}  // namespace

EventLoop::EventLoop() {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) fail("epoll_create1");
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) {
    close(epoll_);
    fail("eventfd");
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kWakeHandle;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &ev);
}

EventLoop::~EventLoop() {
  close(wake_);
  close(epoll_);
}

EventLoop::Handle EventLoop::fdIs(int fd, Callback onReadable) {
  const Handle h = next_++;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = h;
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev) != 0) fail("epoll_ctl");
  fds_.emplace(h, std::make_pair(fd, std::move(onReadable)));
  return h;
}

EventLoop::Handle EventLoop::timerIs(Clock::duration after, Callback f, Clock::duration period) {
  const Handle h = next_++;
  auto due = due_.emplace(Clock::now() + after, h);
  timers_.emplace(h, Timer{period, std::move(f), due});
  return h;
}

void EventLoop::del(Handle handle) {
  if (auto it = fds_.find(handle); it != fds_.end()) {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, it->second.first, nullptr);
    fds_.erase(it);
    return;
  }
  if (auto it = timers_.find(handle); it != timers_.end()) {
    due_.erase(it->second.due);
    timers_.erase(it);
  }
}

void EventLoop::stop() {
  stop_.store(true, std::memory_order_release);
  const std::uint64_t one = 1;
  // Async-signal-safe: an atomic store and one write to the eventfd.
  [[maybe_unused]] ssize_t n = write(wake_, &one, sizeof one);
}

bool EventLoop::stopping() const { return stop_.load(std::memory_order_acquire); }

void EventLoop::run() {
  while (!stopping()) runOnce(Clock::duration(-1));
  stop_.store(false, std::memory_order_relaxed);
  std::uint64_t v = 0;
  [[maybe_unused]] ssize_t n = read(wake_, &v, sizeof v);
}

std::size_t EventLoop::runOnce(Clock::duration timeout) {
  int ms = -1;
  if (!due_.empty()) {
    const auto wait = due_.begin()->first - Clock::now();
    const auto waitMs = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    ms = waitMs < 0 ? 0 : static_cast<int>(waitMs);
  }
  if (timeout >= Clock::duration::zero()) {
    const auto t = std::chrono::ceil<std::chrono::milliseconds>(timeout).count();
    if (ms < 0 || t < ms) ms = static_cast<int>(t);
  }
  epoll_event events[32];
  int n = epoll_wait(epoll_, events, 32, ms);
  if (n < 0) {
    if (errno != EINTR) fail("epoll_wait");
    n = 0;
  }
  std::size_t called = 0;
  for (int i = 0; i < n; ++i) {
    const Handle h = events[i].data.u64;
    if (h == kWakeHandle) continue;  // stop_ says it all
    auto it = fds_.find(h);
    if (it == fds_.end()) continue;  // removed by an earlier callback of this round
    // A copy: the callback may remove itself.
    Callback f = it->second.second;
    f();
    ++called;
    if (stopping()) return called;
  }
  return called + dispatchTimers();
}

std::size_t EventLoop::dispatchTimers() {
  std::size_t called = 0;
  const auto now = Clock::now();
  // Timers that come due while these run wait for the next round.
  std::vector<Handle> ready;
  for (auto it = due_.begin(); it != due_.end() && it->first <= now; ++it) ready.push_back(it->second);
  for (Handle h : ready) {
    auto it = timers_.find(h);
    if (it == timers_.end()) continue;
    Timer& t = it->second;
    due_.erase(t.due);
    Callback f = t.f;
    if (t.period > Clock::duration::zero()) {
      t.due = due_.emplace(now + t.period, h);
    } else {
      timers_.erase(it);
    }
    f();
    ++called;
  }
  return called;
}

}  // namespace Loop
