#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cog/Dir.h"
#include "Cog/Exception.h"

namespace {

struct VrfConfig : Cog::Entity {
  explicit VrfConfig(const Cog::Name& n) : Cog::Entity(n) {}
};
struct VrfStatus : Cog::Entity {
  explicit VrfStatus(const Cog::Name& n) : Cog::Entity(n) {}
};

struct DirWatcher : Cog::Dir::NotifieeConst {
  std::vector<std::string> seen;
  void onEntityPtr(const Cog::Name& name) override {
    const Cog::Dir* dir = notifier();
    seen.push_back(name.str() + (dir->entity(name) ? "+" : "-"));
  }
};

// Registered at load time, as generated newEntityForDir hooks are.
const bool registered = [] {
  Cog::Dir::factoryIs("Test::VrfConfig", [](const Cog::Name& n, Cog::Dir*) {
    return Cog::Ptr<Cog::Entity>(Cog::allocate<VrfConfig>(n));
  });
  Cog::Dir::factoryIs("Test::VrfStatus", [](const Cog::Name& n, Cog::Dir*) {
    return Cog::Ptr<Cog::Entity>(Cog::allocate<VrfStatus>(n));
  });
  return true;
}();

TEST(Dir, EntityPtrChangesNotifyAfterTheChange) {
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("vrf"));
  auto w = Cog::allocate<DirWatcher>();
  w->notifierIs(dir);
  auto red = Cog::allocate<VrfConfig>(Cog::Name("red"));
  dir->entityIs(Cog::Name("red"), red);
  dir->entityIs(Cog::Name("red"), red);  // same pointer: silent
  dir->entityIs(Cog::Name("blue"), Cog::allocate<VrfConfig>(Cog::Name("blue")));
  dir->entityIs(Cog::Name("red"), Cog::allocate<VrfConfig>(Cog::Name("red")));  // replaced
  EXPECT_TRUE(dir->entityDel(Cog::Name("blue")));
  EXPECT_FALSE(dir->entityDel(Cog::Name("blue")));
  dir->entityIs(Cog::Name("red"), nullptr);
  EXPECT_EQ(w->seen, (std::vector<std::string>{"red+", "blue+", "red+", "blue-", "red-"}));
  EXPECT_EQ(dir->entity(Cog::Name("red")), nullptr);
  EXPECT_EQ(dir->entityCount(), 0u);
}

TEST(Dir, IteratesInNameOrderAndAllowsDeletionWhileIterating) {
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("d"));
  for (const char* n : {"vrf2", "default", "vrf10", "mgmt"}) {
    dir->entityNew("Test::VrfConfig", Cog::Name(n));
  }
  std::vector<std::string> names;
  for (auto& [name, entry] : *dir) {
    names.push_back(name.str());
    EXPECT_EQ(entry.entity->name(), name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"default", "mgmt", "vrf10", "vrf2"}));
  // Deleting by the key of the element being visited.
  auto w = Cog::allocate<DirWatcher>();
  w->notifierIs(dir);
  for (auto it = dir->begin(); it != dir->end();) {
    const Cog::Name& key = it->first;
    ++it;
    dir->entityDel(key);
  }
  EXPECT_EQ(w->seen, (std::vector<std::string>{"default-", "mgmt-", "vrf10-", "vrf2-"}));
}

TEST(Dir, FactoriesByTypeNameAndNameInUse) {
  ASSERT_TRUE(registered);
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("d"));
  auto w = Cog::allocate<DirWatcher>();
  w->notifierIs(dir);
  auto a = dir->entityNew("Test::VrfConfig", Cog::Name("red"));
  ASSERT_TRUE(a);
  EXPECT_NE(dynamic_cast<VrfConfig*>(a.ptr()), nullptr);
  EXPECT_EQ(a->name(), Cog::Name("red"));
  // Same type again: the existing entity, no notification.
  EXPECT_EQ(dir->entityNew("Test::VrfConfig", Cog::Name("red")), a);
  EXPECT_THROW(dir->entityNew("Test::VrfStatus", Cog::Name("red")), Cog::NameInUseException);
  // Something stored by hand is not taken for a made entity.
  dir->entityIs(Cog::Name("blue"), Cog::allocate<VrfConfig>(Cog::Name("blue")));
  EXPECT_THROW(dir->entityNew("Test::VrfConfig", Cog::Name("blue")), Cog::NameInUseException);
  EXPECT_THROW(dir->entityNew("Test::Nothing", Cog::Name("green")), Cog::NotSupportedException);
  EXPECT_EQ(dir->entity(Cog::Name("green")), nullptr);
  EXPECT_EQ(w->seen, (std::vector<std::string>{"red+", "blue+"}));
  EXPECT_TRUE(Cog::Dir::hasFactory("Test::VrfStatus"));
  // An entry tells how its entity came there.
  const Cog::Dir::Entry* made = dir->entry(Cog::Name("red"));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->entity, a);
  EXPECT_EQ(made->typeName, Cog::String("Test::VrfConfig"));
  ASSERT_NE(dir->entry(Cog::Name("blue")), nullptr);
  EXPECT_TRUE(dir->entry(Cog::Name("blue"))->typeName.empty());
  EXPECT_EQ(dir->entry(Cog::Name("green")), nullptr);
}

TEST(Dir, ObserverMayDropTheDirectory) {
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("d"));
  struct Dropper : Cog::Dir::NotifieeConst {
    Cog::Ptr<Cog::Dir>* holder = nullptr;
    void onEntityPtr(const Cog::Name&) override { *holder = nullptr; }
  };
  auto d = Cog::allocate<Dropper>();
  d->holder = &dir;
  d->notifierIs(dir);
  auto late = Cog::allocate<DirWatcher>();
  late->notifierIs(dir);
  Cog::Dir* raw = dir.ptr();
  raw->entityIs(Cog::Name("x"), Cog::allocate<VrfConfig>(Cog::Name("x")));
  EXPECT_EQ(dir, nullptr);
  EXPECT_TRUE(late->seen.empty());
  EXPECT_EQ(late->notifier(), nullptr);
}

}  // namespace
