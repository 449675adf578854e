#include "Tunnel/TunnelId.h"

#include <ostream>
#include <string>

#include "Cog/Exception.h"

namespace Tunnel::TunnelTable {

namespace {
constexpr const char* kRangeText =
    "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed";
}

void TunnelId::valueIs(std::uint64_t value) {
  if (value > maxValue) throw Cog::RangeException(kRangeText);
  value_ = value;
}

TunnelId::TunnelId(const Cog::String& text) {
  auto it = text.begin();
  *this = TunnelId(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

TunnelId::TunnelId(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  std::uint64_t v;
  try {
    v = Cog::Parse::unsignedNumber(begin, end, UINT64_MAX, "a tunnel id");
  } catch (const Cog::RangeException&) {
    throw Cog::RangeException(kRangeText);  // more than 64 bits is above the bound too
  }
  valueIs(v);
}

TunnelId::TunnelId(Cog::NboAttrLog::In* in, Cog::StreamBogon) { valueIs(in->nextU64()); }

Cog::HashValue TunnelId::hash() const {
  Cog::Hash h;
  h.mix(value_);
  return h.result();
}

Cog::String valueToStrep(const TunnelId& t) { return Cog::String(std::to_string(t.value())); }

std::ostream& operator<<(std::ostream& os, const TunnelId& t) { return os << t.value(); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const TunnelId& t) {
  out->putU64(t.value());
  return out;
}

}  // namespace Tunnel::TunnelTable
