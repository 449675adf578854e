// Leaked connected routes (namespace Routing), generated from
// schema/ConnectedRouteLeak.cog (header included below); the hashes, the
// table image and the control attribute are in routeleak/ConnectedRouteLeak.cpp.
//
// DestVrfPrefix / SourceVrfPrefix hash: Cog::Hash mixes the VRF id, then one
// prefix word: for IPv4 the address (host order) XOR the length, for IPv6
// the Ip6Addr hash XOR the length, either passed through Thomas Wang's
// 32-bit integer hash; 0 for any other family. RouteLeakedToVrf hash: a
// fresh Cog::Hash of destVrfPrefix.hash(), then sourceVrfId.
//
// ConnectedRouteLeakStatus::leakedRoute is the shared-memory table, keyed
// by each value's destVrfPrefix (RouteLeakedToVrf::key()); a lookup of an
// absent key yields RouteLeakedToVrf(), the "absent" value. Its image is 32
// bytes, every field a 32-bit word in network order: destVrfId, address
// family, the 16 address bytes, prefix length, sourceVrfId. An image of
// another size, an unknown family or a length above the family's maximum is
// invalid (the table's corruption handler hears of it).
// leakedRouteControl() is the table's mount status: mounted for a writer or
// a local table, the reader's view otherwise.
#pragma once

#include <ConnectedRouteLeak.h>
