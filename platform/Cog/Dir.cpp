#include "Cog/Dir.h"

#include <map>
#include <mutex>
#include <utility>

#include "Cog/Exception.h"

namespace Cog {
namespace {

struct FactoryRegistry {
  std::mutex mutex;
  std::map<String, Dir::Factory> factories;
};

FactoryRegistry& registry() {
  static FactoryRegistry* r = new FactoryRegistry;  // outlives static destructors
  return *r;
}

}  // namespace

Ptr<Entity> Dir::entity(const Name& name) const {
  const Entry* e = entries_.find(name);
  return e == nullptr ? Ptr<Entity>() : e->entity;
}

void Dir::entityIs(const Name& name, const Ptr<Entity>& entity) {
  if (!entity) {
    entityDel(name);
    return;
  }
  Ptr<Entity> old;  // released after the observers ran
  if (Entry* e = entries_.find(name)) {
    if (e->entity == entity) return;
    old = std::exchange(e->entity, entity);
    e->typeName = String();
  } else {
    entries_.insert(name, Entry{entity, String()});
  }
  notifyEntityPtr(name);
}

bool Dir::entityDel(const Name& nameRef) {
  auto it = entries_.findIterator(nameRef);
  if (it == entries_.end()) return false;
  // `nameRef` may be the key being erased (a caller iterating the directory).
  const Name name = nameRef;
  Ptr<Entity> old = std::move(it->second.entity);
  entries_.erase(it);
  notifyEntityPtr(name);
  return true;
}

void Dir::factoryIs(const String& typeName, Factory factory) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  if (factory) {
    r.factories[typeName] = std::move(factory);
  } else {
    r.factories.erase(typeName);
  }
}

bool Dir::hasFactory(const String& typeName) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return r.factories.count(typeName) != 0;
}

Ptr<Entity> Dir::entityNew(const String& typeName, const Name& name) {
  if (const Entry* e = entries_.find(name)) {
    if (e->typeName == typeName) return e->entity;
    throw NameInUseException("Dir '" + this->name().str() + "': name '" + name.str() +
                             "' holds an entity of another type than '" + typeName.str() +
                             "'");
  }
  Factory factory;
  {
    auto& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.factories.find(typeName);
    if (it == r.factories.end()) {
      throw NotSupportedException("Dir::entityNew: no factory for type '" + typeName.str() + "'");
    }
    factory = it->second;
  }
  Ptr<Entity> made = factory(name, this);
  if (!made) {
    throw NotSupportedException("Dir::entityNew: the factory for type '" + typeName.str() +
                                "' made no entity");
  }
  // The factory may have stored something under the name itself.
  if (Entry* e = entries_.find(name)) {
    if (e->entity != made) {
      throw NameInUseException("Dir '" + this->name().str() + "': name '" + name.str() +
                               "' was taken while making a '" + typeName.str() + "'");
    }
    e->typeName = typeName;
    return made;
  }
  entries_.insert(name, Entry{made, typeName});
  notifyEntityPtr(name);
  return made;
}

void Dir::notifyEntityPtr(const Name& name) const {
  notifyAll<NotifieeConst>([&name](NotifieeConst& n) { n.onEntityPtr(name); });
}

}  // namespace Cog
