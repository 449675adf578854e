// Velnet::MplsLabelAction: what a forwarding entry does to the MPLS label
// stack of a packet.
//
//   none    = 0   no label operation (the default)
//   push    = 1   push one or more labels on top of the stack
//   pop     = 2   remove the top label and forward on what is underneath
//   swap    = 3   replace the top label
//   forward = 4   forward with the label stack unchanged
//
// Attribute-log form: the value as an unsigned 32-bit number. Text form: the
// enumerator's name. The rest of the enumeration frame is in Velnet/Enum.h.
#pragma once

#include <cstdint>

#include "Velnet/Enum.h"

namespace Velnet {

enum class MplsLabelAction : std::uint32_t {
  none = 0,
  push = 1,
  pop = 2,
  swap = 3,
  forward = 4,
};

template <>
struct EnumTraits<MplsLabelAction> {
  static constexpr const char* typeName = "Velnet::MplsLabelAction";
  static constexpr std::array<EnumEntry<MplsLabelAction>, 5> entries{{
      {MplsLabelAction::none, "none"},
      {MplsLabelAction::push, "push"},
      {MplsLabelAction::pop, "pop"},
      {MplsLabelAction::swap, "swap"},
      {MplsLabelAction::forward, "forward"},
  }};
};

// The enumeration's Cog type record (registered when the library loads);
// also the hook by which generated code and reflection find it.
const Cog::EnumType* cogEnumType(MplsLabelAction);

inline MplsLabelAction MplsLabelActionInstance(unsigned v) { return enumInstance<MplsLabelAction>(v); }
inline MplsLabelAction MplsLabelActionInstance(const Cog::String& name) {
  return enumInstance<MplsLabelAction>(std::string_view(name));
}
inline MplsLabelAction MplsLabelActionInstance(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  return enumInstance<MplsLabelAction>(in);
}

}  // namespace Velnet
