// Route entities where they go beyond the generated frame: per-key
// notification counts, the re-instantiation rule, routes whose keys collide
// by design, and per-key resynchronisation of the next-hop collections over
// an attribute log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cog/NboAttrLogSa.h"
#include "RoutingLib/Routing.h"

using namespace Routing;

namespace {

RouteKey key(const char* p, std::uint8_t pref) {
  return RouteKey(Velnet::IpGenPrefix(Cog::String(p)), RoutePreference(pref));
}

Via via(std::uint32_t host, std::uint32_t vni = 0) {
  return Via(Velnet::IpGenAddr::ipv4(0x0A000000u + host), Velnet::IntfId(Cog::String("Ethernet1")),
             Velnet::MplsLabel(), vni, Velnet::IpGenAddr(), Velnet::EthAddr());
}

class RouteCounter : public Route::NotifieeConst {
 public:
  void onVia(const Via& v) override { vias.push_back(v); }
  void onViaNextHopName(const Via&) override { ++names; }
  void onBfdTracked(const Via&) override { ++bfd; }
  void onTag() override { ++tags; }
  std::vector<Via> vias;
  int names = 0, bfd = 0, tags = 0;
};

TEST(Route, PerKeyNotificationsOnlyOnChange) {
  auto list = routeListFactory("static");
  Cog::Ptr<Route> r = list->routeIs(key("10.1.0.0/16", 20), RouteType::forward);
  auto n = Cog::allocate<RouteCounter>();
  n->notifierIs(r);

  Via a = via(1), b = via(1, 5001);
  r->viaIs(a, true);
  r->viaIs(a, true);
  EXPECT_EQ(n->vias.size(), 1u);
  r->viaIs(a, false);
  ASSERT_EQ(n->vias.size(), 2u);
  EXPECT_EQ(r->via().size(), 1u);
  EXPECT_FALSE(r->via(a));
  // b hashes like a but is another next hop.
  r->viaIs(b, true);
  EXPECT_EQ(r->via().size(), 2u);
  EXPECT_TRUE(r->via(b));
  EXPECT_EQ(n->vias.back(), b);
  r->viaDel(via(9));
  EXPECT_EQ(n->vias.size(), 3u);
  r->viaNotify(a);  // immediate notification, no change needed
  EXPECT_EQ(n->vias.size(), 4u);
  r->viaDelAll();
  EXPECT_EQ(n->vias.size(), 6u);
  EXPECT_TRUE(r->via().empty());

  r->viaNextHopNameIs(a, "nh-a");
  r->viaNextHopNameIs(a, "nh-a");
  EXPECT_EQ(n->names, 1);
  EXPECT_EQ(r->viaNextHopName(a), "nh-a");
  EXPECT_EQ(r->viaNextHopName(b), "");
  r->bfdTrackedIs(a);
  r->bfdTrackedIs(a);
  EXPECT_EQ(n->bfd, 1);
  EXPECT_TRUE(r->bfdTrackedHas(a));
  EXPECT_FALSE(r->bfdTrackedHas(b));
  r->tagIs(0);
  EXPECT_EQ(n->tags, 0);
}

TEST(RouteList, ReinstantiatingWithAnotherRouteTypeFailsAndKeepsTheRoute) {
  auto list = routeListFactory("static");
  RouteKey k = key("10.1.0.0/16", 20);
  Cog::Ptr<Route> r = list->routeIs(k, RouteType::drop);
  r->tagIs(7);
  r->dropNextHopNameIs("null0");
  try {
    list->routeIs(k, RouteType::forward);
    FAIL() << "no exception";
  } catch (const Cog::NameInUseException& e) {
    EXPECT_EQ(std::string(e.what()),
              "Reinstantiating the entity with fullName static/route/" + std::string(valueToStrep(k)) +
                  " where constructor parameter attribute 'routeType' has a different value of "
                  "forward than the current value of drop not allowed");
  }
  EXPECT_EQ(list->route(k), r);
  EXPECT_EQ(r->routeType(), RouteType::drop);
  EXPECT_EQ(r->tag(), 7u);
  EXPECT_EQ(r->dropNextHopName(), "null0");
  EXPECT_EQ(list->routeIs(k, RouteType::drop), r);
  EXPECT_EQ(list->route().size(), 1u);

  // After deletion the key takes any type.
  list->routeDel(k);
  EXPECT_EQ(list->route(k), nullptr);
  Cog::Ptr<Route> again = list->routeIs(k, RouteType::nexthopGroup);
  EXPECT_NE(again, r);
  EXPECT_EQ(again->tag(), 0u);
}

TEST(RouteList, KeysThatCollideByDesignStayDistinct) {
  auto input = routeInputFactory("bgp");
  EXPECT_TRUE(input->installInFib());
  EXPECT_EQ(input->defaultPreference(), RoutePreference(1));
  EXPECT_EQ(input->routingProto(), 0);

  for (unsigned pref = 0; pref < 256; ++pref) {
    auto r = input->routeIs(key("2001:db8::/48", static_cast<std::uint8_t>(pref)),
                            pref % 2 ? RouteType::forward : RouteType::drop);
    r->tagIs(pref);
  }
  ASSERT_EQ(input->route().size(), 256u);
  for (unsigned pref = 0; pref < 256; ++pref) {
    auto r = input->route(key("2001:db8::/48", static_cast<std::uint8_t>(pref)));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->tag(), pref);
    EXPECT_EQ(r->preference().value(), pref);
    EXPECT_EQ(r->prefix(), Velnet::IpGenPrefix(Cog::String("2001:db8::/48")));
    EXPECT_EQ(r->metric(), RouteMetric(0));
  }
}

// The adapter keeps per-key dirty marks for the three next-hop collections,
// so a flow out after a burst carries only the next hops that changed.
TEST(Route, ResyncSendsOnlyChangedNextHops) {
  RouteKey k = key("10.2.0.0/16", 1);
  auto local = routeFactory(k, RouteType::forward);
  auto remote = routeFactory(k, RouteType::forward);
  for (std::uint32_t i = 0; i < 200; ++i) {
    local->viaIs(via(i), true);
    local->bfdTrackedIs(via(i));
  }
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = local->cogNboAttrLogSaIs(0, 0, out);
  for (Cog::AttributeId id : {262u, 263u, 266u}) EXPECT_TRUE(sa->isResync(id)) << id;
  for (Cog::AttributeId id : {260u, 261u, 264u, 265u, 267u}) EXPECT_FALSE(sa->isResync(id)) << id;

  EXPECT_TRUE(sa->resync());
  const std::size_t full = out->size();
  remote->cogNboAttrLogSaIs(0, 0, Cog::allocate<Cog::NboAttrLog::Out>())
      ->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
  EXPECT_EQ(remote->via().size(), 200u);
  EXPECT_EQ(remote->bfdTracked().size(), 200u);

  // With no room in the log, changes wait as per-key marks.
  out->clear();
  sa->capacityIs(0);
  local->viaIs(via(3), false);
  local->viaIs(via(4), false);
  local->viaDel(via(5));
  local->viaNextHopNameIs(via(6), "six");
  local->bfdTrackedDel(via(7));
  local->tagIs(99);
  EXPECT_EQ(out->size(), 0u);
  EXPECT_EQ(sa->dirtyKeys(262), 3u);
  EXPECT_EQ(sa->dirtyKeys(263), 1u);
  EXPECT_EQ(sa->dirtyKeys(266), 1u);
  EXPECT_TRUE(sa->dirty(260));

  sa->capacityIs(1 << 20);
  sa->flowOutIs(true);
  EXPECT_TRUE(sa->handleAttrFlowOut(0));
  std::size_t burst = out->size();
  // Six records (about 70 bytes each), against 400 for the whole route.
  EXPECT_LT(burst, 6 * 80u);
  EXPECT_GT(full, 400 * 60u);
  remote->cogNboAttrLogSaIs(0, 0, Cog::allocate<Cog::NboAttrLog::Out>())
      ->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
  EXPECT_EQ(remote->via().size(), 199u);
  EXPECT_FALSE(remote->via(via(3)));
  EXPECT_FALSE(remote->via(via(4)));
  EXPECT_TRUE(remote->via(via(8)));
  EXPECT_EQ(remote->viaNextHopName(via(6)), "six");
  EXPECT_FALSE(remote->bfdTrackedHas(via(7)));
  EXPECT_EQ(remote->tag(), 99u);
}

}  // namespace
