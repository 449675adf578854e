#include "Memtab/GenericReader.h"

#include <map>
#include <mutex>

namespace Memtab {

namespace {

struct Registration {
  std::string cogTypeName;
  GenericReaderFactory factory;
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, Registration, std::less<>> bySegmentType;
  std::map<std::string, Registration, std::less<>> byCogType;
};

Registry& registry() {
  static Registry* r = new Registry();  // used by static registrations
  return *r;
}

}  // namespace

void registerGenericReader(const std::string& segmentTypeName, const std::string& cogTypeName,
                           GenericReaderFactory factory) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.bySegmentType[segmentTypeName] = Registration{cogTypeName, factory};
  r.byCogType[cogTypeName] = Registration{cogTypeName, factory};
}

std::string registeredTypeName(std::string_view segmentTypeName) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.bySegmentType.find(segmentTypeName);
  return it == r.bySegmentType.end() ? std::string(segmentTypeName) : it->second.cogTypeName;
}

std::unique_ptr<GenericReader> openGenericReader(std::string_view name, std::string_view valueType,
                                                 const Options& options) {
  validateTableName(name);
  std::string why;
  auto view = Shm::View::inspect(name, &why);
  if (!view && !why.empty()) {
    throw Cog::RangeException("memtab table " + std::string(name) + " is damaged: " + why);
  }
  Registry& r = registry();
  Registration found;
  {
    std::lock_guard lock(r.mutex);
    if (view) {
      const std::string recorded = view->typeName();
      auto it = r.bySegmentType.find(recorded);
      if (it == r.bySegmentType.end()) {
        throw Cog::NotSupportedException("memtab table " + std::string(name) + " holds " +
                                         recorded + ", which has no registered reader");
      }
      found = it->second;
      if (!valueType.empty() && found.cogTypeName != valueType) {
        throw Cog::RangeException("memtab table " + std::string(name) + " holds " +
                                  found.cogTypeName + ", not " + std::string(valueType));
      }
    } else {
      if (valueType.empty()) {
        throw Cog::RangeException("no memtab table named '" + std::string(name) + "'");
      }
      auto it = r.byCogType.find(valueType);
      if (it == r.byCogType.end()) {
        throw Cog::NotSupportedException(std::string(valueType) +
                                         " has no registered memtab reader");
      }
      found = it->second;
    }
  }
  view.reset();
  return found.factory(std::string(name), options);
}

}  // namespace Memtab
