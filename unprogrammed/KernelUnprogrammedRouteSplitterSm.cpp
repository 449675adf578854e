// Handlers of the unprogrammed-route machines
// (schema/KernelUnprogrammedRouteSplitterSm.cog).
#include "RoutingLib/KernelUnprogrammedRouteSplitterSm.h"

#include "Cog/Assert.h"
#include "Cog/Trace.h"
#include "Tracelet/Tracelet.h"

COG_TRACE_HANDLE("KernelUnprogrammedRoute");

namespace Memtab::KernelUnprogrammedRoute {

namespace {

// One present (add) or absent (take away) notification of `key` in `af`.
void count(UnprogrammedRouteCountByVrf& out, const ErrorKey& key, bool present) {
  const L3::VrfName vrf = key.vrfName();
  const Velnet::AddressFamily af = key.prefix().af();
  if (present) {
    Cog::Ptr<ErrorCount> c = out.errorCountIs(vrf);
    const std::uint32_t* n = c->numRoutes().find(af);
    const std::uint32_t next = (n ? *n : 0) + 1;
    c->numRoutesIs(af, next);
    COG_TRACE(6, "numRoutes of VRF " << vrf << " address family " << af << " is " << next);
    TRACELET(Tracelet::processRing(), "unprogrammed routes of vrf %s af %u: %u", vrf.value(),
             static_cast<std::uint32_t>(af), next);
    return;
  }
  Cog::Ptr<ErrorCount> c = out.errorCount(vrf);
  const std::uint32_t* n = c ? c->numRoutes().find(af) : nullptr;
  if (n == nullptr || *n == 0) {
    COG_TRACE(9, "no count of VRF " << vrf << " address family " << af << " to lower");
    return;
  }
  const std::uint32_t next = *n - 1;
  c->numRoutesIs(af, next);
  COG_TRACE(6, "numRoutes of VRF " << vrf << " address family " << af << " is " << next);
  TRACELET(Tracelet::processRing(), "unprogrammed routes of vrf %s af %u: %u", vrf.value(),
           static_cast<std::uint32_t>(af), next);
}

}  // namespace

// ---- counter

void KernelUnprogrammedRouteCounterSm::handleInitialized() {
  COG_TRACE(8, "handleInitialized");
  if (!initialized_) {
    handleRoutes();
    initialized_ = true;
  }
}

void KernelUnprogrammedRouteCounterSm::handleRoutes() {
  COG_TRACE(8, "handleRoutes");
  if (!allVrfUnprogrammedRoute_) return;
  // Iteration ends early on corruption; the table's handler has the reason.
  for (const Error& e : allVrfUnprogrammedRoute_->error()) handleRoute(e.key());
  for (const Error6& e : allVrfUnprogrammedRoute_->error6()) handleRoute6(e.key());
}

void KernelUnprogrammedRouteCounterSm::handleRoute(const ErrorKey& key) {
  COG_TRACE(8, "handleRoute" << " key: " << key);
  // The name check comes first, as for a key that is never found.
  (void)key.vrfName();
  if (!allVrfUnprogrammedRoute_ || !unprogrammedRouteCountByVrf_) return;
  const Error value = allVrfUnprogrammedRoute_->error(key);
  count(*unprogrammedRouteCountByVrf_, key, !!value);
}

void KernelUnprogrammedRouteCounterSm::handleRoute6(const ErrorKey& key) {
  COG_TRACE(8, "handleRoute6" << " key: " << key);
  (void)key.vrfName();
  if (!allVrfUnprogrammedRoute_ || !unprogrammedRouteCountByVrf_) return;
  const Error6 value = allVrfUnprogrammedRoute_->error6(key);
  count(*unprogrammedRouteCountByVrf_, key, !!value);
}

Cog::Ptr<KernelUnprogrammedRouteCounterSm> KernelUnprogrammedRouteCounterSmIs(
    const Cog::Ptr<const UnprogrammedRoute>& allVrfUnprogrammedRoute,
    const Cog::Ptr<UnprogrammedRouteCountByVrf>& unprogrammedRouteCountByVrf) {
  return kernelUnprogrammedRouteCounterSmFactory(allVrfUnprogrammedRoute, unprogrammedRouteCountByVrf);
}

// ---- splitter

void KernelUnprogrammedRouteSplitterSm::handleInitialized() {
  COG_TRACE(8, "handleInitialized");
  // No sweep of the entries already there, unlike the counter: the host
  // replays them as notifications when it wants them split.
  if (!initialized_) initialized_ = true;
}

void KernelUnprogrammedRouteSplitterSm::handleRoute(const ErrorKey& key) {
  COG_TRACE(8, "handleRoute" << " key: " << key);
  const L3::VrfName vrf = key.vrfName();
  if (!allVrfUnprogrammedRoute_ || !unprogrammedRouteByVrf_) return;
  Cog::Ptr<ErrorKeySet> set = unprogrammedRouteByVrf_->error4KeySet(vrf);
  const Error value = allVrfUnprogrammedRoute_->error(key);
  if (!value) {
    if (set) {
      COG_TRACE(8, "handleRoute" << " Deleting route with key " << key
                                 << " from ErrorKeySet for vrf " << vrf);
      set->errorKeyDel(key);
      if (set->errorKey().size() == 0) {
        unprogrammedRouteByVrf_->error4KeySetDel(vrf);
        TRACELET(Tracelet::processRing(), "deleted ipv4 error key set of vrf %s", vrf.value());
      }
    } else {
      COG_TRACE(8, "handleRoute" << " ErrorKeySet for VRF " << vrf << " doesn't exist as yet");
    }
    COG_TRACE(8, "handleRoute" << " Deleting unprogrammed route: " << value);
    return;
  }
  if (!set) {
    COG_TRACE(8, "handleRoute" << " Creating ErrorKeySet for VRF " << vrf);
    set = unprogrammedRouteByVrf_->errorKeySetIs(vrf, key.prefix().af(), allVrfUnprogrammedRoute_);
    TRACELET(Tracelet::processRing(), "created ipv4 error key set of vrf %s", vrf.value());
  }
  const Cog::Ptr<ErrorKeySet>& errorKeySetForVrf = set;
  COG_ASSERT(errorKeySetForVrf);
  errorKeySetForVrf->errorKeyIs(key, true);
}

void KernelUnprogrammedRouteSplitterSm::handleRoute6(const ErrorKey& key) {
  COG_TRACE(8, "handleRoute6" << " key: " << key);
  const L3::VrfName vrf = key.vrfName();
  if (!allVrfUnprogrammedRoute_ || !unprogrammedRouteByVrf_) return;
  Cog::Ptr<ErrorKeySet> set = unprogrammedRouteByVrf_->error6KeySet(vrf);
  const Error6 value = allVrfUnprogrammedRoute_->error6(key);
  if (!value) {
    if (set) {
      COG_TRACE(8, "handleRoute6" << " Deleting route with key " << key
                                  << " from ErrorKeySet for vrf " << vrf);
      set->errorKeyDel(key);
      if (set->errorKey().size() == 0) {
        unprogrammedRouteByVrf_->error6KeySetDel(vrf);
        TRACELET(Tracelet::processRing(), "deleted ipv6 error key set of vrf %s", vrf.value());
      }
    } else {
      COG_TRACE(8, "handleRoute6" << " ErrorKeySet for VRF " << vrf << " doesn't exist as yet");
    }
    // No closing "Deleting unprogrammed route" trace on this path, unlike
    // handleRoute; readers of the trace rely on the difference.
    return;
  }
  if (!set) {
    COG_TRACE(8, "handleRoute6" << " Creating ErrorKeySet for VRF " << vrf);
    set = unprogrammedRouteByVrf_->errorKeySetIs(vrf, key.prefix().af(), allVrfUnprogrammedRoute_);
    TRACELET(Tracelet::processRing(), "created ipv6 error key set of vrf %s", vrf.value());
  }
  const Cog::Ptr<ErrorKeySet>& errorKeySetForVrf = set;
  COG_ASSERT(errorKeySetForVrf);
  errorKeySetForVrf->errorKeyIs(key, true);
}

Cog::Ptr<KernelUnprogrammedRouteSplitterSm> KernelUnprogrammedRouteSplitterSmIs(
    const Cog::Ptr<const UnprogrammedRoute>& allVrfUnprogrammedRoute,
    const Cog::Ptr<UnprogrammedRouteByVrf>& unprogrammedRouteByVrf) {
  return kernelUnprogrammedRouteSplitterSmFactory(allVrfUnprogrammedRoute, unprogrammedRouteByVrf);
}

}  // namespace Memtab::KernelUnprogrammedRoute
