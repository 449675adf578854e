// Hand-written functions of Memtab::Fib::FecId (schema/FecBasicTypes.cog).
#include "RoutingLib/FecBasicTypes.h"

#include <cinttypes>
#include <cstdio>

#include "Cog/Assert.h"
#include "Cog/Exception.h"
#include "Cog/Hash.h"

namespace Memtab::Fib {
namespace {

constexpr std::uint64_t kIndexMask = (std::uint64_t{1} << adjTypePos()) - 1;

// Bit mask over the adjacency types that exist only in the default VRF:
// nextHopGroupAdj, tunnelFibAdj, evpn*, mpls*, floodSetAdj, pw*, usedByTunnel*.
constexpr std::uint32_t kOnlyDefaultVrfMask = 0x37F48;

}  // namespace

Tunnel::TunnelTable::TunnelId FecId::fecIdToTunnelId(const FecId& fecId) {
  std::uint64_t v = fecId.value();
  if (v == 0 || (v >> adjTypePos()) != static_cast<std::uint64_t>(tunnelFibAdj())) {
    return Tunnel::TunnelTable::TunnelId();
  }
  // Refuses an index of 2^48 or more with the tunnel id's own range error.
  return Tunnel::TunnelTable::TunnelId(v & kIndexMask);
}

FecId FecId::tunnelIdToFecId(const Tunnel::TunnelTable::TunnelId& tunnelId) {
  std::uint64_t t = tunnelId.value();
  // Tunnels of type code 6 never get a FEC.
  if ((t >> Tunnel::TunnelTable::TunnelId::typeCodeShift) == 6) return FecId();
  return fecIdForAdjType(tunnelFibAdj(), t & kIndexMask);
}

FecId FecId::nexthopGroupIdToFecId(std::uint32_t nexthopGroupId) {
  if (nexthopGroupId == 0) return FecId();
  return fecIdForAdjType(nextHopGroupAdj(), nexthopGroupId);
}

std::uint32_t FecId::fecIdToNexthopGroupId(const FecId& fecId) {
  if (!fecId.isValid() || (fecId.value() >> adjTypePos()) !=
                              static_cast<std::uint64_t>(nextHopGroupAdj())) {
    return 0;
  }
  return static_cast<std::uint32_t>(fecId.value());
}

FecId FecId::fecIdForAdjType(AdjType adjType, std::uint64_t index) {
  if (index > kIndexMask) {
    char text[64];
    std::snprintf(text, sizeof text, "FecId index value %llu is out of range",
                  static_cast<unsigned long long>(index));
    throw Cog::RangeException(text);
  }
  return FecId((static_cast<std::uint64_t>(adjType) << adjTypePos()) | index);
}

FecId FecId::fecIdToNewAdjType(AdjType adjType, const FecId& fecId) {
  if (!fecId.isValid()) return fecId;
  return FecId((static_cast<std::uint64_t>(adjType) << adjTypePos()) |
               (fecId.value() & kIndexMask));
}

FecId FecId::convertFecIdForUseByTunnel(const FecId& fecId) {
  if (!fecId.isValid()) return fecId;
  switch (fecId.adjType()) {
    case AdjType::fibV4Adj: return fecIdToNewAdjType(usedByTunnelV4Adj(), fecId);
    case AdjType::fibV6Adj: return fecIdToNewAdjType(usedByTunnelV6Adj(), fecId);
    default: return FecId();
  }
}

bool FecId::onlySupportedInDefaultVrf() const {
  return (kOnlyDefaultVrfMask >> static_cast<unsigned>(adjType())) & 1;
}

Cog::String FecId::toStrep() const {
  char text[64];
  std::snprintf(text, sizeof text, "%" PRIx32 "-%" PRIx32 "--%" PRIx64,
                static_cast<std::uint32_t>(value_ >> 32), static_cast<std::uint32_t>(value_),
                value_);
  return Cog::String(text);
}

}  // namespace Memtab::Fib
