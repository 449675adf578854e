// Costs of the framework's hot paths, each next to its baseline:
//   - Ptr copy with the thread-safe switch off (plain) and on (atomic);
//   - HashMap2018 insert and lookup at 1M keys against std::unordered_map
//     with the same keys and the same key hash (counter "vsStd": time of
//     HashMap2018 over time of std::unordered_map, below 1 is faster);
//   - a disabled COG_TRACE site against an empty loop body;
//   - a Tracelet record write.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Cog/HashMap2018.h"
#include "Cog/Ptr.h"
#include "Cog/Trace.h"
#include "Tracelet/Tracelet.h"

COG_TRACE_HANDLE("CogBench");

namespace {

// --- Ptr ------------------------------------------------------------------

struct Object : Cog::PtrInterface {
  int payload = 0;
};

void ptrCopy(benchmark::State& state, bool threadSafe) {
  const bool was = Cog::threadSafePtr();
  Cog::threadSafePtrIs(threadSafe);
  auto p = Cog::allocate<Object>();
  for (auto _ : state) {
    Cog::Ptr<Object> copy = p;
    benchmark::DoNotOptimize(copy);
  }
  Cog::threadSafePtrIs(was);
}
void BM_PtrCopyPlain(benchmark::State& state) { ptrCopy(state, false); }
void BM_PtrCopyAtomic(benchmark::State& state) { ptrCopy(state, true); }
BENCHMARK(BM_PtrCopyPlain);
BENCHMARK(BM_PtrCopyAtomic);

// --- HashMap2018 vs std::unordered_map ------------------------------------

struct Key {
  std::uint64_t v;
  Cog::HashValue hash() const {
    Cog::Hash h;
    h.mix(v);
    return h.result();
  }
  friend bool operator==(const Key&, const Key&) = default;
};

constexpr std::size_t kKeys = 1 << 20;

const std::vector<Key>& keys() {
  static const std::vector<Key> k = [] {
    std::mt19937_64 rng(42);
    std::vector<Key> out(kKeys);
    for (auto& key : out) key.v = rng();
    return out;
  }();
  return k;
}

// Probe order differs from insertion order, as in real lookups.
const std::vector<Key>& probes() {
  static const std::vector<Key> p = [] {
    std::vector<Key> out = keys();
    std::shuffle(out.begin(), out.end(), std::mt19937_64(7));
    return out;
  }();
  return p;
}

using StdMap = std::unordered_map<Key, std::uint32_t, Cog::KeyHash<Key>>;
using CogMap = Cog::HashMap2018<Key, std::uint32_t>;

// CPU time of this thread: the ratio must not depend on what else the
// machine runs.
double threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// CPU nanoseconds per key of the last std::unordered_map run of each kind, for
// the ratio reported by the HashMap2018 run that follows it.
double stdInsertNs = 0;
double stdLookupNs = 0;

template <typename Map>
void insertInto(Map& map, const Key& key, std::uint32_t value) {
  if constexpr (std::is_same_v<Map, CogMap>) {
    map.insert(key, value);
  } else {
    map.try_emplace(key, value);
  }
}

template <typename Map>
bool lookup(const Map& map, const Key& key) {
  if constexpr (std::is_same_v<Map, CogMap>) {
    return map.find(key) != nullptr;
  } else {
    return map.find(key) != map.end();
  }
}

template <typename Map>
void mapInsert(benchmark::State& state) {
  const auto& ks = keys();
  const double start = threadCpuNs();
  for (auto _ : state) {
    Map map;
    for (std::uint32_t i = 0; i < kKeys; ++i) insertInto(map, ks[i], i);
    benchmark::DoNotOptimize(map);
  }
  const double ns = (threadCpuNs() - start) / (static_cast<double>(state.iterations()) * kKeys);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kKeys));
  if constexpr (std::is_same_v<Map, StdMap>) {
    stdInsertNs = ns;
  } else if (stdInsertNs > 0) {
    state.counters["vsStd"] = ns / stdInsertNs;
  }
}

template <typename Map>
void mapLookup(benchmark::State& state) {
  Map map;
  for (std::uint32_t i = 0; i < kKeys; ++i) insertInto(map, keys()[i], i);
  const auto& ps = probes();
  const double start = threadCpuNs();
  for (auto _ : state) {
    std::size_t found = 0;
    for (const Key& k : ps) found += lookup(map, k);
    benchmark::DoNotOptimize(found);
  }
  const double ns = (threadCpuNs() - start) / (static_cast<double>(state.iterations()) * kKeys);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kKeys));
  if constexpr (std::is_same_v<Map, StdMap>) {
    stdLookupNs = ns;
  } else if (stdLookupNs > 0) {
    state.counters["vsStd"] = ns / stdLookupNs;
  }
}

// Baselines first: each HashMap2018 run divides by the run before it.
BENCHMARK(mapInsert<StdMap>)->Name("BM_Insert1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(mapInsert<CogMap>)->Name("BM_Insert1M/HashMap2018")->Unit(benchmark::kMillisecond);
BENCHMARK(mapLookup<StdMap>)->Name("BM_Lookup1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(mapLookup<CogMap>)->Name("BM_Lookup1M/HashMap2018")->Unit(benchmark::kMillisecond);

// --- tracing --------------------------------------------------------------

void BM_EmptyLoopBody(benchmark::State& state) {
  int x = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(x);
  }
}
void BM_DisabledCogTrace(benchmark::State& state) {
  Cog::Trace::levelIs("CogBench", Cog::Trace::kOff);
  int x = 0;
  for (auto _ : state) {
    COG_TRACE(8, "handleRoute key:" << x);
    benchmark::DoNotOptimize(x);
  }
}
BENCHMARK(BM_EmptyLoopBody);
BENCHMARK(BM_DisabledCogTrace);

void BM_TraceletWrite(benchmark::State& state) {
  Tracelet::Ring ring(1 << 20);
  std::string prefix = "10.1.2.0/24";
  std::string vrf = "red";
  std::uint32_t n = 0;
  for (auto _ : state) {
    TRACELET(ring, "leaked %s into %s (%u)", prefix, vrf, n++);
  }
  benchmark::DoNotOptimize(ring.written());
}
BENCHMARK(BM_TraceletWrite);

}  // namespace
