// Tunnel::TunnelTable::TunnelId: the identifier of a tunnel in the tunnel
// table, a 64-bit value of which only the low 48 bits may be used.
//
//   bits 63..48  always zero: a value of 2^48 or more is refused with
//                Cog::RangeException
//                "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed"
//   bits 47..44  tunnel type code (typeCode())
//   bits 43..0   index within that type (index())
//
// convertToTunnelValue(typeCode, index) composes the two parts into the raw
// 64-bit tunnel value; it does not check the result, so that callers can
// test it against the bound themselves (a type code of 16 or more yields a
// value of 2^48 or more, which TunnelId then refuses). Type code 6 is never
// given to a tunnel that is to be reachable through a FEC: FEC conversions
// treat ids whose value >> 44 is 6 as having no FEC.
//
// Value-type frame:
//   text form        the value in decimal (parsing also takes 0x-hex)
//   attribute log    the value as one unsigned 64-bit number, network order
//   order            by value, unsigned; operator! true for 0 (the default)
//   hash             Cog::Hash of the 64-bit value
#pragma once

#include <cstdint>
#include <iosfwd>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Tunnel::TunnelTable {

class TunnelId {
 public:
  static constexpr std::uint64_t minValue = 0;
  static constexpr std::uint64_t maxValue = (std::uint64_t{1} << 48) - 1;
  static constexpr unsigned typeCodeShift = 44;

  constexpr TunnelId() = default;
  // Throws RangeException for a value above maxValue.
  explicit TunnelId(std::uint64_t value) { valueIs(value); }
  explicit TunnelId(const Cog::String& text);
  TunnelId(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  TunnelId(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static TunnelId fromString(const Cog::String& text) { return TunnelId(text); }

  constexpr std::uint64_t value() const { return value_; }
  void valueIs(std::uint64_t value);

  constexpr std::uint32_t typeCode() const {
    return static_cast<std::uint32_t>(value_ >> typeCodeShift) & 0xF;
  }
  constexpr std::uint64_t index() const {
    return value_ & ((std::uint64_t{1} << typeCodeShift) - 1);
  }

  // The raw tunnel value of `index` within tunnel type `typeCode`:
  // typeCode << 44 | index. Unchecked; see the header comment.
  static constexpr std::uint64_t convertToTunnelValue(std::uint8_t typeCode, std::uint16_t index) {
    return (std::uint64_t{typeCode} << typeCodeShift) | index;
  }

  // True when `value` may be stored in a TunnelId.
  static constexpr bool isValidValue(std::uint64_t value) { return value <= maxValue; }

  friend constexpr bool operator==(const TunnelId&, const TunnelId&) = default;
  friend constexpr bool operator<(const TunnelId& a, const TunnelId& b) { return a.value_ < b.value_; }
  constexpr bool operator!() const { return value_ == 0; }
  Cog::HashValue hash() const;

 private:
  std::uint64_t value_ = 0;
};

Cog::String valueToStrep(const TunnelId& t);
std::ostream& operator<<(std::ostream& os, const TunnelId& t);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const TunnelId& t);

}  // namespace Tunnel::TunnelTable
