#include "Vrf/VrfId.h"

#include <ostream>
#include <string>

#include "Cog/Exception.h"

namespace Vrf::VrfIdMap {

VrfId::VrfId(const Cog::String& text) {
  auto it = text.begin();
  *this = VrfId(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

VrfId::VrfId(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end)
    : value_(static_cast<std::uint32_t>(Cog::Parse::unsignedNumber(begin, end, UINT32_MAX, "a VRF id"))) {}

VrfId::VrfId(Cog::NboAttrLog::In* in, Cog::StreamBogon) : value_(in->nextU32()) {}

Cog::HashValue VrfId::hash() const {
  Cog::Hash h;
  h.mix(value_);
  return h.result();
}

Cog::String valueToStrep(const VrfId& v) { return Cog::String(std::to_string(v.value())); }

std::ostream& operator<<(std::ostream& os, const VrfId& v) { return os << v.value(); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const VrfId& v) {
  out->putU32(v.value());
  return out;
}

namespace {
constexpr const char* kIndexRangeText =
    "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed";
}

void VrfNameIndex::valueIs(std::uint32_t value) {
  if (value > max) throw Cog::RangeException(kIndexRangeText);
  value_ = value;
}

VrfNameIndex::VrfNameIndex(const Cog::String& text) {
  auto it = text.begin();
  *this = VrfNameIndex(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

VrfNameIndex::VrfNameIndex(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  std::uint64_t v;
  try {
    v = Cog::Parse::unsignedNumber(begin, end, max, "a VRF name index");
  } catch (const Cog::RangeException&) {
    throw Cog::RangeException(kIndexRangeText);
  }
  value_ = static_cast<std::uint32_t>(v);
}

VrfNameIndex::VrfNameIndex(Cog::NboAttrLog::In* in, Cog::StreamBogon) { valueIs(in->nextU32()); }

Cog::HashValue VrfNameIndex::hash() const {
  Cog::Hash h;
  h.mix(value_);
  return h.result();
}

Cog::String valueToStrep(const VrfNameIndex& i) { return Cog::String(std::to_string(i.value())); }

std::ostream& operator<<(std::ostream& os, const VrfNameIndex& i) { return os << i.value(); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const VrfNameIndex& i) {
  out->putU32(i.value());
  return out;
}

}  // namespace Vrf::VrfIdMap
