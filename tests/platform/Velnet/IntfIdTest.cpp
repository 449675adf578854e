#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Cog/Exception.h"
#include "Velnet/IntfIdKinds.h"

namespace {

using namespace Velnet;
using G = GenericIntfId;
using Tunnel::TunnelTable::TunnelId;

TEST(IntfId, TwoWordsKeepFourByteAlignment) {
  EXPECT_EQ(sizeof(IntfId), 8u);
  EXPECT_EQ(alignof(IntfId), 4u);
  struct Image {
    std::uint32_t code;
    IntfId intf;
  };
  EXPECT_EQ(offsetof(Image, intf), 4u);
  IntfId i(0x0102030405060708ull);
  EXPECT_EQ(i.high(), 0x01020304u);
  EXPECT_EQ(i.low(), 0x05060708u);
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << i;
  EXPECT_EQ(out->bytes(), (std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(IntfId, NamesPrintAndParse) {
  const std::pair<IntfId, const char*> cases[] = {
      {IntfId(), ""},
      {IntfId::ethernet(1), "Ethernet1"},
      {IntfId::ethernet(3, 1), "Ethernet3/1"},
      {IntfId::ethernet(3, 1, 4), "Ethernet3/1/4"},
      {IntfId::ethernet(0, 0, 0), "Ethernet0/0/0"},
      {IntfId::ethernet(262143), "Ethernet262143"},
      {IntfId::management(0), "Management0"},
      {IntfId::management(1, 1), "Management1/1"},
      {IntfId::portChannel(4294967295u), "Port-Channel4294967295"},
      {IntfId::vlan(1), "Vlan1"},
      {IntfId::vlan(4094), "Vlan4094"},
      {IntfId::loopback(0), "Loopback0"},
      {IntfId::tunnel(65535), "Tunnel65535"},
      {NexthopGroupIntfId::nexthopGroupIdToIntfId(0), "NexthopGroup0"},
      {DynamicTunnelIntfId::tunnelIdToIntfId(TunnelId(TunnelId::maxValue)), "DynamicTunnel281474976710655"},
      {G::intfId(G::fecIdType, 0x7FFFFFu, 0x1FFFFFFu), "GenericIntf19/8388607/33554431"},
      {G::intfId(G::vlanType, std::uint64_t{0}), "GenericIntf3/0/0"},          // Vlan 0 is no name
      {G::intfId(G::ethernetType, std::uint64_t{1} << 38), "GenericIntf1/0/16384"},  // no count
  };
  for (const auto& [id, text] : cases) {
    EXPECT_EQ(valueToStrep(id), Cog::String(text));
    EXPECT_EQ(IntfId::fromString(text), id) << text;
  }
  // Names are matched without regard to case; printing is canonical.
  EXPECT_EQ(IntfId::fromString("ethernet3/1"), IntfId::ethernet(3, 1));
  EXPECT_EQ(IntfId::fromString("PORT-CHANNEL7"), IntfId::portChannel(7));
  EXPECT_EQ(IntfId::fromString("genericintf1/5/0"), G::intfId(1, 5u, 0u));
  EXPECT_EQ(IntfId::fromString("Ethernet007"), IntfId::ethernet(7));
}

TEST(IntfId, MalformedNamesAreRefused) {
  const char* parseErrors[] = {
      "Ethernet", "Ethernet1/", "Ethernet1/2/3/4", "Ethernet/1", "Ethernet 1", "Ethernet-1", "Foo1",
      "Port-Channel", "Port Channel1", "GenericIntf1/0", "GenericIntf1", "GenericIntf1/0/0/0", "1",
      "/1", "Vlan1x", "Ethernet1.5", "Tunnel-1",
  };
  for (const char* text : parseErrors) {
    EXPECT_THROW(IntfId::fromString(text), Cog::ParseException) << text;
  }
  const char* rangeErrors[] = {
      "Ethernet262144", "Ethernet1/262144", "Management1/1/262144", "Vlan0", "Vlan4095",
      "Tunnel65536", "Loopback4294967296", "Port-Channel99999999999999999999999",
      "NexthopGroup4294967296", "DynamicTunnel72057594037927936", "GenericIntf256/0/0",
      "GenericIntf1/16777216/0", "GenericIntf1/0/4294967296",
  };
  for (const char* text : rangeErrors) {
    EXPECT_THROW(IntfId::fromString(text), Cog::RangeException) << text;
  }
  EXPECT_THROW(IntfId::vlan(0), Cog::RangeException);
  EXPECT_THROW(IntfId::ethernet(1, 1u << 18), Cog::RangeException);
  EXPECT_THROW(IntfId::tunnel(65536), Cog::RangeException);
}

// Every 64-bit value has a text that parses back to it.
TEST(IntfId, EveryValuePrintsAsTextThatParsesBack) {
  std::mt19937_64 rng(3);
  for (int i = 0; i < 20000; ++i) {
    std::uint64_t v = rng();
    // Concentrate on the named type ids and small payloads too.
    if (i % 3 == 0) v = (v % 20) << 56 | (v >> 8 & 0xFFFFF);
    if (i % 3 == 1) v = (v % 8) << 56 | (v >> 20 & 0x3FFFFFFFFFull) << 2 | (v & 3);
    IntfId id(v);
    Cog::String text = valueToStrep(id);
    ASSERT_EQ(IntfId::fromString(text).value(), v) << text;
  }
}

TEST(IntfId, OrderOfNamedInterfacesIsNumeric) {
  const std::vector<IntfId> sorted = {
      IntfId(),
      IntfId::ethernet(2),
      IntfId::ethernet(3),
      IntfId::ethernet(3, 1),
      IntfId::ethernet(3, 1, 2),
      IntfId::ethernet(3, 2),
      IntfId::ethernet(10),
      IntfId::portChannel(1),
      IntfId::portChannel(20),
      IntfId::vlan(1),
      IntfId::vlan(100),
      IntfId::loopback(0),
      IntfId::management(1),
      IntfId::tunnel(1),
  };
  EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));
  EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
}

// Each part holds its full width and writing one field leaves the others.
TEST(GenericIntfId, PartsAreIndependentAndWideEnough) {
  EXPECT_GE(G::partBits(0), 23u);
  EXPECT_GE(G::partBits(1), 25u);
  std::mt19937 rng(5);
  for (int i = 0; i < 5000; ++i) {
    std::uint32_t t = rng() & G::maxTypeId;
    std::uint32_t p0 = rng() & G::maxPart(0);
    std::uint32_t p1 = rng() & G::maxPart(1);
    IntfId id;
    G::typeIdIs(id, t);
    G::partIs(id, 0, p0);
    G::partIs(id, 1, p1);
    ASSERT_EQ(G::typeId(id), t);
    ASSERT_EQ(G::part(id, 0), p0);
    ASSERT_EQ(G::part(id, 1), p1);
    // Rewrite each field in turn with a fresh value.
    std::uint32_t q0 = rng() & G::maxPart(0), q1 = rng() & G::maxPart(1), u = rng() & G::maxTypeId;
    G::partIs(id, 0, q0);
    ASSERT_EQ(G::typeId(id), t);
    ASSERT_EQ(G::part(id, 1), p1);
    G::partIs(id, 1, q1);
    ASSERT_EQ(G::part(id, 0), q0);
    ASSERT_EQ(G::typeId(id), t);
    G::typeIdIs(id, u);
    ASSERT_EQ(G::part(id, 0), q0);
    ASSERT_EQ(G::part(id, 1), q1);
    ASSERT_EQ(id, G::intfId(u, q0, q1));
  }
  EXPECT_EQ(G::fecIdIntfIdType(), 19u);
  IntfId fec;
  G::typeIdIs(fec, G::fecIdIntfIdType());
  EXPECT_TRUE(G::isFecIdIntfIdType(fec));
  EXPECT_FALSE(G::isFecIdIntfIdType(IntfId::ethernet(1)));
}

TEST(GenericIntfIdDeathTest, OutOfRangeFieldsAbort) {
  IntfId id;
  EXPECT_DEATH(G::typeIdIs(id, 256), "t <= maxTypeId");
  EXPECT_DEATH(G::partIs(id, 0, 1u << 24), "v <= maxPart");
  EXPECT_DEATH(G::partIs(id, 2, 0), "n < numParts");
  EXPECT_DEATH(G::part(id, 2), "n < numParts");
  EXPECT_DEATH(NexthopGroupIntfId::intfIdToNexthopGroupId(IntfId::ethernet(1)), "isNexthopGroupIntfId");
  EXPECT_DEATH(DynamicTunnelIntfId::intfIdToTunnelId(IntfId::tunnel(1)), "isDynamicTunnelIntfId");
  EXPECT_DEATH(TunnelIntfId::intfIdToPort(IntfId::vlan(1)), "isTunnelIntfId");
  EXPECT_DEATH(DynamicTunnelIntfId::tunnelValueToIntfId(std::uint64_t{1} << 56), "payload <= maxPayload");
}

TEST(IntfIdKinds, ConversionsRoundTripAndKindsAreDisjoint) {
  std::mt19937_64 rng(9);
  for (int i = 0; i < 2000; ++i) {
    auto group = static_cast<std::uint32_t>(rng());
    IntfId n = NexthopGroupIntfId::nexthopGroupIdToIntfId(group);
    ASSERT_TRUE(NexthopGroupIntfId::isNexthopGroupIntfId(n));
    ASSERT_EQ(NexthopGroupIntfId::intfIdToNexthopGroupId(n), group);

    TunnelId t(rng() & TunnelId::maxValue);
    IntfId d = DynamicTunnelIntfId::tunnelIdToIntfId(t);
    ASSERT_TRUE(DynamicTunnelIntfId::isDynamicTunnelIntfId(d));
    ASSERT_EQ(TunnelId(DynamicTunnelIntfId::intfIdToTunnelId(d)), t);

    auto port = static_cast<std::uint16_t>(rng());
    IntfId s = TunnelIntfId::portToIntfId(port);
    ASSERT_EQ(s, IntfId::tunnel(port));
    ASSERT_TRUE(TunnelIntfId::isTunnelIntfId(s));
    ASSERT_EQ(TunnelIntfId::intfIdToPort(s), port);

    for (IntfId x : {n, d, s}) {
      int kinds = NexthopGroupIntfId::isNexthopGroupIntfId(x) + DynamicTunnelIntfId::isDynamicTunnelIntfId(x) +
                  TunnelIntfId::isTunnelIntfId(x) + G::isFecIdIntfIdType(x);
      ASSERT_EQ(kinds, 1);
    }
  }
  for (IntfId plain : {IntfId(), IntfId::ethernet(1), IntfId::vlan(5)}) {
    EXPECT_FALSE(NexthopGroupIntfId::isNexthopGroupIntfId(plain));
    EXPECT_FALSE(DynamicTunnelIntfId::isDynamicTunnelIntfId(plain));
    EXPECT_FALSE(TunnelIntfId::isTunnelIntfId(plain));
  }
}

// A dynamic-tunnel id can carry tunnel values past the tunnel table's range;
// turning them back into a TunnelId refuses them.
TEST(IntfIdKinds, DynamicTunnelCarriesValuesTheTunnelIdRefuses) {
  for (std::uint64_t v : {std::uint64_t{1} << 48, (std::uint64_t{1} << 49) - 1, G::maxPayload}) {
    IntfId d = DynamicTunnelIntfId::tunnelValueToIntfId(v);
    ASSERT_EQ(DynamicTunnelIntfId::intfIdToTunnelId(d), v);
    try {
      TunnelId t(DynamicTunnelIntfId::intfIdToTunnelId(d));
      ADD_FAILURE() << "accepted " << v;
    } catch (const Cog::RangeException& e) {
      EXPECT_STREQ(e.what(), "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
    }
  }
  // A static tunnel's port, composed with type code 9, fits the table.
  std::uint64_t value = TunnelId::convertToTunnelValue(9, TunnelIntfId::intfIdToPort(IntfId::tunnel(77)));
  TunnelId t(value);
  EXPECT_EQ(t.typeCode(), 9u);
  EXPECT_EQ(t.index(), 77u);
  EXPECT_EQ(DynamicTunnelIntfId::intfIdToTunnelId(DynamicTunnelIntfId::tunnelIdToIntfId(t)), value);
}

}  // namespace
