// Ale::VrfTableStatus: which FIB table each VRF uses, generated from
// schema/VrfTableTypes.cog (header included below).
//
// vrfNameToFibTableId maps an L3::VrfName to a Memtab::Fib::TableId.
// vrfNameToFibTableIdIs notifies onVrfNameToFibTableId(vrf) when it adds or
// changes an entry, not when the VRF already has that table id;
// vrfNameToFibTableIdDel returns the removed table id, or TableId 0 without
// notifying anyone when the VRF was absent; vrfNameToFibTableIdDelAll
// deletes key by key, notifying each once. The entity is made in a
// directory by type name ("Ale::VrfTableStatus") and mirrored per key by
// its attribute-log adapter.
//   auto status = Ale::vrfTableStatusFactory(Cog::Name("vrfTable"));
//   status->vrfNameToFibTableIdIs(L3::VrfName("red"), Memtab::Fib::TableId(3));
#pragma once

#include <VrfTableTypes.h>

#include "RoutingLib/FecBasicTypes.h"
