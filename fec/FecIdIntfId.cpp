// Hand-written functions of Velnet::FecIdIntfId (schema/FecIdIntfId.cog).
#include "RoutingLib/FecIdIntfId.h"

#include "Cog/Assert.h"
#include "Cog/Exception.h"

namespace Velnet {
namespace {

using Memtab::Fib::FecId;

// Part 0 carries the low 23 bits of the index, part 1 the next 17 bits and,
// above them, the adjacency type.
constexpr unsigned kPart0Bits = 23;
constexpr unsigned kPart1IndexBits = 17;
constexpr unsigned kIndexBits = kPart0Bits + kPart1IndexBits;  // 40
constexpr std::uint64_t kPart0Mask = (std::uint64_t{1} << kPart0Bits) - 1;
constexpr std::uint64_t kPart1IndexMask = (std::uint64_t{1} << kPart1IndexBits) - 1;
// Bits 55..40 of a FEC id: an index that needs them has no interface form.
constexpr std::uint64_t kUnfoldableMask =
    ((std::uint64_t{1} << Memtab::Fib::adjTypePos()) - 1) & ~((std::uint64_t{1} << kIndexBits) - 1);

static_assert(kPart0Bits <= GenericIntfId::partBits(0));
static_assert(kPart1IndexBits + 8 <= GenericIntfId::partBits(1));

}  // namespace

FecIdIntfId::FecIdIntfId(const Cog::String& name) : FecIdIntfId(IntfId(name)) {}

std::uint32_t FecIdIntfId::fecIdIntfIdType() { return GenericIntfId::fecIdIntfIdType(); }

bool FecIdIntfId::isFecIdIntfId(const IntfId& intfId) {
  return GenericIntfId::typeId(intfId) == fecIdIntfIdType();
}

IntfId FecIdIntfId::fecIdToIntfId(std::uint64_t fecId) {
  if (fecId & kUnfoldableMask) throw Cog::RangeException("Invalid fecId, cannot convert to IntfId");
  const std::uint64_t adjType = fecId >> Memtab::Fib::adjTypePos();
  IntfId intfId;
  GenericIntfId::typeIdIs(intfId, fecIdIntfIdType());
  GenericIntfId::partIs(intfId, 0, static_cast<std::uint32_t>(fecId & kPart0Mask));
  GenericIntfId::partIs(
      intfId, 1,
      static_cast<std::uint32_t>(adjType << kPart1IndexBits | ((fecId >> kPart0Bits) & kPart1IndexMask)));
  return intfId;
}

std::uint64_t FecIdIntfId::intfIdToFecId(const IntfId& intfId) {
  if (!isFecIdIntfId(intfId)) return 0;
  const std::uint64_t part0 = GenericIntfId::part(intfId, 0);
  const std::uint64_t part1 = GenericIntfId::part(intfId, 1);
  // Bits of part 0 above bit 22 and of part 1 above bit 24 are not written by
  // fecIdToIntfId; an id that has them (built by hand) folds only its own bits.
  const std::uint64_t adjType = (part1 >> kPart1IndexBits) & 0xFF;
  return adjType << Memtab::Fib::adjTypePos() | (part1 & kPart1IndexMask) << kPart0Bits |
         (part0 & kPart0Mask);
}

bool FecIdIntfId::isNexthopGroupIdIntfId(const IntfId& intfId) {
  const FecId fecId(intfIdToFecId(intfId));
  if (!fecId) return false;
  return fecId.adjType() == Memtab::Fib::nextHopGroupAdj();
}

IntfId FecIdIntfId::nexthopGroupIdToIntfId(std::uint32_t nexthopGroupId) {
  return fecIdToIntfId(FecId::fecIdForAdjType(Memtab::Fib::nextHopGroupAdj(), nexthopGroupId).value());
}

std::uint32_t FecIdIntfId::intfIdToNexthopGroupId(const IntfId& intfId) {
  COG_ASSERT_AT(fecIdIntfIdType() == GenericIntfId::typeId(intfId),
                "FecIdIntfId::fecIdIntfIdType() == typeId( intfId )", "FecIdIntfId", 72,
                __PRETTY_FUNCTION__);
  const FecId fecId(intfIdToFecId(intfId));
  COG_ASSERT_AT(fecId.adjType() == Memtab::Fib::nextHopGroupAdj(),
                "fecId.adjType() == Memtab::Fib::nextHopGroupAdj()", "FecIdIntfId", 74,
                __PRETTY_FUNCTION__);
  return static_cast<std::uint32_t>(fecId.value());
}

}  // namespace Velnet
