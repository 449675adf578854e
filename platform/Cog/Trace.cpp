#include "Cog/Trace.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "Cog/Exception.h"
#include "Cog/ProcessSegment.h"

namespace Cog::Trace {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<Handle*> handles;
  // Patterns in the order given; later ones win.
  std::vector<std::pair<std::string, int>> patterns;
  Sink sink;
  bool envRead = false;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: handles outlive main
  return *r;
}

bool matches(std::string_view pattern, std::string_view name) {
  if (!pattern.empty() && pattern.back() == '*') {
    pattern.remove_suffix(1);
    return name.substr(0, pattern.size()) == pattern;
  }
  return pattern == name;
}

bool parse(std::string_view settings, std::vector<std::pair<std::string, int>>* out) {
  while (!settings.empty()) {
    auto comma = settings.find(',');
    std::string_view item = settings.substr(0, comma);
    settings = comma == std::string_view::npos ? std::string_view() : settings.substr(comma + 1);
    if (item.empty()) continue;
    auto eq = item.find('=');
    if (eq == std::string_view::npos || eq == 0 || eq + 2 != item.size()) return false;
    char d = item[eq + 1];
    if (d < '0' || d > '9') return false;
    out->emplace_back(std::string(item.substr(0, eq)), d - '0');
  }
  return true;
}

void readEnvLocked(Registry& r) {
  if (r.envRead) return;
  r.envRead = true;
  if (const char* env = std::getenv("COG_TRACE")) {
    if (!parse(env, &r.patterns)) {
      std::fprintf(stderr, "COG_TRACE: ignoring malformed setting '%s'\n", env);
    }
  }
}


// ------------------------------------------------------------ control area

constexpr std::uint32_t kMagic = 0x43525443;  // "CTRC"
constexpr std::uint32_t kLayoutVersion = 1;
constexpr std::uint32_t kCapacity = 512;
constexpr std::size_t kNameField = 124;

struct alignas(8) Entry {
  char name[kNameField];  // NUL-terminated; a longer name is cut
  std::atomic<std::int32_t> level;
};
static_assert(sizeof(Entry) == 128);

struct alignas(8) Header {
  std::atomic<std::uint32_t> magic;  // stored last: the area is ready
  std::uint32_t layoutVersion;
  std::uint32_t capacity;
  std::uint32_t entrySize;
  std::atomic<std::uint32_t> count;       // entries published so far
  std::atomic<std::uint32_t> generation;  // bumped by requestLevels
  std::int32_t pid;
  std::uint8_t reserved[36];
};
static_assert(sizeof(Header) == 64);

constexpr std::size_t kSegmentSize = sizeof(Header) + kCapacity * sizeof(Entry);

std::string nameFor(pid_t pid) { return "/cogtrace." + std::to_string(pid); }

Entry* entriesOf(Header* h) {
  return reinterpret_cast<Entry*>(reinterpret_cast<char*>(h) + sizeof(Header));
}

constinit std::atomic<std::uint32_t> gNoArea{0};
Header* gArea = nullptr;       // set once, under the registry's mutex
std::string gAreaName;         // empty when the area is process memory only
pid_t gOwnerPid = 0;

// Maps a shared segment at `fixed` (or anywhere) for this process, holding
// a copy of `initial`; falls back to process memory. Sets gAreaName.
Header* mapArea(void* fixed, const void* initial) {
  std::string name = nameFor(getpid());
  int fd = Cog::ProcessSegment::create(name, kSegmentSize, initial);
  void* mem = MAP_FAILED;
  if (fd >= 0) {
    mem = mmap(fixed, kSegmentSize, PROT_READ | PROT_WRITE, MAP_SHARED | (fixed ? MAP_FIXED : 0),
               fd, 0);
    close(fd);
    if (mem == MAP_FAILED) shm_unlink(name.c_str());
  }
  if (mem != MAP_FAILED) {
    gAreaName = name;
    return static_cast<Header*>(mem);
  }
  gAreaName.clear();
  void* copy = nullptr;
  if (initial != nullptr) {
    copy = std::malloc(kSegmentSize);
    if (copy == nullptr) std::abort();
    std::memcpy(copy, initial, kSegmentSize);
  }
  mem = mmap(fixed, kSegmentSize, PROT_READ | PROT_WRITE,
             MAP_PRIVATE | MAP_ANONYMOUS | (fixed ? MAP_FIXED : 0), -1, 0);
  if (mem == MAP_FAILED) std::abort();
  if (copy != nullptr) {
    std::memcpy(mem, copy, kSegmentSize);
    std::free(copy);
  }
  return static_cast<Header*>(mem);
}

void removeAreaAtExit() {
  if (getpid() != gOwnerPid || gAreaName.empty()) return;
  shm_unlink(gAreaName.c_str());
  gAreaName.clear();
}

// Opens the area of process `pid` for reading (or writing too).
struct MappedArea {
  Header* header = nullptr;
  std::size_t size = 0;
  std::uint32_t count = 0;
  MappedArea(pid_t pid, bool writable) {
    const std::string name = nameFor(pid);
    int fd = shm_open(name.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
    if (fd < 0) {
      throw RangeException("no trace control area for process " + std::to_string(pid) + ": " +
                           std::strerror(errno));
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || static_cast<std::size_t>(st.st_size) < sizeof(Header)) {
      close(fd);
      throw StreamException("trace control area " + name + " is truncated");
    }
    size = static_cast<std::size_t>(st.st_size);
    void* mem = mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, fd, 0);
    close(fd);
    if (mem == MAP_FAILED) {
      throw RangeException("cannot map the trace control area of process " + std::to_string(pid) +
                           ": " + std::strerror(errno));
    }
    header = static_cast<Header*>(mem);
    if (header->magic.load(std::memory_order_acquire) != kMagic ||
        header->layoutVersion != kLayoutVersion || header->entrySize != sizeof(Entry)) {
      munmap(mem, size);
      throw StreamException("trace control area " + name + " has an unknown layout");
    }
    count = header->count.load(std::memory_order_acquire);
    if (header->capacity > (size - sizeof(Header)) / sizeof(Entry) || count > header->capacity) {
      munmap(mem, size);
      throw StreamException("trace control area " + name + " claims more entries than it holds");
    }
  }
  ~MappedArea() { munmap(header, size); }
  MappedArea(const MappedArea&) = delete;
  MappedArea& operator=(const MappedArea&) = delete;

  // Entry i's name; malformed names are refused.
  std::string name(std::uint32_t i) const {
    const char* n = entriesOf(header)[i].name;
    std::size_t len = strnlen(n, kNameField);
    if (len == 0 || len == kNameField) {
      throw StreamException("trace control area of process " + std::to_string(header->pid) +
                            " has a malformed name in entry " + std::to_string(i));
    }
    return std::string(n, len);
  }
};

}  // namespace

namespace detail {
constinit std::atomic<const std::atomic<std::uint32_t>*> gControlGeneration{&gNoArea};
constinit std::atomic<std::uint32_t> gAppliedGeneration{0};
}  // namespace detail

// The control area's side of the handles; called with the registry locked.
struct Control {
  static void create() {
    Cog::ProcessSegment::removeStale("cogtrace.");
    gArea = mapArea(nullptr, nullptr);
    gOwnerPid = getpid();
    gArea->layoutVersion = kLayoutVersion;
    gArea->capacity = kCapacity;
    gArea->entrySize = sizeof(Entry);
    gArea->pid = static_cast<std::int32_t>(getpid());
    std::atomic_thread_fence(std::memory_order_release);
    gArea->magic.store(kMagic, std::memory_order_release);
    detail::gAppliedGeneration.store(0, std::memory_order_relaxed);
    detail::gControlGeneration.store(&gArea->generation, std::memory_order_release);
    pthread_atfork([] { registry().mutex.lock(); }, [] { registry().mutex.unlock(); },
                   &Control::afterForkInChild);
    std::atexit(&removeAreaAtExit);
  }

  static void attach(Handle* h) {
    if (gArea == nullptr) create();
    const std::uint32_t n = gArea->count.load(std::memory_order_relaxed);
    if (n >= kCapacity) return;  // traced as ever, just not visible outside
    Entry& e = entriesOf(gArea)[n];
    std::memset(e.name, 0, sizeof e.name);
    std::memcpy(e.name, h->name_, strnlen(h->name_, kNameField - 1));
    e.level.store(h->level(), std::memory_order_relaxed);
    h->slot_ = static_cast<int>(n);
    gArea->count.store(n + 1, std::memory_order_release);
  }

  static void publish(const Handle* h) {
    if (h->slot_ >= 0) entriesOf(gArea)[h->slot_].level.store(h->level(), std::memory_order_relaxed);
  }

  static void apply(std::vector<Handle*>& handles) {
    if (gArea == nullptr) return;
    const std::uint32_t g = gArea->generation.load(std::memory_order_acquire);
    for (Handle* h : handles) {
      if (h->slot_ < 0) continue;
      int level = entriesOf(gArea)[h->slot_].level.load(std::memory_order_relaxed);
      if (level < kOff) level = kOff;
      if (level > kMaxLevel) level = kMaxLevel;
      h->level_->store(level, std::memory_order_relaxed);
    }
    detail::gAppliedGeneration.store(g, std::memory_order_relaxed);
  }

  // The child must not share its parent's area: it gets a copy of its own,
  // mapped at the same address.
  static void afterForkInChild() {
    registry().mutex.unlock();
    gOwnerPid = getpid();
    if (gAreaName.empty()) return;
    gArea->pid = static_cast<std::int32_t>(getpid());
    mapArea(gArea, gArea);
  }
};


Handle::Handle(const char* name, std::atomic<int>* level)
    : name_(name), level_(level ? level : &ownLevel_) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  readEnvLocked(r);
  for (auto& [pattern, level] : r.patterns) {
    if (matches(pattern, name_)) level_->store(level, std::memory_order_relaxed);
  }
  r.handles.push_back(this);
  Control::attach(this);
}

void Handle::levelIs(int level) {
  if (level < kOff) level = kOff;
  if (level > kMaxLevel) level = kMaxLevel;
  level_->store(level, std::memory_order_relaxed);
  Control::publish(this);
}

void Handle::emit(int level, const char* file, unsigned line, const char* function,
                  std::string text) const {
  Record record{this, level, file, line, function, std::move(text)};
  Sink sink;
  {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    sink = r.sink;
  }
  if (sink) {
    sink(record);
  } else {
    std::string line = format(record) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
}

void levelIs(std::string_view pattern, int level) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  readEnvLocked(r);
  r.patterns.emplace_back(std::string(pattern), level);
  for (Handle* h : r.handles) {
    if (matches(pattern, h->name())) h->levelIs(level);
  }
}

bool configure(std::string_view settings) {
  std::vector<std::pair<std::string, int>> parsed;
  if (!parse(settings, &parsed)) return false;
  for (auto& [pattern, level] : parsed) levelIs(pattern, level);
  return true;
}

bool validSettings(std::string_view settings) {
  std::vector<std::pair<std::string, int>> parsed;
  return parse(settings, &parsed);
}

void poll() {
  if (detail::controlChanged()) detail::applyControl();
}

void detail::applyControl() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  Control::apply(r.handles);
}

std::vector<std::pair<std::string, int>> readLevels(pid_t pid) {
  MappedArea area(pid, false);
  std::vector<std::pair<std::string, int>> out;
  for (std::uint32_t i = 0; i < area.count; ++i) {
    out.emplace_back(area.name(i), entriesOf(area.header)[i].level.load(std::memory_order_relaxed));
  }
  return out;
}

void requestLevels(pid_t pid, std::string_view settings) {
  std::vector<std::pair<std::string, int>> parsed;
  if (!parse(settings, &parsed)) {
    throw RangeException("malformed trace settings '" + std::string(settings) + "'");
  }
  MappedArea area(pid, true);
  for (std::uint32_t i = 0; i < area.count; ++i) {
    const std::string name = area.name(i);
    for (auto& [pattern, level] : parsed) {
      if (matches(pattern, name)) entriesOf(area.header)[i].level.store(level, std::memory_order_relaxed);
    }
  }
  area.header->generation.fetch_add(1, std::memory_order_release);
}

Handle* handle(std::string_view name) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  for (Handle* h : r.handles) {
    if (name == h->name()) return h;
  }
  return nullptr;
}

std::vector<const Handle*> handles() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return {r.handles.begin(), r.handles.end()};
}

void sinkIs(Sink sink) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.sink = std::move(sink);
}

std::string format(const Record& record) {
  return std::string(record.handle->name()) + "[" + std::to_string(record.level) + "] " +
         record.file + ":" + std::to_string(record.line) + " " + record.function + ": " +
         record.text;
}

CaptureSink::CaptureSink() {
  sinkIs([this](const Record& record) {
    std::lock_guard lock(mutex_);
    records_.push_back(record);
  });
}

CaptureSink::~CaptureSink() { sinkIs(nullptr); }

std::vector<Record> CaptureSink::records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::vector<std::string> CaptureSink::texts() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (auto& r : records_) out.push_back(r.text);
  return out;
}

void CaptureSink::clear() {
  std::lock_guard lock(mutex_);
  records_.clear();
}

}  // namespace Cog::Trace
