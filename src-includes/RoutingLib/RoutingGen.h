// Routing::RoutingGenInfo, the generated base of Routing::RoutingInfo and
// Routing6::RoutingInfo (schema/RoutingGen.cog). Both switches start false.
#pragma once

#include <RoutingGen.h>
