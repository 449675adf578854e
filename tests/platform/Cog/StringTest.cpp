#include "Cog/String.h"

#include <gtest/gtest.h>

#include "Cog/Exception.h"

namespace {

using Cog::String;
namespace Parse = Cog::Parse;

TEST(String, OrderIsBytewiseWithShorterPrefixFirst) {
  EXPECT_LT(String("ab"), String("abc"));
  EXPECT_LT(String("abc"), String("abd"));
  EXPECT_LT(String("B"), String("a"));
  EXPECT_EQ(String("x").hash(), String(std::string("x")).hash());
  EXPECT_NE(String("x").hash(), String("y").hash());
}

TEST(Parse, NumbersHonourTheirBounds) {
  String s = "255 256 0x10 -5";
  auto it = s.begin();
  EXPECT_EQ(Parse::unsignedNumber(it, s.end(), 255, "u8"), 255u);
  Parse::expect(it, s.end(), " ");
  EXPECT_THROW(Parse::unsignedNumber(it, s.end(), 255, "u8"), Cog::RangeException);
  it = s.begin() + 8;
  EXPECT_EQ(Parse::unsignedNumber(it, s.end(), 255, "u8"), 16u);
  Parse::expect(it, s.end(), " ");
  EXPECT_EQ(Parse::signedNumber(it, s.end(), -128, 127, "i8"), -5);
  EXPECT_NO_THROW(Cog::strepToValueEnd(it, s.end()));
}

TEST(Parse, RejectsWhatIsNotThere) {
  String s = "abc";
  auto it = s.begin();
  EXPECT_THROW(Parse::unsignedNumber(it, s.end(), 10, "number"), Cog::ParseException);
  EXPECT_EQ(it, s.begin());
  EXPECT_THROW(Parse::expect(it, s.end(), "abd"), Cog::ParseException);
  EXPECT_THROW(Cog::strepToValueEnd(it, s.end()), Cog::ParseException);
}

TEST(Parse, QuotedRoundTrip) {
  for (const std::string& text : std::vector<std::string>{"", "plain", "it's", "back\\slash", std::string("nul\0byte", 8)}) {
    String q = Parse::quote(text);
    auto it = q.begin();
    EXPECT_EQ(Parse::quoted(it, q.end()).str(), text);
    EXPECT_EQ(it, q.end());
  }
}

TEST(Exception, RethrowFromDeserializeAttrKeepsKindAndNamesAttribute) {
  try {
    try {
      throw Cog::RangeException("too big");
    } catch (...) {
      Cog::rethrowFromDeserializeAttr("metric");
    }
  } catch (const Cog::RangeException& e) {
    EXPECT_STREQ(e.what(), "'metric': too big");
    return;
  }
  FAIL() << "expected a RangeException";
}

}  // namespace

namespace {

TEST(Hash, MixesEveryScalarKindByValue) {
  auto of = [](auto v) {
    Cog::Hash h;
    h.mix(v);
    return h.result();
  };
  EXPECT_EQ(of(true), of(std::uint32_t(1)));
  EXPECT_EQ(of(std::uint8_t(7)), of(std::uint32_t(7)));
  EXPECT_EQ(of(std::int8_t(-1)), of(std::uint32_t(0xff)));
  EXPECT_EQ(of(0.0), of(-0.0)) << "+0 and -0 compare equal, so they hash equal";
  EXPECT_NE(of(std::uint64_t(1)), of(std::uint64_t(1) << 32));
}

}  // namespace
