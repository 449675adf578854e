// Velnet::AddressFamily: which kind of IP address a generic address or
// prefix holds.
//
//   ipunknown = 0   no address (the default; a default IpGenAddr/IpGenPrefix)
//   ipv4      = 1
//   ipv6      = 2
//
// The value is stored as a 32-bit word (the first word of IpGenAddr and
// IpGenPrefix, also in shared-memory images) and travels in attribute logs
// as an unsigned 32-bit number. Text form: the enumerator's name. The rest of
// the enumeration frame is in Velnet/Enum.h.
#pragma once

#include <cstdint>

#include "Velnet/Enum.h"

namespace Velnet {

enum class AddressFamily : std::uint32_t {
  ipunknown = 0,
  ipv4 = 1,
  ipv6 = 2,
};

template <>
struct EnumTraits<AddressFamily> {
  static constexpr const char* typeName = "Velnet::AddressFamily";
  static constexpr std::array<EnumEntry<AddressFamily>, 3> entries{{
      {AddressFamily::ipunknown, "ipunknown"},
      {AddressFamily::ipv4, "ipv4"},
      {AddressFamily::ipv6, "ipv6"},
  }};
};

// The enumeration's Cog type record (registered when the library loads);
// also the hook by which generated code and reflection find it.
const Cog::EnumType* cogEnumType(AddressFamily);

inline AddressFamily AddressFamilyInstance(unsigned v) { return enumInstance<AddressFamily>(v); }
inline AddressFamily AddressFamilyInstance(const Cog::String& name) {
  return enumInstance<AddressFamily>(std::string_view(name));
}
inline AddressFamily AddressFamilyInstance(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  return enumInstance<AddressFamily>(in);
}

}  // namespace Velnet
