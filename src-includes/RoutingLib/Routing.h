// The routing vocabulary shared by the IPv4 and IPv6 models (namespace
// Routing), generated from schema/RoutingGen.cog:
//
//   RouteMetric, RoutePreference (default 1), RouteTag, RoutingProtocol (a
//   protocol byte with named fixed codes), MetricPref;
//   RouteKey     prefix + preference. hash() is the prefix's hash alone, so
//                keys differing only in preference collide by design;
//                pretty() gives "( <prefix>, <preference> )";
//   Via          one next hop. hash() is the hash of hop's 16 address bytes
//                exclusive-or intfId's hash; the other attributes do not enter
//                it. Reading a label above MplsLabel::luWithdraw from an
//                attribute log throws the label's range error;
//   RouteType, Fwd0RoutingEthType (enumerations);
//   Hardware::ResilientEcmpConfig with stringValue() "c <capacity> - r
//   <redundancy>".
//
// The hand-written functions are in routing/RoutingGen.cpp.
#pragma once

#include <RoutingGen.h>
