// The leaked-route types: their hashes (two words: VRF id, then one word of
// the prefix), text forms, order, the table image (round trips, and bad
// images refused rather than read), and the status entity's table with its
// notifications and activity counters.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Activity/Counter.h"
#include "Cog/Exception.h"
#include "Cog/GenericIf.h"
#include "RoutingLib/ConnectedRouteLeak.h"

using namespace Routing;
using Vrf::VrfIdMap::VrfId;
using Velnet::IpGenPrefix;

namespace {

IpGenPrefix prefix(const char* text) { return IpGenPrefix(Cog::String(text)); }

std::uint32_t wang(std::uint32_t x) {
  x = ~x + (x << 15);
  x ^= x >> 12;
  x += x << 2;
  x ^= x >> 4;
  x *= 2057;
  x ^= x >> 16;
  return x;
}

Cog::HashValue twoWords(std::uint32_t a, std::uint32_t b) {
  Cog::Hash h;
  h.mix(a);
  h.mix(b);
  return h.result();
}

TEST(RouteLeakTypes, HashIsTheVrfWordThenOnePrefixWord) {
  const IpGenPrefix v4 = prefix("10.1.0.0/16");
  EXPECT_EQ(DestVrfPrefix(VrfId(7), v4).hash(), twoWords(7, wang(0x0A010000u ^ 16)));
  EXPECT_EQ(SourceVrfPrefix(VrfId(7), v4).hash(), DestVrfPrefix(VrfId(7), v4).hash());
  const IpGenPrefix v6 = prefix("2001:db8::/32");
  EXPECT_EQ(SourceVrfPrefix(VrfId(3), v6).hash(), twoWords(3, wang(v6.addr().v6Addr().hash() ^ 32)));
  // Other families contribute a plain 0, not wang(0).
  EXPECT_EQ(DestVrfPrefix().hash(), twoWords(0xFFFFFF, 0));
  EXPECT_NE(wang(0), 0u);

  RouteLeakedToVrf r(DestVrfPrefix(VrfId(7), v4), VrfId(9));
  Cog::Hash h;
  h.mix(r.destVrfPrefix().hash());
  h.mix(std::uint32_t{9});
  EXPECT_EQ(r.hash(), h.result());

  // The length is in the prefix word: the same address at other lengths
  // hashes apart.
  EXPECT_NE(DestVrfPrefix(VrfId(1), prefix("10.0.0.0/8")).hash(),
            DestVrfPrefix(VrfId(1), prefix("10.0.0.0/9")).hash());
  EXPECT_NE(DestVrfPrefix(VrfId(1), prefix("2001::/16")).hash(),
            DestVrfPrefix(VrfId(1), prefix("2001::/17")).hash());
}

TEST(RouteLeakTypes, DefaultsTextAndOrder) {
  const RouteLeakedToVrf absent;
  EXPECT_EQ(absent.sourceVrfId().value(), 0xFFFFFFu);
  EXPECT_EQ(absent.destVrfPrefix().destVrfId().value(), 0xFFFFFFu);
  EXPECT_TRUE(!absent.destVrfPrefix().prefix());

  RouteLeakedToVrf r(DestVrfPrefix(VrfId(7), prefix("10.1.0.0/16")), VrfId(9));
  const std::string text =
      "Value('Routing::RouteLeakedToVrf', ** {'destVrfPrefix': Value('Routing::DestVrfPrefix', ** "
      "{'destVrfId': 7, 'prefix': 10.1.0.0/16}), 'sourceVrfId': 9})";
  EXPECT_EQ(valueToStrep(r).str(), text);
  EXPECT_EQ(valueToStrep(SourceVrfPrefix(VrfId(1), prefix("::/0"))).str(),
            "Value('Routing::SourceVrfPrefix', ** {'sourceVrfId': 1, 'prefix': ::/0})");
  Cog::String s(text);
  auto it = s.begin();
  EXPECT_EQ(RouteLeakedToVrf(it, s.end()), r);
  EXPECT_TRUE(it == s.end());
  Cog::String bad("Value('Routing::DestVrfPrefix', ** {'destVrfId': 4294967296, 'prefix': 1.0.0.0/8})");
  auto b = bad.begin();
  EXPECT_THROW(DestVrfPrefix(b, bad.end()), Cog::RangeException);

  // VRF id first (unsigned), then the prefix.
  EXPECT_LT(DestVrfPrefix(VrfId(1), prefix("99.0.0.0/8")), DestVrfPrefix(VrfId(2), prefix("1.0.0.0/8")));
  EXPECT_LT(DestVrfPrefix(VrfId(2), prefix("1.0.0.0/8")), DestVrfPrefix(VrfId(0x80000000), prefix("0.0.0.0/0")));
  EXPECT_LT(SourceVrfPrefix(VrfId(1), prefix("10.0.0.0/8")), SourceVrfPrefix(VrfId(1), prefix("10.0.0.0/16")));
  EXPECT_LT(RouteLeakedToVrf(DestVrfPrefix(VrfId(1), prefix("1.0.0.0/8")), VrfId(9)),
            RouteLeakedToVrf(DestVrfPrefix(VrfId(2), prefix("1.0.0.0/8")), VrfId(0)));
  EXPECT_LT(RouteLeakedToVrf(DestVrfPrefix(VrfId(1), prefix("1.0.0.0/8")), VrfId(1)),
            RouteLeakedToVrf(DestVrfPrefix(VrfId(1), prefix("1.0.0.0/8")), VrfId(2)));
}

std::vector<std::uint8_t> image(const RouteLeakedToVrf& r) {
  std::vector<std::uint8_t> out(r.serializeLen());
  r.serialize(out.data());
  return out;
}

TEST(RouteLeakTypes, ImageRoundTripsAndRefusesWhatItCannotRead) {
  for (const RouteLeakedToVrf& r :
       {RouteLeakedToVrf(), RouteLeakedToVrf(DestVrfPrefix(VrfId(1), prefix("10.9.8.0/24")), VrfId(2)),
        RouteLeakedToVrf(DestVrfPrefix(VrfId(0), prefix("2001:db8:1::/48")), VrfId(0xFFFFFFFF)),
        RouteLeakedToVrf(DestVrfPrefix(VrfId(5), prefix("0.0.0.0/0")), VrfId(6))}) {
    auto bytes = image(r);
    ASSERT_EQ(bytes.size(), 32u);
    ASSERT_EQ(RouteLeakedToVrf::deserializeLen(bytes.data(), bytes.size()), 32u);
    RouteLeakedToVrf back;
    back.deserialize(bytes.data(), bytes.size());
    EXPECT_EQ(back, r);
  }
  auto good = image(RouteLeakedToVrf(DestVrfPrefix(VrfId(1), prefix("10.9.8.0/24")), VrfId(2)));
  EXPECT_EQ(RouteLeakedToVrf::deserializeLen(good.data(), 31), 0u);
  EXPECT_EQ(RouteLeakedToVrf::deserializeLen(good.data(), 33), 0u);
  auto badFamily = good;
  badFamily[7] = 3;
  EXPECT_EQ(RouteLeakedToVrf::deserializeLen(badFamily.data(), 32), 0u);
  auto badLength = good;
  badLength[27] = 33;
  EXPECT_EQ(RouteLeakedToVrf::deserializeLen(badLength.data(), 32), 0u);

  // Any 32 bytes either are refused or read as a value whose image reads
  // back to it (host bits are masked, so the bytes may differ).
  std::mt19937 rng(5);
  int read = 0;
  for (int i = 0; i < 20000; ++i) {
    auto bytes = good;
    for (int k = 0; k < 3; ++k) bytes[rng() % 32] = static_cast<std::uint8_t>(rng());
    if (RouteLeakedToVrf::deserializeLen(bytes.data(), 32) == 0) continue;
    ++read;
    RouteLeakedToVrf v;
    v.deserialize(bytes.data(), 32);
    auto again = image(v);
    RouteLeakedToVrf w;
    w.deserialize(again.data(), 32);
    EXPECT_EQ(v, w);
  }
  EXPECT_GT(read, 1000);
}

struct LeakWatcher : ConnectedRouteLeakStatus::NotifieeConst {
  std::vector<DestVrfPrefix> keys;
  int whole = 0;
  void onLeakedRoute(const DestVrfPrefix& key) override { keys.push_back(key); }
  void onLeakedRoute() override { ++whole; }
};

TEST(ConnectedRouteLeakStatus, TableNotifiesAndCounts) {
  auto& counters = Activity::CounterWriter::process();
  const std::uint64_t is0 = counters.counter("leakedRouteIs").value();
  const std::uint64_t del0 = counters.counter("leakedRouteDel").value();
  const std::uint64_t notify0 = counters.counter("leakedRouteNotify").value();

  auto status = connectedRouteLeakStatusFactory(Cog::Name("status"));
  auto w = Cog::allocate<LeakWatcher>();
  w->notifierIs(status);
  const DestVrfPrefix k1(VrfId(1), prefix("10.0.0.0/8"));
  const DestVrfPrefix k2(VrfId(2), prefix("10.0.0.0/8"));
  EXPECT_EQ(status->leakedRoute(k1), RouteLeakedToVrf());
  status->leakedRouteIs(RouteLeakedToVrf(k1, VrfId(5)));
  status->leakedRouteIs(RouteLeakedToVrf(k2, VrfId(5)));
  status->leakedRouteIs(RouteLeakedToVrf(k1, VrfId(6)));
  EXPECT_EQ(status->leakedRoute(k1).sourceVrfId(), VrfId(6));
  RouteLeakedToVrf* edit = status->leakedRouteEdit(k2);
  ASSERT_NE(edit, nullptr);
  edit->sourceVrfIdIs(VrfId(8));
  status->leakedRouteCommit(edit);
  EXPECT_EQ(status->leakedRoute(k2).sourceVrfId(), VrfId(8));
  status->leakedRouteDel(k1);
  EXPECT_EQ(status->leakedRoute(k1), RouteLeakedToVrf());
  EXPECT_EQ(w->keys, (std::vector<DestVrfPrefix>{k1, k2, k1, k2, k1}));
  EXPECT_EQ(status->leakedRouteControl(), Memtab::MountStatus::mounted);

  EXPECT_EQ(counters.counter("leakedRouteIs").value() - is0, 3u);
  EXPECT_EQ(counters.counter("leakedRouteDel").value() - del0, 1u);
  EXPECT_EQ(counters.counter("leakedRouteNotify").value() - notify0, 5u);

  status->nameIsFromBackup(Cog::Name("restored"));
  EXPECT_EQ(status->name().str(), "restored");

  // A reader is read-only.
  auto reader = connectedRouteLeakStatusFactory(Cog::Name("r"));
  reader->leakedRouteReaderIs("routeleak-test-absent-" + std::to_string(getpid()));
  EXPECT_THROW(reader->leakedRouteIs(RouteLeakedToVrf(k1, VrfId(1))), Cog::ReadOnlyException);
  EXPECT_EQ(reader->leakedRouteControl(), Memtab::MountStatus::unmounted);
}

struct DestWatcher : RouteLeakedFromVrf::NotifieeConst {
  std::vector<VrfId> ids;
  void onDestVrfId(const VrfId& id) override { ids.push_back(id); }
};

TEST(RouteLeakedFromVrf, NotifiesOnlyRealChanges) {
  const SourceVrfPrefix key(VrfId(3), prefix("192.168.0.0/16"));
  auto local = connectedRouteLeakLocalStatusFactory();
  auto entry = local->leakedRouteBySourceVrfIs(key);
  EXPECT_EQ(local->leakedRouteBySourceVrfIs(key), entry);
  EXPECT_EQ(entry->sourceVrfPrefix(), key);
  auto w = Cog::allocate<DestWatcher>();
  w->notifierIs(entry);
  entry->destVrfIdIs(VrfId(1));
  entry->destVrfIdIs(VrfId(1));
  entry->destVrfIdIs(VrfId(2));
  entry->destVrfIdDel(VrfId(9));
  entry->destVrfIdDel(VrfId(1));
  EXPECT_EQ(w->ids, (std::vector<VrfId>{VrfId(1), VrfId(2), VrfId(1)}));
  EXPECT_EQ(entry->destVrfId().size(), 1u);
  // Emptied, the entry stays until its user removes it.
  entry->destVrfIdDelAll();
  EXPECT_EQ(local->leakedRouteBySourceVrf(key), entry);
  local->leakedRouteBySourceVrfDel(key);
  EXPECT_EQ(local->leakedRouteBySourceVrf(key), nullptr);
}

TEST(RouteLeakTypes, ReflectionNamesTheMembers) {
  auto status = connectedRouteLeakStatusFactory(Cog::Name("s"));
  status->leakedRouteIs(RouteLeakedToVrf(DestVrfPrefix(VrfId(1), prefix("10.0.0.0/8")), VrfId(2)));
  auto g = Cog::genericIfOf(status);
  auto it = g->iterator("leakedRoute");
  ASSERT_TRUE(it->iterNonnull());
  EXPECT_EQ(it->iterKey()->strRep().str(),
            "Value('Routing::DestVrfPrefix', ** {'destVrfId': 1, 'prefix': 10.0.0.0/8})");
}

}  // namespace
