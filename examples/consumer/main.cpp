// The consumer's program: its own generated types next to the library's.
// Prints "station: ok" when every check holds; otherwise what failed.
#include <iostream>
#include <string>

#include <Station.h>

#include "Cog/Exception.h"
#include "Cog/NboAttrLog.h"
#include "Cog/Trace.h"
#include "RoutingLib/UcmpWeightRebase.h"

// guide: trace
COG_TRACE_HANDLE("Station");
// end

namespace {

// guide: notifiee
// Counts the changes of one StationRoutes entity: one onX() per attribute,
// per key for collections.
class PeerWatcher : public Station::StationRoutes::NotifieeConst {
 public:
  void onPeer(const L3::VrfName& vrf) override {
    COG_TRACE(5, "peer changed in " << vrf);
    ++peerChanges;
  }
  void onHomeVrf() override { ++homeVrfChanges; }
  int peerChanges = 0;
  int homeVrfChanges = 0;
};
// end

int failures = 0;

void check(bool ok, const std::string& what) {
  if (!ok) {
    std::cout << "station: FAILED " << what << "\n";
    ++failures;
  }
}

}  // namespace

int main() {
  using namespace Station;
  // guide: value
  Peer peer;
  peer.vrfIs(L3::VrfName("blue"));
  peer.siteIs(Site(7));
  peer.holdTimeIs(30);
  const std::string text = valueToStrep(peer).str();
  check(text.rfind("Value('Station::Peer', ** {", 0) == 0, "string form " + text);
  Cog::String again(text);
  auto it = again.begin();
  check(Peer(it, again.end()) == peer, "string form round trip " + text);

  auto log = Cog::allocate<Cog::NboAttrLog::Out>();
  log << peer;
  auto in = Cog::allocate<Cog::NboAttrLog::In>(log->bytes());
  check(Peer(in.ptr(), Cog::StreamBogon{}) == peer, "attribute-log round trip");
  // end

  try {
    peer.holdTimeIs(1);
    check(false, "holdTime bound");
  } catch (const Cog::RangeException& e) {
    check(std::string(e.what()) == "Peer::holdTime < 3 or > 65535 not allowed", e.what());
  }

  // guide: entity
  // The extended route list is a Routing::RouteList with attributes of its own.
  Cog::Ptr<StationRoutes> routes = stationRoutesFactory("station1");
  auto watcher = Cog::allocate<PeerWatcher>();
  watcher->notifierIs(routes);
  routes->homeVrfIs(L3::VrfName("blue"));
  routes->homeVrfIs(L3::VrfName("blue"));  // the value already stored: nobody is told
  routes->peerIs(L3::VrfName("blue"), peer);
  // end
  check(watcher->homeVrfChanges == 1 && watcher->peerChanges == 1, "notifications");
  Cog::Ptr<Routing::RouteList> base = routes;
  auto key = Routing::RouteKey(Velnet::IpGenPrefix(Cog::String("10.0.0.0/8")),
                               Routing::RoutePreference(1));
  base->routeIs(key, Routing::RouteType::forward);
  check(routes->route().size() == 1 && routes->peer().size() == 1, "collections");

  const auto rebased = RoutingLib::rebaseWeights(std::vector<double>{1.0, 2.0}, 3, 0.0f);
  check(rebased.outWeight().size() == 2, "rebaseWeights");

  if (failures == 0) std::cout << "station: ok\n";
  return failures == 0 ? 0 : 1;
}
