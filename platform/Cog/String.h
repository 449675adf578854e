// Cog::String: the framework's byte string, and Cog::Name, the name an
// entity is created with (also the key of name-keyed collections).
//
// Parsers take a pair of iterators and advance the first past what they
// consumed, so that composite string forms parse left to right:
//
//   Cog::String::IteratorConst it = s.begin();
//   T value(it, s.end());
//   Cog::strepToValueEnd(it, s.end());   // nothing may follow
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Cog/Hash.h"

namespace Cog {

class String {
 public:
  using IteratorConst = std::string::const_iterator;

  String() = default;
  String(const char* s) : s_(s) {}                    // NOLINT: implicit by design
  String(std::string s) : s_(std::move(s)) {}         // NOLINT
  String(std::string_view s) : s_(s) {}               // NOLINT
  String(IteratorConst b, IteratorConst e) : s_(b, e) {}

  const std::string& str() const { return s_; }
  const char* c_str() const { return s_.c_str(); }
  std::size_t size() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  IteratorConst begin() const { return s_.begin(); }
  IteratorConst end() const { return s_.end(); }
  operator std::string_view() const { return s_; }    // NOLINT

  HashValue hash() const { return stringHash(s_.data(), s_.size()); }

  // Bytewise order; a proper prefix sorts first.
  friend bool operator==(const String& a, const String& b) = default;
  friend std::strong_ordering operator<=>(const String& a, const String& b) {
    return a.s_.compare(b.s_) <=> 0;
  }
  bool operator!() const { return s_.empty(); }

  String& operator+=(std::string_view s) {
    s_ += s;
    return *this;
  }

 private:
  std::string s_;
};

std::ostream& operator<<(std::ostream& os, const String& s);

class Name : public String {
 public:
  using String::String;
  Name() = default;
  explicit Name(const String& s) : String(s) {}
};

// Throws ParseException unless `begin` has reached `end`: a string form must
// be consumed completely.
void strepToValueEnd(const String::IteratorConst& begin, const String::IteratorConst& end);

// Parsing helpers shared by the generated string-form parsers and the
// hand-written ones. Each throws ParseException naming what it expected.
namespace Parse {

// Consumes the exact text `expected`.
void expect(String::IteratorConst& it, const String::IteratorConst& end, std::string_view expected);
// True (and consumed) when the text at `it` is `text`.
bool consumeIf(String::IteratorConst& it, const String::IteratorConst& end, std::string_view text);
// An unsigned decimal (or 0x-hex) number up to `max`; RangeException above it.
std::uint64_t unsignedNumber(String::IteratorConst& it, const String::IteratorConst& end,
                             std::uint64_t max, const char* what);
// A signed decimal number within [min, max].
std::int64_t signedNumber(String::IteratorConst& it, const String::IteratorConst& end,
                          std::int64_t min, std::int64_t max, const char* what);
double floatingNumber(String::IteratorConst& it, const String::IteratorConst& end);
bool boolean(String::IteratorConst& it, const String::IteratorConst& end);
// A quoted string 'text' or "text" with backslash escapes.
String quoted(String::IteratorConst& it, const String::IteratorConst& end);
// An identifier [A-Za-z_][A-Za-z0-9_]*.
String identifier(String::IteratorConst& it, const String::IteratorConst& end);
// Quotes `s` the way `quoted` reads it back.
std::string quote(std::string_view s);

}  // namespace Parse
}  // namespace Cog

template <>
struct std::hash<Cog::String> {
  std::size_t operator()(const Cog::String& s) const noexcept { return s.hash(); }
};
template <>
struct std::hash<Cog::Name> {
  std::size_t operator()(const Cog::Name& s) const noexcept { return s.hash(); }
};
