// The public rebase: the three overloads, the result type, and the test
// helpers as scripts reach them, by reflection.
#include <cmath>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Cog/GenericIf.h"
#include "RoutingLib/UcmpWeightRebase.h"
#include "ucmp/RebaseCore.h"

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

// The float and unsigned overloads widen and add nothing: on random inputs
// they agree with the double overload on the widened vector.
TEST(UcmpWeightRebase, NarrowOverloadsAgreeWithTheWidenedDoubleOne) {
  EXPECT_EQ(RoutingLib::rebaseWeights(std::vector<float>{0.5f, 0.25f}, 64, 0.0f),
            RoutingLib::rebaseWeights(std::vector<double>{0.5, 0.25}, 64, 0.0f));
  EXPECT_EQ(RoutingLib::rebaseWeights(std::vector<uint32_t>{2, 1}, 64, 0.0f),
            RoutingLib::rebaseWeights(std::vector<double>{2.0, 1.0}, 64, 0.0f));
  EXPECT_EQ(weightsOf(RoutingLib::rebaseWeights(std::vector<uint32_t>{2, 1}, 64, 0.0f)),
            (std::vector<uint32_t>{2, 1}));

  std::mt19937 rng(5);
  for (int c = 0; c < 200; ++c) {
    const size_t n = 1 + rng() % 12;
    const uint64_t maxUcmp = rng() % 300;
    const float deviation = static_cast<float>(rng() % 11) / 10.0f;
    std::vector<float> f(n);
    std::vector<uint32_t> u(n);
    for (size_t i = 0; i < n; ++i) {
      f[i] = std::ldexp(static_cast<float>(rng() % 1000 + 1), -static_cast<int>(rng() % 40));
      u[i] = rng() % 3 == 0 ? 0xFFFFFFFFu - rng() % 7 : rng() % 100 + 1;
    }
    EXPECT_EQ(RoutingLib::rebaseWeights(f, maxUcmp, deviation),
              RoutingLib::rebaseWeights(std::vector<double>(f.begin(), f.end()), maxUcmp, deviation));
    EXPECT_EQ(RoutingLib::rebaseWeights(u, maxUcmp, deviation),
              RoutingLib::rebaseWeights(std::vector<double>(u.begin(), u.end()), maxUcmp, deviation));
  }
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
