#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Activity/Counter.h"
#include "Cog/Exception.h"
#include "Cog/ProcessSegment.h"

namespace Activity {

namespace {

constexpr std::uint32_t kMagic = 0x56544341;  // "ACTV"
constexpr std::uint32_t kLayoutVersion = 1;
constexpr std::size_t kNameField = kMaxNameLength + 1;

struct alignas(8) Entry {
  std::atomic<std::uint64_t> value;
  char name[kNameField];
};
static_assert(sizeof(Entry) == 128);

struct alignas(8) Header {
  std::atomic<std::uint32_t> magic;  // stored last: the table is ready
  std::uint32_t layoutVersion;
  std::uint32_t capacity;
  std::uint32_t entrySize;
  std::atomic<std::uint32_t> count;    // entries published so far
  std::atomic<std::uint32_t> leftOut;  // counters that did not fit
  std::int32_t pid;
  std::uint8_t reserved[36];
};
static_assert(sizeof(Header) == 64);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

constexpr std::size_t kSegmentSize = sizeof(Header) + kCapacity * sizeof(Entry);

std::string nameFor(pid_t pid) { return "/activity." + std::to_string(pid); }

Header* header(CounterWriter::Segment* s) { return reinterpret_cast<Header*>(s); }
Entry* entries(CounterWriter::Segment* s) {
  return reinterpret_cast<Entry*>(reinterpret_cast<char*>(s) + sizeof(Header));
}

CounterWriter* gWriter = nullptr;
pid_t gOwnerPid = 0;

}  // namespace

CounterWriter& CounterWriter::process() {
  // Never destroyed: counter handles must outlive every static object that
  // keeps one.
  static CounterWriter* writer = [] {
    auto* w = new CounterWriter();
    gWriter = w;
    pthread_atfork([] { gWriter->mutex_.lock(); }, [] { gWriter->mutex_.unlock(); },
                   &CounterWriter::afterForkInChild);
    std::atexit(&CounterWriter::removeAtExit);
    return w;
  }();
  return *writer;
}

CounterWriter::CounterWriter() {
  Cog::ProcessSegment::removeStale("activity.");
  std::string name = nameFor(getpid());
  int fd = Cog::ProcessSegment::create(name, kSegmentSize, nullptr);
  void* mem = MAP_FAILED;
  if (fd >= 0) {
    mem = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mem == MAP_FAILED) shm_unlink(name.c_str());
  }
  if (mem == MAP_FAILED) {
    // Counting must work without /dev/shm; readers just cannot see it.
    mem = mmap(nullptr, kSegmentSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) std::abort();
  } else {
    segmentName_ = name;
  }
  segment_ = static_cast<Segment*>(mem);
  Header* h = header(segment_);
  h->layoutVersion = kLayoutVersion;
  h->capacity = kCapacity;
  h->entrySize = sizeof(Entry);
  h->pid = static_cast<std::int32_t>(getpid());
  gOwnerPid = getpid();
  std::atomic_thread_fence(std::memory_order_release);
  h->magic.store(kMagic, std::memory_order_release);
}

CounterWriter::~CounterWriter() = default;

std::string CounterWriter::segmentName() const {
  std::lock_guard lock(mutex_);
  return segmentName_;
}

Counter& CounterWriter::counter(std::string_view name) {
  if (name.empty() || name.size() > kMaxNameLength) {
    throw Cog::RangeException("Activity counter name must have 1 to " +
                              std::to_string(kMaxNameLength) + " bytes");
  }
  for (char c : name) {
    if (c < 0x21 || c > 0x7e) {
      throw Cog::RangeException("Activity counter name must be printable ASCII without blanks");
    }
  }
  std::lock_guard lock(mutex_);
  if (auto it = counters_.find(name); it != counters_.end()) return *it->second;

  Header* h = header(segment_);
  std::uint32_t n = h->count.load(std::memory_order_relaxed);
  std::atomic<std::uint64_t>* cell;
  bool exported = n < kCapacity;
  if (exported) {
    Entry& e = entries(segment_)[n];
    std::memset(e.name, 0, sizeof e.name);
    std::memcpy(e.name, name.data(), name.size());
    e.value.store(0, std::memory_order_relaxed);
    h->count.store(n + 1, std::memory_order_release);
    cell = &e.value;
  } else {
    h->leftOut.fetch_add(1, std::memory_order_relaxed);
    privateCells_.push_back(std::make_unique<std::atomic<std::uint64_t>>(0));
    cell = privateCells_.back().get();
  }
  auto owned = std::unique_ptr<Counter>(new Counter(std::string(name), cell, exported));
  Counter& c = *owned;
  counters_.emplace(std::string(name), std::move(owned));
  return c;
}

void CounterWriter::afterForkInChild() {
  gWriter->mutex_.unlock();
  gWriter->afterFork();
}

// The child must not count into its parent's segment: give it a copy of its
// own, mapped at the same address so that every handle stays valid.
void CounterWriter::afterFork() {
  gOwnerPid = getpid();
  if (segmentName_.empty()) return;
  header(segment_)->pid = static_cast<std::int32_t>(getpid());
  std::string name = nameFor(getpid());
  int fd = Cog::ProcessSegment::create(name, kSegmentSize, segment_);
  void* mem = MAP_FAILED;
  if (fd >= 0) {
    mem = mmap(segment_, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
    close(fd);
  }
  if (mem != MAP_FAILED) {
    segmentName_ = name;
    return;
  }
  if (fd >= 0) shm_unlink(name.c_str());
  // Fall back to private memory holding the same values.
  void* copy = std::malloc(kSegmentSize);
  if (copy == nullptr) std::abort();
  std::memcpy(copy, segment_, kSegmentSize);
  mem = mmap(segment_, kSegmentSize, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (mem == MAP_FAILED) std::abort();
  std::memcpy(segment_, copy, kSegmentSize);
  std::free(copy);
  segmentName_.clear();
}

void CounterWriter::removeAtExit() {
  if (gWriter == nullptr || getpid() != gOwnerPid) return;
  std::lock_guard lock(gWriter->mutex_);
  if (!gWriter->segmentName_.empty()) shm_unlink(gWriter->segmentName_.c_str());
  gWriter->segmentName_.clear();
}

std::vector<CounterReading> readCounters(pid_t pid) {
  std::string name = nameFor(pid);
  int fd = shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    throw Cog::RangeException("no activity counters for process " + std::to_string(pid) + ": " +
                              std::strerror(errno));
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    int err = errno;
    close(fd);
    throw Cog::RangeException("cannot read activity counters of process " + std::to_string(pid) +
                              ": " + std::strerror(err));
  }
  auto size = static_cast<std::size_t>(st.st_size);
  if (size < sizeof(Header)) {
    close(fd);
    throw Cog::StreamException("activity segment " + name + " is truncated");
  }
  void* mem = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (mem == MAP_FAILED) {
    throw Cog::RangeException("cannot map activity counters of process " + std::to_string(pid) +
                              ": " + std::strerror(errno));
  }
  struct Unmap {
    void* p;
    std::size_t n;
    ~Unmap() { munmap(p, n); }
  } unmap{mem, size};

  const auto* h = static_cast<const Header*>(mem);
  auto magic = h->magic.load(std::memory_order_acquire);
  if (magic != kMagic || h->layoutVersion != kLayoutVersion || h->entrySize != sizeof(Entry)) {
    throw Cog::StreamException("activity segment " + name + " has an unknown layout");
  }
  std::size_t room = (size - sizeof(Header)) / sizeof(Entry);
  std::size_t capacity = h->capacity;
  std::size_t count = h->count.load(std::memory_order_acquire);
  if (capacity > room || count > capacity) {
    throw Cog::StreamException("activity segment " + name + " claims more entries than it holds");
  }
  const auto* e = reinterpret_cast<const Entry*>(static_cast<const char*>(mem) + sizeof(Header));
  std::vector<CounterReading> out;
  out.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const char* n = e[i].name;
    std::size_t len = strnlen(n, kNameField);
    if (len == 0 || len == kNameField) {
      throw Cog::StreamException("activity segment " + name + " has a malformed name in entry " +
                                 std::to_string(i));
    }
    out.push_back({std::string(n, len), e[i].value.load(std::memory_order_relaxed)});
  }
  return out;
}

}  // namespace Activity
