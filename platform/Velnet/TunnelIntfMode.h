// Velnet::TunnelIntfMode: the encapsulation of a static tunnel interface.
//
//   tunnelIntfModeUnknown = 0   not configured (the default)
//   gre                   = 1   GRE over IP
//   ipsec                 = 2   IPsec (ESP tunnel mode)
//   ipip                  = 3   IP in IP
//   greOverIpsec          = 4   GRE, protected by IPsec
//   mplsOverGre           = 5   MPLS over GRE
//
// Attribute-log form: the value as an unsigned 32-bit number. Text form: the
// enumerator's name. The rest of the enumeration frame is in Velnet/Enum.h.
#pragma once

#include <cstdint>

#include "Velnet/Enum.h"

namespace Velnet {

enum class TunnelIntfMode : std::uint32_t {
  tunnelIntfModeUnknown = 0,
  gre = 1,
  ipsec = 2,
  ipip = 3,
  greOverIpsec = 4,
  mplsOverGre = 5,
};

template <>
struct EnumTraits<TunnelIntfMode> {
  static constexpr const char* typeName = "Velnet::TunnelIntfMode";
  static constexpr std::array<EnumEntry<TunnelIntfMode>, 6> entries{{
      {TunnelIntfMode::tunnelIntfModeUnknown, "tunnelIntfModeUnknown"},
      {TunnelIntfMode::gre, "gre"},
      {TunnelIntfMode::ipsec, "ipsec"},
      {TunnelIntfMode::ipip, "ipip"},
      {TunnelIntfMode::greOverIpsec, "greOverIpsec"},
      {TunnelIntfMode::mplsOverGre, "mplsOverGre"},
  }};
};

// The enumeration's Cog type record (registered when the library loads);
// also the hook by which generated code and reflection find it.
const Cog::EnumType* cogEnumType(TunnelIntfMode);

inline TunnelIntfMode TunnelIntfModeInstance(unsigned v) { return enumInstance<TunnelIntfMode>(v); }
inline TunnelIntfMode TunnelIntfModeInstance(const Cog::String& name) {
  return enumInstance<TunnelIntfMode>(std::string_view(name));
}
inline TunnelIntfMode TunnelIntfModeInstance(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  return enumInstance<TunnelIntfMode>(in);
}

}  // namespace Velnet
