#include "Velnet/MplsLabel.h"

#include <ostream>
#include <string>

#include "Cog/Exception.h"

namespace Velnet {

namespace {
constexpr const char* kRangeText =
    "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
}

void MplsLabel::valueIs(std::uint32_t value) {
  if (value > luWithdraw) throw Cog::RangeException(kRangeText);
  value_ = value;
}

MplsLabel::MplsLabel(const Cog::String& text) {
  auto it = text.begin();
  *this = MplsLabel(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

MplsLabel::MplsLabel(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  std::uint64_t v;
  try {
    v = Cog::Parse::unsignedNumber(begin, end, luWithdraw, "an MPLS label");
  } catch (const Cog::RangeException&) {
    throw Cog::RangeException(kRangeText);
  }
  value_ = static_cast<std::uint32_t>(v);
}

MplsLabel::MplsLabel(Cog::NboAttrLog::In* in, Cog::StreamBogon) { valueIs(in->nextU32()); }

Cog::HashValue MplsLabel::hash() const {
  Cog::Hash h;
  h.mix(value_);
  return h.result();
}

Cog::String valueToStrep(const MplsLabel& l) { return Cog::String(std::to_string(l.value())); }

std::ostream& operator<<(std::ostream& os, const MplsLabel& l) { return os << l.value(); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const MplsLabel& l) {
  out->putU32(l.value());
  return out;
}

}  // namespace Velnet
