// Routing::ConnectedRouteLeakSourceVrfSm, generated from
// schema/ConnectedRouteLeakSourceVrfSm.cog with its handlers in
// routeleak/ConnectedRouteLeakSourceVrfSm.cpp.
//
// Follows the leaked-route table crlStatus (destination VRF D and prefix P
// -> source VRF S) and keeps the reverse index crlLocalStatus: one
// RouteLeakedFromVrf per (S, P), holding every D it is leaked into. Because a
// deleted table entry no longer says which S it came from, the machine keeps
// its own copy of every value it handled in prevCrlStatus, a process-local
// ConnectedRouteLeakStatus named "Previous".
//
// Construction attaches crlStatus (when non-null), makes "Previous" and
// sweeps every key of the table. A key present adds D to (S, P); a key
// absent removes D from the (S, P) its previous value named, and the entry
// with its last D. A value that changes S under the same key is handled as
// an add: the old S keeps D, and a later delete of the key undoes the
// newest S only. Reverse-index entries are removed by the machine, never by
// themselves. A reader's whole-table notification (the table first mapped)
// is not handled here: an agent answers it with the sweep
// handleLeakedRoute() inside the delivery.
//
// Traces (handle "ConnectedRouteLeakSourceVrfSm"): the handler's name at
// level 8, changes at 6, ignored deletes at 9; changes also go to the
// process's Tracelet ring.
#pragma once

#include <ConnectedRouteLeakSourceVrfSm.h>

#include "RoutingLib/ConnectedRouteLeak.h"

namespace Routing {

// The machine's factory: attaches it to `crlStatus` and `crlLocalStatus`.
Cog::Ptr<ConnectedRouteLeakSourceVrfSm> ConnectedRouteLeakSourceVrfSmIs(
    const Cog::Ptr<const ConnectedRouteLeakStatus>& crlStatus,
    const Cog::Ptr<ConnectedRouteLeakLocalStatus>& crlLocalStatus);

}  // namespace Routing
