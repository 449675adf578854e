// The enumeration frame shared by Velnet's enumerations (AddressFamily,
// MplsLabelAction, TunnelIntfMode, IanaCryptoSuite).
//
// An enumeration E takes part by specialising EnumTraits<E> with its full
// type name and its (enumerator, name) table; the first entry is the default
// value. It then gets, found by argument-dependent lookup:
//   stringValue(e), valueToStrep(e)   the enumerator's name ("ipv4")
//   os << e                           the same text
//   out << e                          attribute-log form: the value as an
//                                     unsigned 32-bit word, network order
//   sequenceToValue(it, end, &e)      parses a name, advancing `it`
//   !e                                true for the default enumerator
//   hashOf(e)                         Cog::Hash of the 32-bit value
// and the checked conversions enumInstance<E>(unsigned) (RangeException
// "<Type> value <n> is not an enumerator of <Type>"), enumInstance<E>(name)
// (ParseException naming the unknown text) and enumInstance<E>(In*) (reads a
// 32-bit word, then as from a number). Each enumeration header adds the
// conventional spellings EInstance(...) for these, and declares
// cogEnumType(E), the enumeration's Cog::EnumType record (Enum.cpp), through
// which generated types embed it as an attribute and reflection reaches it.
//
// Order and equality are the built-in ones: by numeric value.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "Cog/Exception.h"
#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Cog {
class EnumType;
}

namespace Velnet {

template <typename E>
struct EnumEntry {
  E value;
  const char* name;
};

template <typename E>
struct EnumTraits;  // specialised per enumeration: typeName, entries

template <typename E>
concept VelnetEnum = std::is_enum_v<E> && requires {
  EnumTraits<E>::typeName;
  EnumTraits<E>::entries;
};

namespace EnumDetail {

// Name of `e`, or nullptr for a value that is no enumerator.
template <VelnetEnum E>
constexpr const char* nameOf(E e) {
  for (const auto& entry : EnumTraits<E>::entries) {
    if (entry.value == e) return entry.name;
  }
  return nullptr;
}

inline bool isNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace EnumDetail

template <VelnetEnum E>
E enumInstance(unsigned value) {
  for (const auto& entry : EnumTraits<E>::entries) {
    if (static_cast<unsigned>(entry.value) == value) return entry.value;
  }
  std::string type = EnumTraits<E>::typeName;
  throw Cog::RangeException(type + " value " + std::to_string(value) + " is not an enumerator of " +
                            type);
}

template <VelnetEnum E>
E enumInstance(std::string_view name) {
  for (const auto& entry : EnumTraits<E>::entries) {
    if (name == entry.name) return entry.value;
  }
  throw Cog::ParseException("'" + std::string(name) + "' is not an enumerator of " +
                            EnumTraits<E>::typeName);
}

template <VelnetEnum E>
E enumInstance(Cog::NboAttrLog::In* in) {
  return enumInstance<E>(static_cast<unsigned>(in->nextU32()));
}

template <VelnetEnum E>
void sequenceToValue(Cog::String::IteratorConst& it, const Cog::String::IteratorConst& end, E* out) {
  auto p = it;
  while (p != end && EnumDetail::isNameChar(*p)) ++p;
  if (p == it) {
    throw Cog::ParseException(std::string("expected a name of ") + EnumTraits<E>::typeName + " at " +
                              (it == end ? std::string("end of input") : "'" + std::string(it, end) + "'"));
  }
  *out = enumInstance<E>(std::string_view(&*it, static_cast<std::size_t>(p - it)));
  it = p;
}

template <VelnetEnum E>
Cog::String stringValue(E e) {
  const char* name = EnumDetail::nameOf(e);
  if (name) return Cog::String(name);
  // Only reachable through a cast; keep the number visible rather than lie.
  return Cog::String(std::to_string(static_cast<std::uint32_t>(e)));
}

template <VelnetEnum E>
Cog::String valueToStrep(E e) {
  return stringValue(e);
}

template <VelnetEnum E>
std::ostream& operator<<(std::ostream& os, E e) {
  return os << stringValue(e).str();
}

template <VelnetEnum E>
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out, E e) {
  out->putU32(static_cast<std::uint32_t>(e));
  return out;
}

template <VelnetEnum E>
constexpr bool operator!(E e) {
  return e == EnumTraits<E>::entries[0].value;
}

template <VelnetEnum E>
Cog::HashValue hashOf(E e) {
  Cog::Hash h;
  h.mix(static_cast<std::uint32_t>(e));
  return h.result();
}

}  // namespace Velnet
