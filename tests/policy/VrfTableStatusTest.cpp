// The VRF-to-FIB-table map: which changes notify, what deletion returns,
// deletion of all keys one by one, making the status in a directory, and
// its mirror through the attribute log key by key.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "Cog/Dir.h"
#include "Cog/NboAttrLogSa.h"
#include "Cog/Type.h"
#include "RoutingLib/VrfTableTypes.h"

using Ale::VrfTableStatus;
using L3::VrfName;
using Memtab::Fib::TableId;

namespace {

struct TableLog : VrfTableStatus::NotifieeConst {
  std::vector<std::string> seen;  // "vrf=table id now", "vrf-" when absent
  void onVrfNameToFibTableId(const VrfName& vrf) override {
    const auto* id = notifier()->vrfNameToFibTableId().find(vrf);
    seen.push_back(vrf.value().str() + (id ? "=" + std::to_string(id->value()) : "-") + "/" +
                   std::to_string(notifier()->vrfNameToFibTableId().size()));
  }
};

using Seen = std::vector<std::string>;

TEST(VrfTableStatus, ChangesNotifyAndDeletionReturnsTheTable) {
  auto s = Ale::vrfTableStatusFactory(Cog::Name("vrfTable"));
  auto log = Cog::allocate<TableLog>();
  log->notifierIs(s);
  s->vrfNameToFibTableIdIs(VrfName("red"), TableId(3));
  s->vrfNameToFibTableIdIs(VrfName("red"), TableId(3));  // same id: silent
  s->vrfNameToFibTableIdIs(VrfName("red"), TableId(TableId::globalTable));
  s->vrfNameToFibTableIdIs(VrfName("blue"), TableId(0));  // table 0 is still an entry
  EXPECT_EQ(s->vrfNameToFibTableId(VrfName("red")), TableId(65535));
  EXPECT_EQ(s->vrfNameToFibTableId(VrfName("green")), TableId(0));

  EXPECT_EQ(s->vrfNameToFibTableIdDel(VrfName("red")), TableId(65535));
  EXPECT_EQ(s->vrfNameToFibTableIdDel(VrfName("red")), TableId(0));  // absent: silent
  EXPECT_EQ(s->vrfNameToFibTableIdDel(VrfName("green")), TableId(0));
  s->vrfNameToFibTableIdNotify(VrfName("blue"));
  s->vrfNameToFibTableIdNotify(VrfName("green"));  // a key need not be present
  EXPECT_EQ(log->seen, (Seen{"red=3/1", "red=65535/1", "blue=0/2", "red-/1", "blue=0/1",
                             "green-/1"}));
  EXPECT_EQ(s->vrfNameToFibTableId().size(), 1u);
}

TEST(VrfTableStatus, DeleteAllNotifiesEachKeyOnceAsItGoes) {
  auto s = Ale::vrfTableStatusFactory(Cog::Name("vrfTable"));
  const std::vector<std::string> vrfs = {"a", "b", "c", "d"};
  for (std::size_t i = 0; i < vrfs.size(); ++i) {
    s->vrfNameToFibTableIdIs(VrfName(vrfs[i].c_str()), TableId(static_cast<std::uint16_t>(i + 1)));
  }
  auto log = Cog::allocate<TableLog>();
  log->notifierIs(s);
  s->vrfNameToFibTableIdDelAll();
  EXPECT_TRUE(s->vrfNameToFibTableId().empty());
  ASSERT_EQ(log->seen.size(), 4u);
  // Each key is gone when it is announced; the keys not yet reached remain.
  std::vector<std::string> keys;
  for (std::size_t i = 0; i < log->seen.size(); ++i) {
    const std::string& r = log->seen[i];
    EXPECT_EQ(r.substr(1), "-/" + std::to_string(3 - i)) << r;
    keys.push_back(r.substr(0, 1));
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, vrfs);
  s->vrfNameToFibTableIdDelAll();  // empty: silent
  EXPECT_EQ(log->seen.size(), 4u);

  // An observer deleting other keys while it hears one does not make them
  // heard twice.
  struct Eraser : VrfTableStatus::Notifiee {
    int calls = 0;
    void onVrfNameToFibTableId(const VrfName&) override {
      ++calls;
      for (const char* v : {"a", "b", "c", "d"}) notifier()->vrfNameToFibTableIdDel(VrfName(v));
    }
  };
  for (std::size_t i = 0; i < vrfs.size(); ++i) s->vrfNameToFibTableIdIs(VrfName(vrfs[i].c_str()), TableId(7));
  log->notifierIs(nullptr);
  auto eraser = Cog::allocate<Eraser>();
  eraser->notifierIs(s);
  s->vrfNameToFibTableIdDelAll();
  EXPECT_EQ(eraser->calls, 4);
  EXPECT_TRUE(s->vrfNameToFibTableId().empty());
}

TEST(VrfTableStatus, MadeInADirectoryByTypeName) {
  const Cog::CogType* t = Cog::typeByName("Ale::VrfTableStatus");
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->name(), "Ale::VrfTableStatus");
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("ale"));
  auto made = dir->entityNew("Ale::VrfTableStatus", Cog::Name("vrfTable"));
  auto* status = dynamic_cast<VrfTableStatus*>(made.ptr());
  ASSERT_NE(status, nullptr);
  EXPECT_EQ(status->name(), Cog::Name("vrfTable"));
  EXPECT_EQ(status->fwkType(), t);
  EXPECT_EQ(dir->entityNew("Ale::VrfTableStatus", Cog::Name("vrfTable")), made);
  EXPECT_EQ(dir->entry(Cog::Name("vrfTable"))->typeName, Cog::String("Ale::VrfTableStatus"));
}

std::map<std::string, std::uint16_t> contents(const VrfTableStatus& s) {
  std::map<std::string, std::uint16_t> out;
  for (const auto& [vrf, id] : s.vrfNameToFibTableId()) out[vrf.value().str()] = id.value();
  return out;
}

TEST(VrfTableStatus, MirroredKeyByKey) {
  auto local = Ale::vrfTableStatusFactory(Cog::Name("vrfTable"));
  auto remote = Ale::vrfTableStatusFactory(Cog::Name("vrfTable"));
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = local->cogNboAttrLogSaIs(0, 0, out);
  auto mirror = remote->cogNboAttrLogSaIs(0, 0, Cog::allocate<Cog::NboAttrLog::Out>());
  auto deliver = [&] {
    sa->capacityIs(1 << 20);
    sa->flowOutIs(true);
    EXPECT_EQ(sa->dirtyKeys(258), 0u);
    mirror->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
    out->clear();
    sa->capacityIs(0);
    EXPECT_EQ(contents(*remote), contents(*local));
  };

  sa->capacityIs(0);  // everything waits as per-key marks
  local->vrfNameToFibTableIdIs(VrfName("red"), TableId(1));
  local->vrfNameToFibTableIdIs(VrfName("red"), TableId(2));  // one mark, the last value
  local->vrfNameToFibTableIdIs(VrfName("blue"), TableId(3));
  local->vrfNameToFibTableIdIs(VrfName("blue"), TableId(3));
  local->vrfNameToFibTableIdDel(VrfName("green"));  // absent: no mark
  EXPECT_EQ(sa->dirtyKeys(258), 2u);
  deliver();
  EXPECT_EQ(contents(*remote), (std::map<std::string, std::uint16_t>{{"blue", 3}, {"red", 2}}));

  local->vrfNameToFibTableIdDel(VrfName("red"));
  local->vrfNameToFibTableIdIs(VrfName("mgmt"), TableId(TableId::noTable));
  deliver();
  local->vrfNameToFibTableIdDelAll();
  EXPECT_EQ(sa->dirtyKeys(258), 2u);
  deliver();
  EXPECT_TRUE(remote->vrfNameToFibTableId().empty());

  // A resynchronisation carries the whole map.
  local->vrfNameToFibTableIdIs(VrfName("red"), TableId(9));
  local->vrfNameToFibTableIdIs(VrfName("blue"), TableId(10));
  auto fresh = Ale::vrfTableStatusFactory(Cog::Name("vrfTable"));
  auto freshSa = fresh->cogNboAttrLogSaIs(0, 0, Cog::allocate<Cog::NboAttrLog::Out>());
  auto full = Cog::allocate<Cog::NboAttrLog::Out>();
  auto resyncSa = local->cogNboAttrLogSaIs(0, 0, full);
  EXPECT_TRUE(resyncSa->resync());
  freshSa->deserialize(Cog::allocate<Cog::NboAttrLog::In>(full->bytes()));
  EXPECT_EQ(contents(*fresh), contents(*local));
}

}  // namespace
