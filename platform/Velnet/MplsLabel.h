// Velnet::MplsLabel: an MPLS label value, or the withdraw sentinel.
//
// Values 0..1048575 (maxLabel) are labels as carried in a label stack entry
// (0..15 reserved, with the usual meanings below); luWithdraw (8388608,
// 0x800000) is the sentinel that labelled-unicast routing uses to withdraw a
// label binding and is the largest value the type admits. Storing a value
// above it throws Cog::RangeException with exactly
//   "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed"
// (from the constructor, valueIs(), the text parser and the attribute-log
// reader alike). Values between maxLabel and luWithdraw are stored as they
// are; isLabel() tells a real label.
//
//   layout        one unsigned 32-bit word
//   text form     the value in decimal (parsing also takes 0x-hex); default 0
//   attribute log the value as an unsigned 32-bit number
//   order         by value; operator! true for 0
//   hash          Cog::Hash of the value
#pragma once

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Velnet {

class MplsLabel {
 public:
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t explicitNullIpv4 = 0;
  static constexpr std::uint32_t routerAlert = 1;
  static constexpr std::uint32_t explicitNullIpv6 = 2;
  static constexpr std::uint32_t implicitNull = 3;
  static constexpr std::uint32_t entropyLabelIndicator = 7;
  static constexpr std::uint32_t maxReserved = 15;
  static constexpr std::uint32_t maxLabel = 0xFFFFF;
  static constexpr std::uint32_t luWithdraw = 0x800000;

  constexpr MplsLabel() = default;
  // Throws RangeException for a value above luWithdraw.
  explicit MplsLabel(std::uint32_t value) { valueIs(value); }
  explicit MplsLabel(const Cog::String& text);
  MplsLabel(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  MplsLabel(Cog::NboAttrLog::In* in, Cog::StreamBogon);
  static MplsLabel fromString(const Cog::String& text) { return MplsLabel(text); }

  constexpr std::uint32_t value() const { return value_; }
  void valueIs(std::uint32_t value);
  // A value that fits a label stack entry (0..maxLabel).
  constexpr bool isLabel() const { return value_ <= maxLabel; }
  constexpr bool isReserved() const { return value_ <= maxReserved; }
  constexpr bool isWithdraw() const { return value_ == luWithdraw; }

  friend constexpr bool operator==(const MplsLabel&, const MplsLabel&) = default;
  friend constexpr bool operator<(const MplsLabel& a, const MplsLabel& b) { return a.value_ < b.value_; }
  constexpr bool operator!() const { return value_ == 0; }
  Cog::HashValue hash() const;

 private:
  std::uint32_t value_ = 0;
};

static_assert(sizeof(MplsLabel) == 4);
static_assert(std::is_trivially_copyable_v<MplsLabel>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const MplsLabel& l);
std::ostream& operator<<(std::ostream& os, const MplsLabel& l);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const MplsLabel& l);

}  // namespace Velnet
