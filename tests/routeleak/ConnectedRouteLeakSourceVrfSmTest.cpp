// The reverse-index reactor on a process-local table: construction and its
// sweep, adds and deletes with their traces and Tracelet records, the
// private "Previous" copy, ignored deletes, the source-VRF change asymmetry,
// zombies, replacing the input, and a random history checked against the
// final table.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Cog/GenericIf.h"
#include "Cog/Trace.h"
#include "RoutingLib/ConnectedRouteLeakSourceVrfSm.h"
#include "Tracelet/Tracelet.h"

using namespace Routing;
using Vrf::VrfIdMap::VrfId;
using Velnet::IpGenPrefix;

namespace {

IpGenPrefix prefix(const char* text) { return IpGenPrefix(Cog::String(text)); }

RouteLeakedToVrf leak(std::uint32_t dest, const char* p, std::uint32_t source) {
  return RouteLeakedToVrf(DestVrfPrefix(VrfId(dest), prefix(p)), VrfId(source));
}

using Index = std::map<std::pair<std::uint32_t, std::string>, std::set<std::uint32_t>>;

Index indexOf(const ConnectedRouteLeakLocalStatus& local) {
  Index out;
  for (const auto& [key, entry] : local.leakedRouteBySourceVrf()) {
    auto& ids = out[{key.sourceVrfId().value(), valueToStrep(key.prefix()).str()}];
    for (const VrfId& id : entry->destVrfId()) ids.insert(id.value());
  }
  return out;
}

// What the machine keeps when every key was handled from nothing.
Index indexOfTable(const ConnectedRouteLeakStatus& status) {
  Index out;
  for (const RouteLeakedToVrf& v : status.leakedRoute()) {
    out[{v.sourceVrfId().value(), valueToStrep(v.destVrfPrefix().prefix()).str()}].insert(
        v.destVrfPrefix().destVrfId().value());
  }
  return out;
}

struct Machine {
  Cog::Ptr<ConnectedRouteLeakStatus> status = connectedRouteLeakStatusFactory(Cog::Name("leaks"));
  Cog::Ptr<ConnectedRouteLeakLocalStatus> local = connectedRouteLeakLocalStatusFactory();
  Cog::Ptr<ConnectedRouteLeakSourceVrfSm> sm;
  void start() { sm = ConnectedRouteLeakSourceVrfSmIs(status, local); }
};

std::vector<std::string> traceletTexts(std::size_t from) {
  std::vector<std::string> out;
  auto entries = Tracelet::processRing().entries();
  for (std::size_t i = from; i < entries.size(); ++i) out.push_back(entries[i].text);
  return out;
}

TEST(ConnectedRouteLeakSourceVrfSm, ConstructionSweepsTheTable) {
  Machine m;
  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 5));
  m.status->leakedRouteIs(leak(2, "10.0.0.0/8", 5));
  m.status->leakedRouteIs(leak(3, "2001:db8::/32", 6));
  m.start();
  EXPECT_TRUE(m.sm->initialized());
  EXPECT_EQ(m.sm->prevCrlStatus()->name().str(), "Previous");
  EXPECT_EQ(m.sm->prevCrlStatus()->leakedRoute().size(), 3u);
  EXPECT_EQ(indexOf(*m.local), (Index{{{5, "10.0.0.0/8"}, {1, 2}}, {{6, "2001:db8::/32"}, {3}}}));

  // Reflection: the three links and the per-key handler.
  auto g = Cog::genericIfOf(m.sm);
  EXPECT_EQ(g->attribute("prevCrlStatus")->entityPtr(), m.sm->prevCrlStatus().ptr());
  EXPECT_EQ(g->attribute("crlStatus")->entityPtr(), m.status.ptr());
  EXPECT_EQ(g->attribute("crlLocalStatus")->entityPtr(), m.local.ptr());
  g->call("handleLeakedRoute", {Cog::genericIfOf(DestVrfPrefix(VrfId(9), prefix("1.0.0.0/8")))});
}

TEST(ConnectedRouteLeakSourceVrfSm, NullStatusBuildsNoReactor) {
  auto local = connectedRouteLeakLocalStatusFactory();
  auto sm = ConnectedRouteLeakSourceVrfSmIs(nullptr, local);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(sm->crlStatus(), nullptr);
  ASSERT_NE(sm->prevCrlStatus(), nullptr);
  sm->handleLeakedRoute();
  sm->handleLeakedRoute(DestVrfPrefix(VrfId(1), prefix("1.0.0.0/8")));
  EXPECT_EQ(local->leakedRouteBySourceVrf().size(), 0u);

  // Attached later, it follows the new input from then on.
  auto status = connectedRouteLeakStatusFactory(Cog::Name("late"));
  sm->crlStatusIs(status);
  status->leakedRouteIs(leak(1, "1.0.0.0/8", 2));
  EXPECT_EQ(indexOf(*local), (Index{{{2, "1.0.0.0/8"}, {1}}}));
  sm->crlStatusDel();
  status->leakedRouteDel(DestVrfPrefix(VrfId(1), prefix("1.0.0.0/8")));
  EXPECT_EQ(indexOf(*local), (Index{{{2, "1.0.0.0/8"}, {1}}}));
}

TEST(ConnectedRouteLeakSourceVrfSm, SharedPrefixAddsAndDeletesWithTraces) {
  Cog::Trace::levelIs("ConnectedRouteLeakSourceVrfSm", 9);
  Cog::Trace::CaptureSink sink;
  Machine m;
  m.start();
  sink.clear();
  const std::size_t ring0 = Tracelet::processRing().entries().size();

  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 5));
  m.status->leakedRouteIs(leak(2, "10.0.0.0/8", 5));
  auto entry = m.local->leakedRouteBySourceVrf(SourceVrfPrefix(VrfId(5), prefix("10.0.0.0/8")));
  ASSERT_NE(entry, nullptr);
  m.status->leakedRouteDel(DestVrfPrefix(VrfId(1), prefix("10.0.0.0/8")));
  EXPECT_EQ(m.local->leakedRouteBySourceVrf(SourceVrfPrefix(VrfId(5), prefix("10.0.0.0/8"))), entry);
  m.status->leakedRouteDel(DestVrfPrefix(VrfId(2), prefix("10.0.0.0/8")));
  EXPECT_EQ(m.local->leakedRouteBySourceVrf().size(), 0u);
  EXPECT_EQ(m.sm->prevCrlStatus()->leakedRoute().size(), 0u);

  std::vector<std::pair<int, std::string>> got;
  for (const auto& r : sink.records()) {
    if (std::string(r.handle->name()) == "ConnectedRouteLeakSourceVrfSm") got.emplace_back(r.level, r.text);
  }
  const std::vector<std::pair<int, std::string>> want = {
      {8, "handleLeakedRoute"},
      {6, "handleLeakedRoute source vrf: 5, dest vrf: 1, adding prefix: 10.0.0.0/8"},
      {8, "handleLeakedRoute"},
      {6, "handleLeakedRoute source vrf: 5, dest vrf: 2, adding prefix: 10.0.0.0/8"},
      {8, "handleLeakedRoute"},
      {6, "handleLeakedRoute source vrf: 5, dest vrf: 1, deleting prefix: 10.0.0.0/8"},
      {8, "handleLeakedRoute"},
      {6, "handleLeakedRoute source vrf: 5, dest vrf: 2, deleting prefix: 10.0.0.0/8"},
      {6, "handleLeakedRoute source vrf: 5, deleting prefix: 10.0.0.0/8"},
  };
  EXPECT_EQ(got, want);
  EXPECT_EQ(traceletTexts(ring0), (std::vector<std::string>{
                                      " Handle leaked route, source vrf: 5, dest vrf: 1, adding prefix: 10.0.0.0/8",
                                      " Handle leaked route, source vrf: 5, dest vrf: 2, adding prefix: 10.0.0.0/8",
                                      " Handle leaked route, source vrf: 5, dest vrf: 1, deleting prefix: 10.0.0.0/8",
                                      " Handle leaked route, source vrf: 5, dest vrf: 2, deleting prefix: 10.0.0.0/8",
                                      " Handle leaked route, source vrf: 5, deleting prefix: 10.0.0.0/8",
                                  }));
  Cog::Trace::levelIs("ConnectedRouteLeakSourceVrfSm", Cog::Trace::kOff);
}

TEST(ConnectedRouteLeakSourceVrfSm, IgnoredDeletesAreTracedAtNine) {
  Cog::Trace::levelIs("ConnectedRouteLeakSourceVrfSm", 9);
  Cog::Trace::CaptureSink sink;
  Machine m;
  m.start();
  m.status->leakedRouteIs(leak(4, "172.16.0.0/12", 7));
  sink.clear();

  // Never seen: nothing changes.
  m.sm->handleLeakedRoute(DestVrfPrefix(VrfId(9), prefix("1.2.3.0/24")));
  // Seen, but its index entry is gone: the private copy is still cleaned.
  m.local->leakedRouteBySourceVrfDel(SourceVrfPrefix(VrfId(7), prefix("172.16.0.0/12")));
  m.status->leakedRouteDel(DestVrfPrefix(VrfId(4), prefix("172.16.0.0/12")));
  EXPECT_EQ(m.sm->prevCrlStatus()->leakedRoute().size(), 0u);
  EXPECT_EQ(m.local->leakedRouteBySourceVrf().size(), 0u);
  std::vector<std::string> nines;
  for (const auto& r : sink.records()) {
    if (r.level == 9) nines.push_back(r.text);
  }
  EXPECT_EQ(nines, (std::vector<std::string>{
                       "handleLeakedRoute Vrf: 9, no prev value for prefix: 1.2.3.0/24",
                       "handleLeakedRoute Vrf: 7, no value for prefix: 172.16.0.0/12",
                   }));
  Cog::Trace::levelIs("ConnectedRouteLeakSourceVrfSm", Cog::Trace::kOff);
}

struct DestWatcher : RouteLeakedFromVrf::NotifieeConst {
  int calls = 0;
  void onDestVrfId(const VrfId&) override { ++calls; }
};

TEST(ConnectedRouteLeakSourceVrfSm, RepeatedAddChangesNothing) {
  Machine m;
  m.start();
  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 5));
  auto entry = m.local->leakedRouteBySourceVrf(SourceVrfPrefix(VrfId(5), prefix("10.0.0.0/8")));
  auto w = Cog::allocate<DestWatcher>();
  w->notifierIs(entry);
  // A commit republishes the same value: the machine runs, the set stays.
  m.status->leakedRouteCommit(m.status->leakedRouteEdit(DestVrfPrefix(VrfId(1), prefix("10.0.0.0/8"))));
  m.sm->handleLeakedRoute();
  EXPECT_EQ(w->calls, 0);
  EXPECT_EQ(entry->destVrfId().size(), 1u);
  EXPECT_GE(m.sm->cogFwkActivity(), 2u);
}

TEST(ConnectedRouteLeakSourceVrfSm, SourceChangeLeavesTheOldSourceInPlace) {
  Machine m;
  m.start();
  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 5));
  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 6));
  EXPECT_EQ(indexOf(*m.local), (Index{{{5, "10.0.0.0/8"}, {1}}, {{6, "10.0.0.0/8"}, {1}}}));
  // The delete undoes the newest source only.
  m.status->leakedRouteDel(DestVrfPrefix(VrfId(1), prefix("10.0.0.0/8")));
  EXPECT_EQ(indexOf(*m.local), (Index{{{5, "10.0.0.0/8"}, {1}}}));
}

TEST(ConnectedRouteLeakSourceVrfSm, ZombieIgnoresNotifications) {
  Machine m;
  m.start();
  m.sm->zombieIs(true);
  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 5));
  EXPECT_EQ(m.local->leakedRouteBySourceVrf().size(), 0u);
  EXPECT_EQ(m.sm->cogFwkActivity(), 0u);
  m.sm->zombieIs(false);
  m.status->leakedRouteIs(leak(2, "10.0.0.0/8", 5));
  EXPECT_EQ(indexOf(*m.local), (Index{{{5, "10.0.0.0/8"}, {2}}}));
}

TEST(ConnectedRouteLeakSourceVrfSm, ReplacingThePreviousCopy) {
  Machine m;
  m.start();
  m.status->leakedRouteIs(leak(1, "10.0.0.0/8", 5));
  // A fresh copy knows nothing: the delete is ignored and the index keeps D.
  m.sm->prevCrlStatusIs(connectedRouteLeakStatusFactory(Cog::Name("Previous")));
  m.status->leakedRouteDel(DestVrfPrefix(VrfId(1), prefix("10.0.0.0/8")));
  EXPECT_EQ(indexOf(*m.local), (Index{{{5, "10.0.0.0/8"}, {1}}}));
}

// Random inserts, overwrites, commits and deletes over a few VRFs and
// prefixes, each prefix owned by one source VRF: the index always equals
// the one built from the table alone.
TEST(ConnectedRouteLeakSourceVrfSm, RandomHistoryEndsAtTheTablesIndex) {
  std::mt19937 rng(17);
  const char* prefixes[] = {"10.0.0.0/8", "10.0.0.0/16", "192.168.1.0/24", "2001:db8::/32",
                            "2001:db8::/48", "0.0.0.0/0"};
  Machine m;
  for (int i = 0; i < 20; ++i) {
    const unsigned p = rng() % 6;
    m.status->leakedRouteIs(leak(rng() % 8, prefixes[p], p % 3));
  }
  m.start();
  for (int step = 0; step < 5000; ++step) {
    const std::uint32_t d = rng() % 8;
    const unsigned p = rng() % 6;
    const DestVrfPrefix key(VrfId(d), prefix(prefixes[p]));
    switch (rng() % 4) {
      case 0:
      case 1: m.status->leakedRouteIs(RouteLeakedToVrf(key, VrfId(p % 3))); break;
      case 2:
        if (auto* e = m.status->leakedRouteEdit(key)) m.status->leakedRouteCommit(e);
        break;
      default: m.status->leakedRouteDel(key);
    }
    if (step % 500 == 0) {
      ASSERT_EQ(indexOf(*m.local), indexOfTable(*m.status)) << step;
    }
  }
  EXPECT_EQ(indexOf(*m.local), indexOfTable(*m.status));
  m.status->leakedRouteDelAll();
  EXPECT_EQ(m.local->leakedRouteBySourceVrf().size(), 0u);
}

}  // namespace

namespace {

// The Tracelet record names the prefix as its type prints it, whatever the
// family and length.
TEST(ConnectedRouteLeakSourceVrfSm, TraceletNamesThePrefixAsItPrints) {
  Machine m;
  m.start();
  for (const char* p : {"0.0.0.0/0", "255.255.255.255/32", "192.168.10.0/23", "1.2.3.4/32", "2001:db8::/32",
                        "::/0", "::ffff:10.0.0.0/104"}) {
    m.status->leakedRouteIs(leak(7, p, 70));
    auto entries = Tracelet::processRing().entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.back().text, " Handle leaked route, source vrf: 70, dest vrf: 7, adding prefix: " +
                                       valueToStrep(prefix(p)).str());
  }
}

}  // namespace
