#include "Memtab/Registry.h"

#include <map>
#include <mutex>

namespace Memtab {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, ValueType, std::less<>> types;
};

Registry& registry() {
  static Registry* r = new Registry();  // used by static registrations
  return *r;
}

}  // namespace

void registerValueType(const ValueType& type) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.types[type.name] = type;
}

const ValueType* findValueType(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.types.find(name);
  return it == r.types.end() ? nullptr : &it->second;
}

}  // namespace Memtab
