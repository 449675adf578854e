// Velnet::Ip6Addr: an IPv6 address, 16 bytes in network byte order.
//
//   layout        16 bytes, 4-byte aligned, no padding (shared-memory images
//                 and the layouts of IpGenAddr/IpGenPrefix rely on it)
//   text form     RFC 5952: lower-case hex, leading zeros dropped, the
//                 longest run of two or more zero groups (the first of equal
//                 runs) written "::", IPv4-mapped addresses as
//                 ::ffff:a.b.c.d. Parsing takes any RFC 4291 form (upper
//                 case, uncompressed, leading zeros, a trailing dotted quad)
//                 and stops at the first character that cannot continue the
//                 address. The default value is "::".
//   attribute log the 16 bytes as they are (network order)
//   order         bytewise, i.e. as 128-bit unsigned numbers
//   hash          Cog::Hash of the four 32-bit words, most significant first
//                 (this is the IPv6-address hash other types build on)
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <type_traits>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Velnet {

class Ip6Addr {
 public:
  static constexpr unsigned numBytes = 16;

  Ip6Addr() = default;
  explicit Ip6Addr(const std::array<std::uint8_t, 16>& bytes) { std::memcpy(bytes_, bytes.data(), 16); }
  // From four 32-bit words, w0 the most significant.
  Ip6Addr(std::uint32_t w0, std::uint32_t w1, std::uint32_t w2, std::uint32_t w3);
  explicit Ip6Addr(const Cog::String& text);
  Ip6Addr(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  Ip6Addr(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static Ip6Addr fromString(const Cog::String& text) { return Ip6Addr(text); }
  // Copies 16 bytes in network order from `bytes`.
  static Ip6Addr fromBytes(const std::uint8_t* bytes) {
    Ip6Addr a;
    std::memcpy(a.bytes_, bytes, 16);
    return a;
  }

  const std::uint8_t* bytes() const { return bytes_; }
  std::uint8_t byte(unsigned i) const;
  // Word `i` (0..3, 0 the most significant) as a host-order number.
  std::uint32_t word(unsigned i) const;
  // ::ffff:0:0/96.
  bool isV4Mapped() const;

  friend bool operator==(const Ip6Addr& a, const Ip6Addr& b) {
    return std::memcmp(a.bytes_, b.bytes_, 16) == 0;
  }
  friend bool operator<(const Ip6Addr& a, const Ip6Addr& b) {
    return std::memcmp(a.bytes_, b.bytes_, 16) < 0;
  }
  bool operator!() const { return *this == Ip6Addr(); }
  Cog::HashValue hash() const;

 private:
  alignas(4) std::uint8_t bytes_[16] = {};
};

static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 4);
static_assert(std::is_trivially_copyable_v<Ip6Addr>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const Ip6Addr& a);
std::ostream& operator<<(std::ostream& os, const Ip6Addr& a);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const Ip6Addr& a);

}  // namespace Velnet
