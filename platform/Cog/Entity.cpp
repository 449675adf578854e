#include "Cog/Entity.h"

namespace Cog {

// --- the list -------------------------------------------------------------

void Entity::NotifieeList::add(NotifieeConst* n) {
  n->slot_ = slots.size();
  slots.push_back(n);
}

void Entity::NotifieeList::remove(std::size_t slot) {
  COG_ASSERT(slot < slots.size());
  slots[slot] = nullptr;
  ++holes;
  if (loops == 0) compactIfSparse();
}

// Removal leaves a hole so that running loops keep their positions; holes are
// squeezed out once no loop runs and they make up half the list, which keeps
// both removal and compaction amortised constant time.
void Entity::NotifieeList::compactIfSparse() {
  while (!slots.empty() && slots.back() == nullptr) {
    slots.pop_back();
    --holes;
  }
  if (holes * 2 <= slots.size()) return;
  std::size_t out = 0;
  for (NotifieeConst* n : slots) {
    if (n == nullptr) continue;
    n->slot_ = out;
    slots[out++] = n;
  }
  slots.resize(out);
  holes = 0;
}

Entity::LoopGuard::~LoopGuard() {
  --list_->loops;
  if (--list_->refs == 0) {
    delete list_;
  } else if (list_->loops == 0 && !list_->notifierGone) {
    list_->compactIfSparse();
  }
}

// --- the notifier ---------------------------------------------------------

Entity::~Entity() {
  NotifieeList* list = notifiees_;
  if (list == nullptr) return;
  for (NotifieeConst* n : list->slots) {
    if (n == nullptr) continue;
    n->notifier_ = nullptr;
    n->slot_ = NotifieeConst::kNoSlot;
  }
  list->slots.clear();
  list->holes = 0;
  list->notifierGone = true;
  if (--list->refs == 0) delete list;
}

Entity::NotifieeList* Entity::list() const {
  if (notifiees_ == nullptr) notifiees_ = new NotifieeList;
  return notifiees_;
}

std::size_t Entity::notifieeCount() const {
  return notifiees_ == nullptr ? 0 : notifiees_->slots.size() - notifiees_->holes;
}

// --- the notifiee ---------------------------------------------------------

Entity::NotifieeConst::~NotifieeConst() { unlist(); }

void Entity::NotifieeConst::notifierIs(const Ptr<const PtrInterface>& notifier) {
  const Entity* entity = nullptr;
  if (notifier) {
    entity = dynamic_cast<const Entity*>(notifier.ptr());
    COG_ASSERT(entity != nullptr);
  }
  attach(entity);
}

void Entity::NotifieeConst::attach(const Entity* notifier) {
  if (notifier == notifier_) return;
  unlist();
  notifier_ = notifier;
  if (notifier_ != nullptr && registered_) list();
}

void Entity::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_) return;
  registered_ = registered;
  if (notifier_ == nullptr) return;
  if (registered_) {
    list();
  } else {
    unlist();
  }
}

void Entity::NotifieeConst::list() {
  if (slot_ != kNoSlot) return;
  notifier_->list()->add(this);
}

void Entity::NotifieeConst::unlist() {
  if (slot_ == kNoSlot) return;
  notifier_->notifiees_->remove(slot_);
  slot_ = kNoSlot;
}

void Entity::Notifiee::notifierIs(const Ptr<PtrInterface>& notifier) {
  NotifieeConst::notifierIs(notifier);
}

}  // namespace Cog
