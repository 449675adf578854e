// Velnet::IpGenPrefix: an IPv4 or IPv6 prefix (or the empty prefix of
// family ipunknown).
//
//   layout        offset 0  AddressFamily as a 32-bit word
//                 offset 4  16 address bytes, network order (IPv4 in the
//                           first 4, the rest zero)
//                 offset 20 prefix length, 32-bit word
//                 24 bytes, 4-aligned, no padding. Hashes over the raw
//                 bytes and shared-memory images rely on this layout.
//   construction  bits of the address past the length are cleared (host
//                 bits masked off), so equal prefixes have equal bytes; a
//                 length above the family's maximum (32, 128; 0 for
//                 ipunknown) is refused with RangeException
//   text form     "<address>/<length>" with the address as IpGenAddr prints
//                 it ("10.0.0.0/8", "2001:db8::/32"); the default
//                 (ipunknown) prefix is the empty text, and a parser that
//                 finds no address at its position yields it, consuming
//                 nothing. Parsing requires the "/<length>" part and masks
//                 host bits ("10.1.2.3/8" reads as 10.0.0.0/8).
//   attribute log the family as an unsigned 32-bit word, the 16 address
//                 bytes, the length as an unsigned 32-bit word. Reading
//                 refuses (RangeException) unknown families, lengths above
//                 the family's maximum and bytes the family does not use;
//                 host bits are masked.
//   order         by family (ipunknown < ipv4 < ipv6), then by address
//                 bytewise (unsigned numeric order), then by length
//                 (shorter first). So 10.0.0.0/8 < 10.0.0.0/16 <
//                 10.1.0.0/16 < ::/0.
//   hash          Cog::Hash of the family word, the four address words (most
//                 significant first) and the length
//   operator!     true for the default (ipunknown) prefix
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <type_traits>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"
#include "Velnet/AddressFamily.h"
#include "Velnet/Ip6Prefix.h"
#include "Velnet/IpGenAddr.h"

namespace Velnet {

class IpGenPrefix {
 public:
  IpGenPrefix() = default;
  IpGenPrefix(const IpGenAddr& addr, std::uint32_t len);
  IpGenPrefix(const Ip6Prefix& p);  // NOLINT: every IPv6 prefix is a generic prefix
  explicit IpGenPrefix(const Cog::String& text);
  IpGenPrefix(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  IpGenPrefix(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static IpGenPrefix fromString(const Cog::String& text) { return IpGenPrefix(text); }

  AddressFamily af() const { return af_; }
  bool isIpv4() const { return af_ == AddressFamily::ipv4; }
  bool isIpv6() const { return af_ == AddressFamily::ipv6; }
  IpGenAddr addr() const { return IpGenAddr::fromBytes(af_, addr_); }
  const std::uint8_t* bytes() const { return addr_; }
  std::uint32_t len() const { return len_; }
  // Asserts isIpv4(); host-order value of the (masked) address.
  std::uint32_t v4Addr() const { return addr().v4Addr(); }
  // Asserts isIpv6().
  Ip6Prefix v6Prefix() const { return Ip6Prefix(addr().v6Addr(), len_); }
  // True when `a` is of this prefix's family and within it.
  bool contains(const IpGenAddr& a) const;

  friend bool operator==(const IpGenPrefix& a, const IpGenPrefix& b) {
    return a.af_ == b.af_ && a.len_ == b.len_ && std::memcmp(a.addr_, b.addr_, 16) == 0;
  }
  friend bool operator<(const IpGenPrefix& a, const IpGenPrefix& b) {
    if (a.af_ != b.af_) return a.af_ < b.af_;
    if (int c = std::memcmp(a.addr_, b.addr_, 16)) return c < 0;
    return a.len_ < b.len_;
  }
  bool operator!() const { return *this == IpGenPrefix(); }
  Cog::HashValue hash() const;

 private:
  friend struct IpGenPrefixLayout;
  AddressFamily af_ = AddressFamily::ipunknown;
  std::uint8_t addr_[16] = {};
  std::uint32_t len_ = 0;
};

struct IpGenPrefixLayout {
  static constexpr std::size_t afOffset = offsetof(IpGenPrefix, af_);
  static constexpr std::size_t addrOffset = offsetof(IpGenPrefix, addr_);
  static constexpr std::size_t lenOffset = offsetof(IpGenPrefix, len_);
};
static_assert(sizeof(IpGenPrefix) == 24 && alignof(IpGenPrefix) == 4);
static_assert(std::is_trivially_copyable_v<IpGenPrefix>, "copied byte for byte into shared-memory images");
static_assert(IpGenPrefixLayout::afOffset == 0 && IpGenPrefixLayout::addrOffset == 4 &&
              IpGenPrefixLayout::lenOffset == 20);

Cog::String valueToStrep(const IpGenPrefix& p);
std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const IpGenPrefix& p);

}  // namespace Velnet
