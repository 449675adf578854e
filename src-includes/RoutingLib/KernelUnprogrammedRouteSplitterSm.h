// The machines that follow the shared unprogrammed-route tables (namespace
// Memtab::KernelUnprogrammedRoute), generated from
// schema/KernelUnprogrammedRouteSplitterSm.cog (header included below) with
// their handlers in unprogrammed/KernelUnprogrammedRouteSplitterSm.cpp.
//
// KernelUnprogrammedRouteCounterSm(allVrfUnprogrammedRoute,
// unprogrammedRouteCountByVrf) counts notifications, not keys: every onError
// (onError6) for a key present in the table adds one to the ErrorCount of the
// key's VRF under the key's address family, and every one for an absent key
// takes one away, never below 0; entries are never removed. At construction
// it sweeps the tables once (guarded by `initialized`).
//
// KernelUnprogrammedRouteSplitterSm(allVrfUnprogrammedRoute,
// unprogrammedRouteByVrf) keeps one ErrorKeySet per VRF of the keys present,
// created with the VRF's first key and deleted with its last. It does not
// sweep at construction: a host that starts it over a filled table replays
// the keys as notifications (Memtab::Reader::replay) to have them split.
//
// Handlers trace on handle "KernelUnprogrammedRoute" (entry and the steps at
// level 8, count changes at 6, ignored deletes at 9) and write count changes
// and set creations and deletions to the process's Tracelet ring.
#pragma once

#include <KernelUnprogrammedRouteSplitterSm.h>

#include "RoutingLib/KernelUnprogrammedRoute.h"

namespace Memtab::KernelUnprogrammedRoute {

Cog::Ptr<KernelUnprogrammedRouteCounterSm> KernelUnprogrammedRouteCounterSmIs(
    const Cog::Ptr<const UnprogrammedRoute>& allVrfUnprogrammedRoute,
    const Cog::Ptr<UnprogrammedRouteCountByVrf>& unprogrammedRouteCountByVrf);

Cog::Ptr<KernelUnprogrammedRouteSplitterSm> KernelUnprogrammedRouteSplitterSmIs(
    const Cog::Ptr<const UnprogrammedRoute>& allVrfUnprogrammedRoute,
    const Cog::Ptr<UnprogrammedRouteByVrf>& unprogrammedRouteByVrf);

}  // namespace Memtab::KernelUnprogrammedRoute
