// The weight rebase: the reference growth loop against the fast loop, side by
// side on the same inputs, with the ratio reference / fast per input at the
// end of the run.
//
// Inputs: n next hops with weights drawn once from a fixed seed (uniform in
// [1, 100), like mixed link bandwidths), budgets 64, 4096 and 65535, weight
// deviations 0.0 (grow until every share is exact or the budget runs out) and
// 0.05.
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
    std::printf("\n%-30s %12s %12s %12s %9s %9s\n", "input (median CPU time)", "reference",
                "today", "scheduled", "ref/new", "today/new");
    for (const std::string& input : order_) {
      if (times_.count(input) == 0) continue;  // filtered out
      const auto& byPath = times_.at(input);
      auto timeOf = [&](const char* path) {
        const auto it = byPath.find(path);
        return it == byPath.end() ? 0.0 : it->second;
      };
      const double ref = timeOf("reference"), today = timeOf("today"), fast = timeOf("scheduled");
      std::printf("%-30s %9.2f us %9.2f us %9.2f us", input.c_str(), ref, today, fast);
      if (fast > 0 && ref > 0) std::printf(" %8.1fx", ref / fast);
      else std::printf(" %9s", "-");
      if (fast > 0 && today > 0) std::printf(" %8.2fx", today / fast);
      std::printf("\n");
    }
  }

 private:
  std::vector<std::string> order_;
  std::map<std::string, std::map<std::string, double>> times_;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<Input> inputs;
  for (size_t n : {8, 64, 512, 1024})
    for (uint64_t maxUcmp : {64, 4096, 65535})
      for (float deviation : {0.0f, 0.05f}) inputs.push_back({n, maxUcmp, deviation});
  for (const Input& in : inputs) {
    const std::pair<const char*, RebaseFn> paths[] = {
        {"reference", &RoutingLib::detail::rebaseReference},
        {"today", &RoutingLib::detail::rebaseFast},
        {"scheduled", &RoutingLib::detail::rebaseScheduled}};
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
  benchmark::Shutdown();
  return 0;
}
