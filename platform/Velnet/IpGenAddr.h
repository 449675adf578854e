// Velnet::IpGenAddr: an IPv4 or IPv6 address, or no address at all.
//
//   layout        a 32-bit AddressFamily word, then 16 address bytes in
//                 network order (an IPv4 address in the first 4, the other
//                 12 zero; all 16 zero for ipunknown). 20 bytes, 4-aligned.
//   text form     ipv4: dotted quad "10.1.2.3" (no leading zeros);
//                 ipv6: as Ip6Addr (RFC 5952);
//                 ipunknown: the empty text. A parser that finds no address
//                 at its position (end of text, or a character that starts
//                 neither form) yields ipunknown and consumes nothing; a
//                 text containing ':' before any other separator is IPv6.
//   attribute log the family as an unsigned 32-bit word, then the 16 address
//                 bytes. Reading refuses (RangeException) an unknown family
//                 and address bytes that the family does not use.
//   order         by family (ipunknown < ipv4 < ipv6), then bytewise address
//                 (unsigned numeric order)
//   hash          Cog::Hash of the family word and the four address words
//                 (most significant first)
//   operator!     true for the default value (ipunknown)
#pragma once

#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <type_traits>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"
#include "Velnet/AddressFamily.h"
#include "Velnet/Ip6Addr.h"

namespace Velnet {

class IpGenAddr {
 public:
  IpGenAddr() = default;
  IpGenAddr(const Ip6Addr& a);  // NOLINT: every IPv6 address is a generic address
  // The IPv4 address whose host-order value is `hostOrder` (a.b.c.d is
  // a << 24 | b << 16 | c << 8 | d).
  static IpGenAddr ipv4(std::uint32_t hostOrder);
  // The address of family `af` whose network-order bytes start at `bytes`
  // (4 bytes read for ipv4, 16 for ipv6, none for ipunknown).
  static IpGenAddr fromBytes(AddressFamily af, const std::uint8_t* bytes);
  explicit IpGenAddr(const Cog::String& text);
  IpGenAddr(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  IpGenAddr(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static IpGenAddr fromString(const Cog::String& text) { return IpGenAddr(text); }

  AddressFamily af() const { return af_; }
  bool isIpv4() const { return af_ == AddressFamily::ipv4; }
  bool isIpv6() const { return af_ == AddressFamily::ipv6; }
  // The 16 address bytes as stored.
  const std::uint8_t* bytes() const { return bytes_; }
  // Asserts isIpv4(); host-order value.
  std::uint32_t v4Addr() const;
  // Asserts isIpv6().
  Ip6Addr v6Addr() const;
  // 32, 128, or 0 for ipunknown.
  unsigned maxPrefixLen() const { return maxPrefixLen(af_); }
  static unsigned maxPrefixLen(AddressFamily af);

  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return a.af_ == b.af_ && std::memcmp(a.bytes_, b.bytes_, 16) == 0;
  }
  friend bool operator<(const IpGenAddr& a, const IpGenAddr& b) {
    if (a.af_ != b.af_) return a.af_ < b.af_;
    return std::memcmp(a.bytes_, b.bytes_, 16) < 0;
  }
  bool operator!() const { return *this == IpGenAddr(); }
  Cog::HashValue hash() const;

 private:
  AddressFamily af_ = AddressFamily::ipunknown;
  std::uint8_t bytes_[16] = {};
};

static_assert(sizeof(IpGenAddr) == 20 && alignof(IpGenAddr) == 4);
static_assert(std::is_trivially_copyable_v<IpGenAddr>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const IpGenAddr& a);
std::ostream& operator<<(std::ostream& os, const IpGenAddr& a);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const IpGenAddr& a);

namespace IpText {
// Which family the address text at `it` has, without consuming anything:
// ipunknown when no address starts there.
AddressFamily familyAt(Cog::String::IteratorConst it, const Cog::String::IteratorConst& end);
// Checks that the 16 bytes hold nothing past the family's address length.
void checkUnusedBytesZero(AddressFamily af, const std::uint8_t* bytes, const char* type);
}  // namespace IpText

}  // namespace Velnet
