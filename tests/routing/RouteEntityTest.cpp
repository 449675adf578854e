// Route entities where they go beyond the generated frame: per-key
// notification counts, the re-instantiation rule, routes whose keys collide
// by design, and per-key resynchronisation of the next-hop collections over
// an attribute log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
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


// The records a flow out of per-key marks must write: per collection in id
// order, one record per marked key as the collection holds it now, the keys
// in the order of their attribute-log form. Built here from the route's
// state alone, independently of the adapter's bookkeeping.
using Bytes = std::vector<std::uint8_t>;

Bytes keyForm(const Via& v) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << v;
  return out->bytes();
}

Bytes expectedBurst(const Route& r, const std::map<Cog::AttributeId, std::vector<Via>>& marked) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  for (const auto& [id, vias] : marked) {
    std::map<Bytes, Via> ordered;
    for (const Via& v : vias) ordered.emplace(keyForm(v), v);
    for (const auto& [form, v] : ordered) {
      bool present = id == 262   ? r.via().find(v) != nullptr
                     : id == 263 ? r.viaNextHopName().find(v) != nullptr
                                 : r.bfdTrackedHas(v);
      out->putU32(id);
      out->putU8(static_cast<std::uint8_t>(present ? Cog::AttrLogOp::keySet : Cog::AttrLogOp::keyDel));
      out->putBytes(form.data(), form.size());
      if (!present) continue;
      if (id == 262) out->putU8(*r.via().find(v) ? 1 : 0);
      if (id == 263) out->putString(r.viaNextHopName(v).str());
    }
  }
  return out->bytes();
}

// A burst with a key deleted and re-inserted and a key changed twice, then
// random bursts over all three collections: the flow out writes exactly the
// records above, and a mirror that applies them ends equal to the route.
TEST(Route, DirtyMarkedFlowOutBytes) {
  RouteKey k = key("10.3.0.0/16", 1);
  auto local = routeFactory(k, RouteType::forward);
  auto remote = routeFactory(k, RouteType::forward);
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = local->cogNboAttrLogSaIs(0, 0, out);
  auto mirror = remote->cogNboAttrLogSaIs(0, 0, Cog::allocate<Cog::NboAttrLog::Out>());

  auto burst = [&](const std::map<Cog::AttributeId, std::vector<Via>>& marked) {
    sa->capacityIs(1 << 20);
    sa->flowOutIs(true);
    for (Cog::AttributeId id : {262u, 263u, 266u}) EXPECT_EQ(sa->dirtyKeys(id), 0u);
    EXPECT_EQ(out->bytes(), expectedBurst(*local, marked));
    mirror->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
    EXPECT_EQ(remote->via().size(), local->via().size());
    for (const auto& [v, b] : local->via()) EXPECT_EQ(remote->via(v), b);
    EXPECT_EQ(remote->viaNextHopName().size(), local->viaNextHopName().size());
    EXPECT_EQ(remote->bfdTracked().size(), local->bfdTracked().size());
    out->clear();
    sa->capacityIs(0);
  };

  sa->capacityIs(0);
  local->viaIs(via(1), true);
  local->viaIs(via(2), true);
  local->viaDel(via(1));
  local->viaIs(via(1), false);  // deleted, then back with another value
  local->viaNextHopNameIs(via(3), "a");
  local->viaNextHopNameIs(via(3), "bb");  // changed twice: one record, the last value
  local->bfdTrackedIs(via(4));
  local->bfdTrackedDel(via(5));  // absent: no change, no mark
  local->viaDel(via(6));
  EXPECT_EQ(sa->dirtyKeys(262), 2u);
  EXPECT_EQ(sa->dirtyKeys(263), 1u);
  EXPECT_EQ(sa->dirtyKeys(266), 1u);
  burst({{262, {via(1), via(2)}}, {263, {via(3)}}, {266, {via(4)}}});

  std::mt19937 rng(7);
  for (int round = 0; round < 30; ++round) {
    std::map<Cog::AttributeId, std::vector<Via>> marked;
    for (int i = 0; i < 20; ++i) {
      std::uint32_t r = rng();
      // Hosts above 255 differ in a later address byte, so forms interleave.
      Via v = via((r % 12) * 97, (r >> 8) % 3);
      bool del = (r >> 12) % 3 == 0;
      switch ((r >> 16) % 3) {
        case 0: {
          auto* had = local->via().find(v);
          bool value = (r >> 20) & 1;
          bool change = del ? had != nullptr : (had == nullptr || *had != value);
          if (del) local->viaDel(v);
          else local->viaIs(v, value);
          if (change) marked[262].push_back(v);
          break;
        }
        case 1: {
          auto* had = local->viaNextHopName().find(v);
          Cog::String name(std::to_string(r % 5));
          bool change = del ? had != nullptr : (had == nullptr || !(*had == name));
          if (del) local->viaNextHopNameDel(v);
          else local->viaNextHopNameIs(v, name);
          if (change) marked[263].push_back(v);
          break;
        }
        default: {
          bool had = local->bfdTrackedHas(v);
          if (del) local->bfdTrackedDel(v);
          else local->bfdTrackedIs(v);
          if (del == had) marked[266].push_back(v);
          break;
        }
      }
    }
    burst(marked);
  }
}

}  // namespace
