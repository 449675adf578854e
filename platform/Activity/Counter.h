// Activity counters: cheap named event counts that a tool in another process
// can read while the process runs.
//
//   static Activity::Counter& inserts =
//       Activity::CounterWriter::process().counter("errorIs");
//   inserts.increment();
//
// The process's writer keeps every counter in one small POSIX shared-memory
// segment named "/activity.<pid>" (mode 0600): a fixed table of entries, each
// a NUL-terminated name and a 64-bit count. `Activity::readCounters(pid)`
// lists the counters of a running process from outside.
//
// Contract:
//  - counter(name) returns the same handle for the same name for the life of
//    the process; handles are never destroyed, so keeping a reference is safe.
//  - increment() is a relaxed atomic add: totals are exact, but a reader may
//    see increments of different counters in any order.
//  - Names are 1 to kMaxNameLength bytes of printable ASCII; anything else is
//    refused with Cog::RangeException.
//  - When the table is full (kCapacity counters) further counters still count
//    but live in process memory only and do not appear to readers; the
//    segment's header records how many were left out.
//  - If the segment cannot be created (no /dev/shm), all counters live in
//    process memory; counting never fails.
//  - After fork() the child gets a segment of its own, starting from the
//    parent's values at the fork; handles taken before the fork stay valid.
//  - The segment is removed at normal process exit. Segments left by a
//    process that died are removed by the next writer created by the same
//    user.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Activity {

inline constexpr std::size_t kMaxNameLength = 119;
inline constexpr std::size_t kCapacity = 1024;

class Counter {
 public:
  Counter(const Counter&) = delete;
  Counter& operator=(const Counter&) = delete;

  void increment(std::uint64_t n = 1) { cell_->fetch_add(n, std::memory_order_relaxed); }
  std::uint64_t value() const { return cell_->load(std::memory_order_relaxed); }
  const std::string& name() const { return name_; }
  // False when the table was full and this counter is not visible to readers.
  bool exported() const { return exported_; }

 private:
  friend class CounterWriter;
  Counter(std::string name, std::atomic<std::uint64_t>* cell, bool exported)
      : name_(std::move(name)), cell_(cell), exported_(exported) {}

  std::string name_;
  std::atomic<std::uint64_t>* cell_;
  bool exported_;
};

class CounterWriter {
 public:
  // The process's writer, created on first use.
  static CounterWriter& process();

  Counter& counter(std::string_view name);
  // "/activity.<pid>", or empty when counters live in process memory only.
  std::string segmentName() const;

  CounterWriter(const CounterWriter&) = delete;
  CounterWriter& operator=(const CounterWriter&) = delete;

  struct Segment;

 private:
  CounterWriter();
  ~CounterWriter();
  void afterFork();
  static void afterForkInChild();
  static void removeAtExit();

  mutable std::mutex mutex_;
  Segment* segment_ = nullptr;  // the mapped table, or null
  std::string segmentName_;
  std::map<std::string, std::unique_ptr<Counter>, std::less<>> counters_;
  std::vector<std::unique_ptr<std::atomic<std::uint64_t>>> privateCells_;
};

struct CounterReading {
  std::string name;
  std::uint64_t value;
  bool operator==(const CounterReading&) const = default;
};

// The counters of process `pid`, in registration order. Throws
// Cog::RangeException when the process has no counter segment (or it is not
// readable), and Cog::StreamException when the segment is malformed.
std::vector<CounterReading> readCounters(pid_t pid);

}  // namespace Activity
