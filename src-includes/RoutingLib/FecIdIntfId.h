// Velnet::FecIdIntfId: a FEC id folded into a generic interface id of type 19
// (GenericIntfId::fecIdType), so that routes pointing at a FEC can travel
// wherever an interface id is carried. The value type is generated from
// schema/FecIdIntfId.cog (header included below); its static functions are
// hand-written in fec/FecIdIntfId.cpp.
//
// Bit mapping between a FecId and the parts of the interface id:
//   type id             19
//   part 0              FEC id bits 22..0
//   part 1, bits 16..0  FEC id bits 39..23
//   part 1, bits 24..17 the FEC id's adjacency type (bits 63..56)
// Only FEC ids whose index fits in 40 bits have an interface-id form:
// fecIdToIntfId throws Cog::RangeException
// "Invalid fecId, cannot convert to IntfId" for any other.
//
// intfIdToFecId answers 0 for an interface id of any other kind.
// nexthopGroupIdToIntfId(0) gives the interface form of the
// nextHopGroupAdj FEC with index 0, whereas FecId::nexthopGroupIdToFecId(0)
// gives the invalid FEC; callers rely on both answers, so the two differ.
// intfIdToNexthopGroupId asserts that its argument is a FEC interface id
// holding a nextHopGroupAdj FEC (test with isNexthopGroupIdIntfId first).
#pragma once

// The generated header, by unit name from the build tree's include root.
#include <FecIdIntfId.h>

#include "RoutingLib/FecBasicTypes.h"
