// Routing::RouteProto: the kernel's route-origin codes (sparse, fixed
// values; RouteProtoInstance(7) throws RangeException because 7 names no
// origin), generated from schema/RouteProto.cog.
#pragma once

#include <RouteProto.h>
