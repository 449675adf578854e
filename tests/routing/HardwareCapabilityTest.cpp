// The hardware records where they use the network basics' enumerations
// (label actions, tunnel modes, crypto suites) and where the ordered maps
// are edited through their iterators: the forms on the attribute log and in
// text, refusal of numbers that are no enumerator, and deletion while
// walking a map whose observers edit it too.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <iterator>
#include <string>
#include <vector>

#include "RoutingLib/Routing.h"
#include "RoutingLib/Routing6.h"

namespace {

using Routing::Hardware::StaticInterfaceTunnelSupport;
using Velnet::IanaCryptoSuite;
using Velnet::MplsLabelAction;
using Velnet::TunnelIntfMode;

StaticInterfaceTunnelSupport greSupport() {
  StaticInterfaceTunnelSupport gre(TunnelIntfMode::gre, true, false);
  gre.cryptoSuiteIs(IanaCryptoSuite::suiteBGcm128);
  gre.cryptoSuiteIs(IanaCryptoSuite::vpnA);
  return gre;
}

// Everything `from` holds, sent over an attribute log into a fresh record.
template <typename T>
Cog::Ptr<T> mirrored(const Cog::Ptr<T>& from, Cog::Ptr<T> (*factory)(const Cog::Name&)) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = from->cogNboAttrLogSaIs(0, 0, out);
  sa->resync();
  auto to = factory(from->name());
  to->cogNboAttrLogSaIs(0, 0, nullptr)->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
  return to;
}

TEST(HardwareStatus, ExternalEnumerationsMirrorAndPrint) {
  auto s = Routing::Hardware::statusFactory("status");
  s->nexthopGroupMplsLabelActionIs(MplsLabelAction::swap);
  s->nexthopGroupMplsLabelActionIs(MplsLabelAction::push);
  s->nexthopGroupMplsOverGreLabelActionIs(MplsLabelAction::pop);
  s->nexthopGroupMplsOverUdpLabelActionIs(MplsLabelAction::forward, true);
  s->nexthopGroupMplsOverUdpLabelActionIs(MplsLabelAction::none, false);
  s->staticInterfaceTunnelSupportIs(greSupport());
  s->staticInterfaceTunnelSupportIs(TunnelIntfMode::ipip, StaticInterfaceTunnelSupport(TunnelIntfMode::ipip, false, true));
  // Each support record sits under its own encap.
  EXPECT_EQ(testsupport::exceptionText([&] { s->staticInterfaceTunnelSupportIs(TunnelIntfMode::ipsec, greSupport()); }),
            "Status::staticInterfaceTunnelSupport key ipsec is not the value's encap gre");
  EXPECT_EQ(s->staticInterfaceTunnelSupport().size(), 2u);

  // Text: enumerators by name, collections in key order.
  EXPECT_EQ(Cog::strepOf(s->nexthopGroupMplsLabelAction()), "[push, swap]");
  EXPECT_EQ(Cog::strepOf(s->nexthopGroupMplsOverUdpLabelAction()), "{none: False, forward: True}");
  EXPECT_EQ(valueToStrep(greSupport()).str(),
            "Value('Routing::Hardware::StaticInterfaceTunnelSupport', ** {'encap': gre, "
            "'cryptoSuite': [vpnA, suiteBGcm128], 'tunnelIntfIngressCountersSupported': True, "
            "'tunnelIntfEgressCountersSupported': False})");
  Cog::String text = valueToStrep(greSupport());
  auto it = text.begin();
  EXPECT_DEATH(StaticInterfaceTunnelSupport(it, text.end()),
               "No String constructor for StaticInterfaceTunnelSupport - has collection");

  // Attribute log: each enumeration as its 32-bit value, read back exactly.
  auto copy = mirrored(s, &Routing::Hardware::statusFactory);
  EXPECT_EQ(copy->nexthopGroupMplsLabelAction(), s->nexthopGroupMplsLabelAction());
  EXPECT_EQ(copy->nexthopGroupMplsOverGreLabelAction(), s->nexthopGroupMplsOverGreLabelAction());
  EXPECT_EQ(copy->nexthopGroupMplsOverUdpLabelAction(), s->nexthopGroupMplsOverUdpLabelAction());
  EXPECT_EQ(copy->staticInterfaceTunnelSupport(), s->staticInterfaceTunnelSupport());
  EXPECT_EQ(copy->staticInterfaceTunnelSupport(TunnelIntfMode::gre), greSupport());
  EXPECT_TRUE(!copy->staticInterfaceTunnelSupport(TunnelIntfMode::ipsec));

  // A number that is no enumerator is refused on reading, and nothing is
  // stored.
  const Cog::MemberInfo* actions = s->fwkType()->member("nexthopGroupMplsLabelAction");
  ASSERT_NE(actions, nullptr);
  EXPECT_EQ(actions->memberKeyType(), Velnet::cogEnumType(MplsLabelAction()));
  auto bad = Cog::allocate<Cog::NboAttrLog::Out>();
  bad->putU32(actions->index);
  bad->putU8(static_cast<std::uint8_t>(Cog::AttrLogOp::keySet));
  bad->putU32(9);
  auto fresh = Routing::Hardware::statusFactory("status");
  EXPECT_EQ(testsupport::exceptionText([&] {
              fresh->cogNboAttrLogSaIs(0, 0, nullptr)->deserialize(Cog::allocate<Cog::NboAttrLog::In>(bad->bytes()));
            }),
            "9 is not a value of Velnet::MplsLabelAction");
  EXPECT_TRUE(fresh->nexthopGroupMplsLabelAction().empty());

  // The IPv6 record keeps the same value type under the same keys.
  auto s6 = Routing6::Hardware::statusFactory("status");
  s6->staticInterfaceTunnelSupportIs(TunnelIntfMode::gre, greSupport());
  EXPECT_EQ(mirrored(s6, &Routing6::Hardware::statusFactory)->staticInterfaceTunnelSupport(TunnelIntfMode::gre),
            greSupport());
}

// Records each notification; deletes `alsoDelete` when told of `trigger`.
struct ExactMatchWatcher : Routing::Hardware::Config::Notifiee {
  std::vector<std::uint32_t> keys;
  std::uint32_t trigger = 0, alsoDelete = 0;
  void onPrefixLenInExactMatch(std::uint32_t key) override {
    keys.push_back(key);
    if (key == trigger && trigger != 0) notifier()->prefixLenInExactMatchDel(alsoDelete);
  }
};

TEST(HardwareConfig, OrderedMapDeletesThroughItsIterator) {
  auto c = Routing::Hardware::configFactory("config");
  for (std::uint32_t len = 8; len <= 32; len += 2) c->prefixLenInExactMatchIs(len, len + 1);
  auto w = Cog::allocate<ExactMatchWatcher>();
  w->notifierIs(c);
  // When 16 goes, its observer also deletes 18, the entry the walk would
  // visit next: the returned iterator must already be past it.
  w->trigger = 16;
  w->alsoDelete = 18;

  std::vector<std::uint32_t> visited;
  for (auto it = c->prefixLenInExactMatch().begin(); it != c->prefixLenInExactMatch().end();) {
    visited.push_back(it->first);
    if (it->first % 4 == 0) it = c->prefixLenInExactMatchDel(it);
    else ++it;
  }
  EXPECT_EQ(visited, (std::vector<std::uint32_t>{8, 10, 12, 14, 16, 20, 22, 24, 26, 28, 30, 32}));
  EXPECT_EQ(w->keys, (std::vector<std::uint32_t>{8, 12, 16, 18, 20, 24, 28, 32}));
  std::vector<std::uint32_t> left;
  for (const auto& [len, expanded] : c->prefixLenInExactMatch()) left.push_back(len);
  EXPECT_EQ(left, (std::vector<std::uint32_t>{10, 14, 22, 26, 30}));

  // Deleting the last entry returns end(); end() itself is no member.
  auto last = std::prev(c->prefixLenInExactMatch().end());
  EXPECT_TRUE(c->prefixLenInExactMatchDel(last) == c->prefixLenInExactMatch().end());
  EXPECT_DEATH(c->prefixLenInExactMatchDel(c->prefixLenInExactMatch().end()), "pos != ");
}

}  // namespace
