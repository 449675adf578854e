// Cog::Entity: the base of every entity (reference-counted, optionally named,
// observed by notifiees), and Cog::Entity::NotifieeConst / Notifiee, the
// observers that reactors and attribute-log adapters register on entities.
//
// Notifier side (what generated setters do):
//
//   void FecModeStatus::fecModeIs(FecMode v) {
//     if (v == fecMode_) return;          // an unchanged value notifies nobody
//     fecMode_ = v;
//     notifyAll<FecModeStatus::NotifieeConst>([](auto& n) { n.onFecMode(); });
//   }
//
// notifyAll<N> calls `f` on every notifiee that is on this entity's list, has
// notification active and is an N (checked with dynamic_cast), in the order
// they were registered. A handler may do anything to the list while it runs:
//   - notifiees registered during the loop are not called for this change;
//   - a notifiee taken off the list (moved, unregistered, destroyed) before
//     its turn is not called;
//   - a handler may drop the last reference to the notifier itself: the loop
//     then stops, and the notifiees left are detached as on any destruction.
// An exception thrown by a handler ends the loop and propagates.
//
// Observer side:
//   - A notifiee is attached to at most one notifier at a time, set with
//     notifierIs(ptr) (null detaches). It does not keep its notifier alive:
//     whoever needs the notifier holds a Cog::Ptr to it (a reactor holds its
//     inputs). When the notifier is destroyed, notifier() becomes null.
//   - isRegisteredNotifiee() (default true) says whether the notifiee is to be
//     on its notifier's list; it is on the list exactly when it has a notifier
//     and this is true. A notifiee kept off the list receives nothing.
//   - hasNotificationActive() (default true): a registered but inactive
//     notifiee stays on the list and receives nothing until reactivated.
//   - Destroying a notifiee takes it off its notifier's list.
//   - NotifieeConst may only read its notifier; Notifiee holds it writable.
//
// Zombies: an entity being torn down is marked with zombieIs(true); reactors
// check zombie() at the top of each handler and ignore the notification.
// cogDoZombieReactors(bool) is the hook that does the marking: reactors that
// own nested reactors override it to pass the mark on, calling the base.
//
// Threads: an entity, its list and its notifiees belong to one reactor thread.
// Only the reference counts (Cog::Ptr) may be touched from other threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Cog/Assert.h"
#include "Cog/Ptr.h"
#include "Cog/String.h"

namespace Cog {

// Identifies an attribute of a type in attribute logs and reflection.
using AttributeId = std::uint32_t;

class Entity : public PtrInterface {
 public:
  class NotifieeConst;
  class Notifiee;
  // The attribute-log stream adapter base; defined by the attribute-log
  // runtime (Cog/NboAttrLogSa.h), declared here so generated adapters can
  // name Cog::Entity::CogNboAttrLogSa as their base.
  class CogNboAttrLogSa;

  Entity() = default;
  explicit Entity(const Name& name) : name_(name) {}
  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  const Name& name() const { return name_; }
  // Renames the entity (used when an entity is restored from a backup).
  void nameIs(const Name& name) { name_ = name; }

  bool zombie() const { return zombie_; }
  void zombieIs(bool zombie) { cogDoZombieReactors(zombie); }
  // Marks this entity (and, in overriders, the reactors it owns) as being
  // torn down. Overriders call the base.
  virtual void cogDoZombieReactors(bool zombie) { zombie_ = zombie; }

  // How many notifiees are on the list now.
  std::size_t notifieeCount() const;

 protected:
  ~Entity() override;

  template <class N, class F>
  void notifyAll(F&& f) const;

 private:
  friend class NotifieeConst;

  // Shared between the entity and its running notification loops, so that
  // a loop survives the entity's destruction by one of its handlers.
  struct NotifieeList {
    std::vector<NotifieeConst*> slots;  // nullptr: taken off during a loop
    std::size_t holes = 0;
    std::uint32_t refs = 1;   // the entity's, plus one per running loop
    std::uint32_t loops = 0;  // running notification loops
    bool notifierGone = false;

    void add(NotifieeConst* n);
    void remove(std::size_t slot);
    void compactIfSparse();
  };

  // Holds a list across one notification loop.
  class LoopGuard {
   public:
    explicit LoopGuard(NotifieeList* list) : list_(list) {
      ++list_->refs;
      ++list_->loops;
    }
    ~LoopGuard();
    LoopGuard(const LoopGuard&) = delete;
    LoopGuard& operator=(const LoopGuard&) = delete;

   private:
    NotifieeList* list_;
  };

  NotifieeList* list() const;

  Name name_;
  mutable NotifieeList* notifiees_ = nullptr;  // made on first registration
  bool zombie_ = false;
};

class Entity::NotifieeConst : public PtrInterface {
 public:
  NotifieeConst(const NotifieeConst&) = delete;
  NotifieeConst& operator=(const NotifieeConst&) = delete;

  const Entity* notifier() const { return notifier_; }
  // Moves this notifiee to `notifier`'s list (off any list when null). The
  // notifier must be an Entity.
  void notifierIs(const Ptr<const PtrInterface>& notifier);

  bool isRegisteredNotifiee() const { return registered_; }
  void isRegisteredNotifieeIs(bool registered);

  bool hasNotificationActive() const { return active_; }
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

  // Reflected observers receive each attribute change by its id.
  virtual void onRawAttribute(AttributeId) {}

 protected:
  NotifieeConst() = default;
  ~NotifieeConst() override;

  void attach(const Entity* notifier);

 private:
  friend class Entity;
  static constexpr std::size_t kNoSlot = ~std::size_t(0);

  void list();
  void unlist();

  const Entity* notifier_ = nullptr;
  std::size_t slot_ = kNoSlot;  // index in the notifier's list when on it
  bool registered_ = true;
  bool active_ = true;
};

class Entity::Notifiee : public Entity::NotifieeConst {
 public:
  Entity* notifier() const { return const_cast<Entity*>(NotifieeConst::notifier()); }
  // Moves this notifiee to `notifier`'s list; see NotifieeConst::notifierIs.
  void notifierIs(const Ptr<PtrInterface>& notifier);

 protected:
  Notifiee() = default;
};

template <class N, class F>
void Entity::notifyAll(F&& f) const {
  NotifieeList* list = notifiees_;
  if (list == nullptr || list->slots.empty()) return;
  LoopGuard guard(list);
  // Notifiees added by a handler land past `count` and wait for the next change.
  const std::size_t count = list->slots.size();
  for (std::size_t i = 0; i < count && !list->notifierGone; ++i) {
    NotifieeConst* n = list->slots[i];
    if (n == nullptr || !n->active_) continue;
    if (N* target = dynamic_cast<N*>(n)) f(*target);
  }
}

}  // namespace Cog
