// The balanced rebase: optimal against every candidate on small groups, never
// over the budget, never worse than the growth loop, and its edge cases.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RoutingLib/UcmpWeightRebase.h"
#include "support/Emulation.h"
#include "ucmp/RebaseCore.h"

#include "CaseScale.h"

namespace {

using RoutingLib::detail::BalancedOutcome;
using RoutingLib::detail::RebaseStatus;
using RoutingLib::detail::rebaseBalanced;
using RoutingLib::detail::worstShareOf;
using Rng = std::mt19937_64;

uint64_t pick(Rng& rng, uint64_t lo, uint64_t hi) {
  return std::uniform_int_distribution<uint64_t>(lo, hi)(rng);
}

std::string describe(const std::vector<double>& in, uint64_t maxUcmp) {
  std::ostringstream os;
  os.precision(17);
  os << "maxUcmp " << maxUcmp << " weights";
  for (double w : in) os << " " << w;
  return os.str();
}

uint64_t totalOf(const std::vector<uint32_t>& w) {
  uint64_t t = 0;
  for (uint32_t x : w) t += x;
  return t;
}

// The best worst share over every weight vector with a total up to maxUcmp,
// and the smallest total that reaches it (up to rounding).
struct Best {
  double share = 0.0;
  uint64_t total = 0;
};

Best bruteForce(const std::vector<double>& in, uint64_t maxUcmp) {
  std::vector<uint32_t> w(in.size(), 0);
  std::vector<std::pair<double, uint64_t>> all;
  std::function<void(size_t, uint64_t)> walk = [&](size_t k, uint64_t left) {
    if (k == in.size()) {
      if (totalOf(w) > 0) all.emplace_back(worstShareOf(in, w), totalOf(w));
      return;
    }
    for (uint64_t x = 0; x <= left; ++x) {
      w[k] = static_cast<uint32_t>(x);
      walk(k + 1, left - x);
    }
    w[k] = 0;
  };
  walk(0, maxUcmp);
  Best best;
  for (const auto& [share, total] : all) best.share = std::max(best.share, share);
  best.total = std::numeric_limits<uint64_t>::max();
  for (const auto& [share, total] : all)
    if (share >= best.share * (1 - 1e-9)) best.total = std::min(best.total, total);
  return best;
}

// Small groups, every budget up to 12: nothing beats the result, and nothing
// as good is smaller.
TEST(UcmpRebaseBalanced, OptimalAgainstEveryCandidateOnSmallGroups) {
  Rng rng(18);
  const int groups = 120 / kScale;
  for (int g = 0; g < groups; ++g) {
    const size_t n = pick(rng, 1, 4);
    std::vector<double> in(n);
    for (double& x : in) {
      switch (g % 3) {
        case 0: x = static_cast<double>(pick(rng, 0, 6)); break;              // ties, zeros, exact fits
        case 1: x = std::uniform_real_distribution<double>(0.01, 10)(rng); break;  // unrelated reals
        default: x = static_cast<double>(pick(rng, 1, 1000)); break;           // link-speed like
      }
    }
    if (*std::max_element(in.begin(), in.end()) == 0) in[0] = 1;
    const size_t positive = static_cast<size_t>(std::count_if(in.begin(), in.end(), [](double x) { return x > 0; }));
    for (uint64_t maxUcmp = 0; maxUcmp <= (n <= 3 ? 12u : 9u); ++maxUcmp) {
      SCOPED_TRACE(describe(in, maxUcmp));
      const BalancedOutcome got = rebaseBalanced(in, maxUcmp);
      ASSERT_EQ(got.weights.size(), n);
      EXPECT_LE(totalOf(got.weights), maxUcmp);
      if (maxUcmp < positive) {
        EXPECT_EQ(got.status, RebaseStatus::truncated);
        EXPECT_EQ(totalOf(got.weights), maxUcmp);
        continue;
      }
      EXPECT_EQ(got.status, RebaseStatus::success);
      for (size_t k = 0; k < n; ++k) {
        if (in[k] > 0)
          EXPECT_GE(got.weights[k], 1u) << "position " << k;
        else
          EXPECT_EQ(got.weights[k], 0u) << "position " << k;
      }
      const Best best = bruteForce(in, maxUcmp);
      EXPECT_GE(got.worstShare, best.share * (1 - 1e-9));
      EXPECT_DOUBLE_EQ(got.worstShare, worstShareOf(in, got.weights));
      EXPECT_EQ(totalOf(got.weights), best.total);
    }
  }
}

// Truncation keeps the largest inputs, equal ones by position.
TEST(UcmpRebaseBalanced, TruncationKeepsTheLargest) {
  BalancedOutcome got = rebaseBalanced({1, 5, 0, 5, 3}, 3);
  EXPECT_EQ(got.status, RebaseStatus::truncated);
  EXPECT_EQ(got.weights, (std::vector<uint32_t>{0, 1, 0, 1, 1}));
  EXPECT_EQ(got.worstShare, 0.0);
  got = rebaseBalanced({1, 5, 0, 5, 3}, 2);
  EXPECT_EQ(got.weights, (std::vector<uint32_t>{0, 1, 0, 1, 0}));
  got = rebaseBalanced({2, 1}, 0);
  EXPECT_EQ(got.status, RebaseStatus::truncated);
  EXPECT_EQ(got.weights, (std::vector<uint32_t>{0, 0}));
  // Zero inputs do not count: four positive inputs fit four entries.
  got = rebaseBalanced({0, 1, 1, 0, 2, 2}, 4);
  EXPECT_EQ(got.status, RebaseStatus::success);
  EXPECT_EQ(got.weights, (std::vector<uint32_t>{0, 1, 1, 0, 1, 1}));
}

// Exact fits come back in lowest terms; large budgets do not change them.
TEST(UcmpRebaseBalanced, ExactFitsInLowestTerms) {
  EXPECT_EQ(rebaseBalanced({6, 2}, 65535).weights, (std::vector<uint32_t>{3, 1}));
  EXPECT_EQ(rebaseBalanced({100, 40, 40, 10}, 4096).weights, (std::vector<uint32_t>{10, 4, 4, 1}));
  EXPECT_EQ(rebaseBalanced({7, 7, 7}, 2).weights, (std::vector<uint32_t>{1, 1, 0}));
  const BalancedOutcome one = rebaseBalanced({0.3}, 10);
  EXPECT_EQ(one.weights, (std::vector<uint32_t>{1}));
  EXPECT_DOUBLE_EQ(one.worstShare, 1.0);
  // Not exact: 1000:1 in 10 entries is best as 9:1 (worst share 0.9009).
  EXPECT_EQ(rebaseBalanced({1000, 1}, 10).weights, (std::vector<uint32_t>{9, 1}));
}

// Larger random groups: within the budget, and never worse than what the
// growth loop gives the same group in the same budget (its result is one of
// the candidates).
TEST(UcmpRebaseBalanced, NeverOverBudgetAndNeverWorseThanTheLoop) {
  Rng rng(4096);
  const int groups = 60 / kScale;
  for (int g = 0; g < groups; ++g) {
    const size_t n = pick(rng, 2, 128);
    std::vector<double> in(n);
    for (double& x : in) x = g % 2 == 0 ? std::uniform_real_distribution<double>(1, 100)(rng)
                                        : static_cast<double>(pick(rng, 0, 4) * 25);
    if (*std::max_element(in.begin(), in.end()) == 0) in[0] = 1;
    const uint64_t maxUcmp = g % 3 == 0 ? 65535 : pick(rng, n, 4096);
    SCOPED_TRACE(describe(in, maxUcmp));
    const BalancedOutcome got = rebaseBalanced(in, maxUcmp);
    EXPECT_LE(totalOf(got.weights), maxUcmp);
    const float deviation = g % 4 == 0 ? 0.05f : 0.0f;
    const auto loop = RoutingLib::detail::rebase(in, maxUcmp, deviation);
    EXPECT_GE(got.worstShare, worstShareOf(in, loop.weights) * (1 - 1e-12));
  }
}

TEST(UcmpRebaseBalanced, PublicFunctionCarriesTheOutcome) {
  const RoutingLib::UcmpRebaseResult r = RoutingLib::rebaseWeightsBalanced({10, 3, 1}, 16);
  EXPECT_EQ(r.status(), RoutingLib::UcmpRebaseStatus::rebaseSuccess);
  std::vector<uint32_t> w(r.outWeight().begin(), r.outWeight().end());
  EXPECT_EQ(w, (std::vector<uint32_t>{10, 3, 1}));
  const RoutingLib::UcmpRebaseResult t = RoutingLib::rebaseWeightsBalanced({1, 0, 2}, 1);
  EXPECT_EQ(t.status(), RoutingLib::UcmpRebaseStatus::rebaseTruncated);
  EXPECT_EQ(t.outWeight().size(), 3u);
}

using UcmpRebaseBalancedDeathTest = ::testing::Test;

TEST_F(UcmpRebaseBalancedDeathTest, RefusedInputsAbortWithTheirText) {
  GTEST_FLAG_SET(death_test_style, testsupport::reexecutingDeathTestStyle());
  const std::string bad =
      "UcmpWeightRebase:[0-9]+: .*Assertion `std::isfinite\\(inWeight\\) && inWeight >= 0' failed";
  EXPECT_DEATH(rebaseBalanced({1, -1, 3}, 4), bad);
  EXPECT_DEATH(rebaseBalanced({1, std::numeric_limits<double>::quiet_NaN()}, 4), bad);
  EXPECT_DEATH(rebaseBalanced({std::numeric_limits<double>::infinity()}, 4), bad);
  EXPECT_DEATH(rebaseBalanced({}, 4), "Assertion `!inWeights.empty\\(\\)' failed");
  EXPECT_DEATH(rebaseBalanced({0, 0}, 4), "Assertion `sumOfWeights != 0' failed");
}

}  // namespace
