// The fast paths (the growth as a schedule, and settled directly) against the reference loop on many
// random inputs: the status and every weight must be identical. Also checks
// the invariants every outcome keeps, whichever path produced it.
//
// UCMP_DIFFERENTIAL_LARGE_CASES=N in the environment sets how many full-size
// groups (up to 1024 entries, budgets up to 65535) LargeGroupsAtFullBudgets
// runs, for a longer soak than CI affords.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ucmp/RebaseCore.h"

#include "CaseScale.h"

namespace {

using RoutingLib::detail::RebaseOutcome;
using RoutingLib::detail::RebaseStatus;
using Rng = std::mt19937_64;

enum class Shape {
  distinct,      // unrelated reals
  tied,          // few distinct small integers, many equal shares
  withZeros,     // zero weights among small integers
  dyadic,        // powers of two: shares and ratios hit the floor exactly
  linkSpeeds,    // multiples of common link speeds
  floatDerived,  // what the float overload hands the core
  huge,          // the sum may overflow to infinity
  tiny,          // subnormal weights: the inverse of the sum may be infinite
  negative,      // negative weights with a non-zero sum
  nonFinite,     // NaN and infinities among ordinary weights
  count
};

double uniform(Rng& rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
uint64_t pick(Rng& rng, uint64_t lo, uint64_t hi) {
  return std::uniform_int_distribution<uint64_t>(lo, hi)(rng);
}

std::vector<double> weightsOf(Shape shape, size_t n, Rng& rng) {
  std::vector<double> w(n);
  for (double& x : w) {
    switch (shape) {
      case Shape::distinct: x = uniform(rng, 0.001, 1000.0); break;
      case Shape::tied: x = static_cast<double>(pick(rng, 1, 3)); break;
      case Shape::withZeros:  // -0 has a share of -0, which is always under-served
        x = pick(rng, 0, 2) == 0 ? (pick(rng, 0, 3) == 0 ? -0.0 : 0.0)
                                 : static_cast<double>(pick(rng, 1, 10));
        break;
      case Shape::dyadic: x = std::ldexp(1.0, static_cast<int>(pick(rng, 0, 6))); break;
      case Shape::linkSpeeds: {
        static const double speeds[] = {1, 10, 25, 40, 50, 100, 200, 400};
        x = speeds[pick(rng, 0, 7)] * static_cast<double>(pick(rng, 1, 4));
        break;
      }
      case Shape::floatDerived: x = static_cast<double>(static_cast<float>(uniform(rng, 0.0, 1.0))); break;
      case Shape::huge: x = uniform(rng, 1e306, std::numeric_limits<double>::max()); break;
      case Shape::tiny: x = uniform(rng, 0.0, 1e-310); break;
      case Shape::negative: x = uniform(rng, -50.0, 100.0); break;
      case Shape::nonFinite: {
        const uint64_t k = pick(rng, 0, 9);
        x = k == 0   ? std::nan("")
            : k == 1 ? std::numeric_limits<double>::infinity()
            : k == 2 ? -std::numeric_limits<double>::infinity()
                     : uniform(rng, 0.0, 10.0);
        break;
      }
      case Shape::count: break;
    }
  }
  return w;
}

float deviationOf(Rng& rng) {
  static const float fixed[] = {0.0f, 1.0f, 0.05f, 0.1f, 0.5f, 1e-7f,
                                std::nextafter(1.0f, 0.0f), std::numeric_limits<float>::denorm_min()};
  const uint64_t k = pick(rng, 0, 10);
  if (k < 8) return fixed[k];
  return std::uniform_real_distribution<float>(0.0f, 1.0f)(rng);
}

// Budgets around the entry count (truncation and seed-only edges), random
// ones and the largest real budget, capped so the reference loop stays cheap.
uint64_t budgetOf(Rng& rng, size_t n, uint64_t costCap) {
  uint64_t b;
  switch (pick(rng, 0, 7)) {
    case 0: b = 0; break;
    case 1: b = n > 0 ? n - 1 : 0; break;
    case 2: b = n; break;
    case 3: b = n + 1; break;
    case 4: b = 65535; break;
    default: b = pick(rng, 0, 65535); break;
  }
  return std::min<uint64_t>(b, std::max<uint64_t>(costCap / n, n + 1));
}

std::string describe(const std::vector<double>& in, uint64_t maxUcmp, float deviation) {
  std::ostringstream os;
  os.precision(17);
  os << "maxUcmp " << maxUcmp << " deviation " << deviation << " weights";
  for (double w : in) os << " " << w;
  return os.str();
}

double sumOf(const std::vector<double>& in) {
  double s = 0.0;
  for (double w : in) s += w;
  return s;
}

// What holds for every outcome, whatever the weights.
void expectInvariants(const RebaseOutcome& got, const std::vector<double>& in, uint64_t maxUcmp,
                      float deviation) {
  const size_t n = in.size();
  ASSERT_EQ(got.weights.size(), n);
  uint64_t total = 0;
  for (uint32_t w : got.weights) total += w;
  EXPECT_LE(total, maxUcmp);
  const bool truncates = maxUcmp == 0 || n > maxUcmp;
  EXPECT_EQ(got.status == RebaseStatus::truncated, truncates);
  if (truncates) {
    EXPECT_EQ(total, std::min<uint64_t>(n, maxUcmp));
    for (uint32_t w : got.weights) EXPECT_LE(w, 1u);
    return;
  }
  for (uint32_t w : got.weights) EXPECT_GE(w, 1u);
  if (got.status == RebaseStatus::unconverged) {
    EXPECT_EQ(total, maxUcmp);
  }
  // A success means every share reached the floor, up to rounding; checked
  // independently of the loops for ordinary positive weights.
  const double sum = sumOf(in);
  if (got.status == RebaseStatus::success && std::isfinite(sum) && sum > 0 &&
      std::all_of(in.begin(), in.end(), [](double w) { return std::isnormal(w) && w > 0; })) {
    for (size_t i = 0; i < n; ++i) {
      const double share = got.weights[i] / static_cast<double>(total);
      EXPECT_GE(share, (1.0 - deviation) * (in[i] / sum) * (1 - 1e-12)) << "position " << i;
    }
  }
}

// Both fast paths against the reference loop.
bool compare(const std::vector<double>& in, uint64_t maxUcmp, float deviation) {
  const RebaseOutcome want = RoutingLib::detail::rebaseReference(in, maxUcmp, deviation);
  bool same = true;
  for (const char* path : {"fast", "direct"}) {
    const RebaseOutcome got = path[0] == 'f'
                                  ? RoutingLib::detail::rebaseFast(in, maxUcmp, deviation)
                                  : RoutingLib::detail::rebaseDirect(in, maxUcmp, deviation);
    EXPECT_EQ(got.status, want.status) << path << " " << describe(in, maxUcmp, deviation);
    EXPECT_EQ(got.weights, want.weights) << path << " " << describe(in, maxUcmp, deviation);
    expectInvariants(got, in, maxUcmp, deviation);
    same = same && got.status == want.status && got.weights == want.weights;
  }
  return same;
}

TEST(UcmpRebaseDifferential, FastPathMatchesTheReferenceOnRandomInputs) {
  Rng rng(20240611);
  const int cases = 4000 / kScale;
  const uint64_t costCap = 2'000'000 / kScale;
  int mismatches = 0;
  for (int c = 0; c < cases && mismatches < 5; ++c) {
    const auto shape = static_cast<Shape>(c % static_cast<int>(Shape::count));
    size_t n;
    switch (pick(rng, 0, 5)) {
      case 0: n = 1; break;
      case 1: n = pick(rng, 2, 4); break;
      case 2: n = pick(rng, 5, 16); break;
      case 3: n = pick(rng, 17, 64); break;
      case 4: n = pick(rng, 65, 200); break;
      default: n = pick(rng, 201, 700); break;
    }
    std::vector<double> in = weightsOf(shape, n, rng);
    if (sumOf(in) == 0) in[0] = 1.0;  // a zero sum is a precondition failure, not a case
    const float deviation = deviationOf(rng);
    const uint64_t maxUcmp = budgetOf(rng, n, costCap);
    if (!compare(in, maxUcmp, deviation)) ++mismatches;
  }
  EXPECT_EQ(mismatches, 0);
}

// The largest real budget with small groups: long growth runs over many
// windows of the schedule.
TEST(UcmpRebaseDifferential, FullBudgetWithSmallGroups) {
  Rng rng(7);
  const int cases = 48 / kScale;
  for (int c = 0; c < cases; ++c) {
    const auto shape = static_cast<Shape>(c % 6);  // the ordinary shapes
    const size_t n = pick(rng, 1, 8);
    std::vector<double> in = weightsOf(shape, n, rng);
    if (sumOf(in) == 0) in[0] = 1.0;
    const float deviation = c % 2 == 0 ? 0.0f : deviationOf(rng);
    if (!compare(in, 65535, deviation)) break;
  }
}

// Every budget from 0 to 40 on small tied and zero-laden groups: exercises
// truncation, seed-only budgets and ties in the sort exhaustively.
TEST(UcmpRebaseDifferential, EveryBudgetOnSmallGroups) {
  Rng rng(11);
  const float deviations[] = {0.0f, 0.05f, 0.5f, 1.0f};
  for (size_t n = 1; n <= 6; ++n) {
    for (Shape shape : {Shape::tied, Shape::withZeros, Shape::dyadic, Shape::distinct}) {
      std::vector<double> in = weightsOf(shape, n, rng);
      if (sumOf(in) == 0) in[0] = 1.0;
      for (float deviation : deviations)
        for (uint64_t maxUcmp = 0; maxUcmp <= 40; ++maxUcmp)
          if (!compare(in, maxUcmp, deviation)) return;
    }
  }
}

// Budgets beyond what a hardware table holds: the due totals run over totals
// above 2^53, where consecutive totals share one double.
TEST(UcmpRebaseDifferential, HugeBudgetsStopAtConvergence) {
  const std::vector<std::vector<double>> inputs = {{1, 1}, {3, 1}, {4, 2, 1, 1}, {1}};
  for (const auto& in : inputs)
    for (uint64_t maxUcmp : {uint64_t{1} << 53, (uint64_t{1} << 53) + 1,
                             std::numeric_limits<uint64_t>::max()})
      compare(in, maxUcmp, 0.0f);
}

// Full-size groups at full budgets: the schedule's windows, its starved tail
// entries and its count of jobs at the sizes agents use. The reference loop
// costs about n x maxUcmp here, so there are few of them.
TEST(UcmpRebaseDifferential, LargeGroupsAtFullBudgets) {
  Rng rng(1024);
  int cases = std::max(1, 8 / kScale);
  if (const char* knob = std::getenv("UCMP_DIFFERENTIAL_LARGE_CASES")) cases = std::atoi(knob);
  const Shape shapes[] = {Shape::distinct, Shape::linkSpeeds, Shape::tied, Shape::withZeros};
  const float deviations[] = {0.0f, 0.05f, 1e-7f, 0.3f};
  for (int c = 0; c < cases; ++c) {
    const size_t n = pick(rng, 256, 1024);
    std::vector<double> in = weightsOf(shapes[c % 4], n, rng);
    if (sumOf(in) == 0) in[0] = 1.0;
    const uint64_t maxUcmp = c % 2 == 0 ? 65535 : pick(rng, n, 65535);
    if (!compare(in, maxUcmp, deviations[c / 2 % 4])) break;
  }
}

// Inputs the direct growth settles itself rather than through the schedule:
// small groups at large budgets (unconverged at deviation 0, where each top
// group's last idle total decides), tiny deviations, and large groups of
// commensurate weights at deviation 0 (converging where every share is
// exact). Most of them must be settled directly, or this test would only
// repeat the schedule's.
TEST(UcmpRebaseDifferential, DirectSearchSettlesSmallGroupsAndExactShares) {
  Rng rng(4096);
  const float deviations[] = {0.0f, 0.0f, 1e-7f, std::numeric_limits<float>::denorm_min(), 1e-3f};
  RoutingLib::detail::DirectStats stats;
  const int cases = 240 / kScale;
  for (int c = 0; c < cases; ++c) {
    const bool large = c % 4 == 3;
    const size_t n = large ? pick(rng, 64, 1024) : pick(rng, 1, 12);
    const Shape shape = large ? (c % 8 == 3 ? Shape::linkSpeeds : Shape::dyadic)
                              : static_cast<Shape>(c % 6);
    std::vector<double> in = weightsOf(shape, n, rng);
    if (sumOf(in) == 0) in[0] = 1.0;
    const float deviation = large ? 0.0f : deviations[c / 4 % 5];
    const uint64_t maxUcmp =
        std::min<uint64_t>(c % 2 == 0 ? 65535 : pick(rng, n, 65535), 3'000'000 / kScale / n + n);
    RoutingLib::detail::rebaseDirect(in, maxUcmp, deviation, &stats);
    if (!compare(in, maxUcmp, deviation)) break;
  }
  EXPECT_GT(stats.direct, stats.scheduled) << stats.direct << " settled directly, "
                                               << stats.scheduled << " by the schedule";
}

// Deviation 1 (floor 0) on every shape: nothing is under-served unless a
// share is negative or -0, and then the first such entry takes every step.
TEST(UcmpRebaseDifferential, FloorZeroOnEveryShape) {
  Rng rng(1);
  for (int c = 0; c < 200 / kScale; ++c) {
    const auto shape = static_cast<Shape>(c % static_cast<int>(Shape::count));
    std::vector<double> in = weightsOf(shape, pick(rng, 1, 40), rng);
    if (sumOf(in) == 0) in[0] = 1.0;
    if (!compare(in, pick(rng, 0, 3000), 1.0f)) break;
  }
}

}  // namespace
