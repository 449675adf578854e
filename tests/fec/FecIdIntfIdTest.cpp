// FEC ids as interface ids: the bit mapping against the layout table over
// every top byte and the 40-bit index boundary, the next-hop-group helpers
// with their asymmetry at group id 0 and their assertions, and the
// hierarchical conversions of FecId for every kind of interface id.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <functional>
#include <random>
#include <string>

#include "RoutingLib/FecIdIntfId.h"
#include "Velnet/IntfIdKinds.h"

using namespace Memtab::Fib;
using Tunnel::TunnelTable::TunnelId;
using Velnet::FecIdIntfId;
using Velnet::GenericIntfId;
using Velnet::IntfId;

namespace {

constexpr std::uint64_t kTwo40 = std::uint64_t{1} << 40;
constexpr std::uint64_t kTwo48 = std::uint64_t{1} << 48;
constexpr const char* kTunnelRange =
    "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed";

FecId fec(unsigned t, std::uint64_t index) { return FecId((std::uint64_t{t} << 56) | index); }
FecId fec(AdjType t, std::uint64_t index) { return fec(static_cast<unsigned>(t), index); }
unsigned typeOf(AdjType t) { return static_cast<unsigned>(t); }

std::string rangeText(const std::function<void()>& f) { return testsupport::exceptionText(f); }

// Indexes that exercise each part's edges: the 23-bit split, the top of the
// 40-bit range, and random ones.
std::vector<std::uint64_t> foldableIndexes() {
  std::vector<std::uint64_t> out = {0,          1,           0x7FFFFF,   0x800000,
                                    0xFFFFFF,   kTwo40 - 1,  kTwo40 / 2, 0x5555555555};
  std::mt19937_64 rng(19);
  for (int i = 0; i < 32; ++i) out.push_back(rng() & (kTwo40 - 1));
  return out;
}

TEST(FecIdIntfId, BitMappingRoundTripsForEveryTopByte) {
  EXPECT_EQ(FecIdIntfId::fecIdIntfIdType(), 19u);
  for (unsigned t = 0; t < 256; ++t) {
    for (std::uint64_t index : foldableIndexes()) {
      const std::uint64_t f = fec(t, index).value();
      const IntfId i = FecIdIntfId::fecIdToIntfId(f);
      ASSERT_EQ(GenericIntfId::typeId(i), 19u);
      ASSERT_TRUE(FecIdIntfId::isFecIdIntfId(i));
      // The layout table, computed independently of the implementation.
      ASSERT_EQ(GenericIntfId::part(i, 0), f & 0x7FFFFF) << std::hex << f;
      ASSERT_EQ(GenericIntfId::part(i, 1), (t << 17) | ((f >> 23) & 0x1FFFF)) << std::hex << f;
      ASSERT_EQ(FecIdIntfId::intfIdToFecId(i), f) << std::hex << f;
    }
  }
}

TEST(FecIdIntfId, IndexesOf40BitsOrMoreHaveNoInterfaceForm) {
  EXPECT_NO_THROW(FecIdIntfId::fecIdToIntfId(fec(nextHopGroupAdj(), kTwo40 - 1).value()));
  for (unsigned bit = 40; bit < 56; ++bit) {
    for (unsigned t : {0u, 3u, 20u}) {
      EXPECT_EQ(rangeText([&] { FecIdIntfId::fecIdToIntfId(fec(t, std::uint64_t{1} << bit).value()); }),
                "Invalid fecId, cannot convert to IntfId")
          << bit;
    }
  }
  EXPECT_EQ(rangeText([] { FecId::fecIdToHierarchicalIntfId(fec(hostAdj(), kTwo40)); }),
            "Invalid fecId, cannot convert to IntfId");
}

TEST(FecIdIntfId, OtherKindsFoldToNoFec) {
  for (const IntfId& i : {IntfId(), IntfId::ethernet(3, 1), IntfId::vlan(10), IntfId::tunnel(5),
                          Velnet::NexthopGroupIntfId::nexthopGroupIdToIntfId(7),
                          GenericIntfId::intfId(18, 0x7FFFFF, 0x1FFFFFF),
                          GenericIntfId::intfId(20, 1, 1)}) {
    EXPECT_FALSE(FecIdIntfId::isFecIdIntfId(i)) << i;
    EXPECT_EQ(FecIdIntfId::intfIdToFecId(i), 0u) << i;
    EXPECT_FALSE(FecIdIntfId::isNexthopGroupIdIntfId(i)) << i;
  }
}

TEST(FecIdIntfId, MadeFromTheInterfaceNameItPrints) {
  const FecIdIntfId f(FecIdIntfId::fecIdToIntfId((std::uint64_t(5) << 56) | 0x12345));
  const Cog::String name = valueToStrep(f.intfId());
  EXPECT_EQ(FecIdIntfId(name), f);
  EXPECT_EQ(FecIdIntfId(Cog::String("Ethernet3/1")).intfId(), IntfId::ethernet(3, 1));
  EXPECT_THROW(FecIdIntfId(Cog::String("Ethernet3/1 trailing")), Cog::ParseException);
}

TEST(FecIdIntfId, NexthopGroupHelpersKeepTheAsymmetryAtZero) {
  for (std::uint32_t n : {1u, 7u, 0x7FFFFFu, 0x800000u, 0xFFFFFFFFu}) {
    const IntfId i = FecIdIntfId::nexthopGroupIdToIntfId(n);
    EXPECT_TRUE(FecIdIntfId::isNexthopGroupIdIntfId(i));
    EXPECT_EQ(FecIdIntfId::intfIdToNexthopGroupId(i), n);
    EXPECT_EQ(FecId(FecIdIntfId::intfIdToFecId(i)), FecId::nexthopGroupIdToFecId(n));
  }
  // Group 0 has an interface form (the nextHopGroupAdj FEC with index 0)
  // although FecId::nexthopGroupIdToFecId(0) is the invalid FEC.
  const IntfId zero = FecIdIntfId::nexthopGroupIdToIntfId(0);
  EXPECT_EQ(zero, FecIdIntfId::fecIdToIntfId(std::uint64_t{3} << 56));
  EXPECT_TRUE(FecIdIntfId::isNexthopGroupIdIntfId(zero));
  EXPECT_EQ(FecIdIntfId::intfIdToNexthopGroupId(zero), 0u);
  EXPECT_EQ(FecId::nexthopGroupIdToFecId(0), FecId());

  EXPECT_FALSE(FecIdIntfId::isNexthopGroupIdIntfId(FecIdIntfId::fecIdToIntfId(fec(hostAdj(), 7).value())));
  // A FEC interface id folding the FEC id 0 is no next-hop group either.
  EXPECT_FALSE(FecIdIntfId::isNexthopGroupIdIntfId(FecIdIntfId::fecIdToIntfId(0)));
}

TEST(FecIdIntfIdDeathTest, NexthopGroupIdOfTheWrongKindAsserts) {
  EXPECT_DEATH(FecIdIntfId::intfIdToNexthopGroupId(IntfId::ethernet(1)),
               "FecIdIntfId:72: .*intfIdToNexthopGroupId.*: "
               "Assertion `FecIdIntfId::fecIdIntfIdType\\(\\) == typeId\\( intfId \\)' failed");
  EXPECT_DEATH(FecIdIntfId::intfIdToNexthopGroupId(FecIdIntfId::fecIdToIntfId(fec(hostAdj(), 7).value())),
               "FecIdIntfId:74: .*intfIdToNexthopGroupId.*: "
               "Assertion `fecId.adjType\\(\\) == Memtab::Fib::nextHopGroupAdj\\(\\)' failed");
  // A folded adjacency type beyond the last kind trips FecId's own bound.
  const IntfId beyond = FecIdIntfId::fecIdToIntfId(fec(30, 1).value());
  EXPECT_DEATH(FecIdIntfId::intfIdToNexthopGroupId(beyond), "FecBasicTypes:18: .*adjTypeMax");
  EXPECT_DEATH(FecIdIntfId::isNexthopGroupIdIntfId(beyond), "FecBasicTypes:18: .*adjTypeMax");
}

// fecIdToHierarchicalIntfId picks the kind per adjacency type, and
// hierarchicalIntfIdToFecId brings every one of them back.
TEST(FecIdHierarchical, EveryAdjacencyTypeRoundTrips) {
  for (unsigned t = 0; t < 21; ++t) {
    for (std::uint64_t index : foldableIndexes()) {
      const FecId f = fec(t, index);
      if (t == typeOf(nextHopGroupAdj()) && index > 0xFFFFFFFF) continue;  // groups are 32-bit
      if (t == typeOf(tunnelFibAdj()) && (index >> 44) == 6) continue;    // no FEC, below
      const IntfId i = FecId::fecIdToHierarchicalIntfId(f);
      if (!f.isValid()) {
        EXPECT_EQ(i, IntfId());
        continue;
      }
      const std::uint32_t kind = GenericIntfId::typeId(i);
      if (t == typeOf(tunnelFibAdj())) {
        EXPECT_EQ(kind, GenericIntfId::dynamicTunnelType);
        EXPECT_EQ(Velnet::DynamicTunnelIntfId::intfIdToTunnelId(i), index);
      } else if (t == typeOf(nextHopGroupAdj())) {
        EXPECT_EQ(kind, GenericIntfId::nexthopGroupType);
        EXPECT_EQ(Velnet::NexthopGroupIntfId::intfIdToNexthopGroupId(i), index);
      } else {
        EXPECT_EQ(i, FecIdIntfId::fecIdToIntfId(f.value()));
      }
      const FecId back = FecId::hierarchicalIntfIdToFecId(i);
      // Next-hop group 0 comes back as the invalid FEC, as
      // nexthopGroupIdToFecId answers.
      EXPECT_EQ(back, t == typeOf(nextHopGroupAdj()) && index == 0 ? FecId() : f) << t << " " << index;
    }
  }
}

TEST(FecIdHierarchical, ToInterfaceIdEdges) {
  EXPECT_EQ(FecId::fecIdToHierarchicalIntfId(FecId()), IntfId());
  EXPECT_EQ(FecId::fecIdToHierarchicalIntfId(fec(21, 1)), IntfId());
  EXPECT_EQ(FecId::fecIdToHierarchicalIntfId(fec(0xFF, 1)), IntfId());
  // Tunnels carry up to 48 bits, more than a FEC interface id could.
  EXPECT_EQ(FecId::fecIdToHierarchicalIntfId(fec(tunnelFibAdj(), kTwo48 - 1)),
            Velnet::DynamicTunnelIntfId::tunnelValueToIntfId(kTwo48 - 1));
  EXPECT_EQ(rangeText([] { FecId::fecIdToHierarchicalIntfId(fec(tunnelFibAdj(), kTwo48)); }),
            kTunnelRange);
  // A next-hop-group FEC names the group by its low 32 bits.
  EXPECT_EQ(FecId::fecIdToHierarchicalIntfId(fec(nextHopGroupAdj(), (std::uint64_t{1} << 32) | 9)),
            Velnet::NexthopGroupIntfId::nexthopGroupIdToIntfId(9));
}

TEST(FecIdHierarchical, FromEveryKindOfInterfaceId) {
  using Velnet::DynamicTunnelIntfId;
  using Velnet::NexthopGroupIntfId;
  const FecId none;
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId()), none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId::ethernet(3, 1, 2)), none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId::management(1)), none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId::portChannel(10)), none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId::vlan(4094)), none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId::loopback(0)), none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(GenericIntfId::intfId(200, 1, 1)), none);

  // A FEC interface id gives its FEC as folded, whatever the type.
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(FecIdIntfId::fecIdToIntfId(fec(srTePolicyAdj(), 77).value())),
            fec(srTePolicyAdj(), 77));

  // Dynamic tunnels: the tunnel id, refused from 2^48, no FEC for code 6.
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(DynamicTunnelIntfId::tunnelValueToIntfId(kTwo48 - 1)),
            fec(tunnelFibAdj(), kTwo48 - 1));
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(DynamicTunnelIntfId::tunnelValueToIntfId((6ull << 44) | 3)),
            none);
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(DynamicTunnelIntfId::tunnelValueToIntfId((5ull << 44) | 3)),
            fec(tunnelFibAdj(), (5ull << 44) | 3));
  EXPECT_EQ(rangeText([] {
              FecId::hierarchicalIntfIdToFecId(DynamicTunnelIntfId::tunnelValueToIntfId(kTwo48));
            }),
            kTunnelRange);

  // Static tunnels are numbered under tunnel type code 9.
  for (std::uint32_t port : {0u, 1u, 5u, 0xFFFFu}) {
    EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(IntfId::tunnel(port)),
              fec(tunnelFibAdj(), (9ull << 44) | port))
        << port;
  }
  // A type-6 id with bits above the port number is no tunnel interface.
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(GenericIntfId::intfId(6, std::uint64_t{0x10000})), none);

  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(NexthopGroupIntfId::nexthopGroupIdToIntfId(7)),
            fec(nextHopGroupAdj(), 7));
  EXPECT_EQ(FecId::hierarchicalIntfIdToFecId(NexthopGroupIntfId::nexthopGroupIdToIntfId(0)), none);
}

}  // namespace
