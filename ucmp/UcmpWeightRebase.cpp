// UcmpWeightRebase: integer UCMP weights within a hardware entry budget.
//
// The reference growth loop is kept literally as designed: after every single
// increment it rescans the entries from the largest ideal share, so its cost
// is about maxUcmp x n ratio evaluations, and it is the only loop that can
// write the per-scan level-3 trace. The fast paths reach the same weights as
// a schedule, see growScheduled, and from a few totals found by search, see
// growDirect; the balanced rebase is a separate function with its own goal,
// see rebaseBalanced.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
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

// ---------------------------------------------------------------------------
// The scheduled growth: the reference loop's outcome without its rescans.
//
// At a fixed weight an entry's test turns from false to true, for good, as
// the total grows (floor above 0). So weight w of entry k has a due total
// D_k(w), the first total at which it is under-served, and D_k does not fall
// as w grows. Step t of the loop (the increment that raises the total from t
// to t + 1) goes to the first entry in sorted order with D_k(w_k) <= t. That
// is a fixed-priority schedule of unit jobs: entry k's w-th job arrives at
// D_k(w) and may run in a step that no entry before it takes. Taking the
// entries in sorted order, each one's jobs go, in turn, to the first step at
// or after their arrival that no earlier entry took. A step that no entry
// takes is one at which no entry was under-served: the loop converged there.
//
// The steps are taken a window at a time, so the work is one look per entry
// and window plus one per increment, each a multiplication and a bit taken
// from a word (the test's two divisions only where the closed form is too
// close to an integer to trust). The increments themselves are still walked:
// where the loop converges is the first total at which the entries' rounding
// up, a sum of n saw-tooth functions of the total, drains to zero, and which
// entries a budget that runs out has starved depends on when that sum came
// close to zero before; neither has a closed form. Where the loop usually
// converges well within the budget, the convergence is found by counting
// jobs, without placing them.
//
// Floor 0 is different (an entry's test turns from true to false as the
// total grows) and has a closed form of its own, growAtFloorZero.

// The longest window: its free-step bits (512 bytes) and, when counting, its
// arrival counts (16 KiB) live on the stack.
constexpr size_t kWindowSlots = 4096;

struct Job {
  double optimalRatio;
  double perWeight;  // 1 / (optimalRatio x cut): the due total of weight w is about w x perWeight
  uint64_t due;      // due total of the entry's current weight (kNever or past the budget: never)
  uint32_t weight;
  bool closedForm;          // perWeight is accurate enough to trust away from integers
};

// The due total of `weight` from the closed form, or 0 when the test must
// decide. w x perWeight is within a few units in the last place of the real
// boundary w / (optimalRatio x cut), and the test's oversub (two roundings)
// is as close to its real value: so when the product is farther than 1e-13
// of itself from every integer, the first total above it is the first
// total the test accepts. Near an integer (exact fractions: equal or
// integer-ratio weights) the test itself settles it. The result may lie
// below the first step: due from the start.
inline uint64_t closedFormDue(double perWeight, uint32_t weight) {
  const double x = weight * perWeight;
  if (!(x < 1e12)) return 0;
  const auto whole = static_cast<uint64_t>(x);
  const double frac = x - static_cast<double>(whole);  // exact
  const double margin = x * 1e-13;
  if (frac > margin && 1.0 - frac > margin) return whole + 1;
  return 0;
}

// The free steps of one window [first, first + size), one bit each, with a
// summary word of the words that still have one.
class StepWindow {
 public:
  void reset(uint64_t first, size_t size) {
    first_ = first;
    size_ = size;
    words_ = (size + 63) / 64;
    free_ = size;
    for (size_t i = 0; i + 1 < words_; ++i) bits_[i] = ~uint64_t{0};
    const size_t tail = size - (words_ - 1) * 64;
    bits_[words_ - 1] = tail == 64 ? ~uint64_t{0} : (uint64_t{1} << tail) - 1;
    nonEmpty_ = words_ == 64 ? ~uint64_t{0} : (uint64_t{1} << words_) - 1;
  }
  uint64_t first() const { return first_; }
  uint64_t end() const { return first_ + size_; }
  size_t freeCount() const { return free_; }

  // One entry's jobs, the first due at `due`: each takes the first free step
  // at or after its due total, the next one's due total coming from
  // dueOf(weight) once the weight has grown, until a job is due at or past
  // end() or no step is left for it. Returns the due total of the first job
  // left; sets `wrapped` (the weight at its limit) when the weight reaches
  // the largest unsigned 32-bit value.
  template <typename DueOf>
  uint64_t takeJobs(uint64_t due, uint32_t& weight, DueOf dueOf, bool& wrapped) {
    uint64_t* const bits = bits_;
    uint64_t nonEmpty = nonEmpty_;
    const uint64_t first = first_;
    const uint64_t end = first_ + size_;
    uint32_t w = weight;
    size_t taken = 0;
    for (;;) {
      const auto i = static_cast<size_t>(due > first ? due - first : 0);
      size_t word = i / 64;
      uint64_t m = bits[word] & (~uint64_t{0} << (i % 64));
      if (m == 0) {
        // The next word with a free step, from the summary.
        const uint64_t later = word == 63 ? 0 : nonEmpty & (~uint64_t{0} << (word + 1));
        if (later == 0) goto done;
        word = static_cast<size_t>(std::countr_zero(later));
        m = bits[word];
      }
      bits[word] ^= m & (~m + 1);  // the lowest free bit at or after the due total
      if (bits[word] == 0) nonEmpty &= ~(uint64_t{1} << word);
      ++taken;
      if (++w == ~uint32_t{0}) {
        wrapped = true;
        goto done;
      }
      due = dueOf(w);
      if (due >= end) break;
    }
  done:
    nonEmpty_ = nonEmpty;
    free_ -= taken;
    weight = w;
    return due;
  }

  // The first free step, or kNever.
  uint64_t firstFree() const {
    if (nonEmpty_ == 0) return kNever;
    const auto w = static_cast<size_t>(std::countr_zero(nonEmpty_));
    return first_ + w * 64 + static_cast<uint64_t>(std::countr_zero(bits_[w]));
  }

 private:
  uint64_t first_ = 0;
  size_t size_ = 0;
  size_t words_ = 0;
  size_t free_ = 0;
  uint64_t nonEmpty_ = 0;  // bit w: word w has a free step
  static_assert(kWindowSlots <= 64 * 64, "one summary word");
  uint64_t bits_[kWindowSlots / 64];
};

// Floor 0: only a share of -0 or a negative one can be under-served (its
// |oversub| above the smallest normal double). An entry that is not at the
// first step never is later (the total grows, its weight does not), and one
// that is stays so while it grows (weight / total only rises). So the first
// entry under-served at the first step takes every step, or none is and the
// loop converges at once.
void growAtFloorZero(Rebase& r) {
  for (WeightEntry& e : r.entries) {
    const double weightRatio = e.weight / static_cast<double>(r.total);
    if (!underServed(weightRatio / e.optimalRatio, r.floor)) continue;
    const uint64_t steps = r.maxUcmp - r.total;
    if (steps > std::numeric_limits<uint32_t>::max() - e.weight) {
      growReference(r);  // the weight would wrap; only the loop knows what follows
      return;
    }
    e.weight += static_cast<uint32_t>(steps);
    r.total = r.maxUcmp;
    break;
  }
  budgetSpent(r);
}

// Window sizes: a window costs one look per entry besides its steps, so
// windows grow from about n steps; but around the total where the loop
// usually converges (the entries' rounding up, about n / 2 in all, drains at
// 1 - floor per step) they stay that small, so that little is done past the
// convergence.
class WindowSizes {
 public:
  WindowSizes(size_t n, double cut)
      : base_(std::min(kWindowSlots, std::max<size_t>(16, 2 * n))),
        size_(base_),
        usual_(static_cast<double>(n) / (2.0 * (1.0 - cut))) {}

  // The size of the window from `first`, at most up to `hi`.
  size_t next(uint64_t first, uint64_t hi) {
    const size_t size = static_cast<size_t>(std::min<uint64_t>(size_, hi - first + 1));
    const double end = static_cast<double>(first + size);
    size_ = end + 2.0 * static_cast<double>(size_) >= 0.5 * usual_ && end <= 2.0 * usual_
                ? base_
                : std::min(kWindowSlots, size_ * 2);
    return size;
  }
  double usualConvergence() const { return usual_; }

 private:
  size_t base_;
  size_t size_;
  double usual_;
};

struct Schedule {
  Job* jobs;
  size_t n;
  double cut;
  uint64_t lo;  // the first step
  uint64_t hi;  // the last step the budget allows

  uint64_t dueOf(const Job& j, uint32_t weight, uint64_t first) const {
    const uint64_t t = j.closedForm ? closedFormDue(j.perWeight, weight) : 0;
    return t != 0 ? t : dueTotal(weight, j.optimalRatio, j.perWeight, cut, first, hi);
  }

  void reset(const std::vector<WeightEntry>& entries) {
    for (size_t k = 0; k < n; ++k) {
      Job& j = jobs[k];
      j.weight = entries[k].weight;
      j.due = dueOf(j, j.weight, lo);
    }
  }

  // Every weight at the convergence step, from weights at or above it: the
  // first weight not due there (every job due by then ran before it). A
  // guess from the closed form, checked on both sides, else a count down.
  void settleAt(uint64_t converged) {
    for (size_t k = 0; k < n; ++k) {
      Job& j = jobs[k];
      auto dueThere = [&](uint32_t w) { return dueOf(j, w, lo) <= converged; };
      if (j.weight == 1 || dueThere(j.weight - 1)) continue;
      if (j.closedForm) {
        const double guess = static_cast<double>(converged) / j.perWeight;
        if (guess >= 1.0 && guess < j.weight - 1) {
          const auto g = static_cast<uint32_t>(guess) + 1;  // 1 < g < weight
          if (dueThere(g - 1) && !dueThere(g)) {
            j.weight = g;
            continue;
          }
        }
      }
      uint32_t w = j.weight - 1;
      while (w > 1 && !dueThere(w - 1)) --w;
      j.weight = w;
    }
  }

  // Where the loop converges, counting jobs only: at step t the jobs that
  // arrived by t plus the n seeds, less the t entries handed out, are the
  // ones pending. The first step with none pending is the convergence,
  // whoever ran the earlier steps. kNever when the budget runs out first
  // (or a weight would wrap). Leaves each job at its first weight not due
  // by the end of the last window looked at.
  uint64_t convergenceByCount() {
    uint32_t arrivals[kWindowSlots];
    WindowSizes sizes(n, cut);
    uint64_t arrived = n;
    for (uint64_t first = lo; first <= hi;) {
      const size_t size = sizes.next(first, hi);
      const uint64_t end = first + size;
      std::fill(arrivals, arrivals + size, 0u);
      for (size_t k = 0; k < n; ++k) {
        Job& j = jobs[k];
        uint64_t due = j.due;
        if (due >= end) continue;
        uint32_t weight = j.weight;
        do {
          ++arrivals[due <= first ? 0 : due - first];
          if (++weight == ~uint32_t{0}) return kNever;
          due = dueOf(j, weight, first);
        } while (due < end);
        j.weight = weight;
        j.due = due;
      }
      for (size_t i = 0; i < size; ++i) {
        arrived += arrivals[i];
        if (arrived <= first + i) return first + i;
      }
      first = end;
    }
    return kNever;
  }

  // The schedule itself. Within a window the entries take their steps in
  // sorted order; the first free step left is where the loop converged.
  // kNever when every step up to the budget ran; `wrapped` when a weight
  // would pass the largest unsigned 32-bit value.
  uint64_t run(bool& wrapped) {
    StepWindow window;
    WindowSizes sizes(n, cut);
    for (uint64_t first = lo; first <= hi; first = window.end()) {
      window.reset(first, sizes.next(first, hi));
      const uint64_t end = window.end();
      for (size_t k = 0; k < n; ++k) {
        Job& j = jobs[k];
        if (j.due >= end) continue;
        if (window.freeCount() == 0) break;
        if (j.closedForm) {
          j.due = window.takeJobs(j.due, j.weight, [&](uint32_t w) {
            const uint64_t t = closedFormDue(j.perWeight, w);
            return t != 0 ? t : dueTotal(w, j.optimalRatio, j.perWeight, cut, first, hi);
          }, wrapped);
        } else {
          j.due = window.takeJobs(j.due, j.weight, [&](uint32_t w) {
            return dueTotal(w, j.optimalRatio, j.perWeight, cut, first, hi);
          }, wrapped);
        }
        if (wrapped) return kNever;
      }
      const uint64_t converged = window.firstFree();
      if (converged != kNever) return converged;
    }
    return kNever;
  }
};

// Each entry's job at this cut: its share, the total per weight step, and
// whether that total can be computed in closed form without overflow.
void initJobs(Job* jobs, const Rebase& r, double cut) {
  for (size_t k = 0; k < r.entries.size(); ++k) {
    const double optimalRatio = r.entries[k].optimalRatio;
    Job& j = jobs[k];
    j.optimalRatio = optimalRatio;
    j.perWeight = 1.0 / (optimalRatio * cut);
    j.closedForm = optimalRatio >= 1e-290 && optimalRatio <= 1e290 && j.perWeight > 0 &&
                   j.perWeight < 1e290;
  }
}

// Runs the schedule to the loop's end unless the convergence total is
// `known`, then writes the weights the loop settles at. False, with nothing
// written, when the loop's total wraps: only the loop knows what follows.
bool settleSchedule(Rebase& r, Schedule& s, uint64_t converged, bool known) {
  if (!known) {
    bool wrapped = false;
    converged = s.run(wrapped);
    if (wrapped) return false;
  }
  if (converged != kNever) {
    s.settleAt(converged);
    r.total = converged;
  } else {
    r.total = r.maxUcmp;
  }
  for (size_t k = 0; k < r.entries.size(); ++k) r.entries[k].weight = s.jobs[k].weight;
  return true;
}

// The growth loop as a schedule (see above). Where the loop usually
// converges well within the budget, the convergence is looked for first by
// counting jobs, which is cheaper than placing them; the schedule runs when
// the budget runs out first, since then the weights depend on who ran when.
// `cut`: overSubCut(r.floor) when the caller has it already.
void growScheduled(Rebase& r, double cut = 0.0) {
  if (budgetSpent(r)) return;
  if (r.floor == 0.0) {
    growAtFloorZero(r);
    return;
  }
  if (cut == 0.0) cut = overSubCut(r.floor);
  const size_t n = r.entries.size();
  // Small groups keep their jobs on the stack.
  constexpr size_t kLocal = 32;
  Job local[kLocal];
  std::vector<Job> heap(n > kLocal ? n : 0);
  Schedule s{n > kLocal ? heap.data() : local, n, cut, r.total, r.maxUcmp - 1};
  initJobs(s.jobs, r, cut);
  s.reset(r.entries);

  // Counting needs every entry to have at most about one job per step: no
  // share above 1 (or under-served at any weight, as a negative one or -0 is).
  const bool countable = std::all_of(r.entries.begin(), r.entries.end(), [](const WeightEntry& e) {
    return std::isnan(e.optimalRatio) ||
           (e.optimalRatio <= 1.0 && e.optimalRatio >= 0.0 && !std::signbit(e.optimalRatio));
  });
  uint64_t converged = kNever;
  bool counted = false;
  if (countable && WindowSizes(n, cut).usualConvergence() < 0.5 * static_cast<double>(r.maxUcmp)) {
    converged = s.convergenceByCount();
    counted = converged != kNever;
    if (!counted) s.reset(r.entries);
  }
  if (!settleSchedule(r, s, counted ? converged : kNever, counted)) {
    growReference(r);
    return;
  }
  budgetSpent(r);
}

// ---------------------------------------------------------------------------
// The direct growth: the schedule's outcome from a few totals, not a walk.
//
// The loop is a fixed-priority queue of unit jobs (see the scheduled growth):
// entry k's jobs arrived by total x number a_k(x), the largest w with
// dueAt(w, x) (0 when none), and Q(x) = n + sum_k a_k(x) - x jobs are pending
// at step x. The loop converges at the first x in [lo, maxUcmp - 1] with
// Q(x) <= 0, every entry then at weight a_k(x) + 1. If there is none, the
// top group of entries 0..j (in sorted order) has been served, by the end,
//   S_j = min(maxUcmp - lo, min over x in [lo, maxUcmp - 1] of (F_j(x) + maxUcmp - 1 - x))
// steps, F_j the jobs of the group arrived by x (the usual count of a
// work-conserving queue: the last step at which the group was idle, or
// none), and entry k ends at weight 1 + S_k - S_(k-1). So the outcome needs
// the first zero of Q and the minimum of each G_j(x) = F_j(x) - x, not the
// steps in between.
//
// Both are found by evaluating a_k at chosen totals and skipping the totals a
// bound rules out. Every a_k(x) is at least x r_k cut (1 - eta) - 1, which
// bounds the entries not evaluated; and G_j falls by at most 1 per step.
// Where a bound rules out too little (a minimum that depends on where the
// sum of the entries' rounding, a saw-tooth, came lowest over the whole
// budget), the direct growth gives up before doing much and the scheduled
// growth runs instead; `DirectStats` counts how often.

// Relative slack of the bound a_k(x) >= x r_k cut (1 - eta) - 1: covers the
// two roundings of the test and those of the sums of shares (n below 2^21).
constexpr double kEta = 1e-9;
// What a bound must clear, in jobs, to count: the bounds are sums of
// integers and of x times a slope, whose roundings at totals below 2^31 stay
// well under it.
constexpr double kRoom = 1e-3;

// The jobs of an entry arrived by total x: the largest w with dueAt(w, x).
// x r cut is within a few units in the last place of the real boundary, so
// away from integers its floor is the answer; near one the test decides.
// Needs a share of 0 or a normal one in (0, 1] and x below 2^31.
inline uint64_t arrivedBy(double optimalRatio, double rc, double cut, uint64_t x) {
  if (optimalRatio == 0.0) return 0;  // its share is never below the floor
  const double y = static_cast<double>(x) * rc;
  uint64_t w = static_cast<uint64_t>(y);
  const double frac = y - static_cast<double>(w);
  const double margin = y * 1e-13;
  if (frac > margin && 1.0 - frac > margin) return w;
  auto due = [&](uint64_t v) { return dueAt(static_cast<uint32_t>(v), x, optimalRatio, cut); };
  while (w < x && due(w + 1)) ++w;
  while (w > 0 && !due(w)) --w;
  return w;
}

struct Direct {
  std::vector<WeightEntry>& entries;  // weights written only once settled
  size_t n;
  double cut;
  uint64_t lo;      // the first step
  uint64_t hi;      // the last step the budget allows
  std::vector<double> sharesBefore;  // sharesBefore[k]: sum of optimalRatio over entries before k
  size_t positive = 0;  // entries with a positive share (they come first)
  uint64_t work = 0;    // entries evaluated
  uint64_t workCap;

  Direct(std::vector<WeightEntry>& e, double cut_, uint64_t lo_, uint64_t hi_, uint64_t cap)
      : entries(e), n(e.size()), cut(cut_), lo(lo_), hi(hi_), workCap(cap) {}

  // The sums of shares the bounds need (not needed to settle a convergence
  // found by counting).
  void prepare() {
    if (!sharesBefore.empty()) return;
    sharesBefore.assign(n + 1, 0.0);
    for (size_t k = 0; k < n; ++k) {
      sharesBefore[k + 1] = sharesBefore[k] + entries[k].optimalRatio;
      if (entries[k].optimalRatio > 0.0) positive = k + 1;
    }
  }

  uint64_t a(size_t k, uint64_t x) {
    ++work;
    return arrivedBy(entries[k].optimalRatio, entries[k].optimalRatio * cut, cut, x);
  }
  bool overBudget() const { return work > workCap; }

  // 1 - cut (1 - eta) x (shares of the entries before k): how fast the bound
  // on a group's G falls per step when entries k.. are left out of it.
  double slopeWithout(size_t k) const {
    return 1.0 - cut * (1.0 - kEta) * sharesBefore[k];
  }

  // Whether Q(x) >= 1 holds, proven with as few entries as needed: entries
  // k.. evaluated exactly, those before bounded below. Q itself when every
  // entry is needed; `exact` is then set to it.
  bool pendingAt(uint64_t x, int64_t& exact) {
    uint64_t arrived = 0;
    for (size_t k = positive; k-- > 0;) {
      arrived += a(k, x);
      if (k == 0) break;
      // Q(x) > (n - k) - x + arrived + x cut (1 - eta) sharesBefore[k].
      const double bound = static_cast<double>(n - k) + static_cast<double>(arrived) -
                           static_cast<double>(x) * slopeWithout(k);
      if (bound >= kRoom) return true;
    }
    exact = static_cast<int64_t>(n + arrived) - static_cast<int64_t>(x);
    return exact >= 1;
  }

  // The first total in [lo, hi] with Q <= 0, kNever when there is none, or
  // kGiveUp. Walks the arrivals of the last positive entry: while its count
  // stays w, Q(x) > (n - k*) + w - x slopeWithout(k*), so only the totals
  // just before its next arrival need a closer look (when the floor is near
  // 1, about one per arrival).
  static constexpr uint64_t kGiveUp = kNever - 1;
  uint64_t convergence(const Schedule& s) {
    prepare();
    if (positive == 0) return lo;  // nothing is ever due
    const size_t ks = positive - 1;
    const double slope = slopeWithout(ks);
    const double entriesLeft = static_cast<double>(n - ks);
    const Job& j = s.jobs[ks];
    for (uint64_t x = lo; x <= hi;) {
      const uint64_t w = a(ks, x);
      const uint64_t next =
          w + 1 >= ~uint32_t{0} ? kNever : s.dueOf(j, static_cast<uint32_t>(w + 1), x);
      const uint64_t last = next > hi ? hi : next - 1;  // this count holds up to here
      uint64_t from = x;
      if (slope > 0.0) {
        const double safe = (entriesLeft + static_cast<double>(w) - kRoom) / slope * (1.0 - 1e-12);
        if (safe >= static_cast<double>(last)) from = last + 1;
        else if (safe >= static_cast<double>(x)) from = static_cast<uint64_t>(safe) + 1;
      } else {
        from = last + 1;
      }
      for (uint64_t t = from; t <= last; ++t) {
        int64_t q = 1;
        if (!pendingAt(t, q)) return t;
        if (overBudget()) return kGiveUp;
      }
      if (overBudget()) return kGiveUp;
      x = last + 1;
    }
    return kNever;
  }

  // The weights where the loop converged at total t.
  void weightsAt(uint64_t t) {
    for (size_t k = 0; k < n; ++k) entries[k].weight = static_cast<uint32_t>(a(k, t) + 1);
  }

  // The weights when the budget runs out first: the minimum over [lo, hi] of
  // each top group's G_j(x) = F_j(x) - x, capped at -(lo - 1) (a group busy at
  // every step). G_j(x + i) >= G_j(x) - i, and G_j(x) > -x slopeWithout(j + 1)
  // - (j + 1); between them most totals are skipped. plan() sets up the
  // sweep from the values at the last step and says where it must start;
  // sweep() runs it (false: gave up).
  std::vector<int64_t> best, g;
  std::vector<double> safeUpTo;
  uint64_t sweepFrom = 0;

  void groupValues(uint64_t x) {
    int64_t sum = 0;
    for (size_t j = 0; j + 1 < n; ++j) {
      sum += static_cast<int64_t>(j < positive ? a(j, x) : 0);
      g[j] = sum - static_cast<int64_t>(x);
    }
  }

  // The totals the sweep may have to look at.
  uint64_t plan() {
    prepare();
    const size_t groups = n - 1;  // the whole group's minimum is the cap
    best.resize(groups);
    g.resize(groups);
    safeUpTo.resize(groups);
    const int64_t cap = -static_cast<int64_t>(lo - 1);
    groupValues(hi);
    double start = static_cast<double>(hi);
    for (size_t j = 0; j < groups; ++j) {
      best[j] = std::min(cap, g[j]);
      const double slope = slopeWithout(j + 1);
      const double room = static_cast<double>(-best[j]) - static_cast<double>(j + 1) - kRoom;
      // G_j(x) >= best[j] for every x up to here.
      safeUpTo[j] = slope <= 0.0 ? (room >= 0 ? 1e300 : -1.0) : room / slope * (1.0 - 1e-12);
      start = std::min(start, safeUpTo[j]);
    }
    sweepFrom = start < static_cast<double>(lo) ? lo : static_cast<uint64_t>(start) + 1;
    return sweepFrom > hi ? 0 : hi - sweepFrom;
  }

  bool sweep() {
    const size_t groups = n - 1;
    for (uint64_t x = sweepFrom; x < hi;) {
      if (overBudget()) return false;
      groupValues(x);
      double skip = 1e300;
      for (size_t j = 0; j < groups; ++j) {
        best[j] = std::min(best[j], g[j]);
        const double bySlope = safeUpTo[j] - static_cast<double>(x);
        skip = std::min(skip, std::max(static_cast<double>(g[j] - best[j]), bySlope));
      }
      x += 1 + (skip >= static_cast<double>(hi - x) ? hi - x
                                                     : static_cast<uint64_t>(std::max(0.0, skip)));
    }
    const int64_t cap = -static_cast<int64_t>(lo - 1);
    int64_t before = -static_cast<int64_t>(hi);  // no step served before the first
    for (size_t k = 0; k < n; ++k) {
      const int64_t m = k < groups ? best[k] : cap;
      entries[k].weight = static_cast<uint32_t>(1 + m - before);
      before = m;
    }
    return true;
  }
};

// Whether Direct::sweep would look at no more than `span` totals, judged
// from the shares alone (each a_k(x) taken as x r_k cut less half a unit),
// so that an input whose outcome depends on most of the growth goes to the
// schedule before any entry is evaluated. Stops at the first group that
// needs more; no division.
bool sweepLooksCheap(const std::vector<WeightEntry>& entries, double cut, uint64_t lo, uint64_t hi,
                     double span) {
  const double last = static_cast<double>(hi);
  if (last - static_cast<double>(lo) <= span) return true;
  const double from = last - span;  // every group must be safe up to here
  const double cap = static_cast<double>(lo - 1);
  double shares = 0.0;
  for (size_t j = 0; j + 1 < entries.size(); ++j) {
    shares += entries[j].optimalRatio;
    const double slope = 1.0 - cut * shares;
    const double groupSize = static_cast<double>(j + 1);
    const double low = std::max(cap, last * slope + 0.5 * groupSize);  // about -G_j(hi), capped
    if (!(low - groupSize >= slope * from)) return false;
  }
  return true;
}

// Whether every share is +0 or a normal double in (0, 1]. Without NaN the
// entries are in descending order, so only the ends need a look: the first,
// the zeros at the end (none of them -0) and the smallest positive one. A
// NaN or an infinity makes the sum of the shares NaN or infinite.
bool directShares(const std::vector<WeightEntry>& entries) {
  double sum = 0.0;
  for (const WeightEntry& e : entries) sum += e.optimalRatio;
  if (!std::isfinite(sum) || !(entries.front().optimalRatio <= 1.0)) return false;
  size_t last = entries.size();
  for (; last > 0 && entries[last - 1].optimalRatio == 0.0; --last)
    if (std::signbit(entries[last - 1].optimalRatio)) return false;
  return last == 0 || entries[last - 1].optimalRatio >= std::numeric_limits<double>::min();
}

// The growth in closed form where the shares allow it (none negative, NaN,
// subnormal or above 1; a budget below 2^31; a floor above 0), else the
// scheduled growth.
void growDirect(Rebase& r, DirectStats* stats) {
  if (budgetSpent(r)) return;
  if (r.floor == 0.0) {
    growAtFloorZero(r);
    return;
  }
  const size_t n = r.entries.size();
  // A budget of a few steps per entry is spent by the schedule in less than
  // the search would take to decide.
  if (r.maxUcmp - r.total < 16 * static_cast<uint64_t>(n) || r.maxUcmp >= (uint64_t{1} << 31) ||
      !directShares(r.entries)) {
    if (stats) ++stats->scheduled;
    growScheduled(r);
    return;
  }
  const double cut = overSubCut(r.floor);
  // A direct answer is worth it while it evaluates fewer entries than the
  // schedule has steps to take (an evaluation costs about what a step does).
  const uint64_t steps = r.maxUcmp - r.total;
  const double sweepBudget = 0.5 * static_cast<double>(steps) / static_cast<double>(n);
  const bool countFirst =
      WindowSizes(n, cut).usualConvergence() < 0.5 * static_cast<double>(r.maxUcmp);
  // Without counting, the convergence is looked for along the arrivals of
  // the last entry with a share, which rules out all but about one total
  // per arrival when the floor is close to 1 (Direct::convergence): worth it
  // while the other entries' shares fall short of 1 by less than its own.
  // And unless it converges, the outcome then needs the sweep. Where either
  // would take long, the schedule runs at once: it is what counting would
  // end in.
  auto certificateCheap = [&] {
    size_t last = n;
    while (last > 0 && r.entries[last - 1].optimalRatio == 0.0) --last;
    if (last == 0) return true;
    double before = 0.0;
    for (size_t k = 0; k + 1 < last; ++k) before += r.entries[k].optimalRatio;
    return 1.0 - cut * (1.0 - kEta) * before < 2.0 * r.entries[last - 1].optimalRatio * cut;
  };
  if (!countFirst && (!sweepLooksCheap(r.entries, cut, r.total, r.maxUcmp - 1, sweepBudget) ||
                      !certificateCheap())) {
    if (stats) ++stats->scheduled;
    growScheduled(r, cut);
    return;
  }
  constexpr size_t kLocal = 32;
  Job local[kLocal];
  std::vector<Job> heap(n > kLocal ? n : 0);
  Schedule s{n > kLocal ? heap.data() : local, n, cut, r.total, r.maxUcmp - 1};
  initJobs(s.jobs, r, cut);
  Direct d(r.entries, cut, r.total, r.maxUcmp - 1, steps);
  auto cheapSweep = [&] {
    return sweepLooksCheap(r.entries, cut, r.total, r.maxUcmp - 1, sweepBudget) &&
           static_cast<double>(d.plan()) <= sweepBudget;
  };
  bool done = false;
  if (countFirst) {
    // Usually converges well within the budget: count jobs to find where.
    s.reset(r.entries);
    const uint64_t converged = s.convergenceByCount();
    if (converged != kNever) {
      d.weightsAt(converged);
      r.total = converged;
      done = true;
    } else if (cheapSweep()) {
      done = d.sweep();
      r.total = r.maxUcmp;
    }
  } else {
    const uint64_t converged = d.convergence(s);
    if (converged == Direct::kGiveUp) {
      done = false;
    } else if (converged != kNever) {
      d.weightsAt(converged);
      r.total = converged;
      done = true;
    } else if (cheapSweep()) {
      done = d.sweep();
      r.total = r.maxUcmp;
    }
  }
  if (!done) {
    if (stats) ++stats->scheduled;
    r.total = s.lo;
    s.reset(r.entries);
    if (!settleSchedule(r, s, kNever, false)) {
      growReference(r);
      return;
    }
  } else {
    if (stats) ++stats->direct;
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
  growScheduled(r);
  return finish(r);
}

RebaseOutcome rebaseDirect(std::vector<double> in, uint64_t maxUcmp, float weightDeviation,
                           DirectStats* stats) {
  Rebase r = start(in, maxUcmp, weightDeviation);
  growDirect(r, stats);
  return finish(r);
}

// ---------------------------------------------------------------------------
// The balanced rebase.
//
// For a total W and integer weights w_k summing to it, member k's share of
// its ideal is (w_k / W) / (in_k / S). Scaled by the largest input (q_k =
// in_k / max), the best worst share at total W needs w_k >= mu x q_k for the
// largest mu possible: w_k = ceil(mu x q_k), an apportionment by the divisor
// method that rounds up (every positive input gets at least 1). Between the
// points where some ceil(mu x q_k) steps up, the total A(mu) stays put while
// mu grows, so the worst share, mu x Q / A(mu) (Q the sum of the q_k), is
// best just before a step: at mu = w_k / q_k for a member's current weight.
// The walk visits those points in increasing order while A(mu) fits the
// budget and keeps the best; of equal bests (within a relative 1e-12, the
// rounding of the shares), the first, the smallest total, wins, so exact
// fits come back in lowest terms. About maxUcmp heap steps.

namespace {

struct Seat {
  double next;  // mu at which this member's weight steps up: weight / q
  size_t k;
  bool operator>(const Seat& o) const { return next > o.next || (next == o.next && k > o.k); }
};

// The weight of a member of scaled input q at mu: the least w >= 1 with
// w / q >= mu, in the same rounding as the walk's keys.
uint64_t seatsAt(double mu, double q) {
  if (!(mu / q < 1e18)) return 1;  // also q 0 (the member never steps up)
  auto w = static_cast<uint64_t>(std::max(1.0, std::ceil(mu * q)));
  while (w > 1 && static_cast<double>(w - 1) / q >= mu) --w;
  while (static_cast<double>(w) / q < mu) ++w;
  return w;
}

}  // namespace

BalancedOutcome rebaseBalanced(const std::vector<double>& in, uint64_t maxUcmp) {
  UCMP_ASSERT(!in.empty(), "!inWeights.empty()");
  double largest = 0.0;
  for (double w : in) {
    UCMP_ASSERT(std::isfinite(w) && w >= 0.0, "std::isfinite(inWeight) && inWeight >= 0");
    largest = std::max(largest, w);
  }
  UCMP_ASSERT(largest > 0.0, "sumOfWeights != 0");
  const size_t n = in.size();
  BalancedOutcome out{RebaseStatus::success, std::vector<uint32_t>(n, 0), 0.0};
  std::vector<size_t> members;  // positive inputs, largest first, then by position
  for (size_t k = 0; k < n; ++k)
    if (in[k] > 0.0) members.push_back(k);
  std::stable_sort(members.begin(), members.end(),
                   [&](size_t a, size_t b) { return in[a] > in[b]; });
  if (maxUcmp < members.size()) {
    // Not one entry each: the largest get one, the rest (and every share's
    // worst) nothing.
    for (size_t i = 0; i < maxUcmp; ++i) out.weights[members[i]] = 1;
    out.status = RebaseStatus::truncated;
    return out;
  }

  std::vector<double> q(n, 0.0);
  double sumQ = 0.0;
  for (size_t k : members) {
    q[k] = in[k] / largest;
    sumQ += q[k];
  }
  std::vector<Seat> heap;
  heap.reserve(members.size());
  for (size_t k : members) heap.push_back({1.0 / q[k], k});
  std::make_heap(heap.begin(), heap.end(), std::greater<>());
  std::vector<uint64_t> seats(n, 0);
  for (size_t k : members) seats[k] = 1;
  uint64_t total = members.size();
  double bestMu = 0.0;
  double bestShare = -1.0;
  while (total <= maxUcmp && !heap.empty() && std::isfinite(heap.front().next)) {
    const double mu = heap.front().next;
    const double share = mu * sumQ / static_cast<double>(total);
    // Better by more than rounding: equal bests keep the smaller total.
    if (share > bestShare * (1.0 + 1e-12)) {
      bestShare = share;
      bestMu = mu;
    }
    // Every member whose weight steps up at mu does so together.
    while (!heap.empty() && heap.front().next == mu) {
      std::pop_heap(heap.begin(), heap.end(), std::greater<>());
      Seat& s = heap.back();
      ++seats[s.k];
      ++total;
      s.next = static_cast<double>(seats[s.k]) / q[s.k];
      std::push_heap(heap.begin(), heap.end(), std::greater<>());
    }
  }
  if (bestShare < 0.0) {
    // No step fits (or none exists): one each, the seed.
    for (size_t k : members) out.weights[k] = 1;
  } else {
    for (size_t k : members) out.weights[k] = static_cast<uint32_t>(seatsAt(bestMu, q[k]));
  }
  out.worstShare = worstShareOf(in, out.weights);
  return out;
}

double worstShareOf(const std::vector<double>& in, const std::vector<uint32_t>& weights) {
  double sum = 0.0;
  uint64_t total = 0;
  for (size_t k = 0; k < in.size(); ++k) {
    if (in[k] > 0.0) sum += in[k];
    total += weights[k];
  }
  double worst = std::numeric_limits<double>::infinity();
  for (size_t k = 0; k < in.size(); ++k) {
    if (!(in[k] > 0.0)) continue;
    const double share = total == 0 ? 0.0 : static_cast<double>(weights[k]) / static_cast<double>(total);
    worst = std::min(worst, share / (in[k] / sum));
  }
  return std::isfinite(worst) ? worst : 0.0;
}

RebaseOutcome rebase(std::vector<double> in, uint64_t maxUcmp, float weightDeviation) {
  if (COG_TRACE_ENABLED(3)) return rebaseReference(std::move(in), maxUcmp, weightDeviation);
  return rebaseDirect(std::move(in), maxUcmp, weightDeviation);
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

UcmpRebaseResult rebaseWeightsBalanced(const std::vector<double>& inWeights, uint64_t maxUcmp) {
  const detail::BalancedOutcome balanced = detail::rebaseBalanced(inWeights, maxUcmp);
  return resultOf({balanced.status, balanced.weights});
}

UcmpRebaseResult UcmpWeightsTestHelper::rebaseWeightsTest(const UcmpRebaseTestInput& input) const {
  return rebaseWeights(weightsOf<uint32_t>(input), input.maxUcmp(), input.weightDeviation());
}

UcmpRebaseResult UcmpFloatWeightsTestHelper::rebaseFloatWeightsTest(
    const UcmpFloatRebaseTestInput& input) const {
  return rebaseWeights(weightsOf<float>(input), input.maxUcmp(), input.weightDeviation());
}

}  // namespace RoutingLib
