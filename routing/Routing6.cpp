// Hand-written functions of schema/Routing6.cog.
#include "RoutingLib/Routing6.h"

namespace Routing6::Hardware {

bool Status::hierarchicalFecSupported() const { return maxHierarchicalFecChainLength_ > 1; }

}  // namespace Routing6::Hardware
