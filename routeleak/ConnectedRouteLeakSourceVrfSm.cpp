// Handlers of the leaked-route reverse-index reactor
// (schema/ConnectedRouteLeakSourceVrfSm.cog).
#include "RoutingLib/ConnectedRouteLeakSourceVrfSm.h"

#include <string>
#include <string_view>

#include "Cog/Trace.h"
#include "Tracelet/Tracelet.h"

COG_TRACE_HANDLE("ConnectedRouteLeakSourceVrfSm");

namespace Routing {
namespace {

// The prefix's text for a Tracelet record, which is written for every
// change: IPv4 prefixes are formatted here without allocating, IPv6 ones as
// their type prints them.
class PrefixText {
 public:
  explicit PrefixText(const Velnet::IpGenPrefix& p) {
    if (!p.isIpv4()) {
      text_ = valueToStrep(p).str();
      view_ = text_;
      return;
    }
    const std::uint32_t a = p.v4Addr();
    char* out = buf_;
    for (int shift = 24; shift >= 0; shift -= 8) {
      out = decimal(out, (a >> shift) & 0xFF);
      *out++ = shift ? '.' : '/';
    }
    out = decimal(out, p.len());
    view_ = std::string_view(buf_, static_cast<std::size_t>(out - buf_));
  }
  std::string_view view() const { return view_; }

 private:
  static char* decimal(char* out, std::uint32_t v) {
    if (v >= 100) *out++ = static_cast<char>('0' + v / 100);
    if (v >= 10) *out++ = static_cast<char>('0' + v / 10 % 10);
    *out++ = static_cast<char>('0' + v % 10);
    return out;
  }
  char buf_[24];
  std::string text_;
  std::string_view view_;
};

}  // namespace

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
             sourceVrfId.value(), destVrfId.value(), PrefixText(prefix).view());
    entry->destVrfIdDel(destVrfId);
    if (!entry->destVrfId().empty()) return;
    COG_TRACE(6, "handleLeakedRoute" << " source vrf: " << sourceVrfId << ", deleting prefix: " << prefix);
    TRACELET(Tracelet::processRing(), " Handle leaked route, source vrf: %u, deleting prefix: %s",
             sourceVrfId.value(), PrefixText(prefix).view());
    crlLocalStatus_->leakedRouteBySourceVrfDel(sourceKey);
    return;
  }
  const Vrf::VrfIdMap::VrfId sourceVrfId = value.sourceVrfId();
  COG_TRACE(6, "handleLeakedRoute" << " source vrf: " << sourceVrfId << ", dest vrf: " << destVrfId
                                   << ", adding prefix: " << prefix);
  TRACELET(Tracelet::processRing(), " Handle leaked route, source vrf: %u, dest vrf: %u, adding prefix: %s",
           sourceVrfId.value(), destVrfId.value(), PrefixText(prefix).view());
  // Remember the value first: a later delete of the key needs its source VRF.
  prevCrlStatus_->leakedRouteIs(value);
  Cog::Ptr<RouteLeakedFromVrf> entry =
      crlLocalStatus_->leakedRouteBySourceVrfIs(SourceVrfPrefix(sourceVrfId, prefix));
  entry->destVrfIdIs(destVrfId);
}

}  // namespace Routing
