// Per-VRF UCMP configuration: RoutingLib::Ucmp::UcmpConfig (one per VRF,
// named by the VRF) and RoutingLib::Ucmp::VrfUcmpConfigDir, the directory of
// them. Generated from schema/Ucmp.cog (header included below).
//
// A new UcmpConfig reads every setting at its "Invalid" constant (not
// configured) except ucmpTriggerFecThreshold (50) and ucmpClearFecThreshold
// (40). The two threshold setters store the new value before checking it
// against -1..100: a rejected value throws Cog::RangeException, stays stored,
// and is not notified.
//   auto dir = RoutingLib::Ucmp::vrfUcmpConfigDirFactory(Cog::Name("ucmp"));
//   dir->vrfConfigIs(Cog::Name("red"))->maxUcmpIs(64);
#pragma once

#include <Ucmp.h>
