#include "RoutingLib/Version.h"

namespace RoutingLib {

const char* version() { return "0.1"; }

}  // namespace RoutingLib
