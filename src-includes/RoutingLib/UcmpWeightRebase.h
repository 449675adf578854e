// UCMP weight rebase (namespace RoutingLib): integer next-hop weights within a
// hardware entry budget.
//
// rebaseWeights(inWeights, maxUcmp, weightDeviation) gives every input weight
// an integer weight, outWeight[i] for input i, whose sum never exceeds
// maxUcmp. Each next hop starts at 1 (largest input weights first); then,
// one entry at a time, the first next hop (largest ideal share first) whose
// actual share falls short of (1 - weightDeviation) times its ideal share
// (input weight over the sum of all input weights) grows by 1.
//   - status rebaseSuccess: every share reached its floor.
//   - rebaseUnconverged: the budget ran out first (also when the seed alone
//     spends it: n == maxUcmp); the weights so far are returned.
//   - rebaseTruncated: more weights than maxUcmp (or maxUcmp 0); only the
//     maxUcmp largest get 1, the others 0.
// A zero input weight keeps weight 1 and never grows; NaN shares never grow.
//
// Preconditions, fatal assertions (the process aborts): weightDeviation in
// [0, 1] ("weightDeviation >= 0.0 && weightDeviation <= 1.0"); a non-empty
// input whose sum is not 0 ("sumOfWeights != 0").
//
// The float and unsigned overloads widen each element to double in order and
// call the double one. The types come from schema/UcmpWeightRebase.cog (the
// generated header is included below); UcmpWeightsTestHelper and
// UcmpFloatWeightsTestHelper run the unsigned and float overloads on a
// test input's weights, for scripts that call them by reflection.
//
// Trace handle "UcmpWeightRebase": level 2 the start, the inverse and floor,
// truncation and non-convergence; level 3 adds every input weight, every
// scanned entry of every growth scan and every output weight.
// Pure functions: safe on any thread.
#pragma once

#include <cstdint>
#include <vector>

// The generated header, by unit name from the build tree's include root.
#include <UcmpWeightRebase.h>

namespace RoutingLib {

UcmpRebaseResult rebaseWeights(std::vector<double> inWeights, std::uint64_t maxUcmp,
                               float weightDeviation);
UcmpRebaseResult rebaseWeights(std::vector<float> inWeights, std::uint64_t maxUcmp,
                               float weightDeviation);
UcmpRebaseResult rebaseWeights(std::vector<std::uint32_t> inWeights, std::uint64_t maxUcmp,
                               float weightDeviation);

// rebaseWeightsBalanced(inWeights, maxUcmp): the integer weights within the
// budget that make the worst next hop's share of its ideal share as large as
// the budget allows: max over results of min over positive inputs of
// (outWeight[k] / sum of outWeight) / (inWeight[k] / sum of inWeight). A
// divisor-method apportionment (rounding up) at the best total up to maxUcmp;
// of equally good weights, the smallest total (an exact fit comes back in
// lowest terms: [6, 2] gives [3, 1]).
//   - rebaseSuccess: every positive input got at least 1; zero inputs get 0.
//   - rebaseTruncated: fewer entries than positive inputs; the largest
//     maxUcmp inputs (equal ones by position) get 1, the others 0.
// Preconditions, fatal assertions: a non-empty input ("!inWeights.empty()")
// of finite, non-negative weights ("std::isfinite(inWeight) && inWeight >= 0")
// with a positive one ("sumOfWeights != 0"). Cost: about maxUcmp heap steps.
UcmpRebaseResult rebaseWeightsBalanced(const std::vector<double>& inWeights,
                                       std::uint64_t maxUcmp);

}  // namespace RoutingLib
