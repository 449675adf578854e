// Velnet::IntfId: a 64-bit interface identifier, and Velnet::GenericIntfId,
// the helpers that read and write its type id and numbered parts.
//
// Storage: two 32-bit words, the high word first, so an IntfId is 8 bytes
// with 4-byte alignment on every build (shared-memory images place it at
// 4-byte offsets). value() is high << 32 | low.
//
// Every interface id is a generic interface id:
//   bits 63..56  type id (8 bits)
//   bits 55..24  part 1 (32 bits)
//   bits 23..0   part 0 (24 bits)
// The value 0 is the empty interface id (no interface; the default).
//
// Type ids, and how each kind uses the 56 bits below the type id:
//   0  empty            (value 0; anything else of type 0 is a plain generic id)
//   1  Ethernet         bits 55..38 first number, 37..20 second, 19..2 third
//   5  Management       (each 0..262143), 1..0 how many numbers are used
//                       (1..3); unused numbers are zero. So Ethernet3 <
//                       Ethernet3/1 < Ethernet3/1/2 < Ethernet3/2 < Ethernet4.
//   2  Port-Channel     number 0..4294967295 in bits 31..0
//   3  Vlan             VLAN id 1..4094 in bits 31..0
//   4  Loopback         number 0..4294967295 in bits 31..0
//   6  Tunnel           static tunnel interface: port number 0..65535 in
//                       bits 15..0 (TunnelIntfId)
//  16  NexthopGroup     next-hop-group id, 32 bits in bits 31..0
//                       (NexthopGroupIntfId)
//  17  DynamicTunnel    tunnel value, 56 bits in bits 55..0
//                       (DynamicTunnelIntfId)
//  19  FEC              reserved for FEC interface ids (built by the FEC
//                       library on these helpers; printed in generic form)
// Other type ids are free for further generic kinds.
//
// Text form (the interface name):
//   ""                       the empty id
//   Ethernet<n>, Ethernet<n>/<m>, Ethernet<n>/<m>/<k>, likewise Management
//   Port-Channel<n>, Vlan<n>, Loopback<n>, Tunnel<n>
//   NexthopGroup<id>, DynamicTunnel<value>
//   GenericIntf<typeId>/<part0>/<part1>  any other value, including ids of
//                       a named type whose bits are not a valid name (for
//                       example Vlan 0); it parses back to the same value.
// Names are matched without regard to case and printed as above. A parser
// that finds no letter at its position yields the empty id and consumes
// nothing; an unknown name or a missing or out-of-range number throws
// (ParseException / RangeException). Every 64-bit value prints as a text
// that parses back to it.
//
// Attribute log: the high word, then the low word, each an unsigned 32-bit
// number in network order.
// Order: by value() as an unsigned 64-bit number, i.e. by type id, then by
// part 1, then by part 0 (for named kinds: by kind, then numerically by
// number, shorter names first). Hash: Cog::Hash of the high and low words.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Cog/Assert.h"
#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Velnet {

class IntfId {
 public:
  constexpr IntfId() = default;
  explicit constexpr IntfId(std::uint64_t value)
      : word_{static_cast<std::uint32_t>(value >> 32), static_cast<std::uint32_t>(value)} {}
  constexpr IntfId(std::uint32_t high, std::uint32_t low) : word_{high, low} {}
  explicit IntfId(const Cog::String& name);
  IntfId(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  IntfId(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static IntfId fromString(const Cog::String& name) { return IntfId(name); }

  // Named interfaces. A number outside the kind's range (see above) throws
  // RangeException.
  static IntfId ethernet(std::uint32_t n);
  static IntfId ethernet(std::uint32_t n, std::uint32_t m);
  static IntfId ethernet(std::uint32_t n, std::uint32_t m, std::uint32_t k);
  static IntfId management(std::uint32_t n);
  static IntfId management(std::uint32_t n, std::uint32_t m);
  static IntfId portChannel(std::uint32_t n);
  static IntfId vlan(std::uint32_t vlanId);
  static IntfId loopback(std::uint32_t n);
  static IntfId tunnel(std::uint32_t port);

  constexpr std::uint64_t value() const { return std::uint64_t{word_[0]} << 32 | word_[1]; }
  constexpr void valueIs(std::uint64_t v) { *this = IntfId(v); }
  constexpr std::uint32_t high() const { return word_[0]; }
  constexpr std::uint32_t low() const { return word_[1]; }
  // The interface name (the text form).
  Cog::String name() const;

  friend constexpr bool operator==(const IntfId& a, const IntfId& b) {
    return a.word_[0] == b.word_[0] && a.word_[1] == b.word_[1];
  }
  friend constexpr bool operator<(const IntfId& a, const IntfId& b) { return a.value() < b.value(); }
  constexpr bool operator!() const { return word_[0] == 0 && word_[1] == 0; }
  Cog::HashValue hash() const;

 private:
  std::uint32_t word_[2] = {0, 0};
};

static_assert(sizeof(IntfId) == 8 && alignof(IntfId) == 4);
static_assert(std::is_trivially_copyable_v<IntfId>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const IntfId& i);
std::ostream& operator<<(std::ostream& os, const IntfId& i);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const IntfId& i);

// Type id and parts of an interface id (layout above). Kinds of interface
// id derive from this class or call its static members.
class GenericIntfId {
 public:
  static constexpr unsigned typeIdBits = 8;
  static constexpr unsigned typeIdShift = 56;
  static constexpr std::uint32_t maxTypeId = 0xFF;
  static constexpr unsigned numParts = 2;
  static constexpr unsigned payloadBits = 56;
  static constexpr std::uint64_t maxPayload = (std::uint64_t{1} << payloadBits) - 1;

  static constexpr std::uint32_t emptyType = 0;
  static constexpr std::uint32_t ethernetType = 1;
  static constexpr std::uint32_t portChannelType = 2;
  static constexpr std::uint32_t vlanType = 3;
  static constexpr std::uint32_t loopbackType = 4;
  static constexpr std::uint32_t managementType = 5;
  static constexpr std::uint32_t tunnelType = 6;
  static constexpr std::uint32_t nexthopGroupType = 16;
  static constexpr std::uint32_t dynamicTunnelType = 17;
  static constexpr std::uint32_t fecIdType = 19;

  // Width in bits and position of the lowest bit of part `n` (0 or 1).
  static constexpr unsigned partBits(unsigned n) { return n == 0 ? 24 : 32; }
  static constexpr unsigned partShift(unsigned n) { return n == 0 ? 0 : 24; }
  static constexpr std::uint32_t maxPart(unsigned n) {
    return static_cast<std::uint32_t>((std::uint64_t{1} << partBits(n)) - 1);
  }

  static constexpr std::uint32_t typeId(IntfId i) {
    return static_cast<std::uint32_t>(i.value() >> typeIdShift);
  }
  // Asserts t <= maxTypeId. The parts are kept.
  static constexpr void typeIdIs(IntfId& i, std::uint32_t t) {
    COG_ASSERT(t <= maxTypeId);
    i.valueIs((i.value() & maxPayload) | std::uint64_t{t} << typeIdShift);
  }
  // Asserts n < numParts.
  static constexpr std::uint32_t part(IntfId i, unsigned n) {
    COG_ASSERT(n < numParts);
    return static_cast<std::uint32_t>(i.value() >> partShift(n)) & maxPart(n);
  }
  // Asserts n < numParts and that `v` fits the part (v <= maxPart(n)).
  static constexpr void partIs(IntfId& i, unsigned n, std::uint32_t v) {
    COG_ASSERT(n < numParts);
    COG_ASSERT(v <= maxPart(n));
    std::uint64_t mask = std::uint64_t{maxPart(n)} << partShift(n);
    i.valueIs((i.value() & ~mask) | std::uint64_t{v} << partShift(n));
  }
  // The 56 bits below the type id.
  static constexpr std::uint64_t payload(IntfId i) { return i.value() & maxPayload; }
  // Asserts t <= maxTypeId and payload <= maxPayload.
  static constexpr IntfId intfId(std::uint32_t t, std::uint64_t payload) {
    COG_ASSERT(t <= maxTypeId);
    COG_ASSERT(payload <= maxPayload);
    return IntfId(std::uint64_t{t} << typeIdShift | payload);
  }
  static constexpr IntfId intfId(std::uint32_t t, std::uint32_t part0, std::uint32_t part1) {
    IntfId i;
    typeIdIs(i, t);
    partIs(i, 0, part0);
    partIs(i, 1, part1);
    return i;
  }

  // FEC interface ids (type 19) are built by the FEC library; these say
  // which type id is theirs.
  static constexpr std::uint32_t fecIdIntfIdType() { return fecIdType; }
  static constexpr bool isFecIdIntfIdType(IntfId i) { return typeId(i) == fecIdType; }
};

}  // namespace Velnet
