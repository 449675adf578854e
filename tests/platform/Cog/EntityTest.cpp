#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Cog/Entity.h"

namespace {

// A small entity in the shape the generator emits: one scalar attribute whose
// setter notifies, and its notifiee class.
class Status : public Cog::Entity {
 public:
  class NotifieeConst : public Cog::Entity::NotifieeConst {
   public:
    virtual void onLevel() {}
  };
  class Other : public Cog::Entity::NotifieeConst {
   public:
    virtual void onLevel() { ADD_FAILURE() << "wrong notifiee type called"; }
  };

  explicit Status(const Cog::Name& name) : Cog::Entity(name) {}
  int level() const { return level_; }
  void levelIs(int v) {
    if (v == level_) return;
    level_ = v;
    notifyAll<NotifieeConst>([](NotifieeConst& n) { n.onLevel(); });
  }

 private:
  int level_ = 0;
};

// Records its calls into a shared log and runs an optional action.
class Watcher : public Status::NotifieeConst {
 public:
  Watcher(std::string tag, std::vector<std::string>* log) : tag(std::move(tag)), log(log) {}
  void onLevel() override {
    log->push_back(tag);
    if (action) action();
  }
  std::string tag;
  std::vector<std::string>* log;
  std::function<void()> action;
};

struct Fixture : ::testing::Test {
  Cog::Ptr<Status> status = Cog::allocate<Status>(Cog::Name("s"));
  std::vector<std::string> log;
  Cog::Ptr<Watcher> watch(const std::string& tag) {
    auto w = Cog::allocate<Watcher>(tag, &log);
    w->notifierIs(status);
    return w;
  }
};

TEST_F(Fixture, NotifiesRegisteredActiveNotifieesInOrderOnlyOnChange) {
  auto a = watch("a");
  auto b = watch("b");
  auto other = Cog::allocate<Status::Other>();
  other->notifierIs(status);
  EXPECT_EQ(status->notifieeCount(), 3u);
  EXPECT_EQ(a->notifier(), status.ptr());
  status->levelIs(1);
  status->levelIs(1);  // unchanged: nobody hears it
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));

  log.clear();
  a->hasNotificationActiveIs(false);
  status->levelIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"b"}));
  EXPECT_EQ(status->notifieeCount(), 3u);  // inactive stays on the list

  log.clear();
  a->hasNotificationActiveIs(true);
  b->isRegisteredNotifieeIs(false);
  EXPECT_EQ(status->notifieeCount(), 2u);
  EXPECT_EQ(b->notifier(), status.ptr());
  status->levelIs(3);
  b->isRegisteredNotifieeIs(true);  // back on, at the end
  status->levelIs(4);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "a", "b"}));
}

TEST_F(Fixture, MovingBetweenNotifiers) {
  auto second = Cog::allocate<Status>(Cog::Name("t"));
  auto a = watch("a");
  a->notifierIs(second);
  EXPECT_EQ(status->notifieeCount(), 0u);
  EXPECT_EQ(second->notifieeCount(), 1u);
  status->levelIs(1);
  second->levelIs(1);
  a->notifierIs(nullptr);
  EXPECT_EQ(second->notifieeCount(), 0u);
  EXPECT_EQ(a->notifier(), nullptr);
  second->levelIs(2);
  // An unregistered notifiee given a notifier stays off its list.
  a->isRegisteredNotifieeIs(false);
  a->notifierIs(status);
  EXPECT_EQ(status->notifieeCount(), 0u);
  status->levelIs(5);
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
}

TEST_F(Fixture, HandlersMayRemoveThemselvesAndOthersAndAddNew) {
  auto a = watch("a");
  auto b = watch("b");
  auto c = watch("c");
  Cog::Ptr<Watcher> late;
  a->action = [&] {
    a->notifierIs(nullptr);  // itself
    c->isRegisteredNotifieeIs(false);  // one not yet called
    late = watch("late");  // added during the loop: not called for this change
  };
  status->levelIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  log.clear();
  c->isRegisteredNotifieeIs(true);
  status->levelIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"b", "late", "c"}));
  EXPECT_EQ(status->notifieeCount(), 3u);
}

TEST_F(Fixture, HandlerDestroyingANotifieeStopsItsCalls) {
  auto a = watch("a");
  auto b = watch("b");
  Watcher* raw = b.ptr();
  a->action = [&] { b = nullptr; };  // last reference: b is destroyed
  status->levelIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
  EXPECT_EQ(status->notifieeCount(), 1u);
  (void)raw;
}

TEST_F(Fixture, HandlerDroppingTheNotifierEndsTheLoopAndDetachesTheRest) {
  auto a = watch("a");
  auto b = watch("b");
  auto c = watch("c");
  a->action = [&] { status = nullptr; };
  Status* raw = status.ptr();
  raw->levelIs(1);  // the entity dies inside its own setter
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
  EXPECT_EQ(a->notifier(), nullptr);
  EXPECT_EQ(b->notifier(), nullptr);
  EXPECT_EQ(c->notifier(), nullptr);
  EXPECT_TRUE(b->isRegisteredNotifiee());
}

TEST_F(Fixture, NestedNotificationFromAHandler) {
  auto a = watch("a");
  auto b = watch("b");
  a->action = [&] {
    if (status->level() < 3) status->levelIs(status->level() + 1);
  };
  b->action = [&] { b->notifierIs(nullptr); };
  status->levelIs(1);
  // a(1) -> a(2) -> a(3), b(3) leaves; the outer loops skip it.
  EXPECT_EQ(log, (std::vector<std::string>{"a", "a", "a", "b"}));
  EXPECT_EQ(status->notifieeCount(), 1u);
}

TEST_F(Fixture, NotifierDestroyedFirstThenNotifieeDestroyedFirst) {
  auto a = watch("a");
  auto b = watch("b");
  status = nullptr;
  EXPECT_EQ(a->notifier(), nullptr);
  a = nullptr;  // destroying a detached notifiee touches nothing
  status = Cog::allocate<Status>(Cog::Name("s2"));
  b->notifierIs(status);
  auto c = watch("c");
  b = nullptr;
  EXPECT_EQ(status->notifieeCount(), 1u);
  status->levelIs(7);
  EXPECT_EQ(log, (std::vector<std::string>{"c"}));
}

// Many registrations and removals in arbitrary order keep the list exact
// (the holes left by removal are squeezed out as it goes).
TEST_F(Fixture, ChurnKeepsTheListExact) {
  std::vector<Cog::Ptr<Watcher>> ws;
  for (int i = 0; i < 200; ++i) ws.push_back(watch(std::to_string(i)));
  for (int i = 0; i < 200; i += 3) ws[i]->notifierIs(nullptr);
  for (int i = 1; i < 200; i += 3) ws[i] = nullptr;
  std::vector<std::string> expected;
  for (int i = 2; i < 200; i += 3) expected.push_back(std::to_string(i));
  EXPECT_EQ(status->notifieeCount(), expected.size());
  status->levelIs(1);
  EXPECT_EQ(log, expected);
  for (int i = 0; i < 200; i += 3) ws[i]->notifierIs(status);
  EXPECT_EQ(status->notifieeCount(), expected.size() + 67);
}

TEST(Entity, NameAndZombieMarking) {
  struct Reactor : Cog::Entity {
    Reactor() : Cog::Entity(Cog::Name("sm")) {}
    Cog::Ptr<Reactor> child;
    void cogDoZombieReactors(bool z) override {
      Cog::Entity::cogDoZombieReactors(z);
      if (child) child->zombieIs(z);
    }
  };
  auto r = Cog::allocate<Reactor>();
  r->child = Cog::allocate<Reactor>();
  EXPECT_EQ(r->name(), Cog::Name("sm"));
  r->nameIs(Cog::Name("restored"));
  EXPECT_EQ(r->name(), Cog::Name("restored"));
  EXPECT_FALSE(r->zombie());
  r->zombieIs(true);
  EXPECT_TRUE(r->zombie());
  EXPECT_TRUE(r->child->zombie());
  r->zombieIs(false);
  EXPECT_FALSE(r->child->zombie());
}

TEST(EntityDeathTest, NotifierMustBeAnEntity) {
  struct Plain : Cog::PtrInterface {};
  struct N : Cog::Entity::NotifieeConst {};
  auto n = Cog::allocate<N>();
  EXPECT_DEATH(n->notifierIs(Cog::allocate<Plain>()), "entity != nullptr");
}

TEST(Entity, RawAttributeObserversAndWritableNotifiee) {
  struct Raw : Cog::Entity::Notifiee {
    std::vector<Cog::AttributeId> ids;
    void onRawAttribute(Cog::AttributeId id) override { ids.push_back(id); }
  };
  struct Emitter : Cog::Entity {
    void emit(Cog::AttributeId id) {
      notifyAll<Cog::Entity::NotifieeConst>([id](auto& n) { n.onRawAttribute(id); });
    }
  };
  auto e = Cog::allocate<Emitter>();
  auto raw = Cog::allocate<Raw>();
  raw->notifierIs(e);
  Cog::Entity* writable = raw->notifier();
  EXPECT_EQ(writable, e.ptr());
  e->emit(258);
  e->emit(386);
  EXPECT_EQ(raw->ids, (std::vector<Cog::AttributeId>{258, 386}));
}

}  // namespace
