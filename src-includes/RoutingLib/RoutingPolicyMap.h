// Who refers to which routing policy (namespace RoutingPolicyMap), generated
// from schema/RoutingPolicyMap.cog (header included below).
//
// A PolicyMap holds one PolicyRequester per policy name in each of its five
// collections (dynamicPrefixList, ipv4PrefixList, ipv6PrefixList, routeMap,
// redistributedDynPfx); a PolicyRequester, named by its policy, holds the set
// `reason` of Requester values that refer to that policy. Requesters compare
// and order by plugin, mode, configCli, configKey, in that order.
//   auto map = RoutingPolicyMap::policyMapFactory();
//   map->routeMapIs("RM-IN")->reasonIs(RoutingPolicyMap::Requester(
//       RoutingPolicyMap::ribBgp(), RoutingPolicyMap::routerBgpAfV4(),
//       "neighbor 10.0.0.1 route-map RM-IN in", "10.0.0.1"));
// PolicyType names three kinds of policy; which collection one selects is
// the caller's decision (the two address-family prefix lists have none).
#pragma once

#include <RoutingPolicyMap.h>
