// FEC identifiers (namespace Memtab::Fib): FecId, its adjacency types
// (AdjType), FIB table numbers (TableId), the FEC mode (FecMode), well-known
// FEC ids (FecIdConstants), the FecIdCollection holder and the FecModeStatus
// entity. The types are generated from schema/FecBasicTypes.cog (the
// generated header is included below); the FecId functions are hand-written
// in fec/FecBasicTypes.cpp.
//
// FecId layout: adjacency type in bits 63..56, index in bits 55..0; 0 is the
// invalid id. adjType() and onlySupportedInDefaultVrf() assert a type below
// adjTypeMax (21); isValid() and the conversions test it themselves.
// NexthopGroupId is a plain unsigned 32-bit number.
#pragma once

// The generated header, by unit name from the build tree's include root
// (angle brackets: this file's own directory is not searched).
#include <FecBasicTypes.h>

namespace Memtab::Fib {

using NexthopGroupId = std::uint32_t;

}  // namespace Memtab::Fib
