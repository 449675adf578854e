// Handlers of the leaked-route reverse-index reactor
// (schema/ConnectedRouteLeakSourceVrfSm.cog).
#include "RoutingLib/ConnectedRouteLeakSourceVrfSm.h"

#include "Cog/Trace.h"
#include "Tracelet/Tracelet.h"

COG_TRACE_HANDLE("ConnectedRouteLeakSourceVrfSm");

namespace Routing {

Cog::Ptr<ConnectedRouteLeakSourceVrfSm> ConnectedRouteLeakSourceVrfSmIs(
    const Cog::Ptr<const ConnectedRouteLeakStatus>& crlStatus,
    const Cog::Ptr<ConnectedRouteLeakLocalStatus>& crlLocalStatus) {
  return connectedRouteLeakSourceVrfSmFactory(crlStatus, crlLocalStatus);
}

void ConnectedRouteLeakSourceVrfSm::handleInitialized() {
  initialized_ = true;
  handleLeakedRoute();
}

void ConnectedRouteLeakSourceVrfSm::handleLeakedRoute() {
  COG_TRACE(8, "handleLeakedRoute");
  if (!crlStatus_) return;
  // Corruption met while iterating goes to the table's handler and ends the
  // iteration, so the sweep simply stops there.
  for (const RouteLeakedToVrf& value : crlStatus_->leakedRoute()) {
    handleLeakedRoute(value.destVrfPrefix());
  }
}

void ConnectedRouteLeakSourceVrfSm::handleLeakedRoute(const DestVrfPrefix& key) {
  COG_TRACE(8, "handleLeakedRoute");
  if (!crlStatus_) return;
  const Vrf::VrfIdMap::VrfId destVrfId = key.destVrfId();
  const Velnet::IpGenPrefix& prefix = key.prefix();
  const RouteLeakedToVrf value = crlStatus_->leakedRoute(key);
  if (value == RouteLeakedToVrf()) {
    const RouteLeakedToVrf prev = prevCrlStatus_->leakedRoute(key);
    if (prev == RouteLeakedToVrf()) {
      COG_TRACE(9, "handleLeakedRoute" << " Vrf: " << destVrfId << ", no prev value for prefix: " << prefix);
      return;
    }
    // Forget the value before touching the index, so that a missing index
    // entry still leaves the copy clean.
    prevCrlStatus_->leakedRouteDel(key);
    const Vrf::VrfIdMap::VrfId sourceVrfId = prev.sourceVrfId();
    const SourceVrfPrefix sourceKey(sourceVrfId, prefix);
    Cog::Ptr<RouteLeakedFromVrf> entry = crlLocalStatus_->leakedRouteBySourceVrf(sourceKey);
    if (!entry) {
      COG_TRACE(9, "handleLeakedRoute" << " Vrf: " << sourceVrfId << ", no value for prefix: " << prefix);
      return;
    }
    COG_TRACE(6, "handleLeakedRoute" << " source vrf: " << sourceVrfId << ", dest vrf: " << destVrfId
                                     << ", deleting prefix: " << prefix);
    TRACELET(Tracelet::processRing(), " Handle leaked route, source vrf: %u, dest vrf: %u, deleting prefix: %s",
             sourceVrfId.value(), destVrfId.value(), valueToStrep(prefix));
    entry->destVrfIdDel(destVrfId);
    if (!entry->destVrfId().empty()) return;
    COG_TRACE(6, "handleLeakedRoute" << " source vrf: " << sourceVrfId << ", deleting prefix: " << prefix);
    TRACELET(Tracelet::processRing(), " Handle leaked route, source vrf: %u, deleting prefix: %s",
             sourceVrfId.value(), valueToStrep(prefix));
    crlLocalStatus_->leakedRouteBySourceVrfDel(sourceKey);
    return;
  }
  const Vrf::VrfIdMap::VrfId sourceVrfId = value.sourceVrfId();
  COG_TRACE(6, "handleLeakedRoute" << " source vrf: " << sourceVrfId << ", dest vrf: " << destVrfId
                                   << ", adding prefix: " << prefix);
  TRACELET(Tracelet::processRing(), " Handle leaked route, source vrf: %u, dest vrf: %u, adding prefix: %s",
           sourceVrfId.value(), destVrfId.value(), valueToStrep(prefix));
  // Remember the value first: a later delete of the key needs its source VRF.
  prevCrlStatus_->leakedRouteIs(value);
  Cog::Ptr<RouteLeakedFromVrf> entry =
      crlLocalStatus_->leakedRouteBySourceVrfIs(SourceVrfPrefix(sourceVrfId, prefix));
  entry->destVrfIdIs(destVrfId);
}

}  // namespace Routing
