// The routing model (namespaces Routing, Routing::Fib, Routing::Hardware),
// generated from schema/Routing.cog; hand-written functions in
// routing/Routing.cpp.
//
// Route vocabulary:
//   RouteMetric, RoutePreference (default 1), RouteTag, RoutingProtocol (a
//   protocol byte with named fixed codes), MetricPref;
//   RouteKey     prefix + preference. hash() is the prefix's hash alone, so
//                keys differing only in preference collide by design;
//                pretty() gives "( <prefix>, <preference> )"; the constant
//                metric is RouteMetric(0), reflected but not stored;
//   Via          one next hop. hash() is the hash of hop's 16 address bytes
//                exclusive-or intfId's hash; the other attributes do not enter
//                it. Reading a label above MplsLabel::luWithdraw from an
//                attribute log throws the label's range error;
//   RouteType, Fwd0RoutingEthType (enumerations).
// Route entities: Route (made by its list; prefix(), metric(), preference()
// read its key), RouteList (routeIs with another routeType on a present key
// throws NameInUseException and keeps the route), RouteInput,
// Fwd0EthTypeEntry.
//
// IPv4 configuration: ConfigGen (sendRedirects starts true) and Config,
// RoutingInfo (on RoutingGenInfo, sendRedirects starts false), InfoConfig,
// VrfConfigDir, VrfInfoConfigDir, SeqConfig, SeqStatus, UcmpFecUsageStatus,
// Fib::RouteType.
//
// Hardware: AdjSharing, OptimizeProfileType, HierarchicalFecsMaxLevel
// (default invalid), ResilientEcmpConfig (stringValue() "c <capacity> - r
// <redundancy>"), ConfigGen and Config, OptimizeProfileSetting(List),
// RouteStatus, VrfStatus, UrpfHwStatus, TunnelCapabilities, DlbConfig,
// StaticInterfaceTunnelSupport (per Velnet::TunnelIntfMode encapsulation:
// crypto suites and counters; no string constructor), and Status, the
// capability record (label actions as Velnet::MplsLabelAction sets and map,
// staticInterfaceTunnelSupport keyed by encap): maxHierarchicalFecChainLength
// refuses 0 with "Status::maxHierarchicalFecChainLength < 1 or > Expr
// @Routing.cog:487 not allowed" and keeps its value;
// hierarchicalFecSupported() is true exactly when it is above 1. Ordered
// maps (prefixLenInExactMatch, ...) also delete through an iterator.
#pragma once

#include <Routing.h>
