// The VRF directory-entry helpers (RoutingLib/VrfHelper.h).
#include "RoutingLib/VrfHelper.h"

#include <sstream>
#include <utility>

#include "Cog/Trace.h"

COG_TRACE_HANDLE("VrfHelper");

namespace L3 {

// ---- VrfDirEntryHelperSm

VrfDirEntryHelperSm::VrfDirEntryHelperSm(const VrfName& vrfName,
                                         const Cog::Ptr<const Cog::Dir>& vrfDir)
    : vrfName_(vrfName) {
  if (vrfDir) newVrfDir(vrfDir);
  // An entry already in the directory is picked up at once.
  handleVrfDirEntry();
}

VrfDirEntryHelperSm::~VrfDirEntryHelperSm() {
  // The watcher may outlive this helper only if someone else holds it; it
  // must not call back into a helper that is gone.
  if (cogVrfDir_) cogVrfDir_->shutdown();
}

Cog::Ptr<VrfDirEntryHelperSm> VrfDirEntryHelperSm::VrfDirEntryHelperSmIs(
    const VrfName& vrfName, const Cog::Ptr<const Cog::Dir>& vrfDir) {
  return Cog::allocate<VrfDirEntryHelperSm>(vrfName, vrfDir);
}

void VrfDirEntryHelperSm::newVrfDir(const Cog::Ptr<const Cog::Dir>& dir) {
  cogVrfDir_ = Cog::allocate<CogVrfDir>(dir, this);
  cogVrfDir_->hasNotificationActiveIs(notificationActive_);
}

Cog::Ptr<const Cog::Dir> VrfDirEntryHelperSm::vrfDir() const {
  return cogVrfDir_ ? cogVrfDir_->dir() : nullptr;
}

void VrfDirEntryHelperSm::vrfDirIs(const Cog::Ptr<const Cog::Dir>& dir) {
  if (dir == vrfDir()) return;
  if (cogVrfDir_) {
    cogVrfDir_->dirIs(dir);
  } else {
    newVrfDir(dir);
  }
  notifyAll<NotifieeConst>([](NotifieeConst& n) { n.onVrfDir(); });
}

Cog::Ptr<const Cog::Dir> VrfDirEntryHelperSm::vrfDirDel() {
  if (!cogVrfDir_) return nullptr;
  Cog::Ptr<CogVrfDir> watcher = std::move(cogVrfDir_);
  Cog::Ptr<const Cog::Dir> dir = watcher->dir();
  watcher->shutdown();
  watcher = nullptr;  // off the directory's list
  notifyAll<NotifieeConst>([](NotifieeConst& n) { n.onVrfDir(); });
  return dir;
}

void VrfDirEntryHelperSm::entityPtrIs(const Cog::Ptr<const Cog::Entity>& entity) {
  if (entity == entityPtr_) return;
  entityPtr_ = entity;  // takes the new reference, drops the old one
  notifyAll<NotifieeConst>([](NotifieeConst& n) { n.onEntityPtr(); });
}

void VrfDirEntryHelperSm::handleVrfDirEntry() {
  COG_TRACE(8, "void L3::VrfDirEntryHelperSm::handleVrfDirEntry()");
  handleVrfDirEntry(Cog::Name(vrfName_.value()));
}

void VrfDirEntryHelperSm::handleVrfDirEntry(const Cog::Name& name) {
  COG_TRACE(8, "void L3::VrfDirEntryHelperSm::handleVrfDirEntry(const Cog::Name&)"
                   << " name " << name.str());
  if (!cogVrfDir_ || !cogVrfDir_->dir()) return;
  // Another VRF's entry changed.
  if (name.str() != vrfName_.value().str()) return;
  // Keep the directory alive while its entity is read and published.
  const Cog::Ptr<const Cog::Dir> dir = cogVrfDir_->dir();
  if (dir->entry(name) == nullptr) {
    entityPtrIs(nullptr);
    return;
  }
  const Cog::Dir::Entry* e = dir->entityPtrs().find(name);
  entityPtrIs(e == nullptr ? nullptr : Cog::Ptr<const Cog::Entity>(e->entity));
}

void VrfDirEntryHelperSm::hasNotificationActiveIs(bool active) {
  notificationActive_ = active;
  if (cogVrfDir_) cogVrfDir_->hasNotificationActiveIs(active);
}

void VrfDirEntryHelperSm::cogDoZombieReactors(bool zombie) {
  Cog::Entity::cogDoZombieReactors(zombie);
}

// ---- VrfDirEntryHelperSm::CogVrfDir

VrfDirEntryHelperSm::CogVrfDir::CogVrfDir(const Cog::Ptr<const Cog::Dir>& dir,
                                          VrfDirEntryHelperSm* owner)
    : owner_(owner) {
  dirIs(dir);
}

void VrfDirEntryHelperSm::CogVrfDir::dirIs(const Cog::Ptr<const Cog::Dir>& dir) {
  dir_ = dir;
  notifierIs(dir);
}

void VrfDirEntryHelperSm::CogVrfDir::shutdown() {
  hasNotificationActiveIs(false);
  owner_ = nullptr;
}

void VrfDirEntryHelperSm::CogVrfDir::onEntityPtr(const Cog::Name& name) {
  if (owner_ == nullptr || owner_->zombie()) return;
  ++owner_->cogFwkActivity_;
  owner_->handleVrfDirEntry(name);
}

// ---- DefaultVrfDirEntryHelperSm

DefaultVrfDirEntryHelperSm::DefaultVrfDirEntryHelperSm(const Cog::Ptr<const Cog::Dir>& vrfDir)
    : VrfDirEntryHelperSm(VrfName(Cog::String("default")), vrfDir) {}

DefaultVrfDirEntryHelperSm::~DefaultVrfDirEntryHelperSm() = default;

Cog::Ptr<DefaultVrfDirEntryHelperSm> DefaultVrfDirEntryHelperSm::DefaultVrfDirEntryHelperSmIs(
    const Cog::Ptr<const Cog::Dir>& vrfDir) {
  Cog::Ptr<DefaultVrfDirEntryHelperSm> helper = Cog::allocate<DefaultVrfDirEntryHelperSm>(vrfDir);
  helper->hasNotificationActiveIs(true);
  return helper;
}

// ---- factories

Cog::Ptr<VrfDirEntryHelperSm> vrfDirEntryHelperSmFactory(const VrfName& vrfName,
                                                         const Cog::Ptr<const Cog::Dir>& vrfDir) {
  return VrfDirEntryHelperSm::VrfDirEntryHelperSmIs(vrfName, vrfDir);
}

Cog::Ptr<DefaultVrfDirEntryHelperSm> defaultVrfDirEntryHelperSmFactory(
    const Cog::Ptr<const Cog::Dir>& vrfDir) {
  return Cog::allocate<DefaultVrfDirEntryHelperSm>(vrfDir);
}

}  // namespace L3
