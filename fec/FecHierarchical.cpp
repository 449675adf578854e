// The hierarchical interface-id forms of Memtab::Fib::FecId: each adjacency
// type travels as the interface-id kind that names it best (a dynamic tunnel
// for tunnelFibAdj, a next-hop group for nextHopGroupAdj, a FEC interface id
// for the rest), and any of those kinds folds back into its FEC id.
#include "Cog/Exception.h"
#include "RoutingLib/FecBasicTypes.h"
#include "RoutingLib/FecIdIntfId.h"
#include "Tunnel/TunnelId.h"
#include "Velnet/IntfIdKinds.h"

namespace Memtab::Fib {
namespace {

using Tunnel::TunnelTable::TunnelId;

// The tunnel-table type code that static tunnel interfaces are numbered
// under when they are reached through a FEC.
constexpr std::uint8_t kStaticTunnelTypeCode = 9;

// Refuses a tunnel value of 2^48 or more with the tunnel id's own error.
TunnelId checkedTunnelId(std::uint64_t value) { return TunnelId(value); }

}  // namespace

Velnet::IntfId FecId::fecIdToHierarchicalIntfId(const FecId& fecId) {
  if (!fecId.isValid()) return Velnet::IntfId();
  switch (fecId.adjType()) {
    case AdjType::tunnelFibAdj:
      return Velnet::DynamicTunnelIntfId::tunnelIdToIntfId(fecIdToTunnelId(fecId));
    case AdjType::nextHopGroupAdj:
      return Velnet::NexthopGroupIntfId::nexthopGroupIdToIntfId(fecIdToNexthopGroupId(fecId));
    default:
      return Velnet::FecIdIntfId::fecIdToIntfId(fecId.value());
  }
}

FecId FecId::hierarchicalIntfIdToFecId(const Velnet::IntfId& intfId) {
  if (Velnet::FecIdIntfId::isFecIdIntfId(intfId)) {
    return FecId(Velnet::FecIdIntfId::intfIdToFecId(intfId));
  }
  if (Velnet::DynamicTunnelIntfId::isDynamicTunnelIntfId(intfId)) {
    return tunnelIdToFecId(checkedTunnelId(Velnet::DynamicTunnelIntfId::intfIdToTunnelId(intfId)));
  }
  if (Velnet::TunnelIntfId::isTunnelIntfId(intfId)) {
    // A static tunnel goes through the dynamic-tunnel form of its tunnel
    // value, checked on the way in and on the way out.
    const std::uint64_t value = TunnelId::convertToTunnelValue(
        kStaticTunnelTypeCode, Velnet::TunnelIntfId::intfIdToPort(intfId));
    const Velnet::IntfId dynamic =
        Velnet::DynamicTunnelIntfId::tunnelIdToIntfId(checkedTunnelId(value));
    return tunnelIdToFecId(checkedTunnelId(Velnet::DynamicTunnelIntfId::intfIdToTunnelId(dynamic)));
  }
  if (Velnet::NexthopGroupIntfId::isNexthopGroupIntfId(intfId)) {
    return nexthopGroupIdToFecId(Velnet::NexthopGroupIntfId::intfIdToNexthopGroupId(intfId));
  }
  return FecId();
}

}  // namespace Memtab::Fib
