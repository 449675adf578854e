// L3::VrfName: the name of a VRF, at most 100 bytes. Key of the per-VRF
// collections of the routing model and of the tables that count or split
// routes per VRF.
//
// Storing a longer name, by any path (constructor, valueIs(), the string
// parser, the attribute-log reader), throws Cog::RangeException with exactly
//   "VrfName::bytes > VrfName::maxLength not allowed"
// and leaves the value as it was. The empty name is the default ("no VRF").
//
//   text form     the name quoted as Cog strings are ('default'); parsing
//                 takes a quoted string and applies the length limit
//   attribute log the name as a Cog string: 32-bit length, then the bytes
//   order         bytewise; a proper prefix sorts first
//   hash          Cog::Hash of the string's hash
//   operator!     true for the empty name
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string_view>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace L3 {

class VrfName {
 public:
  static constexpr std::size_t maxLength = 100;

  VrfName() = default;
  // Throws RangeException for a name longer than maxLength.
  VrfName(const Cog::String& name) { valueIs(name); }  // NOLINT: a name is a VRF name
  VrfName(const char* name) : VrfName(Cog::String(name)) {}  // NOLINT
  VrfName(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  VrfName(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static VrfName fromString(const Cog::String& text);

  const Cog::String& value() const { return value_; }
  void valueIs(const Cog::String& name);
  std::size_t bytes() const { return value_.size(); }

  friend bool operator==(const VrfName& a, const VrfName& b) = default;
  friend bool operator<(const VrfName& a, const VrfName& b) { return a.value_ < b.value_; }
  bool operator!() const { return value_.empty(); }
  Cog::HashValue hash() const;

 private:
  Cog::String value_;
};

Cog::String valueToStrep(const VrfName& name);
Cog::String stringValue(const VrfName& name);
std::ostream& operator<<(std::ostream& os, const VrfName& name);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const VrfName& name);

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
  std::size_t operator()(const L3::VrfName& n) const noexcept { return n.hash(); }
};
