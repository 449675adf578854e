// Cog::Dir: a directory of named entities, the framework's way of publishing
// entities under names (per-VRF configuration directories, status trees).
//
//   - entity(name) looks an entity up (null when absent); entry(name) gives
//     the whole entry (entity and the type it was made under), null when
//     absent; iteration runs in name order over (name, Entry) pairs.
//   - entityIs(name, e) stores `e` under `name` (a null `e` removes it);
//     entityDel(name) removes it. Every change of the pointer under a name
//     (added, replaced, removed) calls onEntityPtr(name) on the directory's
//     Dir::NotifieeConst observers after the change is made; storing the
//     pointer already there notifies nobody.
//   - Entities are made in a directory by type name: a factory registered
//     once per type with Dir::factoryIs(typeName, factory) (generated types
//     register their newEntityForDir hook there) is called by
//     entityNew(typeName, name). entityNew returns the entity already under
//     `name` when it was made by entityNew for the same type; any other
//     occupant makes it throw NameInUseException. An unknown type name throws
//     NotSupportedException.
//
// Factories are process-wide and may be registered during static
// initialisation. Everything else belongs to the directory's reactor thread.
// Directories are reference-counted entities: a directory holds its entities
// through Ptr, and an entity may be in several directories.
#pragma once

#include <cstddef>
#include <functional>

#include "Cog/Entity.h"
#include "Cog/RbTreeMap.h"
#include "Cog/String.h"

namespace Cog {

class Dir : public Entity {
 public:
  using Factory = std::function<Ptr<Entity>(const Name& name, Dir* dir)>;

  struct Entry {
    Ptr<Entity> entity;
    // The type name entityNew made it under; empty when stored by entityIs.
    String typeName;
  };
  using EntryMap = RbTreeMap<Name, Entry>;

  class NotifieeConst : public Entity::NotifieeConst {
   public:
    const Dir* notifier() const { return static_cast<const Dir*>(Entity::NotifieeConst::notifier()); }
    // Only a directory can be the notifier of a directory observer.
    void notifierIs(const Ptr<const Dir>& dir) { Entity::NotifieeConst::notifierIs(dir); }
    // Called after the entity under `name` was added, replaced or removed.
    virtual void onEntityPtr(const Name& /*name*/) {}

   protected:
    NotifieeConst() = default;
  };

  Dir() = default;
  explicit Dir(const Name& name) : Entity(name) {}

  Ptr<Entity> entity(const Name& name) const;
  // The entry under `name`, or null. Valid until the directory next changes.
  const Entry* entry(const Name& name) const { return entries_.find(name); }
  void entityIs(const Name& name, const Ptr<Entity>& entity);
  // Removes the entity under `name`; returns whether there was one.
  bool entityDel(const Name& name);
  std::size_t entityCount() const { return entries_.size(); }

  // The entity-pointer table, in name order.
  const EntryMap& entityPtrs() const { return entries_; }
  EntryMap::const_iterator begin() const { return entries_.begin(); }
  EntryMap::const_iterator end() const { return entries_.end(); }

  static void factoryIs(const String& typeName, Factory factory);
  static bool hasFactory(const String& typeName);
  Ptr<Entity> entityNew(const String& typeName, const Name& name);

 protected:
  ~Dir() override = default;

 private:
  void notifyEntityPtr(const Name& name) const;

  EntryMap entries_;
};

}  // namespace Cog
