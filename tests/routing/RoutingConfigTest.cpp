// Routing configuration, kernel and hardware records: the defaults that
// differ on purpose between related records, the VRF directories, the range
// errors of the capability record, and the enumerations whose numbering is
// part of the interface.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <functional>
#include <string>

#include "RoutingLib/RouteProto.h"
#include "RoutingLib/RouterGeneralConfig.h"
#include "RoutingLib/Routing.h"

namespace {

std::string rangeText(const std::function<void()>& f) { return testsupport::exceptionText(f); }

TEST(RoutingConfig, RedirectDefaultsDifferOnPurpose) {
  // Configuration sends redirects unless told otherwise; the information
  // record reports nothing until it is filled.
  auto config = Routing::configFactory("default");
  EXPECT_FALSE(config->routing());
  EXPECT_TRUE(config->sendRedirects());
  EXPECT_FALSE(config->fibFilter());
  EXPECT_EQ(config->addresslessForwarding(), Ip::TristateBool::isUnset);
  EXPECT_TRUE(!config->icmpSrcIntf());
  EXPECT_TRUE(config->route().empty());

  auto info = Routing::routingInfoFactory("default");
  EXPECT_FALSE(info->routing());
  EXPECT_FALSE(info->sendRedirects());
  EXPECT_EQ(info->addresslessForwarding(), Ip::TristateBool::isUnset);

  auto flat = Routing::infoConfigFactory("default");
  EXPECT_FALSE(flat->routing());
  EXPECT_TRUE(flat->sendRedirects());
}

TEST(RoutingConfig, VrfDirectoriesMakeFreshRecordsAfterDeletion) {
  auto dir = Routing::vrfConfigDirFactory("vrfConfigDir");
  auto red = dir->vrfConfigIs("red");
  EXPECT_EQ(dir->vrfConfigIs("red"), red);
  EXPECT_EQ(red->name(), "red");
  red->sendRedirectsIs(false);
  red->routingIs(true);
  dir->vrfConfigDel("red");
  EXPECT_EQ(dir->vrfConfig("red"), nullptr);
  auto fresh = dir->vrfConfigIs("red");
  EXPECT_NE(fresh, red);
  EXPECT_TRUE(fresh->sendRedirects());
  EXPECT_FALSE(fresh->routing());

  auto infoDir = Routing::vrfInfoConfigDirFactory("vrfInfoConfigDir");
  auto blue = infoDir->vrfConfigIs("blue");
  blue->sendRedirectsIs(false);
  infoDir->vrfConfigDel("blue");
  EXPECT_TRUE(infoDir->vrfConfigIs("blue")->sendRedirects());
}

TEST(RoutingConfig, FibRouteTypeNumberingIsDense) {
  EXPECT_EQ(stringValue(Routing::Fib::RouteTypeInstance(37u)), "unknown");
  EXPECT_EQ(stringValue(Routing::Fib::RouteTypeInstance(26u)), "drop");
  EXPECT_EQ(stringValue(Routing::Fib::RouteTypeInstance(0u)), "invalid");
  EXPECT_THROW(Routing::Fib::RouteTypeInstance(38u), Cog::RangeException);
  for (unsigned v = 0; v <= 37; ++v) {
    Routing::Fib::RouteType t = Routing::Fib::RouteTypeInstance(v);
    EXPECT_EQ(static_cast<unsigned>(Routing::Fib::RouteTypeInstance(stringValue(t))), v);
  }
}

TEST(KernelProtoConfig, OnlyTracerouteReplyDefaultStartsTrue) {
  auto k = Routing::kernelProtoConfigFactory("kernelProto");
  EXPECT_FALSE(k->tcpSendReset());
  EXPECT_FALSE(k->udpSendUnreachable());
  EXPECT_FALSE(k->tcpSendResetDefault());
  EXPECT_FALSE(k->udpSendUnreachableDefault());
  EXPECT_TRUE(k->udpSendTracerouteReplyDefault());
  EXPECT_FALSE(k->udpSendTracerouteReplyAll());
  k->udpSendTracerouteReplyVrfIs(L3::VrfName(std::string(100, 'x')));
  EXPECT_EQ(rangeText([&] { k->udpSendTracerouteReplyVrfIs(L3::VrfName(std::string(101, 'x'))); }),
            "VrfName::bytes > VrfName::maxLength not allowed");
  EXPECT_EQ(k->udpSendTracerouteReplyVrf().size(), 1u);
  EXPECT_FALSE(Routing::generalConfigFactory("general")->fecPerNexthop());
}

TEST(HardwareConfig, ChoicesStartUnset) {
  auto c = Routing::Hardware::configFactory("config");
  EXPECT_EQ(c->adjSharing(), Routing::Hardware::AdjSharing::platformDefault);
  EXPECT_EQ(c->hierarchicalFecsMaxLevel().value(), Routing::Hardware::HierarchicalFecsMaxLevel::invalid);
  EXPECT_TRUE(!c->hierarchicalFecsMaxLevel());
  EXPECT_TRUE(c->bfdPeerEventEnabled());
  EXPECT_TRUE(c->icmpUnreachable());
  EXPECT_EQ(c->deletionDelay(), Routing::Hardware::ConfigGen::defaultDeletionDelay);

  c->resilientEcmpPrefixIs(Velnet::IpGenPrefix(Cog::String("10.0.0.0/8")),
                           Routing::Hardware::ResilientEcmpConfig(64, 2));
  EXPECT_EQ(c->resilientEcmpPrefix(Velnet::IpGenPrefix(Cog::String("10.0.0.0/8"))).stringValue(),
            "c 64 - r 2");

  // The status record holds the resolved values instead.
  auto s = Routing::Hardware::routeStatusFactory("routeStatus");
  EXPECT_FALSE(s->adjSharing());
  EXPECT_EQ(s->hierarchicalFecsMaxLevel(), 0u);
  EXPECT_TRUE(s->bfdPeerEventEnabled());
}

TEST(HardwareStatus, CapabilityDefaultsAndChainLengthBound) {
  auto s = Routing::Hardware::statusFactory("status");
  EXPECT_FALSE(s->hierarchicalFecSupported());
  EXPECT_EQ(s->maxHierarchicalFecChainLength(), 1u);
  EXPECT_EQ(s->maxNexthopGroupEcmp(), 4096u);
  EXPECT_EQ(s->nexthopGroupMplsLabelStackSize(), 7);
  EXPECT_EQ(s->nexthopGroupMplsOverGreLabelStackSize(), 7);
  EXPECT_EQ(s->nexthopGroupMplsOverUdpLabelStackSize(), 7);
  EXPECT_EQ(s->pbrTtlActionMinValue(), 1);
  EXPECT_EQ(s->pbrTtlActionMaxValue(), 255);
  EXPECT_EQ(s->defaultMaxTunnelIntfNum(), 256u);
  EXPECT_EQ(s->maxTunnelIntfNum(), 256u);
  EXPECT_EQ(s->maxExpandPrefixLenRange(), 4);
  EXPECT_EQ(s->maxCompressionPefixLenRange(), 1);
  EXPECT_TRUE(s->urpfStrictModeSupported());
  EXPECT_TRUE(s->needSviForVxlanRouting());
  EXPECT_FALSE(s->urpfSupported());

  const char* text = "Status::maxHierarchicalFecChainLength < 1 or > Expr @Routing.cog:487 not allowed";
  s->maxHierarchicalFecChainLengthIs(3);
  EXPECT_TRUE(s->hierarchicalFecSupported());
  EXPECT_EQ(rangeText([&] { s->maxHierarchicalFecChainLengthIs(0); }), text);
  EXPECT_EQ(s->maxHierarchicalFecChainLength(), 3u);
  EXPECT_EQ(rangeText([&] { s->maxHierarchicalFecChainLengthIs(0xFFFFFFFFu); }), text);
  s->maxHierarchicalFecChainLengthIs(1);
  EXPECT_FALSE(s->hierarchicalFecSupported());

  // Owned children are made by name and replaced only by another name.
  auto cap = s->vrfCapabilityIs("vrfCapability");
  EXPECT_EQ(s->vrfCapabilityIs("vrfCapability"), cap);
  EXPECT_NE(s->vrfCapabilityIs("other"), cap);
  s->vrfCapabilityDel();
  EXPECT_EQ(s->vrfCapability(), nullptr);
  auto profiles = s->optimizeProfileSettingListIs("profiles");
  auto internet = profiles->optimizeProfileSettingIs("internet");
  internet->optimizePrefixLenIs(24, 24);
  internet->optimizePrefixLenIs(20, 24);
  EXPECT_EQ(internet->optimizePrefixLen().begin()->first, 20u);
}

TEST(HardwareStatus, VrfStatusKeyedByVrfName) {
  auto s = Routing::Hardware::routeStatusFactory("routeStatus");
  auto red = s->vrfStatusIs(L3::VrfName("red"));
  EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
  auto v6 = red->fwd0EthTypeEntryIs(Routing::Fwd0RoutingEthType::ipv6);
  v6->devNameIs("fwd0");
  EXPECT_EQ(red->fwd0EthTypeEntry(Routing::Fwd0RoutingEthType::ipv6)->devName(), "fwd0");
  EXPECT_EQ(red->fwd0EthTypeEntry(Routing::Fwd0RoutingEthType::mpls), nullptr);
  EXPECT_EQ(s->vrfStatusIs(L3::VrfName("red")), red);
}

}  // namespace
