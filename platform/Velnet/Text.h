// Scanning helpers shared by the Velnet text-form parsers. Internal to the
// network-basics library; callers use the types' own constructors.
//
// Every helper follows the framework's parser rule: on success the iterator
// is advanced past exactly what was consumed; on failure a
// Cog::ParseException (malformed text) or Cog::RangeException (a well-formed
// number outside its bounds) is thrown and the message says what was
// expected and where.
#pragma once

#include <cstdint>
#include <string>

#include "Cog/String.h"

namespace Velnet::Text {

using It = Cog::String::IteratorConst;

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// 0..15 for a hexadecimal digit of either case, -1 otherwise.
inline int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The text at `it` quoted for an error message, or "end of input".
std::string context(It it, const It& end);

[[noreturn]] void fail(const std::string& what, It it, const It& end);

// A run of decimal digits read as an unsigned number. Throws ParseException
// when there is no digit at `it`, RangeException (text "<what> <digits> is
// out of range (max <max>)") when the number exceeds `max`.
std::uint64_t decimal(It& it, const It& end, std::uint64_t max, const char* what);

// Like decimal(), but a number above `max` raises RangeException with
// exactly `rangeMessage` (for types whose bound text is fixed).
std::uint64_t decimalBounded(It& it, const It& end, std::uint64_t max, const char* what,
                             const char* rangeMessage);

// Consumes `c` if it is the next character.
inline bool consumeChar(It& it, const It& end, char c) {
  if (it != end && *it == c) {
    ++it;
    return true;
  }
  return false;
}

// A dotted-quad IPv4 address (four decimal octets of one to three digits,
// no leading zeros), as a host-order number (a.b.c.d is a << 24 | ...).
std::uint32_t ipv4(It& it, const It& end);
std::string ipv4Text(std::uint32_t hostOrder);

// An IPv6 address in any RFC 4291 text form (groups of one to four hex
// digits, at most one "::", optionally ending in a dotted quad), into 16
// bytes in network order.
void ipv6(It& it, const It& end, std::uint8_t bytes[16]);
// RFC 5952 canonical text: lower case, no leading zeros, the longest run of
// two or more zero groups (the first of equal runs) as "::", and IPv4-mapped
// addresses as ::ffff:a.b.c.d.
std::string ipv6Text(const std::uint8_t bytes[16]);

// Clears every bit of `bytes` (`size` bytes, network order) after the first
// `len` bits.
void maskBits(std::uint8_t* bytes, unsigned size, unsigned len);

}  // namespace Velnet::Text
