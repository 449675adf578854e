// Routing::KernelProtoConfig (how the kernel answers TCP/UDP probes; only
// udpSendTracerouteReplyDefault starts true) and Routing::GeneralConfig
// (fecPerNexthop), generated from schema/RouterGeneralConfig.cog.
#pragma once

#include <RouterGeneralConfig.h>
