// The IPv6 model where it differs from IPv4: records that reuse the IPv4
// generated bases, its own route-type numbering, its own range text, and
// its defaults.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <functional>
#include <string>

#include "Cog/Type.h"
#include "RoutingLib/Routing6.h"

namespace {

std::string rangeText(const std::function<void()>& f) { return testsupport::exceptionText(f); }

TEST(Routing6, ConfigRecordsReuseTheIpv4Bases) {
  const Cog::CogType* config = Routing6::Config::cogType();
  EXPECT_TRUE(config->isA(Routing::ConfigGen::cogType()));
  EXPECT_FALSE(config->isA(Routing::Config::cogType()));
  EXPECT_TRUE(config->ownMembers().empty());
  EXPECT_EQ(config->member("addresslessForwarding"), nullptr);
  EXPECT_EQ(config->member("icmpSrcIntf"), nullptr);
  ASSERT_NE(config->member("sendRedirects"), nullptr);
  EXPECT_EQ(config->member("sendRedirects")->index, 387u);
  EXPECT_TRUE(Routing6::RoutingInfo::cogType()->isA(Routing::RoutingGenInfo::cogType()));
  EXPECT_TRUE(Routing6::Hardware::Config::cogType()->isA(Routing::Hardware::ConfigGen::cogType()));

  auto dir = Routing6::vrfConfigDirFactory("vrfConfigDir");
  auto red = dir->vrfConfigIs("red");
  EXPECT_TRUE(red->sendRedirects());
  EXPECT_FALSE(red->routing());
  red->sendRedirectsIs(false);
  dir->vrfConfigDel("red");
  EXPECT_TRUE(dir->vrfConfigIs("red")->sendRedirects());

  auto info = Routing6::routingInfoFactory("info");
  EXPECT_FALSE(info->sendRedirects());
  EXPECT_TRUE(Routing6::vrfInfoConfigDirFactory("d")->vrfConfigIs("red")->sendRedirects());
}

TEST(Routing6, FibRouteTypeHasItsOwnNumbers) {
  EXPECT_EQ(static_cast<unsigned>(Routing6::Fib::RouteType::drop), 16u);
  EXPECT_EQ(static_cast<unsigned>(Routing::Fib::RouteType::drop), 26u);
  EXPECT_EQ(stringValue(Routing6::Fib::RouteTypeInstance(21u)), "unknown");
  EXPECT_THROW(Routing6::Fib::RouteTypeInstance(22u), Cog::RangeException);
  EXPECT_THROW(Routing6::Fib::RouteTypeInstance(Cog::String("ibgp")), Cog::ParseException);
}

TEST(Routing6, HardwareDefaultsAndChainLengthBound) {
  auto c = Routing6::Hardware::configFactory("config");
  EXPECT_EQ(c->ecmpNexthopIndex(), Routing6::Hardware::Config::defaultEcmpNexthopIndex);
  EXPECT_EQ(c->ecmpNexthopIndex(), 255);
  EXPECT_TRUE(c->icmpUnreachable());
  c->aggregateRouteIs(Velnet::Ip6Prefix(Cog::String("2001:db8::/32")));
  EXPECT_TRUE(c->aggregateRouteHas(Velnet::Ip6Prefix(Cog::String("2001:db8::1/32"))));

  auto s = Routing6::Hardware::statusFactory("status");
  EXPECT_TRUE(s->ecmpSupported());
  EXPECT_FALSE(s->hierarchicalFecSupported());
  s->maxHierarchicalFecChainLengthIs(2);
  EXPECT_TRUE(s->hierarchicalFecSupported());
  EXPECT_EQ(rangeText([&] { s->maxHierarchicalFecChainLengthIs(0); }),
            "Status::maxHierarchicalFecChainLength < 1 or > Expr @Routing6.cog:220 not allowed");
  EXPECT_EQ(s->maxHierarchicalFecChainLength(), 2u);

  auto rs = Routing6::Hardware::routeStatusFactory("routeStatus");
  EXPECT_TRUE(rs->v6HostRoutesInLemCliEnabled());
  auto red = rs->vrfStatusIs(L3::VrfName("red"));
  EXPECT_TRUE(red->cogType()->isA(Routing::Hardware::VrfStatus::cogType()));

  EXPECT_EQ(Routing6::Hardware::urpfHwStatusFactory("urpf")->status(), Urpf::UrpfState::disable);
}

// A peer numbers the capability record's attributes in this order; the
// attribute-log ids are an external interface.
TEST(Routing6, StatusAttributesKeepTheirIds) {
  const char* const order[] = {
      "routingSupported", "vrfRoutingSupported", "multicastRoutingSupported",
      "pimBidirectionalSupported", "ecmpSupported", "fecTblSize", "maxEcmp", "maxResilientEcmp",
      "resilientEcmpSupported", "urpfSupported", "urpfExceptionSupported",
      "v6RemSupportedPrefixCount", "v6RemSupportedPrefixLength", "optimizeProfileSettingList",
      "ucmpSupported", "maxUcmp", "maxHierarchicalFecChainLength",
      "staticInterfaceTunnelSupport", "fibSuppressionSupported"};
  const Cog::CogType* status = Routing6::Hardware::Status::cogType();
  unsigned id = 258;
  for (const char* name : order) {
    const Cog::MemberInfo* m = status->member(name);
    ASSERT_NE(m, nullptr) << name;
    EXPECT_EQ(m->index, id++) << name;
  }

  auto s = Routing6::Hardware::statusFactory("status");
  EXPECT_FALSE(s->ucmpSupported());
  EXPECT_EQ(s->maxUcmp(), 0u);
  s->ucmpSupportedIs(true);
  s->maxUcmpIs(65535);
  EXPECT_TRUE(s->ucmpSupported());
  EXPECT_EQ(s->maxUcmp(), 65535u);
}

TEST(Routing6, RunnabilityVrfNamesObeyTheLimit) {
  auto r = Routing6::Runnability::configFactory("runnability");
  r->vrfIs(L3::VrfName("red"));
  EXPECT_TRUE(r->vrfHas(L3::VrfName("red")));
  EXPECT_EQ(rangeText([&] { r->vrfIs(L3::VrfName(std::string(101, 'r'))); }),
            "VrfName::bytes > VrfName::maxLength not allowed");
  EXPECT_EQ(r->vrf().size(), 1u);
}

}  // namespace
