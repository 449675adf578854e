// EthAddr, MplsLabel and TunnelId: spellings, bounds and their exact texts.
#include <gtest/gtest.h>

#include <string>

#include "Cog/Exception.h"
#include "Tunnel/TunnelId.h"
#include "Velnet/EthAddr.h"
#include "Velnet/MplsLabel.h"

namespace {

using namespace Velnet;
using Tunnel::TunnelTable::TunnelId;

constexpr const char* kLabelRange = "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
constexpr const char* kTunnelRange = "TunnelId::value < TunnelId::minValue or > TunnelId::maxValue not allowed";

template <typename F>
std::string rangeText(F f) {
  try {
    f();
  } catch (const Cog::RangeException& e) {
    return e.what();
  }
  return "no RangeException";
}

TEST(EthAddr, SpellingsOfOneAddressAreEqualAndHashAlike) {
  const EthAddr a(0x00, 0x1c, 0x73, 0x0a, 0xff, 0x01);
  EXPECT_EQ(valueToStrep(a), Cog::String("00:1c:73:0a:ff:01"));
  for (const char* text : {"00:1c:73:0a:ff:01", "0:1C:73:A:FF:1", "001c.730a.ff01", "1c.730A.ff01",
                           "001C.730A.FF01"}) {
    EthAddr b = EthAddr::fromString(text);
    EXPECT_EQ(b, a) << text;
    EXPECT_EQ(b.hash(), a.hash()) << text;
  }
  EXPECT_EQ(a.value(), 0x001c730aff01ull);
  EXPECT_TRUE(EthAddr::fromString("ff:ff:ff:ff:ff:ff").isBroadcast());
  EXPECT_TRUE(EthAddr::fromString("01:00:5e:00:00:01").isMulticast());
  EXPECT_FALSE(a.isMulticast());
  EXPECT_TRUE(EthAddr::fromString("00:00:00:00:00:01") < EthAddr::fromString("00:00:00:00:01:00"));
}

TEST(EthAddr, MalformedTextIsRefused) {
  for (const char* text : {"", "00:11:22:33:44", "00:11:22:33:44:55:66", "001:11:22:33:44:55",
                           "00:11:22:33:44:555", "0011.2233", "0011.2233.44556", "00112.2233.4455",
                           "00-11-22-33-44-55", "zz:11:22:33:44:55", "00:11:22:33:44:5g", "00:11::33:44:55",
                           "0011:2233:4455", ":00:11:22:33:44:55", "00:11:22:33:44:55 "}) {
    EXPECT_THROW(EthAddr::fromString(text), Cog::ParseException) << text;
  }
}

TEST(MplsLabel, BoundIsTheWithdrawSentinelWithItsExactText) {
  EXPECT_EQ(MplsLabel(MplsLabel::luWithdraw).value(), 8388608u);
  EXPECT_TRUE(MplsLabel(MplsLabel::luWithdraw).isWithdraw());
  EXPECT_EQ(MplsLabel::fromString("8388608").value(), 8388608u);
  EXPECT_EQ(MplsLabel::fromString("0x800000").value(), 8388608u);
  EXPECT_EQ(MplsLabel::fromString("1048575").value(), MplsLabel::maxLabel);
  EXPECT_TRUE(MplsLabel(MplsLabel::maxLabel).isLabel());
  EXPECT_FALSE(MplsLabel(MplsLabel::maxLabel + 1).isLabel());

  EXPECT_EQ(rangeText([] { MplsLabel(8388609u); }), kLabelRange);
  EXPECT_EQ(rangeText([] { MplsLabel(0xFFFFFFFFu); }), kLabelRange);
  EXPECT_EQ(rangeText([] { MplsLabel().valueIs(8388609u); }), kLabelRange);
  EXPECT_EQ(rangeText([] { MplsLabel::fromString("8388609"); }), kLabelRange);
  EXPECT_EQ(rangeText([] { MplsLabel::fromString("99999999999999999999999"); }), kLabelRange);
  EXPECT_EQ(rangeText([] {
              auto out = Cog::allocate<Cog::NboAttrLog::Out>();
              out->putU32(8388609u);
              Cog::NboAttrLog::In in(out->bytes());
              MplsLabel(&in, Cog::StreamBogon{});
            }),
            kLabelRange);
  // A refused store leaves the old value.
  MplsLabel l(17);
  EXPECT_THROW(l.valueIs(8388609u), Cog::RangeException);
  EXPECT_EQ(l.value(), 17u);

  for (const char* text : {"", "-1", "abc", "1 ", " 1", "0x", "1.5"}) {
    EXPECT_THROW(MplsLabel::fromString(text), Cog::ParseException) << text;
  }
}

TEST(TunnelId, RangeAndComposition) {
  EXPECT_EQ(TunnelId(TunnelId::maxValue).value(), (std::uint64_t{1} << 48) - 1);
  EXPECT_EQ(TunnelId::fromString("281474976710655").value(), TunnelId::maxValue);
  EXPECT_EQ(rangeText([] { TunnelId(std::uint64_t{1} << 48); }), kTunnelRange);
  EXPECT_EQ(rangeText([] { TunnelId::fromString("281474976710656"); }), kTunnelRange);
  EXPECT_EQ(rangeText([] { TunnelId::fromString("99999999999999999999999"); }), kTunnelRange);
  EXPECT_EQ(rangeText([] {
              auto out = Cog::allocate<Cog::NboAttrLog::Out>();
              out->putU64(~std::uint64_t{0});
              Cog::NboAttrLog::In in(out->bytes());
              TunnelId(&in, Cog::StreamBogon{});
            }),
            kTunnelRange);
  for (const char* text : {"", "-1", "x1", "1x"}) {
    EXPECT_THROW(TunnelId::fromString(text), Cog::ParseException) << text;
  }

  // Type code in bits 47..44, index below; every code that fits is valid.
  for (unsigned code = 0; code < 256; ++code) {
    for (std::uint16_t index : {std::uint16_t{0}, std::uint16_t{1}, std::uint16_t{0xFFFF}}) {
      std::uint64_t v = TunnelId::convertToTunnelValue(static_cast<std::uint8_t>(code), index);
      EXPECT_EQ(v >> 44, code);
      EXPECT_EQ(v & 0xFFFF, index);
      EXPECT_EQ(TunnelId::isValidValue(v), code < 16);
      if (code < 16) {
        TunnelId t(v);
        EXPECT_EQ(t.typeCode(), code);
        EXPECT_EQ(t.index(), index);
      } else {
        EXPECT_THROW(TunnelId{v}, Cog::RangeException);
      }
    }
  }
}

}  // namespace
