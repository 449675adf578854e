// The route vocabulary where it departs from the generic value frame: keys
// that collide by design, the next-hop hash, the label bound on reading, the
// VRF name limit, the fixed sparse codes and the hand-written texts.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <functional>
#include <string>
#include <vector>

#include "RoutingLib/RouteProto.h"
#include "RoutingLib/Routing.h"
#include "RoutingLib/VrfName.h"

using namespace Routing;

namespace {

std::string rangeText(const std::function<void()>& f) { return testsupport::exceptionText(f); }

Velnet::IpGenPrefix prefix(const char* text) { return Velnet::IpGenPrefix(Cog::String(text)); }

RouteKey key(const char* p, std::uint8_t pref) { return RouteKey(prefix(p), RoutePreference(pref)); }

template <typename T>
std::vector<std::uint8_t> logBytes(const T& v) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << v;
  return out->bytes();
}

TEST(RouteKey, PreferenceSplitsEqualityAndOrderButNotTheHash) {
  const char* prefixes[] = {"10.1.0.0/16", "0.0.0.0/0", "192.168.7.1/32", "2001:db8::/32", "::/0"};
  for (const char* p : prefixes) {
    for (unsigned a = 0; a < 256; a += 17) {
      for (unsigned b = 0; b < 256; b += 23) {
        RouteKey ka = key(p, static_cast<std::uint8_t>(a));
        RouteKey kb = key(p, static_cast<std::uint8_t>(b));
        EXPECT_EQ(ka.hash(), kb.hash()) << p;
        EXPECT_EQ(ka.hash(), prefix(p).hash());
        EXPECT_EQ(ka == kb, a == b);
        EXPECT_EQ(ka < kb, a < b) << p << " " << a << " " << b;
      }
    }
  }
  // The prefix decides before the preference.
  EXPECT_LT(key("10.0.0.0/8", 200), key("10.0.0.0/16", 1));
  EXPECT_LT(key("10.1.0.0/16", 255), key("::/0", 0));
  EXPECT_NE(key("10.0.0.0/8", 1).hash(), key("10.0.0.0/16", 1).hash());
}

TEST(RouteKey, PrettyAndPrintedForms) {
  EXPECT_EQ(key("10.1.0.0/16", 20).pretty(), "( 10.1.0.0/16, 20 )");
  EXPECT_EQ(key("2001:db8:0:1::/64", 200).pretty(), "( 2001:db8:0:1::/64, 200 )");
  EXPECT_EQ(RouteKey().pretty(), "( , 1 )");
  RouteKey k = key("10.1.0.0/16", 20);
  Cog::String text = valueToStrep(k);
  EXPECT_EQ(text, "Value('Routing::RouteKey', ** {'prefix': 10.1.0.0/16, 'preference': 20})");
  auto it = text.begin();
  EXPECT_EQ(RouteKey(it, text.end()), k);
  EXPECT_TRUE(it == text.end());
  // The key goes on the log as the prefix's form, then one preference byte.
  std::vector<std::uint8_t> bytes = logBytes(k);
  ASSERT_EQ(bytes.size(), logBytes(k.prefix()).size() + 1);
  EXPECT_EQ(bytes.back(), 20);
  // metric is a class constant of type RouteMetric: reflected with that
  // type, after the stored attributes, and not on the log.
  EXPECT_EQ(RouteKey::metric, RouteMetric(0));
  const Cog::MemberInfo* metric = RouteKey::cogType()->member("metric");
  ASSERT_NE(metric, nullptr);
  EXPECT_EQ(metric->kind, Cog::MemberKind::constant);
  EXPECT_EQ(metric->index, 4u);
  EXPECT_EQ(metric->memberType(), RouteMetric::cogType());
  Cog::Ptr<Cog::GenericIf> reflected = Cog::genericIfOf(k)->attribute("metric");
  ASSERT_NE(reflected->as<RouteMetric>(), nullptr);
  EXPECT_EQ(*reflected->as<RouteMetric>(), RouteMetric(0));
}

TEST(Via, HashCoversHopAndInterfaceOnly) {
  Via base(Velnet::IpGenAddr(Cog::String("10.0.0.1")), Velnet::IntfId(Cog::String("Ethernet1")),
           Velnet::MplsLabel(16), 0, Velnet::IpGenAddr(), Velnet::EthAddr());
  Via other = base;
  other.vniIs(5001);
  EXPECT_NE(other, base);
  EXPECT_EQ(other.hash(), base.hash());
  other.mplsLabelIs(Velnet::MplsLabel(Velnet::MplsLabel::luWithdraw));
  other.vtepAddrIs(Velnet::IpGenAddr(Cog::String("2001:db8::1")));
  other.routerMacIs(Velnet::EthAddr(Cog::String("00:1c:73:00:00:01")));
  EXPECT_EQ(other.hash(), base.hash());

  // hop and intfId both enter it, and the hop's family does not: only its
  // 16 address bytes count.
  Via hop = base;
  hop.hopIs(Velnet::IpGenAddr(Cog::String("10.0.0.2")));
  EXPECT_NE(hop.hash(), base.hash());
  Via intf = base;
  intf.intfIdIs(Velnet::IntfId(Cog::String("Ethernet2")));
  EXPECT_NE(intf.hash(), base.hash());
  Via noHop = base;
  noHop.hopIs(Velnet::IpGenAddr());
  Via allZeroV6 = base;
  allZeroV6.hopIs(Velnet::IpGenAddr(Cog::String("::")));
  EXPECT_EQ(noHop.hash(), allZeroV6.hash());
  EXPECT_NE(noHop, allZeroV6);
  EXPECT_EQ(base.hash() ^ base.intfId().hash(),
            [&] {
              Cog::Hash h;
              h.mixBytes(base.hop().bytes(), 16);
              return h.result();
            }());
}

TEST(Via, LabelBoundOnReading) {
  Via v;
  v.vniIs(7);
  std::vector<std::uint8_t> bytes = logBytes(v);
  // hop (20 bytes on the log) and intfId (8) precede the label word.
  std::size_t labelAt = logBytes(v.hop()).size() + logBytes(v.intfId()).size();
  auto readWithLabel = [&](std::uint32_t label) {
    std::vector<std::uint8_t> b = bytes;
    for (int i = 0; i < 4; ++i) b[labelAt + i] = static_cast<std::uint8_t>(label >> (24 - 8 * i));
    Cog::NboAttrLog::In in(b);
    return Via(&in, Cog::StreamBogon{});
  };
  EXPECT_EQ(readWithLabel(0x800000).mplsLabel().value(), 0x800000u);
  EXPECT_EQ(readWithLabel(0x800000).vni(), 7u);
  for (std::uint32_t bad : {0x800001u, 0xFFFFFFu, 0xFFFFFFFFu}) {
    EXPECT_EQ(rangeText([&] { readWithLabel(bad); }),
              "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  }
}

TEST(VrfName, HundredBytesAtMostByEveryPath) {
  const std::string tooLong(101, 'v');
  const char* text = "VrfName::bytes > VrfName::maxLength not allowed";
  EXPECT_EQ(L3::VrfName(std::string(100, 'v')).bytes(), 100u);
  EXPECT_EQ(rangeText([&] { L3::VrfName n{Cog::String(tooLong)}; }), text);

  L3::VrfName kept("red");
  EXPECT_EQ(rangeText([&] { kept.valueIs(tooLong); }), text);
  EXPECT_EQ(kept.value(), "red");

  Cog::String quoted = Cog::String(Cog::Parse::quote(tooLong));
  EXPECT_EQ(rangeText([&] { L3::VrfName::fromString(quoted); }), text);
  EXPECT_EQ(L3::VrfName::fromString("'blue'"), L3::VrfName("blue"));

  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out->putString(tooLong);
  Cog::NboAttrLog::In in(out->bytes());
  EXPECT_EQ(rangeText([&] { L3::VrfName(&in, Cog::StreamBogon{}); }), text);
}

TEST(RoutingProtocol, AnyByteIsAValue) {
  for (unsigned b = 0; b < 256; ++b) {
    RoutingProtocol p(static_cast<std::uint8_t>(b));
    std::vector<std::uint8_t> bytes = logBytes(p);
    ASSERT_EQ(bytes, std::vector<std::uint8_t>{static_cast<std::uint8_t>(b)});
    Cog::NboAttrLog::In in(bytes);
    EXPECT_EQ(RoutingProtocol(&in, Cog::StreamBogon{}), p);
  }
}

TEST(RouteProto, SparseKernelCodes) {
  const std::vector<std::pair<unsigned, const char*>> named = {
      {0, "protoAny"},        {3, "protoBoot"},       {8, "protoGated"},
      {20, "protoBgpAggregate"}, {47, "protoOspfAggregate"}, {56, "protoVrfLeak"}};
  for (auto [v, name] : named) {
    EXPECT_EQ(stringValue(RouteProtoInstance(v)), name);
    EXPECT_EQ(static_cast<unsigned>(RouteProtoInstance(Cog::String(name))), v);
  }
  std::vector<unsigned> holes = {7, 17, 18, 19, 21, 23, 26, 29, 32, 46, 48, 50, 51, 54, 55, 57, 255};
  for (unsigned v : holes) {
    EXPECT_THROW(RouteProtoInstance(v), Cog::RangeException) << v;
  }
}

TEST(ResilientEcmpConfig, StringValueIsTheShortForm) {
  using Routing::Hardware::ResilientEcmpConfig;
  EXPECT_EQ(ResilientEcmpConfig(64, 2).stringValue(), "c 64 - r 2");
  EXPECT_EQ(ResilientEcmpConfig(65535, 0).stringValue(), "c 65535 - r 0");
  EXPECT_EQ(valueToStrep(ResilientEcmpConfig(64, 2)),
            "Value('Routing::Hardware::ResilientEcmpConfig', ** {'capacity': 64, 'redundancy': 2})");
}

}  // namespace
