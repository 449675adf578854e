// UcmpWeightRebase: integer UCMP weights within a hardware entry budget.
//
// The reference growth loop is kept literally as designed: after every single
// increment it rescans the entries from the largest ideal share, so its cost
// is about maxUcmp x n ratio evaluations, and it is the only loop that can
// write the per-scan level-3 trace. The fast loop reaches the same weights by
// a different route, see growFast.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include <boost/math/special_functions/relative_difference.hpp>

#include "Cog/Assert.h"
#include "Cog/Trace.h"
#include "RebaseCore.h"

COG_TRACE_HANDLE("UcmpWeightRebase");

namespace RoutingLib {

// The working record, one per input weight.
struct WeightEntry {
  double optimalRatio;  // input weight times the inverse of the sum: the ideal share
  uint32_t weight;      // integer weight assigned so far
  uint64_t index;       // position in the input
};

namespace detail {
namespace {

#define UCMP_ASSERT(cond, text) \
  COG_ASSERT_AT(cond, text, "UcmpWeightRebase", __LINE__, __PRETTY_FUNCTION__)

// An entry whose actual share over ideal share (`oversub`) is below the floor
// by more than ten machine epsilons (relatively) must grow. NaN never must.
inline bool underServed(double oversub, double floor) {
  return floor > oversub && boost::math::epsilon_difference(oversub, floor) > 10;
}

// The under-served test of an entry with weight `weight` and ideal share
// `optimalRatio` at running total `total`, with the very expressions of the
// reference scan: both loops must round identically.
inline bool underServedAt(uint32_t weight, uint64_t total, double optimalRatio, double floor) {
  const double weightRatio = weight / static_cast<double>(total);
  const double oversub = weightRatio / optimalRatio;
  return underServed(oversub, floor);
}

struct Rebase {
  std::vector<WeightEntry> entries;
  uint64_t maxUcmp;
  double floor;
  uint64_t total;
  RebaseStatus status;
};

// Everything before the growth loop: checks, ideal shares, the sort and the
// seed of one entry per input (or as many as the budget holds).
Rebase start(const std::vector<double>& in, uint64_t maxUcmp, float weightDeviation) {
  COG_TRACE(2, "rebaseWeights"
                   << " inWeightsSize:" << in.size() << " maxUcmp:" << maxUcmp
                   << " weightDeviation:" << weightDeviation);
  UCMP_ASSERT(weightDeviation >= 0.0 && weightDeviation <= 1.0,
              "weightDeviation >= 0.0 && weightDeviation <= 1.0");
  Rebase r{{}, maxUcmp, 0.0, 0, RebaseStatus::success};
  // An empty input counts as a zero sum.
  UCMP_ASSERT(!in.empty(), "sumOfWeights != 0");
  double sumOfWeights = 0.0;
  for (double w : in) {
    sumOfWeights += w;
    COG_TRACE(3, "rebaseWeights" << " inWeight:" << w);
  }
  UCMP_ASSERT(sumOfWeights != 0, "sumOfWeights != 0");
  const double sumOfWeightsInverse = 1.0 / sumOfWeights;
  r.floor = 1.0 - weightDeviation;
  COG_TRACE(2, "rebaseWeights" << " sumOfWeightsInverse:" << sumOfWeightsInverse
                               << " floor:" << r.floor);

  const size_t n = in.size();
  r.entries.reserve(n);
  for (size_t i = 0; i < n; ++i) r.entries.push_back({sumOfWeightsInverse * in[i], 0, i});
  // Equal shares keep whatever order this sort leaves them in; callers that
  // compare results across implementations depend on this exact call.
  std::sort(r.entries.begin(), r.entries.end(),
            [](const WeightEntry& a, const WeightEntry& b) { return a.optimalRatio > b.optimalRatio; });

  bool truncated = maxUcmp == 0;
  if (!truncated) {
    for (size_t k = 0; k < n; ++k) {
      r.entries[k].weight = 1;
      ++r.total;
      if (k + 1 == n) break;
      if (r.total == maxUcmp) {
        truncated = true;
        break;
      }
    }
  }
  if (truncated) {
    COG_TRACE(2, "rebaseWeights" << " Truncated " << (static_cast<uint64_t>(n) - maxUcmp)
                                 << " weights");
    r.status = RebaseStatus::truncated;
  }
  return r;
}

// The budget test that opens every round of growth. True when growth is over.
bool budgetSpent(Rebase& r) {
  if (r.total < r.maxUcmp) return false;
  if (r.status == RebaseStatus::success) {
    COG_TRACE(2, "rebaseWeights" << " Rebase unconverged. Weights did not satisfy "
                                 << "weight deviation");
    r.status = RebaseStatus::unconverged;
  }
  return true;
}

void growReference(Rebase& r) {
  for (;;) {
    if (budgetSpent(r)) return;
    bool grown = false;
    for (WeightEntry& e : r.entries) {
      const double weightRatio = e.weight / static_cast<double>(r.total);
      const double oversub = weightRatio / e.optimalRatio;
      COG_TRACE(3, "rebaseWeights" << " optimalRatio: " << e.optimalRatio
                                   << " weightRatio:" << weightRatio << " oversub:" << oversub);
      if (underServed(oversub, r.floor)) {
        ++e.weight;
        ++r.total;
        grown = true;
        break;
      }
    }
    if (!grown) return;
  }
}

constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

// The smallest running total in [lo, hi] at which an entry of weight `weight`
// and share `optimalRatio` is under-served, or kNever. Requires the test to be
// monotone in the total (false, then true for good). A closed-form guess puts
// the search next to the boundary; the boundary itself is always settled by
// the exact test, so rounding in the guess costs evaluations, never accuracy.
uint64_t dueTotal(uint32_t weight, double optimalRatio, double floor, double cutoff,
                  uint64_t lo, uint64_t hi) {
  auto due = [&](uint64_t total) { return underServedAt(weight, total, optimalRatio, floor); };
  // Under-served roughly when weight / (total * optimalRatio) < cutoff.
  const double x = weight / (optimalRatio * cutoff);
  uint64_t guess;
  if (!(x < static_cast<double>(hi)))  // also NaN
    guess = hi;
  else if (x < static_cast<double>(lo))
    guess = lo;
  else
    guess = std::min(static_cast<uint64_t>(x) + 1, hi);

  uint64_t notYet;  // a total known not to be due (or lo - 1, never evaluated)
  uint64_t already; // a total known to be due
  if (due(guess)) {
    if (guess == lo) return lo;
    already = guess;
    uint64_t step = 1;
    for (;;) {
      if (already == lo) return lo;
      if (already - lo < step) {
        if (due(lo)) return lo;
        notYet = lo;
        break;
      }
      const uint64_t probe = already - step;
      if (!due(probe)) {
        notYet = probe;
        break;
      }
      already = probe;
      step *= 2;
    }
  } else {
    notYet = guess;
    uint64_t step = 1;
    for (;;) {
      if (notYet == hi) return kNever;
      if (hi - notYet <= step) {
        if (!due(hi)) return kNever;
        already = hi;
        break;
      }
      const uint64_t probe = notYet + step;
      if (due(probe)) {
        already = probe;
        break;
      }
      notYet = probe;
      step *= 2;
    }
  }
  while (already - notYet > 1) {
    const uint64_t mid = notYet + (already - notYet) / 2;
    (due(mid) ? already : notYet) = mid;
  }
  return already;
}

// The first sorted position whose due total has come: a minimum tree over the
// due totals of the positions, leaves in sorted order.
class DueTree {
 public:
  explicit DueTree(size_t n) : leaves_(1) {
    while (leaves_ < n) leaves_ *= 2;
    node_.assign(2 * leaves_, kNever);
  }
  void set(size_t position, uint64_t dueTotal) {
    size_t i = leaves_ + position;
    node_[i] = dueTotal;
    for (i /= 2; i >= 1; i /= 2) node_[i] = std::min(node_[2 * i], node_[2 * i + 1]);
  }
  // Fills every leaf, then the inner nodes once.
  void build(const std::vector<uint64_t>& dueTotals) {
    std::copy(dueTotals.begin(), dueTotals.end(), node_.begin() + static_cast<ptrdiff_t>(leaves_));
    for (size_t i = leaves_ - 1; i >= 1; --i) node_[i] = std::min(node_[2 * i], node_[2 * i + 1]);
  }
  // The first position due at `total`, or npos.
  size_t first(uint64_t total) const {
    if (node_[1] > total) return npos;
    size_t i = 1;
    while (i < leaves_) i = node_[2 * i] <= total ? 2 * i : 2 * i + 1;
    return i - leaves_;
  }
  static constexpr size_t npos = static_cast<size_t>(-1);

 private:
  size_t leaves_;
  std::vector<uint64_t> node_;
};

// The growth loop without rescans. At a fixed weight, an entry's test can only
// turn from false to true as the total grows: weight / total falls, so does
// oversub, and the distance below the floor grows. So each entry has a due
// total, the first total at which it is under-served, and the entry the
// reference scan would pick is the first in sorted order whose due total has
// come. Only the entry that grows changes its due total.
//
// The monotony needs a positive floor or no negative share: with floor 0 a
// negative share is under-served only while its |oversub| is large, which
// shrinks as the total grows. Such inputs (negative weights, deviation 1) run
// the reference loop.
void growFast(Rebase& r) {
  if (budgetSpent(r)) return;
  if (r.floor == 0.0 && std::any_of(r.entries.begin(), r.entries.end(),
                                    [](const WeightEntry& e) { return e.optimalRatio < 0; })) {
    growReference(r);
    return;
  }
  const double cutoff = r.floor / (1.0 + 10.0 * std::numeric_limits<double>::epsilon());
  const uint64_t hi = r.maxUcmp - 1;
  const size_t n = r.entries.size();
  auto dueOf = [&](size_t k, uint64_t lo) {
    return dueTotal(r.entries[k].weight, r.entries[k].optimalRatio, r.floor, cutoff, lo, hi);
  };
  std::vector<uint64_t> due(n);
  for (size_t k = 0; k < n; ++k) due[k] = dueOf(k, r.total);

  // Few entries: a linear pass over the due totals beats the tree.
  constexpr size_t kLinear = 16;
  if (n <= kLinear) {
    for (;;) {
      size_t k = 0;
      while (k < n && due[k] > r.total) ++k;
      if (k == n) return;
      ++r.entries[k].weight;
      ++r.total;
      if (budgetSpent(r)) return;
      due[k] = dueOf(k, r.total);
    }
  }
  DueTree tree(n);
  tree.build(due);
  for (;;) {
    const size_t k = tree.first(r.total);
    if (k == DueTree::npos) return;
    ++r.entries[k].weight;
    ++r.total;
    if (budgetSpent(r)) return;
    tree.set(k, dueOf(k, r.total));
  }
}

RebaseOutcome finish(const Rebase& r) {
  RebaseOutcome out{r.status, std::vector<uint32_t>(r.entries.size(), 0)};
  for (const WeightEntry& e : r.entries) out.weights[static_cast<size_t>(e.index)] = e.weight;
  for (uint32_t w : out.weights) COG_TRACE(3, "rebaseWeights" << " outWeight:" << w);
  return out;
}

}  // namespace

RebaseOutcome rebaseReference(std::vector<double> in, uint64_t maxUcmp, float weightDeviation) {
  Rebase r = start(in, maxUcmp, weightDeviation);
  growReference(r);
  return finish(r);
}

RebaseOutcome rebaseFast(std::vector<double> in, uint64_t maxUcmp, float weightDeviation) {
  Rebase r = start(in, maxUcmp, weightDeviation);
  growFast(r);
  return finish(r);
}

RebaseOutcome rebase(std::vector<double> in, uint64_t maxUcmp, float weightDeviation) {
  if (COG_TRACE_ENABLED(3)) return rebaseReference(std::move(in), maxUcmp, weightDeviation);
  return rebaseFast(std::move(in), maxUcmp, weightDeviation);
}

const char* rebaseStatusName(RebaseStatus status) {
  switch (status) {
    case RebaseStatus::success: return "rebaseSuccess";
    case RebaseStatus::unconverged: return "rebaseUnconverged";
    case RebaseStatus::truncated: return "rebaseTruncated";
  }
  return "unknown";
}

}  // namespace detail
}  // namespace RoutingLib
