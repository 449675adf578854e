// VrfId and VrfNameIndex: defaults, bounds and the value-type frame.
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Cog/Exception.h"
#include "Cog/ValueTraits.h"
#include "Vrf/VrfId.h"

namespace {

using Vrf::VrfIdMap::VrfId;
using Vrf::VrfIdMap::VrfNameIndex;

static_assert(Cog::FrameValue<VrfId>, "embeddable as an attribute of generated types");
static_assert(Cog::FrameValue<VrfNameIndex>, "embeddable as an attribute of generated types");

TEST(VrfId, DefaultIsTheInvalidId) {
  VrfId v;
  EXPECT_EQ(v.value(), 0xFFFFFFu);
  EXPECT_TRUE(!v);
  EXPECT_FALSE(v.isValid());
  EXPECT_FALSE(!VrfId(0));
  EXPECT_EQ(valueToStrep(v).str(), "16777215");
}

TEST(VrfId, FrameRoundTripsOverTheWholeRange) {
  std::mt19937 rng(7);
  std::vector<VrfId> values{VrfId(), VrfId(0), VrfId(UINT32_MAX), VrfId(1)};
  for (int i = 0; i < 2000; ++i) values.emplace_back(static_cast<std::uint32_t>(rng()));
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  for (const VrfId& v : values) {
    Cog::String text = valueToStrep(v);
    std::ostringstream os;
    os << v;
    ASSERT_EQ(os.str(), text.str());
    EXPECT_EQ(VrfId(text), v);
    Cog::String embedded(text.str() + ", 'x': 1");
    auto it = embedded.begin();
    EXPECT_EQ(VrfId(it, embedded.end()), v);
    EXPECT_EQ(std::string(it, embedded.end()), ", 'x': 1");
    out << v;
  }
  ASSERT_EQ(out->size(), values.size() * 4);
  Cog::NboAttrLog::In in(out->bytes());
  for (std::size_t i = 0; i < values.size(); ++i) {
    VrfId read(&in, Cog::StreamBogon{});
    EXPECT_EQ(read, values[i]);
    EXPECT_EQ(read.hash(), values[i].hash());
    if (i > 0) {
      EXPECT_EQ(values[i - 1] < values[i], values[i - 1].value() < values[i].value());
    }
  }
  EXPECT_EQ(VrfId(Cog::String("0x10")).value(), 16u);
  EXPECT_THROW(VrfId(Cog::String("4294967296")), Cog::RangeException);
  EXPECT_THROW(VrfId(Cog::String("12x")), Cog::ParseException);
  Cog::NboAttrLog::In cut(std::vector<std::uint8_t>{0, 0, 1});
  EXPECT_THROW(VrfId(&cut, Cog::StreamBogon{}), Cog::StreamException);
}

TEST(VrfNameIndex, BoundsAreTheNameArray) {
  const char* text = "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed";
  EXPECT_EQ(VrfNameIndex().value(), 0u);
  EXPECT_EQ(VrfNameIndex(100).value(), 100u);
  EXPECT_EQ(VrfNameIndex::capacity, 101u);
  try {
    VrfNameIndex(101);
    FAIL();
  } catch (const Cog::RangeException& e) {
    EXPECT_STREQ(e.what(), text);
  }
  VrfNameIndex i(5);
  EXPECT_THROW(i.valueIs(101), Cog::RangeException);
  EXPECT_EQ(i.value(), 5u);
  EXPECT_EQ(VrfNameIndex(Cog::String("100")).value(), 100u);
  EXPECT_THROW(VrfNameIndex(Cog::String("101")), Cog::RangeException);
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out->putU32(101);
  out << VrfNameIndex(42);
  Cog::NboAttrLog::In in(out->bytes());
  EXPECT_THROW(VrfNameIndex(&in, Cog::StreamBogon{}), Cog::RangeException);
  EXPECT_EQ(VrfNameIndex(&in, Cog::StreamBogon{}), VrfNameIndex(42));
  EXPECT_TRUE(VrfNameIndex(3) < VrfNameIndex(4));
  EXPECT_EQ(valueToStrep(VrfNameIndex(7)).str(), "7");
}

}  // namespace
