#include "RoutingLib/VrfName.h"

#include <ostream>

#include "Cog/Exception.h"

namespace L3 {

namespace {
constexpr const char* kTooLong = "VrfName::bytes > VrfName::maxLength not allowed";
}

void VrfName::valueIs(const Cog::String& name) {
  if (name.size() > maxLength) throw Cog::RangeException(kTooLong);
  value_ = name;
}

VrfName::VrfName(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  valueIs(Cog::Parse::quoted(begin, end));
}

VrfName::VrfName(Cog::NboAttrLog::In* in, Cog::StreamBogon) { valueIs(in->nextString()); }

VrfName VrfName::fromString(const Cog::String& text) {
  auto it = text.begin();
  VrfName v(it, text.end());
  Cog::strepToValueEnd(it, text.end());
  return v;
}

Cog::HashValue VrfName::hash() const {
  Cog::Hash h;
  h.mix(value_.hash());
  return h.result();
}

Cog::String valueToStrep(const VrfName& name) {
  return Cog::String(Cog::Parse::quote(name.value().str()));
}

Cog::String stringValue(const VrfName& name) { return valueToStrep(name); }

std::ostream& operator<<(std::ostream& os, const VrfName& name) {
  return os << valueToStrep(name);
}

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const VrfName& name) {
  out->putString(name.value().str());
  return out;
}

}  // namespace L3
