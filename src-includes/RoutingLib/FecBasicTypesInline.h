// Inline definitions of the hot Memtab::Fib::FecId functions declared in
// schema/FecBasicTypes.cog; included at the end of the generated header
// (include it through RoutingLib/FecBasicTypes.h, never on its own).
#pragma once

#include <bit>

namespace Memtab::Fib {

// Jenkins one-at-a-time hash (seed 0) over the value's 8 bytes in
// little-endian order.
inline Cog::HashValue FecId::hash() const {
  static_assert(std::endian::native == std::endian::little);
  return Cog::oneAtATimeHash(&value_, sizeof value_);
}

inline AdjType FecId::adjType() const {
  COG_ASSERT_AT((value_ >> adjTypePos()) < static_cast<std::uint64_t>(adjTypeMax()),
                "(value_ >> Fib::adjTypePos()) < Fib::adjTypeMax()", "FecBasicTypes", 18,
                "Memtab::Fib::AdjType Memtab::Fib::FecId::adjType() const");
  return static_cast<AdjType>(value_ >> adjTypePos());
}

inline std::uint64_t FecId::adjIndex() const {
  return value_ & ((std::uint64_t{1} << adjTypePos()) - 1);
}

inline bool FecId::isValid() const {
  return value_ != 0 && (value_ >> adjTypePos()) < static_cast<std::uint64_t>(adjTypeMax());
}

}  // namespace Memtab::Fib
