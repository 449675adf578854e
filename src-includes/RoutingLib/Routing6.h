// The IPv6 routing model (namespaces Routing6, Routing6::Fib,
// Routing6::Runnability, Routing6::Hardware), generated from
// schema/Routing6.cog on the IPv4 generated bases of Routing.h and
// RoutingGen.h; hand-written functions in routing/Routing6.cpp.
//
//   Config (Routing::ConfigGen), RoutingInfo (Routing::RoutingGenInfo),
//   InfoConfig, VrfConfigDir, VrfInfoConfigDir, Fib::RouteType (its own
//   dense numbering), Runnability::Config;
//   Hardware: OptimizeProfileType, OptimizeProfileSetting(List), Config
//   (Routing::Hardware::ConfigGen; ecmpNexthopIndex starts at
//   defaultEcmpNexthopIndex, 255), RouteStatus, UrpfHwStatus, Status
//   (ecmpSupported starts true; maxHierarchicalFecChainLength refuses 0 with
//   "Status::maxHierarchicalFecChainLength < 1 or > Expr @Routing6.cog:220
//   not allowed" and keeps its value; hierarchicalFecSupported() is true
//   exactly when it is above 1).
#pragma once

#include <Routing6.h>
