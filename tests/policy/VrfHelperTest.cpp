// The VRF directory-entry helpers following one VRF's entry through a
// directory's life: pick-up at construction, other VRFs ignored, changes
// notified once, switching and dropping the directory, deactivation and
// zombies, the references they hold, and the default-VRF variant.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cog/Dir.h"
#include "Cog/Trace.h"
#include "RoutingLib/VrfHelper.h"

using L3::VrfDirEntryHelperSm;
using L3::VrfName;

namespace {

struct VrfConfig : Cog::Entity {
  explicit VrfConfig(const Cog::Name& n) : Cog::Entity(n) {}
};

Cog::Ptr<Cog::Entity> config(const char* name) {
  return Cog::allocate<VrfConfig>(Cog::Name(name));
}

struct HelperLog : VrfDirEntryHelperSm::NotifieeConst {
  std::vector<std::string> seen;
  void onVrfDir() override { seen.push_back("vrfDir"); }
  void onEntityPtr() override {
    auto e = notifier()->entityPtr();
    seen.push_back("entityPtr " + (e ? e->name().str() : std::string("null")));
  }
};

using Seen = std::vector<std::string>;

struct Fixture {
  Cog::Ptr<Cog::Dir> dir = Cog::allocate<Cog::Dir>(Cog::Name("vrfConfig"));
  Cog::Ptr<HelperLog> log = Cog::allocate<HelperLog>();
};

TEST(VrfDirEntryHelperSm, FollowsItsVrfsEntry) {
  Fixture f;
  auto red = config("red");
  f.dir->entityIs(Cog::Name("red"), red);
  f.dir->entityIs(Cog::Name("blue"), config("blue"));
  // An entry already there is picked up by construction.
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), f.dir);
  EXPECT_EQ(h->vrfName(), VrfName("red"));
  EXPECT_EQ(h->vrfDir(), f.dir);
  EXPECT_EQ(h->entityPtr(), red);
  f.log->notifierIs(h);

  f.dir->entityIs(Cog::Name("blue"), config("blue2"));  // another VRF: ignored
  f.dir->entityDel(Cog::Name("blue"));
  EXPECT_EQ(h->entityPtr(), red);
  EXPECT_TRUE(f.log->seen.empty());
  EXPECT_EQ(h->cogFwkActivity(), 2u);  // heard, then ignored

  auto red2 = config("red2");
  f.dir->entityIs(Cog::Name("red"), red2);
  f.dir->entityDel(Cog::Name("red"));
  f.dir->entityIs(Cog::Name("red"), red);
  // A notification that finds the entry unchanged notifies nobody.
  h->handleVrfDirEntry();
  h->handleVrfDirEntry(Cog::Name("red"));
  h->entityPtrIs(red);
  EXPECT_EQ(f.log->seen, (Seen{"entityPtr red2", "entityPtr null", "entityPtr red"}));
  // Names compare as strings: "red " is another VRF.
  f.dir->entityIs(Cog::Name("red "), red2);
  EXPECT_EQ(h->entityPtr(), red);
}

TEST(VrfDirEntryHelperSm, HoldsItsEntityAndDirectory) {
  Fixture f;
  Cog::Ptr<Cog::Entity> red = config("red");
  const Cog::Entity* raw = red.ptr();
  f.dir->entityIs(Cog::Name("red"), red);
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), f.dir);
  EXPECT_EQ(raw->references(), 3u);  // ours, the directory's, the helper's
  red = nullptr;
  h->entityPtrIs(nullptr);
  EXPECT_EQ(raw->references(), 1u);
  h->handleVrfDirEntry();
  EXPECT_EQ(raw->references(), 2u);

  // The helper keeps the directory alive; the directory not the helper.
  Cog::Dir* dir = f.dir.ptr();
  const std::uint32_t before = dir->references();
  auto h2 = L3::vrfDirEntryHelperSmFactory(VrfName("blue"), f.dir);
  EXPECT_EQ(dir->references(), before + 1);
  EXPECT_EQ(h2->references(), 1u);
  h2 = nullptr;
  EXPECT_EQ(dir->references(), before);
  EXPECT_EQ(dir->notifieeCount(), 1u);
  f.dir = nullptr;  // the helper's watcher still holds it
  ASSERT_EQ(h->vrfDir().ptr(), dir);
  EXPECT_EQ(h->vrfDir()->entityCount(), 1u);
  h = nullptr;  // the last reference to both
}

TEST(VrfDirEntryHelperSm, WithoutDirectoryUntilGivenOne) {
  Fixture f;
  f.dir->entityIs(Cog::Name("red"), config("red"));
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), nullptr);
  EXPECT_EQ(h->vrfDir(), nullptr);
  EXPECT_EQ(h->entityPtr(), nullptr);
  f.log->notifierIs(h);
  h->handleVrfDirEntry();
  EXPECT_EQ(h->entityPtr(), nullptr);
  EXPECT_EQ(h->vrfDirDel(), nullptr);  // nothing watched: nothing to say
  h->vrfDirIs(nullptr);
  EXPECT_TRUE(f.log->seen.empty());

  // Given a directory, it does not look at once; the next notification of
  // its VRF brings the entry.
  h->vrfDirIs(f.dir);
  h->vrfDirIs(f.dir);
  EXPECT_EQ(h->vrfDir(), f.dir);
  EXPECT_EQ(h->entityPtr(), nullptr);
  auto red2 = config("red2");
  f.dir->entityIs(Cog::Name("red"), red2);
  EXPECT_EQ(h->entityPtr(), red2);
  EXPECT_EQ(f.log->seen, (Seen{"vrfDir", "entityPtr red2"}));
}

TEST(VrfDirEntryHelperSm, SwitchesAndDropsTheDirectory) {
  Fixture f;
  auto other = Cog::allocate<Cog::Dir>(Cog::Name("other"));
  auto red = config("red");
  f.dir->entityIs(Cog::Name("red"), red);
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), f.dir);
  f.log->notifierIs(h);

  // Switched: the old value stays until the new directory speaks.
  h->vrfDirIs(other);
  EXPECT_EQ(h->vrfDir(), other);
  EXPECT_EQ(h->entityPtr(), red);
  f.dir->entityDel(Cog::Name("red"));  // the old directory is no longer heard
  EXPECT_EQ(h->entityPtr(), red);
  auto red2 = config("red2");
  other->entityIs(Cog::Name("red"), red2);
  EXPECT_EQ(h->entityPtr(), red2);
  EXPECT_EQ(f.dir->notifieeCount(), 0u);

  // Switched to none: the watcher stays but reads nothing.
  h->vrfDirIs(nullptr);
  EXPECT_EQ(h->vrfDir(), nullptr);
  h->handleVrfDirEntry();
  EXPECT_EQ(h->entityPtr(), red2);
  h->vrfDirIs(f.dir);

  // Dropped: the directory comes back, the entity stays.
  EXPECT_EQ(h->vrfDirDel(), f.dir);
  EXPECT_EQ(h->vrfDir(), nullptr);
  EXPECT_EQ(h->entityPtr(), red2);
  EXPECT_EQ(f.dir->notifieeCount(), 0u);
  f.dir->entityIs(Cog::Name("red"), red);
  h->handleVrfDirEntry();
  EXPECT_EQ(h->entityPtr(), red2);
  EXPECT_EQ(h->vrfDirDel(), nullptr);
  EXPECT_EQ(f.log->seen, (Seen{"vrfDir", "entityPtr red2", "vrfDir", "vrfDir", "vrfDir"}));

  // Watching again after a drop makes a new watcher.
  h->vrfDirIs(f.dir);
  f.dir->entityIs(Cog::Name("red"), red2);
  EXPECT_EQ(h->entityPtr(), red2);
  f.dir->entityDel(Cog::Name("red"));
  EXPECT_EQ(h->entityPtr(), nullptr);
}

TEST(VrfDirEntryHelperSm, DeactivatedOrZombieIgnoresTheDirectory) {
  Fixture f;
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), f.dir);
  h->hasNotificationActiveIs(false);
  EXPECT_FALSE(h->hasNotificationActive());
  f.dir->entityIs(Cog::Name("red"), config("red"));
  EXPECT_EQ(h->entityPtr(), nullptr);
  // A watcher made while inactive starts inactive.
  h->vrfDirDel();
  h->vrfDirIs(f.dir);
  f.dir->entityIs(Cog::Name("red"), config("red2"));
  EXPECT_EQ(h->entityPtr(), nullptr);
  EXPECT_EQ(h->cogFwkActivity(), 0u);
  h->hasNotificationActiveIs(true);
  f.dir->entityIs(Cog::Name("red"), config("red3"));
  ASSERT_TRUE(h->entityPtr());
  EXPECT_EQ(h->entityPtr()->name(), Cog::Name("red3"));

  h->zombieIs(true);
  f.dir->entityDel(Cog::Name("red"));
  EXPECT_TRUE(h->entityPtr());
  EXPECT_EQ(h->cogFwkActivity(), 1u);
  h->zombieIs(false);
  f.dir->entityIs(Cog::Name("red"), config("red4"));
  EXPECT_EQ(h->entityPtr()->name(), Cog::Name("red4"));
}

TEST(VrfDirEntryHelperSm, ObserverMayDropTheHelper) {
  Fixture f;
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), f.dir);
  struct Dropper : VrfDirEntryHelperSm::NotifieeConst {
    Cog::Ptr<VrfDirEntryHelperSm>* holder = nullptr;
    void onEntityPtr() override { *holder = nullptr; }
  };
  auto d = Cog::allocate<Dropper>();
  d->holder = &h;
  d->notifierIs(h);
  f.dir->entityIs(Cog::Name("red"), config("red"));
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(f.dir->notifieeCount(), 0u);
  f.dir->entityDel(Cog::Name("red"));
}

TEST(DefaultVrfDirEntryHelperSm, FollowsTheDefaultVrf) {
  Fixture f;
  auto def = config("default");
  f.dir->entityIs(Cog::Name("default"), def);
  f.dir->entityIs(Cog::Name("red"), config("red"));
  auto a = L3::defaultVrfDirEntryHelperSmFactory(f.dir);
  auto b = L3::DefaultVrfDirEntryHelperSm::DefaultVrfDirEntryHelperSmIs(f.dir);
  for (const auto& h : {a, b}) {
    EXPECT_EQ(h->vrfName(), VrfName("default"));
    EXPECT_EQ(h->entityPtr(), def);
  }
  EXPECT_TRUE(b->hasNotificationActive());
  Cog::Ptr<VrfDirEntryHelperSm> asBase = a;
  f.log->notifierIs(asBase);
  f.dir->entityDel(Cog::Name("red"));
  f.dir->entityDel(Cog::Name("default"));
  EXPECT_EQ(a->entityPtr(), nullptr);
  EXPECT_EQ(b->entityPtr(), nullptr);
  EXPECT_EQ(f.log->seen, (Seen{"entityPtr null"}));
  auto none = L3::VrfDirEntryHelperSm::VrfDirEntryHelperSmIs(VrfName("default"), nullptr);
  EXPECT_EQ(none->entityPtr(), nullptr);
}

TEST(VrfDirEntryHelperSm, HandlersTraceTheirSignature) {
  Fixture f;
  Cog::Trace::levelIs("VrfHelper", 8);
  Cog::Trace::CaptureSink sink;
  auto h = L3::vrfDirEntryHelperSmFactory(VrfName("red"), f.dir);
  f.dir->entityIs(Cog::Name("blue"), config("blue"));
  Cog::Trace::levelIs("VrfHelper", Cog::Trace::kOff);
  EXPECT_EQ(sink.texts(),
            (std::vector<std::string>{
                "void L3::VrfDirEntryHelperSm::handleVrfDirEntry()",
                "void L3::VrfDirEntryHelperSm::handleVrfDirEntry(const Cog::Name&) name red",
                "void L3::VrfDirEntryHelperSm::handleVrfDirEntry(const Cog::Name&) name blue",
            }));
  for (const Cog::Trace::Record& r : sink.records()) {
    EXPECT_STREQ(r.handle->name(), "VrfHelper");
    EXPECT_EQ(r.level, 8);
  }
}

}  // namespace
