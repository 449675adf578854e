// Velnet::EthAddr: a 48-bit Ethernet MAC address.
//
//   layout        6 bytes in transmission order, no padding
//   text form     printed as six two-digit lower-case hex bytes separated by
//                 ':' ("00:1c:73:0a:ff:01"). Parsing also takes one-digit
//                 bytes ("0:1c:73:a:ff:1"), either case, and the dotted form
//                 of three groups of one to four hex digits
//                 ("001c.730a.ff01"). The default is 00:00:00:00:00:00.
//   attribute log three unsigned 16-bit words, network order (so the six
//                 bytes in transmission order)
//   order         bytewise, as 48-bit unsigned numbers
//   hash          Cog::Hash of the three 16-bit words
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

class EthAddr {
 public:
  EthAddr() = default;
  EthAddr(std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3, std::uint8_t b4,
          std::uint8_t b5)
      : bytes_{b0, b1, b2, b3, b4, b5} {}
  // The address whose 48-bit value is `value` (bits above 47 must be zero:
  // asserted).
  static EthAddr fromValue(std::uint64_t value);
  explicit EthAddr(const Cog::String& text);
  EthAddr(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  EthAddr(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static EthAddr fromString(const Cog::String& text) { return EthAddr(text); }

  const std::uint8_t* bytes() const { return bytes_; }
  std::uint64_t value() const;
  // The group bit: set for multicast and broadcast addresses.
  bool isMulticast() const { return bytes_[0] & 1; }
  bool isBroadcast() const { return value() == 0xFFFFFFFFFFFFull; }

  friend bool operator==(const EthAddr& a, const EthAddr& b) {
    return std::memcmp(a.bytes_, b.bytes_, 6) == 0;
  }
  friend bool operator<(const EthAddr& a, const EthAddr& b) {
    return std::memcmp(a.bytes_, b.bytes_, 6) < 0;
  }
  bool operator!() const { return *this == EthAddr(); }
  Cog::HashValue hash() const;

 private:
  std::uint8_t bytes_[6] = {};
};

static_assert(sizeof(EthAddr) == 6);
static_assert(std::is_trivially_copyable_v<EthAddr>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const EthAddr& a);
std::ostream& operator<<(std::ostream& os, const EthAddr& a);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const EthAddr& a);

}  // namespace Velnet
