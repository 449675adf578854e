// Policy-map requesters: the enumerations' fixed codes and names, the order
// and text of a Requester, the reason set of a PolicyRequester and the five
// collections of a PolicyMap with their notifications.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Cog/Exception.h"
#include "Cog/Type.h"
#include "RoutingLib/RoutingPolicyMap.h"

using namespace RoutingPolicyMap;

namespace {

template <typename E>
std::vector<std::pair<unsigned, std::string>> enumerators(E (*instance)(unsigned), unsigned count) {
  std::vector<std::pair<unsigned, std::string>> out;
  for (unsigned v = 0; v < count; ++v) out.emplace_back(v, stringValue(instance(v)).str());
  return out;
}

TEST(PolicyEnums, CodesAndNames) {
  using Table = std::vector<std::pair<unsigned, std::string>>;
  EXPECT_EQ(enumerators<CliMode>(&CliModeInstance, 8),
            (Table{{0, "routerBgpNoAf"},
                   {1, "routerBgpAfV4"},
                   {2, "routerBgpAfV6"},
                   {3, "routerBgpAfV4Lab"},
                   {4, "routerBgpAfV6Lab"},
                   {5, "routerGeneral"},
                   {6, "routeMapConfigMode"},
                   {7, "dynamicPrefixListConfigMode"}}));
  EXPECT_EQ(enumerators<PluginType>(&PluginTypeInstance, 4),
            (Table{{0, "ribBgp"}, {1, "ribRouteMap"}, {2, "ribDynPolicyRoutes"}, {3, "ribDynamicPrefixList"}}));
  EXPECT_EQ(enumerators<PolicyType>(&PolicyTypeInstance, 3),
            (Table{{0, "routeMap"}, {1, "dynamicPrefixList"}, {2, "redistributedDynPfx"}}));

  EXPECT_EQ(static_cast<unsigned>(CliModeInstance(Cog::String("routerGeneral"))), 5u);
  EXPECT_EQ(PolicyTypeInstance(Cog::String("redistributedDynPfx")), redistributedDynPfx());
  std::ostringstream os;
  os << PluginTypeInstance(3);
  EXPECT_EQ(os.str(), "ribDynamicPrefixList");
  EXPECT_THROW(CliModeInstance(8), Cog::RangeException);
  EXPECT_THROW(PluginTypeInstance(Cog::String("ribOspf")), Cog::ParseException);
  for (const char* name : {"RoutingPolicyMap::CliMode", "RoutingPolicyMap::PluginType",
                           "RoutingPolicyMap::PolicyType", "RoutingPolicyMap::Requester",
                           "RoutingPolicyMap::PolicyRequester", "RoutingPolicyMap::PolicyMap"}) {
    ASSERT_NE(Cog::typeByName(name), nullptr) << name;
  }
}

Requester req(PluginType p, CliMode m, const char* cli, const char* key) {
  return Requester(p, m, Cog::String(cli), Cog::String(key));
}

TEST(Requester, OrderIsPluginModeCommandKey) {
  // Each row is smaller than the next, decided by the attribute named.
  const std::vector<Requester> ascending = {
      req(ribBgp(), dynamicPrefixListConfigMode(), "z", "z"),
      req(ribRouteMap(), routerBgpNoAf(), "z", "z"),          // plugin
      req(ribRouteMap(), routerGeneral(), "a", "z"),          // mode, by number
      req(ribRouteMap(), routerGeneral(), "b", "a"),          // configCli
      req(ribRouteMap(), routerGeneral(), "b", "b"),          // configKey
      req(ribRouteMap(), routerGeneral(), "b", "bb"),         // a proper prefix first
      req(ribDynamicPrefixList(), routerBgpNoAf(), "", ""),
  };
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << " " << j;
      EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " " << j;
    }
  }
  EXPECT_TRUE(!Requester());
  EXPECT_FALSE(!req(ribBgp(), routerBgpNoAf(), "", "k"));
}

TEST(Requester, PrintedAndParsedBack) {
  const Requester r = req(ribDynPolicyRoutes(), routerBgpAfV6Lab(), "route-map RM permit 10",
                          "RM");
  const std::string text = valueToStrep(r).str();
  EXPECT_EQ(text,
            "Value('RoutingPolicyMap::Requester', ** {'plugin': ribDynPolicyRoutes, "
            "'mode': routerBgpAfV6Lab, 'configCli': 'route-map RM permit 10', 'configKey': 'RM'})");
  std::ostringstream os;
  os << r;
  EXPECT_EQ(os.str(), text);
  Cog::String s(text);
  Cog::String::IteratorConst it = s.begin();
  EXPECT_EQ(Requester(it, s.end()), r);
  EXPECT_EQ(it, s.end());

  // A damaged attribute is reported by name.
  const std::string bad =
      "Value('RoutingPolicyMap::Requester', ** {'plugin': ribBgp, 'mode': routerNowhere, "
      "'configCli': '', 'configKey': ''})";
  Cog::String b(bad);
  Cog::String::IteratorConst bit = b.begin();
  try {
    Requester(bit, b.end());
    FAIL();
  } catch (const Cog::ParseException& e) {
    EXPECT_NE(std::string(e.what()).find("mode"), std::string::npos) << e.what();
  }
}

struct ReasonLog : PolicyRequester::NotifieeConst {
  std::vector<Requester> seen;
  void onReason(const Requester& r) override { seen.push_back(r); }
};

TEST(PolicyRequester, ReasonIsASetOfRequesters) {
  static_assert(std::is_same_v<PolicyRequester::CogReason, Requester>);
  auto p = policyRequesterFactory(Cog::Name("RM-IN"));
  EXPECT_EQ(p->name(), Cog::Name("RM-IN"));
  auto log = Cog::allocate<ReasonLog>();
  log->notifierIs(p);
  const Requester a = req(ribBgp(), routerBgpAfV4(), "neighbor 10.0.0.1 route-map RM-IN in", "10.0.0.1");
  const Requester b = req(ribBgp(), routerBgpAfV4(), "neighbor 10.0.0.1 route-map RM-IN in", "10.0.0.2");
  EXPECT_EQ(p->reasonIs(a), a);
  p->reasonIs(a);  // present: nobody hears it
  p->reasonIs(b);  // differs in configKey only: a member of its own
  EXPECT_EQ(p->reason().size(), 2u);
  EXPECT_TRUE(p->reasonHas(a));
  EXPECT_TRUE(p->reasonHas(b));
  EXPECT_LT(a, b);
  p->reasonNotify(b);
  p->reasonDel(req(ribRouteMap(), routerBgpAfV4(), "", ""));  // absent: silent
  p->reasonDel(a);
  EXPECT_FALSE(p->reasonHas(a));
  p->reasonIs(a);
  p->reasonDelAll();
  EXPECT_TRUE(p->reason().empty());
  ASSERT_EQ(log->seen.size(), 7u);
  EXPECT_EQ(std::vector<Requester>(log->seen.begin(), log->seen.begin() + 5),
            (std::vector<Requester>{a, b, b, a, a}));
  // Deleting all tells of each member once, in the set's own order.
  EXPECT_NE(log->seen[5], log->seen[6]);
}

struct MapLog : PolicyMap::NotifieeConst {
  std::vector<std::string> seen;
  void onDynamicPrefixList(const Cog::Name& n) override { seen.push_back("dynamicPrefixList " + n.str()); }
  void onIpv4PrefixList(const Cog::Name& n) override { seen.push_back("ipv4PrefixList " + n.str()); }
  void onIpv6PrefixList(const Cog::Name& n) override { seen.push_back("ipv6PrefixList " + n.str()); }
  void onRouteMap(const Cog::Name& n) override { seen.push_back("routeMap " + n.str()); }
  void onRedistributedDynPfx(const Cog::Name& n) override {
    seen.push_back("redistributedDynPfx " + n.str());
  }
};

TEST(PolicyMap, FiveCollectionsOfRequestersByPolicyName) {
  auto map = policyMapFactory();
  auto log = Cog::allocate<MapLog>();
  log->notifierIs(map);
  using Is = Cog::Ptr<PolicyRequester> (PolicyMap::*)(const Cog::Name&);
  using Get = Cog::Ptr<PolicyRequester> (PolicyMap::*)(const Cog::Name&) const;
  const std::vector<std::pair<Is, Get>> collections = {
      {&PolicyMap::dynamicPrefixListIs, &PolicyMap::dynamicPrefixList},
      {&PolicyMap::ipv4PrefixListIs, &PolicyMap::ipv4PrefixList},
      {&PolicyMap::ipv6PrefixListIs, &PolicyMap::ipv6PrefixList},
      {&PolicyMap::routeMapIs, &PolicyMap::routeMap},
      {&PolicyMap::redistributedDynPfxIs, &PolicyMap::redistributedDynPfx},
  };
  // The same name in every collection makes five distinct requesters.
  std::vector<Cog::Ptr<PolicyRequester>> made;
  for (auto [is, get] : collections) {
    auto p = ((*map).*is)(Cog::Name("P1"));
    ASSERT_TRUE(p);
    EXPECT_EQ(p->name(), Cog::Name("P1"));
    EXPECT_EQ(((*map).*is)(Cog::Name("P1")), p);  // existing: returned, not announced
    EXPECT_EQ(((*map).*get)(Cog::Name("P1")), p);
    EXPECT_EQ(((*map).*get)(Cog::Name("P2")), nullptr);
    for (const auto& other : made) EXPECT_NE(other, p);
    made.push_back(p);
  }
  EXPECT_EQ(log->seen, (std::vector<std::string>{"dynamicPrefixList P1", "ipv4PrefixList P1",
                                                 "ipv6PrefixList P1", "routeMap P1",
                                                 "redistributedDynPfx P1"}));
  log->seen.clear();

  // A requester outlives its removal for whoever holds it.
  auto held = map->routeMap(Cog::Name("P1"));
  held->reasonIs(req(ribRouteMap(), routeMapConfigMode(), "route-map P1 permit 10", "P1"));
  map->routeMapDel(Cog::Name("P1"));
  map->routeMapDel(Cog::Name("P1"));
  EXPECT_EQ(map->routeMap(Cog::Name("P1")), nullptr);
  EXPECT_EQ(held->reason().size(), 1u);
  EXPECT_EQ(map->routeMapIs(Cog::Name("P1"))->reason().size(), 0u);  // a new one

  map->ipv6PrefixListNotify(Cog::Name("absent"));
  map->ipv4PrefixListIs(Cog::Name("P0"));
  map->ipv4PrefixListDelAll();
  EXPECT_TRUE(map->ipv4PrefixList().empty());
  EXPECT_EQ(map->dynamicPrefixList().size(), 1u);
  ASSERT_EQ(log->seen.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(log->seen.begin(), log->seen.begin() + 4),
            (std::vector<std::string>{"routeMap P1", "routeMap P1", "ipv6PrefixList absent",
                                      "ipv4PrefixList P0"}));
}

}  // namespace
