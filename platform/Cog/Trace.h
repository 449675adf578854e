// Tracing. Each compilation unit names its default trace handle once:
//
//   COG_TRACE_HANDLE("UcmpWeightRebase");
//   ...
//   COG_TRACE(3, "rebaseWeights" << " inWeight:" << w);
//
// A handle has a level from -1 (off, the default) to 9; a record of level L is
// built only when L <= the handle's level. The unit's level lives in a
// constant-initialised word of its own, so a disabled site costs one load and
// one compare (and the control area's generation check below): no
// initialisation guard, no call. Levels are switched at run time per handle, by name or by
// a pattern ending in '*':
//   - the environment variable COG_TRACE, read when a handle first registers,
//     e.g. COG_TRACE='UcmpWeightRebase=3,Fec*=9' or COG_TRACE='*=9';
//   - Cog::Trace::levelIs("Fec*", 9) from code.
// Records go to the sink: stderr by default, or whatever sinkIs() installs
// (CaptureSink keeps them for tests).
//
// Control from outside: the process keeps its handles' names and levels in a
// small POSIX shared-memory segment "/cogtrace.<pid>" (mode 0600), as it does
// its activity counters. readLevels(pid) lists them from another process;
// requestLevels(pid, settings) stores new levels there and bumps the area's
// generation. The library starts no thread: the process takes the new
// levels in at its next trace site (each site compares the generation with
// the one it last applied, a load and a compare more) or when its code
// calls poll(). The segment is removed at normal exit; a child after fork()
// gets one of its own; segments of this user's dead processes are removed
// by the next process that creates one. Without /dev/shm the area lives in
// process memory and tracing works as before.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Cog::Trace {

constexpr int kOff = -1;
constexpr int kMaxLevel = 9;

class Handle;

struct Record {
  const Handle* handle;
  int level;
  const char* file;
  unsigned line;
  const char* function;
  std::string text;
};

class Handle {
 public:
  // `level` is the word the handle keeps its level in; by default one of its
  // own. COG_TRACE_HANDLE passes a constant-initialised word that trace
  // sites read directly.
  explicit Handle(const char* name, std::atomic<int>* level = nullptr);
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const char* name() const { return name_; }
  bool enabled(int level) const { return level <= level_->load(std::memory_order_relaxed); }
  int level() const { return level_->load(std::memory_order_relaxed); }
  void levelIs(int level);

  void emit(int level, const char* file, unsigned line, const char* function,
            std::string text) const;

 private:
  friend struct Control;
  const char* name_;
  std::atomic<int> ownLevel_{kOff};
  std::atomic<int>* level_;
  int slot_ = -1;  // its entry in the control area, or -1
};

// Sets the level of every registered handle whose name matches `pattern`
// (exact, or a prefix followed by '*'), and of handles registered later.
void levelIs(std::string_view pattern, int level);
// Parses "name=level,pattern*=level,..." as COG_TRACE does. Returns false and
// changes nothing on malformed text.
bool configure(std::string_view settings);
// True when `settings` reads as configure() takes it.
bool validSettings(std::string_view settings);
// Takes in levels requested through the control area (see above).
void poll();
// The handles of process `pid` and their levels, from its control area, in
// registration order. Throws Cog::RangeException when the process has no
// area (or it cannot be read), Cog::StreamException when it is malformed.
std::vector<std::pair<std::string, int>> readLevels(pid_t pid);
// Sets, in the control area of process `pid`, the levels of its handles
// that `settings` ("name=level,pattern*=level,...") names; the process takes
// them in at its next trace site. Throws as readLevels does, and
// Cog::RangeException for malformed settings.
void requestLevels(pid_t pid, std::string_view settings);

namespace detail {
// The control area's generation (a word of process memory until the area
// exists) and the one last applied.
extern std::atomic<const std::atomic<std::uint32_t>*> gControlGeneration;
extern std::atomic<std::uint32_t> gAppliedGeneration;
void applyControl();
inline bool controlChanged() {
  return gControlGeneration.load(std::memory_order_relaxed)->load(std::memory_order_relaxed) !=
         gAppliedGeneration.load(std::memory_order_relaxed);
}
}  // namespace detail

// The handle registered under `name`, or nullptr.
Handle* handle(std::string_view name);
// Every handle registered so far, in registration order.
std::vector<const Handle*> handles();

using Sink = std::function<void(const Record&)>;
// Installs `sink`; an empty function restores the stderr sink.
void sinkIs(Sink sink);
// The stderr form of a record: "<handle>[<level>] <file>:<line> <function>: <text>".
std::string format(const Record& record);

// A sink that keeps the records it receives; installs itself while alive.
class CaptureSink {
 public:
  CaptureSink();
  ~CaptureSink();
  std::vector<Record> records() const;
  std::vector<std::string> texts() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Record> records_;
};

}  // namespace Cog::Trace

#define COG_TRACE_HANDLE(unitName)                                  \
  namespace {                                                       \
  constinit std::atomic<int> cogDefaultTraceLevel_{::Cog::Trace::kOff}; \
  [[maybe_unused]] ::Cog::Trace::Handle& cogDefaultTraceHandle() {  \
    static ::Cog::Trace::Handle handle(unitName, &cogDefaultTraceLevel_); \
    return handle;                                                  \
  }                                                                 \
  /* registers the handle at load time, so tools can list it */     \
  [[maybe_unused]] const ::Cog::Trace::Handle& cogDefaultTraceHandleAtLoad_ = \
      cogDefaultTraceHandle();                                      \
  }

#define COG_TRACE(lvl, expr)                                                   \
  do {                                                                         \
    if (COG_TRACE_ENABLED(lvl)) {                                              \
      std::ostringstream cogTraceStream_;                                      \
      cogTraceStream_ << expr;                                                 \
      cogDefaultTraceHandle().emit(lvl, __FILE_NAME__, __LINE__, __func__,     \
                                   std::move(cogTraceStream_).str());          \
    }                                                                          \
  } while (0)

#define COG_TRACE_ENABLED(lvl)                                                    \
  ((::Cog::Trace::detail::controlChanged() ? ::Cog::Trace::detail::applyControl() : void()), \
   (lvl) <= cogDefaultTraceLevel_.load(std::memory_order_relaxed))
