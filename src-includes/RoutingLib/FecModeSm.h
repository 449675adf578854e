// The FEC-mode reactors (namespace Ira), generated from schema/FecModeSm.cog
// (header included below) with their handlers in fec/FecModeSm.cpp.
//
// Ira::FecModeSm(l3Config, fecModeStatus) keeps fecModeStatus->fecMode() in
// step with l3Config->protocolAgentModel(): "ribd" gives fecModePerVrf,
// "multi-agent" fecModeUnified. Any other model is a programming error and
// aborts (assertion "0"). It runs once at construction and then on every
// change of the model; with no l3Config attached it writes nothing.
//
// Ira::FecModeRestartSm(fecModeStatus) learns the FEC mode at construction
// (or from the first notification while it still reads fecModeInvalid) and,
// once it has learnt a mode, ends the process with exit status 0 on every
// further fecMode notification, so that the process supervisor restarts the
// agent under the new mode. The exit happens inside the notification, on the
// caller's thread; fecModeIs notifies only on an actual change, so rewriting
// the same mode never restarts. The machine needs fecModeStatus attached for
// as long as it is initialized.
//
// Both trace each handler's signature on entry (handle "FecModeSm", level 8).
#pragma once

#include <FecModeSm.h>

#include "RoutingLib/FecBasicTypes.h"
#include "RoutingLib/L3Config.h"
