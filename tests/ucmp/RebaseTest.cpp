// The weight rebase on known cases, its trace and its fatal assertions. Every
// case runs through the reference loop, both fast paths and the dispatcher.
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Cog/Trace.h"
#include "support/Emulation.h"
#include "ucmp/RebaseCore.h"

namespace {

using RoutingLib::detail::RebaseOutcome;
using RoutingLib::detail::RebaseStatus;
using Weights = std::vector<uint32_t>;
using RebaseFn = RebaseOutcome (*)(std::vector<double>, uint64_t, float);

struct Path {
  const char* name;
  RebaseFn fn;
};

const Path kPaths[] = {
    {"reference", &RoutingLib::detail::rebaseReference},
    {"fast", &RoutingLib::detail::rebaseFast},
    {"direct", [](std::vector<double> in, uint64_t maxUcmp, float deviation) {
       return RoutingLib::detail::rebaseDirect(std::move(in), maxUcmp, deviation);
     }},
    {"dispatch", &RoutingLib::detail::rebase},
};

struct Case {
  std::vector<double> in;
  uint64_t maxUcmp;
  float deviation;
  RebaseStatus status;
  Weights out;
};

// Known outcomes, including the consequences of testing the budget before
// convergence and of seeding before growth.
const Case kCases[] = {
    // the seed alone spends the budget: unconverged although the shares are exact
    {{1, 1}, 2, 0.1f, RebaseStatus::unconverged, {1, 1}},
    {{1, 1}, 4, 0.1f, RebaseStatus::success, {1, 1}},
    {{3, 1}, 100, 0.0f, RebaseStatus::success, {3, 1}},
    // input order is kept in the output whatever the sorted order
    {{1, 3}, 100, 0.0f, RebaseStatus::success, {1, 3}},
    {{5, 4, 3, 2, 1}, 3, 0.2f, RebaseStatus::truncated, {1, 1, 1, 0, 0}},
    {{1, 2, 3, 4, 5}, 3, 0.0f, RebaseStatus::truncated, {0, 0, 1, 1, 1}},
    {{2, 1, 3}, 0, 0.5f, RebaseStatus::truncated, {0, 0, 0}},
    {{7}, 0, 0.0f, RebaseStatus::truncated, {0}},
    // a zero weight sorts last, keeps its seed and never grows
    {{0, 1}, 4, 0.1f, RebaseStatus::unconverged, {1, 3}},
    {{10, 3, 1}, 16, 0.05f, RebaseStatus::success, {9, 3, 1}},
    {{2, 1}, 64, 0.0f, RebaseStatus::success, {2, 1}},
    // n == maxUcmp seeds everything without truncation, then runs out
    {{1, 1, 1}, 3, 0.5f, RebaseStatus::unconverged, {1, 1, 1}},
    // deviation 1: floor 0, nothing is under-served
    {{7, 1, 3}, 10, 1.0f, RebaseStatus::success, {1, 1, 1}},
    {{7, 1, 3}, 3, 1.0f, RebaseStatus::unconverged, {1, 1, 1}},
    // one entry is always exact
    {{42}, 1, 0.0f, RebaseStatus::unconverged, {1}},
    {{42}, 2, 0.0f, RebaseStatus::success, {1}},
    // the budget runs out while the largest share still lags behind
    {{1000, 1}, 10, 0.0f, RebaseStatus::unconverged, {9, 1}},
    // a NaN share is never under-served, the other one grows
    {{std::nan(""), 1}, 5, 0.0f, RebaseStatus::success, {1, 1}},
};

TEST(UcmpRebase, KnownCasesOnEveryPath) {
  for (const Path& path : kPaths) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(::testing::Message() << path.name << " maxUcmp " << c.maxUcmp << " deviation "
                                        << c.deviation << " first weight " << c.in[0]);
      RebaseOutcome got = path.fn(c.in, c.maxUcmp, c.deviation);
      EXPECT_EQ(got.status, c.status);
      EXPECT_EQ(got.weights, c.out);
    }
  }
}

// Switches the unit's handle to `level` with a capturing sink for one scope.
class TraceAt {
 public:
  explicit TraceAt(int level) { Cog::Trace::levelIs("UcmpWeightRebase", level); }
  ~TraceAt() { Cog::Trace::levelIs("UcmpWeightRebase", Cog::Trace::kOff); }
  std::vector<std::string> texts() const { return sink_.texts(); }
  const Cog::Trace::CaptureSink& sink() const { return sink_; }

 private:
  Cog::Trace::CaptureSink sink_;
};

TEST(UcmpRebaseTrace, LevelThreeWritesEveryScannedEntry) {
  TraceAt trace(3);
  RebaseOutcome got = RoutingLib::detail::rebase({1, 1}, 4, 0.1f);
  EXPECT_EQ(got.status, RebaseStatus::success);
  const std::vector<std::string> want = {
      "rebaseWeights inWeightsSize:2 maxUcmp:4 weightDeviation:0.1",
      "rebaseWeights inWeight:1",
      "rebaseWeights inWeight:1",
      "rebaseWeights sumOfWeightsInverse:0.5 floor:0.9",
      "rebaseWeights optimalRatio: 0.5 weightRatio:0.5 oversub:1",
      "rebaseWeights optimalRatio: 0.5 weightRatio:0.5 oversub:1",
      "rebaseWeights outWeight:1",
      "rebaseWeights outWeight:1",
  };
  EXPECT_EQ(trace.texts(), want);
  for (const auto& record : trace.sink().records()) {
    EXPECT_STREQ(record.handle->name(), "UcmpWeightRebase");
    EXPECT_STREQ(record.file, "UcmpWeightRebase.cpp");
  }
}

TEST(UcmpRebaseTrace, GrowthScansRestartFromTheLargestShare) {
  TraceAt trace(3);
  RoutingLib::detail::rebase({3, 1}, 100, 0.0f);
  std::vector<std::string> scans;
  for (const auto& t : trace.texts())
    if (t.find("optimalRatio:") != std::string::npos) scans.push_back(t);
  // total 2: the first entry is short; total 3: again; total 4: both exact.
  const std::vector<std::string> want = {
      "rebaseWeights optimalRatio: 0.75 weightRatio:0.5 oversub:0.666667",
      "rebaseWeights optimalRatio: 0.75 weightRatio:0.666667 oversub:0.888889",
      "rebaseWeights optimalRatio: 0.75 weightRatio:0.75 oversub:1",
      "rebaseWeights optimalRatio: 0.25 weightRatio:0.25 oversub:1",
  };
  EXPECT_EQ(scans, want);
}

TEST(UcmpRebaseTrace, LevelTwoLinesAreTheSameOnBothLoops) {
  struct Input {
    std::vector<double> in;
    uint64_t maxUcmp;
    float deviation;
    std::vector<std::string> want;
  };
  const Input inputs[] = {
      {{5, 4, 3, 2, 1},
       3,
       0.5f,
       {"rebaseWeights inWeightsSize:5 maxUcmp:3 weightDeviation:0.5",
        "rebaseWeights sumOfWeightsInverse:0.0666667 floor:0.5",
        "rebaseWeights Truncated 2 weights"}},
      {{4, 1},
       0,
       0.0f,
       {"rebaseWeights inWeightsSize:2 maxUcmp:0 weightDeviation:0",
        "rebaseWeights sumOfWeightsInverse:0.2 floor:1", "rebaseWeights Truncated 2 weights"}},
      {{1, 1},
       2,
       0.25f,
       {"rebaseWeights inWeightsSize:2 maxUcmp:2 weightDeviation:0.25",
        "rebaseWeights sumOfWeightsInverse:0.5 floor:0.75",
        "rebaseWeights Rebase unconverged. Weights did not satisfy weight deviation"}},
      {{1000, 1},
       10,
       0.0f,
       {"rebaseWeights inWeightsSize:2 maxUcmp:10 weightDeviation:0",
        "rebaseWeights sumOfWeightsInverse:0.000999001 floor:1",
        "rebaseWeights Rebase unconverged. Weights did not satisfy weight deviation"}},
  };
  for (const Path& path : kPaths) {
    for (const Input& input : inputs) {
      SCOPED_TRACE(::testing::Message() << path.name << " maxUcmp " << input.maxUcmp);
      TraceAt trace(2);
      path.fn(input.in, input.maxUcmp, input.deviation);
      EXPECT_EQ(trace.texts(), input.want);
      for (const auto& record : trace.sink().records()) EXPECT_EQ(record.level, 2);
    }
  }
}

using UcmpRebaseDeathTest = ::testing::Test;

TEST_F(UcmpRebaseDeathTest, BrokenPreconditionsAbortWithTheirText) {
  GTEST_FLAG_SET(death_test_style, testsupport::reexecutingDeathTestStyle());
  const std::string deviation =
      "UcmpWeightRebase:[0-9]+: .*Assertion `weightDeviation >= 0\\.0 && "
      "weightDeviation <= 1\\.0' failed";
  const std::string sum = "UcmpWeightRebase:[0-9]+: .*Assertion `sumOfWeights != 0' failed";
  for (const Path& path : kPaths) {
    SCOPED_TRACE(path.name);
    EXPECT_DEATH(path.fn({1, 2}, 4, -0.1f), deviation);
    EXPECT_DEATH(path.fn({1, 2}, 4, 1.5f), deviation);
    EXPECT_DEATH(path.fn({1, 2}, 4, std::numeric_limits<float>::quiet_NaN()), deviation);
    // the deviation is checked first, even on an empty input
    EXPECT_DEATH(path.fn({}, 4, 2.0f), deviation);
    EXPECT_DEATH(path.fn({}, 4, 0.1f), sum);
    EXPECT_DEATH(path.fn({0, 0, 0}, 4, 0.1f), sum);
    EXPECT_DEATH(path.fn({1.5, -1.5}, 4, 0.1f), sum);
  }
}

}  // namespace
