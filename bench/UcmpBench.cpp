// The weight rebase: the reference growth loop, the scheduled growth
// ("fast") and the direct growth ("direct", the path rebaseWeights takes),
// side by side on the same inputs, with the ratios reference / direct and
// fast / direct per input at the end of the run, whether the direct growth
// settled the input itself or ran the schedule, and the balanced rebase's
// time on the same weights and budget beside them.
//
// Inputs: n next hops with weights drawn once from a fixed seed (uniform in
// [1, 100), like mixed link bandwidths), n 8, 64, 512 and 1024, budgets 64,
// 4096 and 65535, weight deviations 0.0 (grow until every share is exact or
// the budget runs out) and 0.05.
//
// Then, not timed: the worst next hop's share of its ideal share,
// (w_k / sum w) / (in_k / sum in), that the growth loop (deviation 0) and the
// balanced rebase give the same random groups (8 to 128 next hops, weights
// uniform in [1, 100), 200 groups per budget).
#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "../ucmp/RebaseCore.h"

namespace {

using RoutingLib::detail::RebaseOutcome;
using RebaseFn = RebaseOutcome (*)(std::vector<double>, uint64_t, float);

std::vector<double> weightsFor(size_t n) {
  std::mt19937_64 rng(0x5eed + n);
  std::uniform_real_distribution<double> dist(1.0, 100.0);
  std::vector<double> w(n);
  for (double& x : w) x = dist(rng);
  return w;
}

void run(benchmark::State& state, RebaseFn fn, size_t n, uint64_t maxUcmp, float deviation) {
  const std::vector<double> weights = weightsFor(n);
  uint64_t assigned = 0;
  for (auto _ : state) {
    RebaseOutcome out = fn(weights, maxUcmp, deviation);
    benchmark::DoNotOptimize(out.weights.data());
    assigned = 0;
    for (uint32_t w : out.weights) assigned += w;
  }
  state.counters["assigned"] = static_cast<double>(assigned);
}

struct Input {
  size_t n;
  uint64_t maxUcmp;
  float deviation;
  std::string key() const {
    char buf[64];
    std::snprintf(buf, sizeof buf, "n:%zu/maxUcmp:%llu/dev:%.2f", n,
                  static_cast<unsigned long long>(maxUcmp), static_cast<double>(deviation));
    return buf;
  }
};

// How the direct growth settled an input: by itself, by the schedule, or
// neither (a seed that spends the budget, a floor of 0).
std::map<std::string, std::string>& settledBy() {
  static std::map<std::string, std::string> by;
  return by;
}
std::string howSettled(const std::string& input) {
  const auto it = settledBy().find(input);
  return it == settledBy().end() ? "-" : it->second;
}

// Prints the usual console lines, and keeps each input's median time per
// path for the ratio table printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // `order`: the inputs in the order the table lists them.
  explicit RatioReporter(std::vector<std::string> order) : order_(std::move(order)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
      std::string name = r.run_name.function_name;  // "<path>/<input>"
      const auto slash = name.find('/');
      times_[name.substr(slash + 1)][name.substr(0, slash)] = r.GetAdjustedCPUTime();
    }
  }
  void printRatios() const {
    std::printf("\n%-30s %12s %12s %12s %9s %9s %-9s %12s\n", "input (median CPU time)",
                "reference", "fast", "direct", "ref/dir", "fast/dir", "direct by", "balanced");
    for (const std::string& input : order_) {
      if (times_.count(input) == 0) continue;  // filtered out
      const auto& byPath = times_.at(input);
      auto timeOf = [&](const char* path) {
        const auto it = byPath.find(path);
        return it == byPath.end() ? 0.0 : it->second;
      };
      const double ref = timeOf("reference"), fast = timeOf("fast"), direct = timeOf("direct"),
                   balanced = timeOf("balanced");
      std::printf("%-30s %9.2f us %9.2f us %9.2f us", input.c_str(), ref, fast, direct);
      for (double base : {ref, fast}) {
        if (base > 0 && direct > 0)
          std::printf(" %8.1fx", base / direct);
        else
          std::printf(" %9s", "-");
      }
      std::printf(" %-9s", howSettled(input).c_str());
      if (balanced > 0) std::printf(" %9.2f us", balanced);
      std::printf("\n");
    }
  }

 private:
  std::vector<std::string> order_;
  std::map<std::string, std::map<std::string, double>> times_;
};

// The balanced rebase as a path of the table: the deviation does not apply.
RebaseOutcome balanced(std::vector<double> in, uint64_t maxUcmp, float) {
  RoutingLib::detail::BalancedOutcome b = RoutingLib::detail::rebaseBalanced(in, maxUcmp);
  return {b.status, std::move(b.weights)};
}

RebaseOutcome direct(std::vector<double> in, uint64_t maxUcmp, float deviation) {
  return RoutingLib::detail::rebaseDirect(std::move(in), maxUcmp, deviation);
}

// Worst share of its ideal, loop against balanced, on the same random groups.
void printWorstShares() {
  std::printf("\n%-14s %-10s %8s %8s %8s %8s\n", "worst share", "rebase", "min", "p10",
              "median", "max");
  for (uint64_t maxUcmp : {uint64_t{512}, uint64_t{4096}, uint64_t{65535}}) {
    std::mt19937_64 rng(0x5ca1e + maxUcmp);
    std::vector<double> loop, best;
    for (int g = 0; g < 200; ++g) {
      const size_t n = std::uniform_int_distribution<size_t>(8, 128)(rng);
      std::uniform_real_distribution<double> dist(1.0, 100.0);
      std::vector<double> w(n);
      for (double& x : w) x = dist(rng);
      loop.push_back(RoutingLib::detail::worstShareOf(
          w, RoutingLib::detail::rebaseFast(w, maxUcmp, 0.0f).weights));
      best.push_back(RoutingLib::detail::rebaseBalanced(w, maxUcmp).worstShare);
    }
    for (auto* shares : {&loop, &best}) {
      std::sort(shares->begin(), shares->end());
      std::printf("maxUcmp %-6llu %-10s %7.1f%% %7.1f%% %7.1f%% %7.1f%%\n",
                  static_cast<unsigned long long>(maxUcmp), shares == &loop ? "loop" : "balanced",
                  100 * shares->front(), 100 * (*shares)[shares->size() / 10],
                  100 * (*shares)[shares->size() / 2], 100 * shares->back());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Input> inputs;
  for (size_t n : {8, 64, 512, 1024})
    for (uint64_t maxUcmp : {64, 4096, 65535})
      for (float deviation : {0.0f, 0.05f}) inputs.push_back({n, maxUcmp, deviation});
  for (const Input& in : inputs) {
    RoutingLib::detail::DirectStats stats;
    RoutingLib::detail::rebaseDirect(weightsFor(in.n), in.maxUcmp, in.deviation, &stats);
    settledBy()[in.key()] = stats.direct ? "search" : stats.scheduled ? "schedule" : "seed";
    const std::pair<const char*, RebaseFn> paths[] = {
        {"reference", &RoutingLib::detail::rebaseReference},
        {"fast", &RoutingLib::detail::rebaseFast},
        {"direct", &direct},
        {"balanced", &balanced}};
    for (const auto& [path, fn] : paths) {
      auto* b = benchmark::RegisterBenchmark((std::string(path) + "/" + in.key()).c_str(), run,
                                             fn, in.n, in.maxUcmp, in.deviation);
      b->Unit(benchmark::kMicrosecond)->Repetitions(3)->ReportAggregatesOnly(true);
    }
  }
  // Repetitions of all inputs run interleaved in random order, so that a
  // busy machine slows both paths alike instead of whichever ran then.
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave.data());
  argc = static_cast<int>(args.size());
  argv = args.data();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::vector<std::string> order;
  for (const Input& in : inputs) order.push_back(in.key());
  RatioReporter reporter(std::move(order));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  printWorstShares();
  benchmark::Shutdown();
  return 0;
}
