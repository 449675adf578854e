// Hand-written functions of schema/Routing.cog.
#include "RoutingLib/Routing.h"

#include <string>

namespace Routing {

Cog::HashValue RouteKey::hash() const { return prefix_.hash(); }

Cog::String RouteKey::pretty() const {
  std::string text = "( ";
  text += std::string_view(valueToStrep(prefix_));
  text += ", ";
  text += std::string_view(valueToStrep(preference_));
  text += " )";
  return Cog::String(std::move(text));
}

Cog::HashValue Via::hash() const {
  Cog::Hash h;
  h.mixBytes(hop_.bytes(), 16);
  return h.result() ^ intfId_.hash();
}

Velnet::IpGenPrefix Route::prefix() const { return key_.prefix(); }

RouteMetric Route::metric() const { return RouteKey::metric; }

RoutePreference Route::preference() const { return key_.preference(); }

}  // namespace Routing

namespace Routing::Hardware {

Cog::String ResilientEcmpConfig::stringValue() const {
  return Cog::String("c " + std::to_string(capacity_) + " - r " + std::to_string(redundancy_));
}

bool Status::hierarchicalFecSupported() const { return maxHierarchicalFecChainLength_ > 1; }

}  // namespace Routing::Hardware
