// FecId, TableId and the FEC enumerations: the edges of the identifier
// layout, the conversions (directly and through reflection), the exact
// error and assertion texts.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <sstream>

#include "Cog/GenericIf.h"
#include "RoutingLib/FecBasicTypes.h"

using namespace Memtab::Fib;
using Tunnel::TunnelTable::TunnelId;

namespace {

constexpr std::uint64_t kTwo56 = std::uint64_t{1} << 56;

FecId fec(AdjType t, std::uint64_t index) { return FecId::fecIdForAdjType(t, index); }

std::string rangeText(const std::function<void()>& f) { return testsupport::exceptionText(f); }

TEST(FecId, LayoutAndValidity) {
  EXPECT_FALSE(FecId().isValid());
  EXPECT_TRUE(!FecId());
  EXPECT_FALSE(FecId((std::uint64_t{21} << 56) | 1).isValid());
  for (unsigned t = 0; t < 21; ++t) {
    for (std::uint64_t index : {std::uint64_t{0}, std::uint64_t{1}, kTwo56 - 1}) {
      FecId f = fec(static_cast<AdjType>(t), index);
      EXPECT_EQ(f.value(), (std::uint64_t{t} << 56) | index);
      EXPECT_EQ(static_cast<unsigned>(f.adjType()), t);
      EXPECT_EQ(f.adjIndex(), index);
      EXPECT_EQ(f.isValid(), f.value() != 0);
      bool onlyDefault = (0x37F48u >> t) & 1;
      EXPECT_EQ(f.onlySupportedInDefaultVrf(), onlyDefault) << t;
    }
  }
  EXPECT_EQ(0x1C80B7u & 0x37F48u, 0u);
  EXPECT_EQ(0x1C80B7u | 0x37F48u, (1u << 21) - 1);
}

TEST(FecId, IndexBound) {
  EXPECT_EQ(fec(nextHopGroupAdj(), kTwo56 - 1).adjIndex(), kTwo56 - 1);
  EXPECT_EQ(rangeText([] { fec(nextHopGroupAdj(), kTwo56); }),
            "FecId index value 72057594037927936 is out of range");
}

TEST(FecIdDeathTest, AdjTypeBoundAsserts) {
  FecId bad(std::uint64_t{21} << 56);
  EXPECT_DEATH(bad.adjType(),
               "FecBasicTypes:18: Memtab::Fib::AdjType Memtab::Fib::FecId::adjType\\(\\) const: "
               "Assertion `\\(value_ >> Fib::adjTypePos\\(\\)\\) < Fib::adjTypeMax\\(\\)' failed");
  EXPECT_DEATH(FecId(std::uint64_t{0xFF} << 56).onlySupportedInDefaultVrf(), "adjTypeMax");
}

TEST(FecId, Conversions) {
  EXPECT_EQ(FecId::nexthopGroupIdToFecId(0), FecId());
  EXPECT_EQ(FecId::nexthopGroupIdToFecId(7), fec(nextHopGroupAdj(), 7));
  EXPECT_EQ(FecId::fecIdToNexthopGroupId(fec(nextHopGroupAdj(), 0xFFFFFFFF)), 0xFFFFFFFFu);
  EXPECT_EQ(FecId::fecIdToNexthopGroupId(fec(hostAdj(), 7)), 0u);
  EXPECT_EQ(FecId::fecIdToNexthopGroupId(FecId((std::uint64_t{30} << 56) | 7)), 0u);

  EXPECT_EQ(FecId::convertFecIdForUseByTunnel(fec(hostAdj(), 9)), FecId());
  EXPECT_EQ(FecId::convertFecIdForUseByTunnel(FecId()), FecId());
  EXPECT_EQ(FecId::convertFecIdForUseByTunnel(fec(fibV6Adj(), 9)), fec(usedByTunnelV6Adj(), 9));
  EXPECT_EQ(FecId::convertFecIdForUseByTunnel(fec(fibV4Adj(), 9)), fec(usedByTunnelV4Adj(), 9));
  FecId beyond((std::uint64_t{22} << 56) | 3);
  EXPECT_EQ(FecId::convertFecIdForUseByTunnel(beyond), beyond);

  EXPECT_EQ(FecId::fecIdToNewAdjType(hostAdj(), FecId()), FecId());
  EXPECT_EQ(FecId::fecIdToNewAdjType(hostAdj(), beyond), beyond);
  EXPECT_EQ(FecId::fecIdToNewAdjType(hostAdj(), fec(fibV4Adj(), 5)), fec(hostAdj(), 5));
}

TEST(FecId, TunnelConversions) {
  EXPECT_EQ(FecId::tunnelIdToFecId(TunnelId(std::uint64_t{6} << 44)), FecId());
  EXPECT_EQ(FecId::tunnelIdToFecId(TunnelId((std::uint64_t{6} << 44) | 5)), FecId());
  TunnelId t((std::uint64_t{5} << 44) | 77);
  FecId f = FecId::tunnelIdToFecId(t);
  EXPECT_EQ(f, fec(tunnelFibAdj(), t.value()));
  EXPECT_EQ(FecId::fecIdToTunnelId(f), t);
  EXPECT_EQ(FecId::fecIdToTunnelId(fec(hostAdj(), 5)), TunnelId());
  EXPECT_EQ(FecId::fecIdToTunnelId(FecId()), TunnelId());
  EXPECT_EQ(rangeText([] { FecId::fecIdToTunnelId(fec(tunnelFibAdj(), std::uint64_t{1} << 48)); }),
            "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed");
}

TEST(FecId, HashIsOneAtATimeOverLittleEndianBytes) {
  auto reference = [](std::uint64_t v) {
    std::uint32_t h = 0;
    for (int i = 0; i < 8; ++i) {
      h += static_cast<std::uint8_t>(v >> (8 * i));
      h += h << 10;
      h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  };
  for (std::uint64_t v : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0x0300000000000005},
                          ~std::uint64_t{0}}) {
    EXPECT_EQ(FecId(v).hash(), reference(v)) << v;
  }
}

TEST(FecId, Forms) {
  FecId f = fec(nextHopGroupAdj(), 5);
  EXPECT_EQ(f.toStrep().str(), "3000000-5--300000000000005");
  EXPECT_EQ(FecId().toStrep().str(), "0-0--0");
  EXPECT_EQ(valueToStrep(f).str(), "216172782113783813");
  std::ostringstream os;
  os << f;
  EXPECT_EQ(os.str(), "216172782113783813");
  Cog::String text("216172782113783813");
  auto it = text.begin();
  EXPECT_EQ(FecId(it, text.end()), f);
  EXPECT_TRUE(it == text.end());

  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << f;
  EXPECT_EQ(out->bytes(), (std::vector<std::uint8_t>{3, 0, 0, 0, 0, 0, 0, 5}));
  Cog::NboAttrLog::In in(out->bytes());
  EXPECT_EQ(FecId(&in, Cog::StreamBogon{}), f);
}

TEST(TableId, ConstantsAndForms) {
  EXPECT_EQ(TableId::globalTable, 0xFFFF);
  EXPECT_EQ(TableId::noTable, 0xFFFE);
  EXPECT_TRUE(!TableId());
  EXPECT_FALSE(!TableId(3));
  Cog::Hash h;
  h.mix(std::uint16_t{300});
  EXPECT_EQ(TableId(300).hash(), h.result());
  EXPECT_EQ(valueToStrep(TableId(TableId::globalTable)).str(), "65535");
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << TableId(0x1234);
  EXPECT_EQ(out->bytes(), (std::vector<std::uint8_t>{0x12, 0x34}));
}

TEST(FecEnums, Frame) {
  EXPECT_EQ(stringValue(fecModeUnified()).str(), "fecModeUnified");
  EXPECT_EQ(FecModeInstance(1u), fecModePerVrf());
  EXPECT_EQ(FecModeInstance(Cog::String("fecModeUnified")), fecModeUnified());
  EXPECT_THROW(FecModeInstance(3u), Cog::RangeException);
  EXPECT_THROW(FecModeInstance(Cog::String("fecModeBogus")), Cog::ParseException);
  EXPECT_EQ(static_cast<unsigned>(ipv6DropFecId()), 2u);
  EXPECT_EQ(static_cast<unsigned>(adjTypeMax()), 21u);
  EXPECT_EQ(sizeof(AdjType), 1u);
  EXPECT_EQ(sizeof(FecMode), 4u);
  Cog::String text("usedByTunnelV6Adj rest");
  auto it = text.begin();
  AdjType t;
  sequenceToValue(it, text.end(), &t);
  EXPECT_EQ(t, usedByTunnelV6Adj());
  EXPECT_EQ(std::string(it, text.end()), " rest");
  std::ostringstream os;
  os << hostAdj();
  EXPECT_EQ(os.str(), "hostAdj");
}

TEST(FecIdReflection, OrderAndStaticConversions) {
  const Cog::CogType* type = Cog::typeByName("Memtab::Fib::FecId");
  ASSERT_NE(type, nullptr);
  std::vector<std::string> names;
  for (auto* m : type->members()) names.push_back(m->name);
  EXPECT_EQ(names, (std::vector<std::string>{
                       "value", "hash", "adjType", "adjIndex", "isValid", "fecIdToTunnelId",
                       "tunnelIdToFecId", "nexthopGroupIdToFecId", "fecIdToNexthopGroupId",
                       "hierarchicalIntfIdToFecId", "fecIdToHierarchicalIntfId",
                       "fecIdForAdjType", "fecIdToNewAdjType", "convertFecIdForUseByTunnel",
                       "onlySupportedInDefaultVrf", "toStrep"}));
  EXPECT_EQ(type->member("value")->index, 2u);
  EXPECT_EQ(type->member("toStrep")->index, 17u);

  auto g = type->callStatic("nexthopGroupIdToFecId", {Cog::genericIfOf(5u)});
  EXPECT_EQ(*g->as<FecId>(), fec(nextHopGroupAdj(), 5));
  EXPECT_EQ(g->call("toStrep")->strRep().str(), "'3000000-5--300000000000005'");
  EXPECT_EQ(g->call("adjType")->strRep().str(), "nextHopGroupAdj");
  EXPECT_EQ(g->attribute("value")->strRep().str(), "216172782113783813");
  EXPECT_EQ(g->attribute(2u)->strRep().str(), "216172782113783813");
  EXPECT_FALSE(g->isDefault());

  // Arguments convert from other integer widths and from string forms.
  auto h = type->callStatic("fecIdForAdjType", {Cog::genericIfOf(Cog::String("fibV6Adj")),
                                                Cog::genericIfOf(std::uint8_t{9})});
  EXPECT_EQ(*h->as<FecId>(), fec(fibV6Adj(), 9));
  auto u = type->callStatic("convertFecIdForUseByTunnel", {h});
  EXPECT_EQ(*u->as<FecId>(), fec(usedByTunnelV6Adj(), 9));
  EXPECT_THROW(type->callStatic("fecIdForAdjType", {Cog::genericIfOf(fibV4Adj()),
                                                   Cog::genericIfOf(kTwo56)}),
               Cog::RangeException);
  EXPECT_THROW(type->callStatic("nexthopGroupIdToFecId", {Cog::genericIfOf(std::uint64_t{1} << 32)}),
               Cog::RangeException);
  EXPECT_THROW(type->callStatic("nexthopGroupIdToFecId", {}), Cog::RangeException);
  EXPECT_THROW(type->callStatic("adjType", {}), Cog::NotSupportedException);
  EXPECT_THROW(g->call("value"), Cog::NotSupportedException);
  EXPECT_THROW(g->attribute("toStrep"), Cog::NotSupportedException);
  EXPECT_THROW(g->attribute("nope"), Cog::NotSupportedException);

  const Cog::CogType* table = Cog::typeByName("Memtab::Fib::TableId");
  std::vector<std::string> tableNames;
  for (auto* m : table->members()) tableNames.push_back(m->name);
  EXPECT_EQ(tableNames, (std::vector<std::string>{"value", "globalTable", "noTable", "hash"}));
  auto t = table->fromCtorArgs({Cog::genericIfOf(7)});
  EXPECT_EQ(t->attribute("noTable")->strRep().str(), "65534");
  EXPECT_EQ(t->call("hash")->strRep().str(), std::to_string(TableId(7).hash()));
}

}  // namespace
