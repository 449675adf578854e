// UcmpWeightRebase: integer UCMP weights within a hardware entry budget.
//
// The reference growth loop is kept literally as designed: after every single
// increment it rescans the entries from the largest ideal share, so its cost
// is about maxUcmp x n ratio evaluations, and it is the only loop that can
// write the per-scan level-3 trace. The fast loop reaches the same weights by
// a different route, see growFast.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include <boost/math/special_functions/relative_difference.hpp>

#include "Cog/Assert.h"
#include "Cog/Trace.h"
#include "RebaseCore.h"
#include "RoutingLib/UcmpWeightRebase.h"

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

// The largest oversub that is under-served at `floor`, so that for every
// double a: underServed(a, floor) == (a <= cut). Holds as long as no share is
// negative when the floor is 0 (growFast runs the reference loop otherwise):
//   - floor > 0: a negative (or -0, or -inf) oversub is always under-served;
//     on [0, floor) the relative distance to the floor, and so the epsilon
//     difference, only shrinks as a grows, every rounded step being monotone;
//     from the floor up nothing is. So the under-served set is [-inf, cut].
//   - floor 0: only -inf is (a share of -0); NaN never is.
// `cut` is found by the test itself, next to floor / (1 + 10 eps), by a
// search over the ordered bit patterns of the non-negative doubles.
double overSubCut(double floor) {
  if (floor == 0.0) return -std::numeric_limits<double>::infinity();
  auto bits = [](double d) { return std::bit_cast<uint64_t>(d); };
  auto value = [](uint64_t b) { return std::bit_cast<double>(b); };
  auto served = [&](uint64_t b) { return !underServed(value(b), floor); };
  // Bits of 0.0 are under-served (the floor is positive), those of the floor are not.
  uint64_t yes = 0;
  uint64_t no = bits(floor);
  const uint64_t guess = bits(floor / (1.0 + 10.0 * std::numeric_limits<double>::epsilon()));
  if (guess > yes && guess < no) {
    if (served(guess)) {
      no = guess;
      for (uint64_t step = 1; no - yes > step; step *= 2) {
        if (!served(no - step)) {
          yes = no - step;
          break;
        }
        no -= step;
      }
    } else {
      yes = guess;
      for (uint64_t step = 1; no - yes > step; step *= 2) {
        if (served(yes + step)) {
          no = yes + step;
          break;
        }
        yes += step;
      }
    }
  }
  while (no - yes > 1) {
    const uint64_t mid = yes + (no - yes) / 2;
    (served(mid) ? no : yes) = mid;
  }
  return value(yes);
}

// The under-served test of the reference scan, as a comparison with the cut:
// the same two roundings (weight / total, then / optimalRatio), one compare.
inline bool dueAt(uint32_t weight, uint64_t total, double optimalRatio, double cut) {
  const double weightRatio = weight / static_cast<double>(total);
  const double oversub = weightRatio / optimalRatio;
  return oversub <= cut;
}

// The smallest running total in [lo, hi] at which an entry of weight `weight`
// and share `optimalRatio` is under-served, or kNever, when the guess was off:
// `known` is a total known to be due (`down`) or known not to be.
[[gnu::noinline]] uint64_t dueTotalSearch(uint32_t weight, double optimalRatio, double cut,
                                          uint64_t lo, uint64_t hi, uint64_t known, bool down) {
  auto due = [&](uint64_t total) { return dueAt(weight, total, optimalRatio, cut); };
  uint64_t notYet = known;   // a total known not to be due
  uint64_t already = known;  // a total known to be due
  if (down) {
    for (uint64_t step = 1;; step *= 2) {
      if (already == lo) return lo;
      if (already - lo <= step) {
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
    }
  } else {
    for (uint64_t step = 1;; step *= 2) {
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
    }
  }
  while (already - notYet > 1) {
    const uint64_t mid = notYet + (already - notYet) / 2;
    (due(mid) ? already : notYet) = mid;
  }
  return already;
}

// The smallest running total in [lo, hi] at which an entry of weight `weight`
// and share `optimalRatio` is under-served, or kNever. The test is monotone
// in the total at a fixed weight (false, then true for good). A closed-form
// guess, weight x `perWeight` with perWeight = 1 / (optimalRatio x cut), puts
// the search next to the boundary; the boundary itself is always settled by
// the exact test on both of its sides, so rounding in the guess costs
// evaluations, never accuracy. The guess is almost always right.
inline uint64_t dueTotal(uint32_t weight, double optimalRatio, double perWeight, double cut,
                         uint64_t lo, uint64_t hi) {
  const double x = weight * perWeight;
  uint64_t guess;
  if (!(x < static_cast<double>(hi)))  // also NaN
    guess = hi;
  else if (x < static_cast<double>(lo))
    guess = lo;
  else
    guess = std::min(static_cast<uint64_t>(x) + 1, hi);
  if (guess == lo) {
    if (dueAt(weight, lo, optimalRatio, cut)) return lo;
    return dueTotalSearch(weight, optimalRatio, cut, lo, hi, lo, false);
  }
  // Both sides at once: the two tests are independent and overlap.
  const bool before = dueAt(weight, guess - 1, optimalRatio, cut);
  const bool at = dueAt(weight, guess, optimalRatio, cut);
  if (at && !before) return guess;
  return at ? dueTotalSearch(weight, optimalRatio, cut, lo, hi, guess - 1, true)
            : dueTotalSearch(weight, optimalRatio, cut, lo, hi, guess, false);
}

// Due totals filed by the running total at which they fall due, and the set
// of positions due now. The total only ever grows by one, so a ring of W
// buckets holds what falls due within the next W totals; later ones wait in
// a far list that is sorted into the ring each time the total reaches a
// multiple of W (W >= n, so that costs at most one look per entry and
// increment). The due set is a two-level bitset over sorted positions, whose
// first set bit is the entry the reference scan would pick.
class DueCalendar {
 public:
  DueCalendar(size_t n, uint64_t total)
      : ring_(std::bit_ceil(std::max<size_t>(n, 64))),
        head_(ring_, kNone),
        next_(n, kNone),
        word_((n + 63) / 64, 0),
        summary_((word_.size() + 63) / 64, 0) {
    far_.reserve(n);
  }

  // Files position k, due at `due`, when the running total is `total`.
  void file(size_t k, uint64_t due, uint64_t total) {
    if (due <= total) {
      setDue(k);
    } else if (due == kNever) {
      // Its weight no longer changes, so it never falls due.
    } else if (due - total <= ring_) {
      toBucket(k, due);
    } else {
      far_.push_back({due, k});
    }
  }

  // The running total has grown to `total`: what falls due at it joins the set.
  void advanceTo(uint64_t total) {
    const size_t b = static_cast<size_t>(total & (ring_ - 1));
    for (size_t k = std::exchange(head_[b], kNone); k != kNone; k = next_[k]) setDue(k);
    if (b != 0) return;
    // Nothing in the far list was due before the ring could hold it.
    size_t kept = 0;
    for (const Far& f : far_) {
      if (f.due - total <= ring_)
        toBucket(f.position, f.due);
      else
        far_[kept++] = f;
    }
    far_.resize(kept);
  }

  // The first position due now, or npos.
  size_t firstDue() const {
    for (size_t s = 0; s < summary_.size(); ++s) {
      if (summary_[s] == 0) continue;
      const size_t w = s * 64 + static_cast<size_t>(std::countr_zero(summary_[s]));
      return w * 64 + static_cast<size_t>(std::countr_zero(word_[w]));
    }
    return npos;
  }

  void clearDue(size_t k) {
    uint64_t& w = word_[k / 64];
    w &= ~(uint64_t{1} << (k % 64));
    if (w == 0) summary_[k / 4096] &= ~(uint64_t{1} << (k / 64 % 64));
  }

  static constexpr size_t npos = static_cast<size_t>(-1);

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);
  struct Far {
    uint64_t due;
    size_t position;
  };

  void toBucket(size_t k, uint64_t due) {
    const size_t b = static_cast<size_t>(due & (ring_ - 1));
    next_[k] = head_[b];
    head_[b] = k;
  }

  void setDue(size_t k) {
    word_[k / 64] |= uint64_t{1} << (k % 64);
    summary_[k / 4096] |= uint64_t{1} << (k / 64 % 64);
  }

  size_t ring_;               // a power of two
  std::vector<size_t> head_;  // per bucket, the first position filed there
  std::vector<size_t> next_;  // per position, the next one in its bucket
  std::vector<Far> far_;
  std::vector<uint64_t> word_;     // bit k: position k is due
  std::vector<uint64_t> summary_;  // bit w: word w is not 0
};

// The growth loop without rescans. At a fixed weight, an entry's test can only
// turn from false to true as the total grows: weight / total falls, so does
// oversub (for a share that is not negative). So each entry has a due total,
// the first total at which it is under-served, and the entry the reference
// scan would pick is the first in sorted order whose due total has come. Only
// the entry that grows changes its due total.
//
// With floor 0 a negative share is under-served only while its |oversub| is
// large, which shrinks as the total grows: inputs with negative weights and
// deviation 1 run the reference loop.
void growFast(Rebase& r) {
  if (budgetSpent(r)) return;
  if (r.floor == 0.0 && std::any_of(r.entries.begin(), r.entries.end(),
                                    [](const WeightEntry& e) { return e.optimalRatio < 0; })) {
    growReference(r);
    return;
  }
  const double cut = overSubCut(r.floor);
  const uint64_t hi = r.maxUcmp - 1;
  const size_t n = r.entries.size();
  auto perWeightOf = [&](const WeightEntry& e) { return 1.0 / (e.optimalRatio * cut); };
  auto dueOf = [&](const WeightEntry& e, double perWeight) {
    return dueTotal(e.weight, e.optimalRatio, perWeight, cut, r.total, hi);
  };

  // Few entries: a linear pass over due totals kept on the stack beats the
  // calendar and its allocations.
  constexpr size_t kLinear = 16;
  if (n <= kLinear) {
    uint64_t due[kLinear];
    double perWeight[kLinear];
    for (size_t k = 0; k < n; ++k) {
      perWeight[k] = perWeightOf(r.entries[k]);
      due[k] = dueOf(r.entries[k], perWeight[k]);
    }
    for (;;) {
      size_t k = 0;
      while (k < n && due[k] > r.total) ++k;
      if (k == n) return;
      ++r.entries[k].weight;
      if (++r.total >= r.maxUcmp) break;
      due[k] = dueOf(r.entries[k], perWeight[k]);
    }
  } else {
    std::vector<double> perWeight(n);
    DueCalendar calendar(n, r.total);
    for (size_t k = 0; k < n; ++k) {
      perWeight[k] = perWeightOf(r.entries[k]);
      calendar.file(k, dueOf(r.entries[k], perWeight[k]), r.total);
    }
    for (;;) {
      const size_t k = calendar.firstDue();
      if (k == DueCalendar::npos) return;
      ++r.entries[k].weight;
      if (++r.total >= r.maxUcmp) break;
      calendar.advanceTo(r.total);
      const uint64_t due = dueOf(r.entries[k], perWeight[k]);
      if (due > r.total) {
        calendar.clearDue(k);
        calendar.file(k, due, r.total);
      }
    }
  }
  budgetSpent(r);
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

}  // namespace detail

namespace {

UcmpRebaseResult resultOf(const detail::RebaseOutcome& outcome) {
  static_assert(static_cast<int>(UcmpRebaseStatus::rebaseSuccess) ==
                    static_cast<int>(detail::RebaseStatus::success) &&
                static_cast<int>(UcmpRebaseStatus::rebaseUnconverged) ==
                    static_cast<int>(detail::RebaseStatus::unconverged) &&
                static_cast<int>(UcmpRebaseStatus::rebaseTruncated) ==
                    static_cast<int>(detail::RebaseStatus::truncated));
  UcmpRebaseResult result(static_cast<UcmpRebaseStatus>(outcome.status));
  const size_t n = outcome.weights.size();
  if (n > 0) result.outWeightIs(n - 1, outcome.weights[n - 1]);  // grows the array once
  for (size_t i = 0; i < n; ++i) result.outWeightIs(i, outcome.weights[i]);
  return result;
}

// The weights of a test input: position i of the map for i below its size,
// 0 where the map has no such position.
template <typename Weight, typename Input>
std::vector<Weight> weightsOf(const Input& input) {
  std::vector<Weight> weights(input.inWeight().size());
  for (size_t i = 0; i < weights.size(); ++i) weights[i] = input.inWeight(i);
  return weights;
}

}  // namespace

UcmpRebaseResult rebaseWeights(std::vector<double> inWeights, uint64_t maxUcmp,
                               float weightDeviation) {
  return resultOf(detail::rebase(std::move(inWeights), maxUcmp, weightDeviation));
}

UcmpRebaseResult rebaseWeights(std::vector<float> inWeights, uint64_t maxUcmp,
                               float weightDeviation) {
  return rebaseWeights(std::vector<double>(inWeights.begin(), inWeights.end()), maxUcmp,
                       weightDeviation);
}

UcmpRebaseResult rebaseWeights(std::vector<uint32_t> inWeights, uint64_t maxUcmp,
                               float weightDeviation) {
  return rebaseWeights(std::vector<double>(inWeights.begin(), inWeights.end()), maxUcmp,
                       weightDeviation);
}

UcmpRebaseResult UcmpWeightsTestHelper::rebaseWeightsTest(const UcmpRebaseTestInput& input) const {
  return rebaseWeights(weightsOf<uint32_t>(input), input.maxUcmp(), input.weightDeviation());
}

UcmpRebaseResult UcmpFloatWeightsTestHelper::rebaseFloatWeightsTest(
    const UcmpFloatRebaseTestInput& input) const {
  return rebaseWeights(weightsOf<float>(input), input.maxUcmp(), input.weightDeviation());
}

}  // namespace RoutingLib
