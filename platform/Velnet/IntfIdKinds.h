// Interface-id kinds with type ids of their own (see Velnet/IntfId.h for the
// bit layout):
//
//   NexthopGroupIntfId   type 16: stands for a next-hop group; the 32-bit
//                        group id in bits 31..0. Text "NexthopGroup<id>".
//   TunnelIntfId         type 6: a static tunnel interface "Tunnel<port>";
//                        the port number in bits 15..0.
//   DynamicTunnelIntfId  type 17: a tunnel of the tunnel table; the 64-bit
//                        tunnel value in bits 55..0 (56 bits, so that values
//                        of 2^48 and more, which Tunnel::TunnelTable::TunnelId
//                        refuses, can still be carried and then rejected by
//                        whoever reads them). Text "DynamicTunnel<value>".
//
// The conversions from an interface id assert that the id is of the kind
// (check with the is...() test first): using the wrong kind is a
// programming error.
#pragma once

#include <cstdint>

#include "Tunnel/TunnelId.h"
#include "Velnet/IntfId.h"

namespace Velnet {

class NexthopGroupIntfId : public GenericIntfId {
 public:
  static constexpr std::uint32_t nexthopGroupIntfIdType() { return nexthopGroupType; }
  static constexpr bool isNexthopGroupIntfId(IntfId i) { return typeId(i) == nexthopGroupType; }
  static constexpr IntfId nexthopGroupIdToIntfId(std::uint32_t nexthopGroupId) {
    return intfId(nexthopGroupType, std::uint64_t{nexthopGroupId});
  }
  static constexpr std::uint32_t intfIdToNexthopGroupId(IntfId i) {
    COG_ASSERT(isNexthopGroupIntfId(i));
    return static_cast<std::uint32_t>(payload(i));
  }
};

class TunnelIntfId : public GenericIntfId {
 public:
  static constexpr std::uint32_t tunnelIntfIdType() { return tunnelType; }
  // True for a well-formed static tunnel interface id (type 6, nothing
  // above the port number).
  static constexpr bool isTunnelIntfId(IntfId i) {
    return typeId(i) == tunnelType && payload(i) <= 0xFFFF;
  }
  static constexpr IntfId portToIntfId(std::uint16_t port) {
    return intfId(tunnelType, std::uint64_t{port});
  }
  static constexpr std::uint16_t intfIdToPort(IntfId i) {
    COG_ASSERT(isTunnelIntfId(i));
    return static_cast<std::uint16_t>(i.value() & 0xFFFF);
  }
};

class DynamicTunnelIntfId : public GenericIntfId {
 public:
  using TunnelId = Tunnel::TunnelTable::TunnelId;

  static constexpr std::uint32_t dynamicTunnelIntfIdType() { return dynamicTunnelType; }
  static constexpr bool isDynamicTunnelIntfId(IntfId i) { return typeId(i) == dynamicTunnelType; }
  static constexpr IntfId tunnelIdToIntfId(const TunnelId& t) {
    return intfId(dynamicTunnelType, t.value());
  }
  // Any tunnel value of up to 56 bits, checked or not (asserted to fit).
  static constexpr IntfId tunnelValueToIntfId(std::uint64_t tunnelValue) {
    return intfId(dynamicTunnelType, tunnelValue);
  }
  // The tunnel value carried, unchecked: construct a TunnelId from it to
  // refuse values of 2^48 and more.
  static constexpr std::uint64_t intfIdToTunnelId(IntfId i) {
    COG_ASSERT(isDynamicTunnelIntfId(i));
    return payload(i);
  }
};

}  // namespace Velnet
