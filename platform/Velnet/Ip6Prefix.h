// Velnet::Ip6Prefix: an IPv6 prefix, address and length 0..128.
//
//   layout        the Ip6Addr (16 bytes), then the length as a 32-bit word;
//                 20 bytes, 4-aligned
//   construction  bits of the address past the length are cleared, so two
//                 prefixes that cover the same addresses are equal; a length
//                 above 128 is refused with RangeException
//   text form     "<Ip6Addr text>/<length>", e.g. "2001:db8::/32"; the
//                 default value is "::/0"
//   attribute log the 16 address bytes, then the length as an unsigned
//                 32-bit number
//   order         by address (bytewise), then by length
//   hash          Cog::Hash of the address hash and the length
#pragma once

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"
#include "Velnet/Ip6Addr.h"

namespace Velnet {

class Ip6Prefix {
 public:
  static constexpr std::uint32_t maxLen = 128;

  Ip6Prefix() = default;
  Ip6Prefix(const Ip6Addr& addr, std::uint32_t len);
  explicit Ip6Prefix(const Cog::String& text);
  Ip6Prefix(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  Ip6Prefix(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static Ip6Prefix fromString(const Cog::String& text) { return Ip6Prefix(text); }

  const Ip6Addr& addr() const { return addr_; }
  std::uint32_t len() const { return len_; }
  bool contains(const Ip6Addr& a) const;

  friend bool operator==(const Ip6Prefix& a, const Ip6Prefix& b) {
    return a.addr_ == b.addr_ && a.len_ == b.len_;
  }
  friend bool operator<(const Ip6Prefix& a, const Ip6Prefix& b) {
    if (!(a.addr_ == b.addr_)) return a.addr_ < b.addr_;
    return a.len_ < b.len_;
  }
  bool operator!() const { return *this == Ip6Prefix(); }
  Cog::HashValue hash() const;

 private:
  Ip6Addr addr_;
  std::uint32_t len_ = 0;
};

static_assert(sizeof(Ip6Prefix) == 20 && alignof(Ip6Prefix) == 4);
static_assert(std::is_trivially_copyable_v<Ip6Prefix>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const Ip6Prefix& p);
std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const Ip6Prefix& p);

}  // namespace Velnet
