// L3::Config, the part of the layer-3 configuration the routing library
// reads, and L3::ProtocolAgentModelType, a routing-protocol agent model by
// name. Generated from schema/L3Config.cog (header included below).
//
// protocolAgentModel holds a model name; the known ones are "ribd" (the
// default: one routing agent, FECs per VRF) and "multi-agent" (one agent per
// protocol, one unified FEC space). Other names are stored as given, and
// protocolAgentModelIs notifies onProtocolAgentModel() only on a change.
//   auto config = L3::configFactory(Cog::Name("l3"));
//   config->protocolAgentModelIs(L3::ProtocolAgentModelType(Cog::String("multi-agent")));
#pragma once

#include <L3Config.h>
