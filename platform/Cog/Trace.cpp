#include "Cog/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <map>

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

}  // namespace

Handle::Handle(const char* name, std::atomic<int>* level)
    : name_(name), level_(level ? level : &ownLevel_) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  readEnvLocked(r);
  for (auto& [pattern, level] : r.patterns) {
    if (matches(pattern, name_)) level_->store(level, std::memory_order_relaxed);
  }
  r.handles.push_back(this);
}

void Handle::levelIs(int level) {
  if (level < kOff) level = kOff;
  if (level > kMaxLevel) level = kMaxLevel;
  level_->store(level, std::memory_order_relaxed);
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
