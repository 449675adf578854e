// L3::VrfDirEntryHelperSm: a stable handle on one VRF's entry in a directory
// (Cog::Dir) whose entries are named by VRF. It watches the directory and
// keeps entityPtr() at the entity stored under vrfName(), or null, as that
// entry comes and goes. L3::DefaultVrfDirEntryHelperSm is the same machine
// for the VRF "default". Handlers: policy/VrfHelper.cpp.
//
//   auto helper = L3::vrfDirEntryHelperSmFactory(L3::VrfName("red"), vrfConfigDir);
//   helper->entityPtr();             // the entity under "red" now, or null
//   watcher->notifierIs(helper);     // a NotifieeConst hears onEntityPtr()
//
// What a caller must know:
//   - Construction picks up an entry already present: entityPtr() is set when
//     the factory returns.
//   - The helper follows the directory's onEntityPtr(name) notifications;
//     those about other names are ignored. entityPtrIs notifies onEntityPtr()
//     only on an actual change of the pointer.
//   - vrfDirIs(dir) switches the watched directory and notifies onVrfDir(),
//     but does not re-read the entry: entityPtr() follows the new directory
//     from its next notification on (call handleVrfDirEntry() to re-read at
//     once).
//   - vrfDirDel() stops watching, notifies onVrfDir() and returns the
//     directory that was watched; entityPtr() keeps its last value.
//   - The helper holds its entity and, through its watcher (CogVrfDir), its
//     directory; the directory does not hold the helper.
//   - hasNotificationActiveIs(false) and zombieIs(true) make it deaf to the
//     directory; handlers run on the thread that delivers the directory's
//     notifications, without locking.
#pragma once

#include <cstdint>

#include "Cog/Dir.h"
#include "Cog/Entity.h"
#include "Cog/Ptr.h"
#include "RoutingLib/VrfName.h"

namespace L3 {

class VrfDirEntryHelperSm : public Cog::Entity {
 public:
  // Observers of the helper.
  class NotifieeConst : public Cog::Entity::NotifieeConst {
   public:
    const VrfDirEntryHelperSm* notifier() const {
      return static_cast<const VrfDirEntryHelperSm*>(Cog::Entity::NotifieeConst::notifier());
    }
    virtual void onVrfDir() {}
    virtual void onEntityPtr() {}

   protected:
    NotifieeConst() = default;
  };
  // Watches the directory for the helper; exists while a directory is set.
  class CogVrfDir;

  VrfDirEntryHelperSm(const VrfName& vrfName, const Cog::Ptr<const Cog::Dir>& vrfDir);
  static Cog::Ptr<VrfDirEntryHelperSm> VrfDirEntryHelperSmIs(const VrfName& vrfName,
                                                             const Cog::Ptr<const Cog::Dir>& vrfDir);

  const VrfName& vrfName() const { return vrfName_; }

  // The watched directory, or null.
  Cog::Ptr<const Cog::Dir> vrfDir() const;
  // Watches `dir` from now on (a null `dir` watches nothing); notifies
  // onVrfDir() unless `dir` is the one watched already.
  void vrfDirIs(const Cog::Ptr<const Cog::Dir>& dir);
  // Stops watching; returns the directory that was watched (null, and no
  // notification, when there was none).
  Cog::Ptr<const Cog::Dir> vrfDirDel();

  // The entity under vrfName() in the watched directory when last looked at.
  Cog::Ptr<const Cog::Entity> entityPtr() const { return entityPtr_; }
  // Notifies onEntityPtr() when `entity` differs from the one held.
  void entityPtrIs(const Cog::Ptr<const Cog::Entity>& entity);

  // Re-reads the entry of vrfName() in the watched directory.
  void handleVrfDirEntry();
  // Re-reads the entry when `name` is vrfName(); ignores other names.
  void handleVrfDirEntry(const Cog::Name& name);

  // Passed on to the watcher, and to a watcher made later.
  void hasNotificationActiveIs(bool active);
  bool hasNotificationActive() const { return notificationActive_; }
  void cogDoZombieReactors(bool zombie) override;
  // Directory notifications the watcher handed to this machine.
  std::uint64_t cogFwkActivity() const { return cogFwkActivity_; }

 protected:
  ~VrfDirEntryHelperSm() override;

 private:
  friend class CogVrfDir;
  void newVrfDir(const Cog::Ptr<const Cog::Dir>& dir);

  const VrfName vrfName_;
  Cog::Ptr<CogVrfDir> cogVrfDir_;
  Cog::Ptr<const Cog::Entity> entityPtr_;
  bool notificationActive_ = true;
  std::uint64_t cogFwkActivity_ = 0;
};

class VrfDirEntryHelperSm::CogVrfDir : public Cog::Dir::NotifieeConst {
 public:
  CogVrfDir(const Cog::Ptr<const Cog::Dir>& dir, VrfDirEntryHelperSm* owner);

  const Cog::Ptr<const Cog::Dir>& dir() const { return dir_; }
  // Moves to `dir` (off any list when null).
  void dirIs(const Cog::Ptr<const Cog::Dir>& dir);
  VrfDirEntryHelperSm* owner() const { return owner_; }
  // Stops reacting and forgets the owner; the directory stays held.
  void shutdown();

  void onEntityPtr(const Cog::Name& name) override;

 private:
  Cog::Ptr<const Cog::Dir> dir_;
  VrfDirEntryHelperSm* owner_;
};

// The helper for the VRF "default".
class DefaultVrfDirEntryHelperSm : public VrfDirEntryHelperSm {
 public:
  explicit DefaultVrfDirEntryHelperSm(const Cog::Ptr<const Cog::Dir>& vrfDir);
  // Made with its notification switched on.
  static Cog::Ptr<DefaultVrfDirEntryHelperSm> DefaultVrfDirEntryHelperSmIs(
      const Cog::Ptr<const Cog::Dir>& vrfDir);

 protected:
  ~DefaultVrfDirEntryHelperSm() override;
};

Cog::Ptr<VrfDirEntryHelperSm> vrfDirEntryHelperSmFactory(const VrfName& vrfName,
                                                         const Cog::Ptr<const Cog::Dir>& vrfDir);
Cog::Ptr<DefaultVrfDirEntryHelperSm> defaultVrfDirEntryHelperSmFactory(
    const Cog::Ptr<const Cog::Dir>& vrfDir);

}  // namespace L3
