// Loop::EventLoop: the reactor loop an agent runs on a thread of its own. It
// waits on descriptors (table readers, mount publishers and subscribers, any
// other fd) and timers, and calls their callbacks on that thread, one at a
// time, so that everything the callbacks touch belongs to one reactor
// thread. The library starts no thread: the agent calls run() on the thread
// it chose (its main thread, or one it started).
//
//   Loop::EventLoop loop;
//   loop.fdIs(status->errorFd(), [&] { status->errorProcessNotifications(); });
//   loop.sourceIs(publisher);                     // anything with fd() and service()
//   loop.timerIs(std::chrono::seconds(1), [&] { ... }, std::chrono::seconds(1));
//   loop.run();                                   // until stop()
//
// Descriptors are level-triggered: a callback that leaves its descriptor
// readable is called again on the next round. Callbacks may register and
// remove descriptors and timers, their own included; a removed one is not
// called again, even later in the same round. A timer due at the same time
// as a descriptor runs after the descriptors of that round.
//
// stop() may be called from any thread and from a signal handler.
// Everything else belongs to the loop's thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>

namespace Loop {

class EventLoop {
 public:
  using Handle = std::uint64_t;
  using Callback = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Calls `onReadable` whenever `fd` is readable (or has hung up or failed).
  // The loop does not own `fd`; remove it before closing it.
  Handle fdIs(int fd, Callback onReadable);
  // Polls `source.fd()` and calls `source.service()`: table writers' reader
  // links, mount publishers and subscribers.
  template <typename S>
  Handle sourceIs(S& source) {
    return fdIs(source.fd(), [&source] { source.service(); });
  }
  // Calls `f` once after `after`, then every `period` when it is non-zero.
  Handle timerIs(Clock::duration after, Callback f, Clock::duration period = Clock::duration::zero());
  // Removes a descriptor or a timer; unknown handles are ignored.
  void del(Handle handle);

  // Runs rounds until stop(). A stop() before run() makes it return at once;
  // the request ends with the run it ended.
  void run();
  // One round: waits up to `timeout` (forever when negative) for something
  // to be ready, then dispatches what is. Returns the number of callbacks
  // called.
  std::size_t runOnce(Clock::duration timeout);
  // Makes run() return after the callback under way; async-signal-safe.
  void stop();
  bool stopping() const;

  std::size_t fds() const { return fds_.size(); }
  std::size_t timers() const { return timers_.size(); }

 private:
  struct Timer {
    Clock::duration period;
    Callback f;
    std::multimap<Clock::time_point, Handle>::iterator due;
  };
  std::size_t dispatchTimers();

  std::atomic<bool> stop_{false};
  int epoll_ = -1;
  int wake_ = -1;  // eventfd written by stop()
  Handle next_ = 1;
  std::unordered_map<Handle, std::pair<int, Callback>> fds_;
  std::unordered_map<Handle, Timer> timers_;
  std::multimap<Clock::time_point, Handle> due_;
};

}  // namespace Loop
