// Vrf::VrfIdMap::VrfId: the number a VRF is known by in the forwarding
// plane, an unsigned 32-bit value. Every 32-bit value may be stored; the
// default, 0xFFFFFF (invalidValue), means "no VRF".
//
// Value-type frame:
//   text form        the value in decimal (parsing also takes 0x-hex)
//   attribute log    the value as one unsigned 32-bit number, network order
//   order            by value, unsigned; operator! true for the default
//   hash             Cog::Hash of the 32-bit value
//
// Vrf::VrfIdMap::VrfNameIndex: an index into the fixed 101-byte array that
// holds a VRF name with its terminating NUL (names have at most 100 bytes).
// Values 0..100 (min..max); storing a larger one throws Cog::RangeException
//   "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed"
// from the constructor, valueIs(), the text parser and the attribute-log
// reader alike. Same frame as VrfId, default 0, operator! true for 0.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Vrf::VrfIdMap {

class VrfId {
 public:
  static constexpr std::uint32_t invalidValue = 0xFFFFFF;

  constexpr VrfId() = default;
  constexpr explicit VrfId(std::uint32_t value) : value_(value) {}
  explicit VrfId(const Cog::String& text);
  VrfId(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  VrfId(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static VrfId fromString(const Cog::String& text) { return VrfId(text); }

  constexpr std::uint32_t value() const { return value_; }
  constexpr void valueIs(std::uint32_t value) { value_ = value; }
  constexpr bool isValid() const { return value_ != invalidValue; }

  friend constexpr bool operator==(const VrfId&, const VrfId&) = default;
  friend constexpr bool operator<(const VrfId& a, const VrfId& b) { return a.value_ < b.value_; }
  constexpr bool operator!() const { return value_ == invalidValue; }
  Cog::HashValue hash() const;

 private:
  std::uint32_t value_ = invalidValue;
};

static_assert(sizeof(VrfId) == 4);
static_assert(std::is_trivially_copyable_v<VrfId>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const VrfId& v);
std::ostream& operator<<(std::ostream& os, const VrfId& v);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const VrfId& v);

class VrfNameIndex {
 public:
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t max = 100;
  // Elements of the name array the index addresses.
  static constexpr std::uint32_t capacity = max + 1;

  constexpr VrfNameIndex() = default;
  // Throws RangeException for a value above max.
  explicit VrfNameIndex(std::uint32_t value) { valueIs(value); }
  explicit VrfNameIndex(const Cog::String& text);
  VrfNameIndex(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  VrfNameIndex(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static VrfNameIndex fromString(const Cog::String& text) { return VrfNameIndex(text); }

  constexpr std::uint32_t value() const { return value_; }
  void valueIs(std::uint32_t value);

  friend constexpr bool operator==(const VrfNameIndex&, const VrfNameIndex&) = default;
  friend constexpr bool operator<(const VrfNameIndex& a, const VrfNameIndex& b) {
    return a.value_ < b.value_;
  }
  constexpr bool operator!() const { return value_ == 0; }
  Cog::HashValue hash() const;

 private:
  std::uint32_t value_ = 0;
};

static_assert(sizeof(VrfNameIndex) == 4);

Cog::String valueToStrep(const VrfNameIndex& i);
std::ostream& operator<<(std::ostream& os, const VrfNameIndex& i);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const VrfNameIndex& i);

}  // namespace Vrf::VrfIdMap
