// Routes the kernel refused to program (namespace
// Memtab::KernelUnprogrammedRoute), generated from
// schema/KernelUnprogrammedRoute.cog (header included below) with the
// hand-written parts in unprogrammed/.
//
// ErrorKey (RoutingLib/KernelUnprogrammedRouteErrorKey.h) keys both shared
// tables of UnprogrammedRoute: "error" holds Error (IPv4), "error6" Error6
// (IPv6). Their images are an interface to other processes, little-endian:
//   Error   0 errorCode, 4 prefix (24), 28 name count, 32 name bytes;
//           136 bytes in memory; serializeLen() = 35 + count
//   Error6  0 errorCode, 4 intf (8), 12 prefix (24), 36 name count,
//           40 name bytes; 144 bytes; serializeLen() = 43 + count
// serialize writes the fixed words, the used name bytes and three zero bytes;
// deserializeLen is the full size for a count below 102 and 0 (invalid)
// otherwise. memtabString() is the line of a table dump:
// "[<prefix=P, vrfName=N>] code" (Error6: then " " and the interface).
//
// UnprogrammedRoute registers the activity counters "errorIs", "errorDel",
// "errorNotify", "error6Is", "error6Del", "error6Notify" at construction.
//
// ErrorKeySet holds one VRF's failed keys of one address family; its errors
// are read back from the shared entity with getError / getError6 (the
// default value when absent). UnprogrammedRouteByVrf::errorKeySetIs returns
// the VRF's set in error6KeySet for IPv6, error4KeySet otherwise, creating it
// when missing.
#pragma once

#include <KernelUnprogrammedRoute.h>

#include "RoutingLib/KernelUnprogrammedRouteErrorKey.h"

namespace Memtab::KernelUnprogrammedRoute {

// A set for `vrfName` and `af` that reads its errors from `unprogrammedRoute`.
Cog::Ptr<ErrorKeySet> errorKeySetFactory(const L3::VrfName& vrfName, Velnet::AddressFamily af,
                                         const Cog::Ptr<const UnprogrammedRoute>& unprogrammedRoute);

}  // namespace Memtab::KernelUnprogrammedRoute
