// The counter and the splitter over a process-local UnprogrammedRoute, whose
// tables notify as each change is made.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Activity/Counter.h"
#include "Memtab/Catalog.h"
#include "Cog/Trace.h"
#include "RoutingLib/KernelUnprogrammedRouteSplitterSm.h"

using namespace Memtab::KernelUnprogrammedRoute;
using Velnet::AddressFamily;
using Velnet::IpGenPrefix;

namespace {

ErrorKey key(const char* vrf, const char* prefix) {
  return ErrorKey(L3::VrfName(vrf), IpGenPrefix(Cog::String(prefix)));
}
Error err(const char* vrf, const char* prefix, std::uint32_t code = 1) {
  return Error(code, key(vrf, prefix));
}
Error6 err6(const char* vrf, const char* prefix, std::uint32_t code = 1) {
  return Error6(code, Velnet::IntfId(1, 2), key(vrf, prefix));
}

std::uint32_t countOf(const Cog::Ptr<UnprogrammedRouteCountByVrf>& out, const char* vrf,
                      AddressFamily af) {
  auto c = out->errorCount(L3::VrfName(vrf));
  return c ? c->numRoutes(af) : 0;
}

struct Traces {
  Traces() { Cog::Trace::levelIs("KernelUnprogrammedRoute", 9); }
  ~Traces() { Cog::Trace::levelIs("KernelUnprogrammedRoute", Cog::Trace::kOff); }
  bool has(const std::string& text) const {
    auto t = sink.texts();
    return std::find(t.begin(), t.end(), text) != t.end();
  }
  int levelOf(const std::string& text) const {
    for (const auto& r : sink.records())
      if (r.text == text) return r.level;
    return -2;
  }
  Cog::Trace::CaptureSink sink;
};

// ---- counter

TEST(CounterSm, CountsAddsAndDeletesPerVrfAndFamily) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteCountByVrfFactory();
  auto sm = KernelUnprogrammedRouteCounterSmIs(in, out);
  EXPECT_TRUE(sm->initialized());
  in->errorIs(err("red", "10.0.0.0/8"));
  in->errorIs(err("red", "10.1.0.0/16"));
  in->error6Is(err6("red", "2001:db8::/32"));
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv4), 2u);
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv6), 1u);
  in->errorDel(key("red", "10.0.0.0/8"));
  in->errorDel(key("red", "10.1.0.0/16"));
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv4), 0u);
  // Neither the zero count nor the ErrorCount goes away.
  ASSERT_TRUE(out->errorCount(L3::VrfName("red")));
  EXPECT_NE(out->errorCount(L3::VrfName("red"))->numRoutes().find(AddressFamily::ipv4), nullptr);
}

TEST(CounterSm, NotificationsNotKeysAreCounted) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteCountByVrfFactory();
  auto sm = KernelUnprogrammedRouteCounterSmIs(in, out);
  in->errorIs(err("red", "10.0.0.0/8", 1));
  in->errorIs(err("red", "10.0.0.0/8", 2));  // an overwrite counts again
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv4), 2u);
  in->errorNotify(key("red", "10.0.0.0/8"));
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv4), 3u);
  // Deletes never take a count below zero, nor create anything.
  in->errorDel(key("red", "10.0.0.0/8"));
  for (int i = 0; i < 5; ++i) sm->handleRoute(key("red", "10.0.0.0/8"));
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv4), 0u);
  sm->handleRoute(key("never", "10.0.0.0/8"));
  sm->handleRoute6(key("never", "::/0"));
  EXPECT_FALSE(out->errorCount(L3::VrfName("never")));
  EXPECT_EQ(out->errorCount().size(), 1u);
}

TEST(CounterSm, SweepsOnceAtConstruction) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  in->errorIs(err("blue", "10.0.0.0/8"));
  in->errorIs(err("blue", "11.0.0.0/8"));
  in->error6Is(err6("green", "2001:db8::/32"));
  auto out = unprogrammedRouteCountByVrfFactory();
  auto sm = KernelUnprogrammedRouteCounterSmIs(in, out);
  EXPECT_EQ(countOf(out, "blue", AddressFamily::ipv4), 2u);
  EXPECT_EQ(countOf(out, "green", AddressFamily::ipv6), 1u);
  sm->handleInitialized();  // guarded: no second sweep
  sm->initializedIs(true);
  EXPECT_EQ(countOf(out, "blue", AddressFamily::ipv4), 2u);
  // Replacing the input keeps the counts and the flag.
  sm->allVrfUnprogrammedRouteIs(unprogrammedRouteFactory(Cog::Name("other")));
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(countOf(out, "blue", AddressFamily::ipv4), 2u);
  // An explicit sweep counts every present key once more.
  sm->allVrfUnprogrammedRouteIs(in);
  sm->handleRoutes();
  EXPECT_EQ(countOf(out, "blue", AddressFamily::ipv4), 4u);
}

TEST(CounterSm, TracesAndZombie) {
  Traces tr;
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteCountByVrfFactory();
  auto sm = KernelUnprogrammedRouteCounterSmIs(in, out);
  EXPECT_EQ(tr.levelOf("handleInitialized"), 8);
  EXPECT_EQ(tr.levelOf("handleRoutes"), 8);
  in->errorIs(err("red", "10.0.0.0/8"));
  EXPECT_EQ(tr.levelOf("handleRoute key: <prefix=10.0.0.0/8, vrfName=red>"), 8);
  in->error6Is(err6("red", "2001:db8::/32"));
  EXPECT_EQ(tr.levelOf("handleRoute6 key: <prefix=2001:db8::/32, vrfName=red>"), 8);
  sm->cogDoZombieReactors(true);
  in->errorIs(err("red", "11.0.0.0/8"));
  EXPECT_EQ(countOf(out, "red", AddressFamily::ipv4), 1u);
}

TEST(CounterSm, LongNameInTableRaisesRange) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteCountByVrfFactory();
  auto sm = KernelUnprogrammedRouteCounterSmIs(in, out);
  ErrorKey k;  // 101 name bytes without a terminator: only a hand-built key
  for (std::uint32_t i = 0; i <= 100; ++i) k.nameIs(Vrf::VrfIdMap::VrfNameIndex(i), 'x');
  try {
    sm->handleRoute(k);
    FAIL();
  } catch (const Cog::RangeException& e) {
    EXPECT_STREQ(e.what(), "VrfName::bytes > VrfName::maxLength not allowed");
  }
}

// ---- splitter

TEST(SplitterSm, SetsComeWithFirstKeyAndGoWithLast) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteByVrfFactory();
  auto sm = KernelUnprogrammedRouteSplitterSmIs(in, out);
  in->errorIs(err("blue", "10.0.0.0/8"));
  auto set = out->error4KeySet(L3::VrfName("blue"));
  ASSERT_TRUE(set);
  EXPECT_EQ(set->errorKey().size(), 1u);
  EXPECT_EQ(set->af(), AddressFamily::ipv4);
  EXPECT_EQ(set->getError(key("blue", "10.0.0.0/8")).errorCode(), 1u);
  EXPECT_TRUE(!set->getError(key("blue", "12.0.0.0/8")));
  in->errorIs(err("blue", "10.0.0.0/8", 5));  // same key again: still one entry
  in->errorIs(err("blue", "11.0.0.0/8"));
  EXPECT_EQ(set->errorKey().size(), 2u);
  in->errorDel(key("blue", "10.0.0.0/8"));
  EXPECT_TRUE(out->error4KeySet(L3::VrfName("blue")));
  in->errorDel(key("blue", "11.0.0.0/8"));
  EXPECT_FALSE(out->error4KeySet(L3::VrfName("blue")));

  in->error6Is(err6("blue", "2001:db8::/32", 9));
  auto set6 = out->error6KeySet(L3::VrfName("blue"));
  ASSERT_TRUE(set6);
  EXPECT_EQ(set6->af(), AddressFamily::ipv6);
  EXPECT_EQ(set6->getError6(key("blue", "2001:db8::/32")).errorCode(), 9u);
  EXPECT_EQ(out->error4KeySet().size(), 0u);
  in->error6Del(key("blue", "2001:db8::/32"));
  EXPECT_EQ(out->error6KeySet().size(), 0u);
}

TEST(SplitterSm, NoInitialSweep) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  in->errorIs(err("blue", "10.0.0.0/8"));
  auto out = unprogrammedRouteByVrfFactory();
  auto sm = KernelUnprogrammedRouteSplitterSmIs(in, out);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(out->error4KeySet().size(), 0u);
  in->errorNotify(key("blue", "10.0.0.0/8"));
  EXPECT_EQ(out->error4KeySet().size(), 1u);
}

// What was in the tables before the splitter started reaches it when the
// hosting agent replays them, each key once.
TEST(SplitterSm, ReplayAnnouncesWhatWasThere) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  in->errorIs(err("blue", "10.0.0.0/8"));
  in->errorIs(err("blue", "11.0.0.0/8"));
  in->error6Is(err6("red", "2001:db8::/32"));
  auto out = unprogrammedRouteByVrfFactory();
  auto sm = KernelUnprogrammedRouteSplitterSmIs(in, out);
  in->errorReplay();
  in->error6Replay();
  ASSERT_TRUE(out->error4KeySet(L3::VrfName("blue")));
  EXPECT_EQ(out->error4KeySet(L3::VrfName("blue"))->errorKey().size(), 2u);
  EXPECT_EQ(out->error6KeySet(L3::VrfName("red"))->errorKey().size(), 1u);
}

TEST(SplitterSm, TracesOfEveryPath) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteByVrfFactory();
  auto sm = KernelUnprogrammedRouteSplitterSmIs(in, out);
  {
    Traces tr;
    sm->handleRoute(key("gone", "10.0.0.0/8"));
    EXPECT_EQ(tr.levelOf("handleRoute ErrorKeySet for VRF 'gone' doesn't exist as yet"), 8);
    EXPECT_EQ(out->error4KeySet().size(), 0u);
    EXPECT_TRUE(tr.has("handleRoute Deleting unprogrammed route: " + valueToStrep(Error()).str()));
  }
  {
    Traces tr;
    in->errorIs(err("red", "10.0.0.0/8"));
    EXPECT_EQ(tr.levelOf("handleRoute Creating ErrorKeySet for VRF 'red'"), 8);
    EXPECT_EQ(tr.levelOf("errorKeySetIs Creating ErrorKeySet for VRF 'red' and address family ipv4"), 8);
    tr.sink.clear();
    in->errorDel(key("red", "10.0.0.0/8"));
    EXPECT_TRUE(tr.has("handleRoute Deleting route with key <prefix=10.0.0.0/8, vrfName=red> from ErrorKeySet for vrf 'red'"));
    EXPECT_TRUE(tr.has("handleRoute Deleting unprogrammed route: " + valueToStrep(Error()).str()));
  }
  {
    Traces tr;
    in->error6Is(err6("red", "2001:db8::/32"));
    EXPECT_TRUE(tr.has("handleRoute6 Creating ErrorKeySet for VRF 'red'"));
    in->error6Del(key("red", "2001:db8::/32"));
    EXPECT_TRUE(tr.has("handleRoute6 Deleting route with key <prefix=2001:db8::/32, vrfName=red> from ErrorKeySet for vrf 'red'"));
    sm->handleRoute6(key("none", "::/0"));
    EXPECT_TRUE(tr.has("handleRoute6 ErrorKeySet for VRF 'none' doesn't exist as yet"));
    // The IPv6 delete path has no closing trace.
    for (const auto& t : tr.sink.texts()) EXPECT_EQ(t.find("Deleting unprogrammed route"), std::string::npos) << t;
  }
}

TEST(ErrorKeySets, ErrorKeySetIsPicksTheFamily) {
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  auto out = unprogrammedRouteByVrfFactory();
  auto s4 = out->errorKeySetIs(L3::VrfName("v"), AddressFamily::ipv4, in);
  auto s6 = out->errorKeySetIs(L3::VrfName("v"), AddressFamily::ipv6, in);
  EXPECT_NE(s4, s6);
  EXPECT_EQ(out->error4KeySet(L3::VrfName("v")), s4);
  EXPECT_EQ(out->error6KeySet(L3::VrfName("v")), s6);
  EXPECT_EQ(out->errorKeySetIs(L3::VrfName("v"), AddressFamily::ipv4, in), s4);
  EXPECT_EQ(s4->unprogrammedRoute(), in);

  // A set made elsewhere goes in under its own name, replacing another one
  // there; the same set again changes nothing and tells nobody.
  auto made = errorKeySetFactory(L3::VrfName("v"), AddressFamily::ipv4, in);
  EXPECT_EQ(out->error4KeySetIs(made), made);
  EXPECT_EQ(out->error4KeySet(L3::VrfName("v")), made);
  EXPECT_EQ(out->error4KeySet().size(), 1u);
  struct Told : UnprogrammedRouteByVrf::NotifieeConst {
    void onError4KeySet(const L3::VrfName&) override { ++n; }
    int n = 0;
  };
  auto told = Cog::allocate<Told>();
  told->notifierIs(out);
  out->error4KeySetIs(made);
  EXPECT_EQ(told->n, 0);
  out->error4KeySetIs(errorKeySetFactory(L3::VrfName("w"), AddressFamily::ipv4, in));
  EXPECT_EQ(told->n, 1);
  auto counts = unprogrammedRouteCountByVrfFactory();
  auto c = counts->errorCountIs(L3::VrfName("v"));
  EXPECT_EQ(counts->errorCountIs(L3::VrfName("v")), c);
}

TEST(UnprogrammedRouteEntity, ActivityCounters) {
  auto& w = Activity::CounterWriter::process();
  const auto is0 = w.counter("errorIs").value(), del0 = w.counter("errorDel").value();
  const auto n0 = w.counter("errorNotify").value(), is60 = w.counter("error6Is").value();
  const auto del60 = w.counter("error6Del").value(), n60 = w.counter("error6Notify").value();
  auto in = unprogrammedRouteFactory(Cog::Name("all"));
  in->errorIs(err("red", "10.0.0.0/8"));
  in->errorDel(key("red", "10.0.0.0/8"));
  in->error6Is(err6("red", "::/0"));
  in->error6Del(key("red", "::/0"));
  EXPECT_EQ(w.counter("errorIs").value(), is0 + 1);
  EXPECT_EQ(w.counter("errorDel").value(), del0 + 1);
  EXPECT_EQ(w.counter("errorNotify").value(), n0 + 2);
  EXPECT_EQ(w.counter("error6Is").value(), is60 + 1);
  EXPECT_EQ(w.counter("error6Del").value(), del60 + 1);
  EXPECT_EQ(w.counter("error6Notify").value(), n60 + 2);
}

}  // namespace

// Operators see a table's value type by its registered name, not the C++
// identity the segment records.
TEST(UnprogrammedRouteEntity, TablesListUnderTheirValueTypeNames) {
  const std::string n4 = "unprogsm4." + std::to_string(getpid());
  auto kernel = unprogrammedRouteFactory(Cog::Name("kernel"));
  kernel->errorWriterIs(n4);
  kernel->errorIs(err("red", "10.0.0.0/8"));
  bool listed = false;
  for (const auto& t : Memtab::listTables()) {
    if (t.name != n4) continue;
    listed = true;
    EXPECT_EQ(t.typeName, "Memtab::KernelUnprogrammedRoute::Error");
  }
  EXPECT_TRUE(listed);
  std::ostringstream out;
  std::string why;
  EXPECT_EQ(Memtab::dumpTable(n4, true, out, &why), Memtab::kCatalogDone) << why;
  EXPECT_NE(out.str().find("\"type\": \"Memtab::KernelUnprogrammedRoute::Error\""), std::string::npos)
      << out.str();
  kernel = nullptr;
  Memtab::unlinkTable(n4);
}
