// The UCMP weight rebase core, internal to the library and its tools.
//
// Turns non-negative next-hop weights into integer weights whose sum never
// exceeds `maxUcmp`, growing each next hop's integer weight until its share
// of the total is at least (1 - weightDeviation) times its ideal share or the
// budget runs out. The public `rebaseWeights` overloads wrap `rebase` and
// carry its outcome in their generated result type.
//
// Three entry points with identical results for identical arguments:
//   - rebaseReference: the literal growth loop, which rescans every entry
//     after each single increment (about maxUcmp x n ratio evaluations) and
//     writes every level-3 trace line, one per scanned entry of every scan.
//   - rebaseFast: the same outcome, bit for bit, as a schedule of the
//     increments: a few instructions per increment and per entry and window,
//     never a rescan. It writes the level-2 lines and the level-3 input and
//     output lines, but not the per-scan lines.
//   - rebaseDirect: the same outcome again, from the totals where the loop
//     converges or its groups of entries were last idle, found by a search
//     whose work does not follow the budget. Where the search cannot settle
//     the outcome cheaply (shares that are negative, NaN, subnormal or above
//     1, budgets of 2^31 or more, and groups whose outcome depends on the
//     whole history of the growth), it runs the schedule of rebaseFast.
//   - rebase: the one callers use. It runs rebaseReference when level 3 of the
//     "UcmpWeightRebase" trace handle is on, so the trace is exact, and
//     rebaseDirect otherwise.
//
// Preconditions (fatal assertions, the process aborts):
//   - weightDeviation in [0, 1]   "weightDeviation >= 0.0 && weightDeviation <= 1.0"
//   - a non-empty input whose sum (in input order, in double) is not 0
//                                 "sumOfWeights != 0"
// Non-convergence and truncation are outcomes, not errors: they come back in
// `status` together with the weights computed so far.
//
// `weights[i]` is the output weight of input i; every position is written.
// The functions use only their arguments and may run concurrently.
#pragma once

#include <cstdint>
#include <vector>

namespace RoutingLib::detail {

// Values equal those of the generated UcmpRebaseStatus.
enum class RebaseStatus : uint8_t { success = 0, unconverged = 1, truncated = 2 };

struct RebaseOutcome {
  RebaseStatus status;
  std::vector<uint32_t> weights;
};

RebaseOutcome rebaseReference(std::vector<double> in, uint64_t maxUcmp, float weightDeviation);
RebaseOutcome rebaseFast(std::vector<double> in, uint64_t maxUcmp, float weightDeviation);
// How often rebaseDirect settled the growth itself and how often it ran the
// schedule (the growth of a seed that spends the budget, or of floor 0, is
// neither).
struct DirectStats {
  uint64_t direct = 0;
  uint64_t scheduled = 0;
};
RebaseOutcome rebaseDirect(std::vector<double> in, uint64_t maxUcmp, float weightDeviation,
                           DirectStats* stats = nullptr);
RebaseOutcome rebase(std::vector<double> in, uint64_t maxUcmp, float weightDeviation);

// The balanced rebase: integer weights within the budget that maximise the
// worst positive input's share of its ideal share, (w_k / sum w) / (in_k /
// sum in). Inputs must be finite and not negative with a positive one among
// them (fatal assertions "std::isfinite(inWeight) && inWeight >= 0",
// "!inWeights.empty()", "sumOfWeights != 0"). Zero inputs get 0. With fewer
// entries than positive inputs, the largest get 1 (status truncated);
// otherwise every positive input gets at least 1 (status success). Of
// equally good weights, the smallest total. `worstShare` is the result's
// worst share of its ideal (0 when truncated).
struct BalancedOutcome {
  RebaseStatus status;
  std::vector<uint32_t> weights;
  double worstShare;
};
BalancedOutcome rebaseBalanced(const std::vector<double>& in, uint64_t maxUcmp);

// The worst share of its ideal among the positive inputs: min over them of
// (weights[k] / sum of weights) / (in[k] / sum of positive in).
double worstShareOf(const std::vector<double>& in, const std::vector<uint32_t>& weights);

}  // namespace RoutingLib::detail
