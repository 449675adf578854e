// The library's version, as built.
#pragma once

namespace RoutingLib {

const char* version();

}  // namespace RoutingLib
