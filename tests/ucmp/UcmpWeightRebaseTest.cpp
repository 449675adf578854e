// The public rebase: the three overloads, the result type, and the test
// helpers as scripts reach them, by reflection.
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Cog/GenericIf.h"
#include "RoutingLib/UcmpWeightRebase.h"

namespace {

using RoutingLib::UcmpRebaseResult;
using RoutingLib::UcmpRebaseStatus;

std::vector<uint32_t> weightsOf(const UcmpRebaseResult& r) {
  return std::vector<uint32_t>(r.outWeight().begin(), r.outWeight().end());
}

TEST(UcmpWeightRebase, ResultCarriesTheCoreOutcome) {
  const UcmpRebaseResult r = RoutingLib::rebaseWeights(std::vector<double>{10, 3, 1}, 16, 0.05f);
  EXPECT_EQ(r.status(), UcmpRebaseStatus::rebaseSuccess);
  EXPECT_EQ(weightsOf(r), (std::vector<uint32_t>{9, 3, 1}));

  // Zero output weights are written too: every position up to n - 1 exists.
  const UcmpRebaseResult t = RoutingLib::rebaseWeights(std::vector<double>{1, 2, 3, 4, 5}, 3, 0.0f);
  EXPECT_EQ(t.status(), UcmpRebaseStatus::rebaseTruncated);
  EXPECT_EQ(weightsOf(t), (std::vector<uint32_t>{0, 0, 1, 1, 1}));
  EXPECT_EQ(t.outWeight().size(), 5u);

  EXPECT_EQ(Cog::String(stringValue(UcmpRebaseStatus::rebaseSuccess)), Cog::String("rebaseSuccess"));
  EXPECT_EQ(Cog::String(stringValue(UcmpRebaseStatus::rebaseUnconverged)),
            Cog::String("rebaseUnconverged"));
  EXPECT_EQ(Cog::String(stringValue(UcmpRebaseStatus::rebaseTruncated)),
            Cog::String("rebaseTruncated"));
}

// Removal through an iterator behaves as removal by index: an inner
// position reads 0 and keeps the positions after it, the last one shrinks
// the array.
TEST(UcmpWeightRebase, ResultWeightsRemovedThroughAnIterator) {
  UcmpRebaseResult r;
  for (uint32_t i = 0; i < 4; ++i) r.outWeightIs(i, 10 + i);
  auto next = r.outWeightDel(r.outWeight().begin() + 1);
  EXPECT_EQ(next - r.outWeight().begin(), 2);
  EXPECT_EQ(weightsOf(r), (std::vector<uint32_t>{10, 0, 12, 13}));
  next = r.outWeightDel(r.outWeight().begin() + 3);
  EXPECT_EQ(next, r.outWeight().end());
  EXPECT_EQ(weightsOf(r), (std::vector<uint32_t>{10, 0, 12}));
  // Walking with the returned iterator visits every position once.
  for (auto it = r.outWeight().begin(); it != r.outWeight().end();) it = r.outWeightDel(it);
  EXPECT_EQ(weightsOf(r), (std::vector<uint32_t>{0, 0}));
}

// The test inputs name the entry of their weight map.
TEST(UcmpWeightRebase, TestInputsNameTheirEntryTypes) {
  static_assert(std::is_same_v<RoutingLib::UcmpRebaseTestInput::CogInWeight,
                               std::pair<const uint64_t, uint32_t>>);
  static_assert(std::is_same_v<RoutingLib::UcmpFloatRebaseTestInput::CogInWeight,
                               std::pair<const uint64_t, float>>);
  RoutingLib::UcmpFloatRebaseTestInput in;
  in.inWeightIs(3, 0.5f);
  for (const RoutingLib::UcmpFloatRebaseTestInput::CogInWeight& entry : in.inWeight()) {
    EXPECT_EQ(entry.first, 3u);
    EXPECT_EQ(entry.second, 0.5f);
  }
}

// The float and unsigned overloads widen and add nothing.
TEST(UcmpWeightRebase, NarrowOverloadsAgreeWithTheWidenedDoubleOne) {
  EXPECT_EQ(RoutingLib::rebaseWeights(std::vector<float>{0.5f, 0.25f}, 64, 0.0f),
            RoutingLib::rebaseWeights(std::vector<double>{0.5, 0.25}, 64, 0.0f));
  // 0.1f is not 0.1: the widened float is what the core sees
  EXPECT_EQ(RoutingLib::rebaseWeights(std::vector<float>{0.1f, 0.3f, 0.7f}, 4096, 0.0f),
            RoutingLib::rebaseWeights(std::vector<double>{0.1f, 0.3f, 0.7f}, 4096, 0.0f));
  EXPECT_EQ(RoutingLib::rebaseWeights(std::vector<uint32_t>{2, 1}, 64, 0.0f),
            RoutingLib::rebaseWeights(std::vector<double>{2.0, 1.0}, 64, 0.0f));
  EXPECT_EQ(weightsOf(RoutingLib::rebaseWeights(std::vector<uint32_t>{2, 1}, 64, 0.0f)),
            (std::vector<uint32_t>{2, 1}));
  EXPECT_EQ(RoutingLib::rebaseWeights(std::vector<uint32_t>{0xFFFFFFFFu, 7}, 1000, 0.05f),
            RoutingLib::rebaseWeights(std::vector<double>{4294967295.0, 7.0}, 1000, 0.05f));
}

const UcmpRebaseResult& resultIn(const Cog::Ptr<Cog::GenericIf>& handle) {
  const void* p = handle->voidPtrIs(UcmpRebaseResult::cogType());
  EXPECT_NE(p, nullptr);
  return *static_cast<const UcmpRebaseResult*>(p);
}

TEST(UcmpWeightRebase, TestHelpersRunThroughReflection) {
  // The map's size is the length: {0: 3, 2: 1} rebases [3, 0], position 2
  // ignored. The zero keeps its seed, the 3 grows to the end of the budget.
  RoutingLib::UcmpRebaseTestInput input(64, 0.0f);
  input.inWeightIs(0, 3);
  input.inWeightIs(2, 1);
  auto helper = Cog::genericIfOf(RoutingLib::UcmpWeightsTestHelper());
  const auto* fn = RoutingLib::UcmpWeightsTestHelper::cogType()->member("rebaseWeightsTest");
  ASSERT_NE(fn, nullptr);
  ASSERT_EQ(fn->params.size(), 1u);
  EXPECT_STREQ(fn->params[0].name, "input");
  auto got = helper->call("rebaseWeightsTest", {Cog::genericIfOf(input)});
  EXPECT_EQ(resultIn(got), RoutingLib::rebaseWeights(std::vector<uint32_t>{3, 0}, 64, 0.0f));
  EXPECT_EQ(resultIn(got).status(), UcmpRebaseStatus::rebaseUnconverged);
  EXPECT_EQ(weightsOf(resultIn(got)), (std::vector<uint32_t>{63, 1}));

  RoutingLib::UcmpFloatRebaseTestInput floats(100, 0.0f);
  floats.inWeightIs(1, 0.25f);
  floats.inWeightIs(0, 0.5f);
  auto floatHelper = Cog::genericIfOf(RoutingLib::UcmpFloatWeightsTestHelper());
  const auto* floatFn =
      RoutingLib::UcmpFloatWeightsTestHelper::cogType()->member("rebaseFloatWeightsTest");
  ASSERT_NE(floatFn, nullptr);
  ASSERT_EQ(floatFn->params.size(), 1u);
  EXPECT_STREQ(floatFn->params[0].name, "input");
  auto floatGot = floatHelper->call("rebaseFloatWeightsTest", {Cog::genericIfOf(floats)});
  EXPECT_EQ(resultIn(floatGot).status(), UcmpRebaseStatus::rebaseSuccess);
  EXPECT_EQ(weightsOf(resultIn(floatGot)), (std::vector<uint32_t>{2, 1}));

  // An empty map is an empty input: the library's precondition, not the helper's.
  EXPECT_DEATH(RoutingLib::UcmpWeightsTestHelper().rebaseWeightsTest(
                   RoutingLib::UcmpRebaseTestInput(4, 0.1f)),
               "Assertion `sumOfWeights != 0' failed");
}

TEST(UcmpWeightRebase, CollectionValuesHaveNoStringConstructor) {
  const std::string text = "Value('RoutingLib::UcmpRebaseResult', ** {})";
  auto parse = [&](auto* tag) {
    using T = std::remove_pointer_t<decltype(tag)>;
    Cog::String s(text.c_str());
    Cog::String::IteratorConst begin = s.begin();
    T value(begin, s.end());
  };
  EXPECT_DEATH(parse(static_cast<UcmpRebaseResult*>(nullptr)),
               "No String constructor for UcmpRebaseResult - has collection");
  EXPECT_DEATH(parse(static_cast<RoutingLib::UcmpRebaseTestInput*>(nullptr)),
               "No String constructor for UcmpRebaseTestInput - has collection");
  EXPECT_DEATH(parse(static_cast<RoutingLib::UcmpFloatRebaseTestInput*>(nullptr)),
               "No String constructor for UcmpFloatRebaseTestInput - has collection");
}

}  // namespace
