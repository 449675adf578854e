// RouteList at 1M IPv4 routes against a plain std::unordered_map of the same
// keys: insert, lookup, delete, memory per route, and attribute-log
// resynchronisation (the whole list written to a log, and applied to a
// mirror).
//
// The baseline map holds what routeIs() is given for each key (its
// RouteType); the RouteList holds a Route entity per key, with its notifiee
// list and its next-hop collections. The difference is the price of the
// model: identity, notifications, mirroring. Each RouteList run reports
// "vsStd", its CPU time per route divided by that of the baseline run just
// before it, and "bytesPerRoute" (heap bytes per route, from the allocator's
// own accounting).
//
// The per-key benchmarks follow one Route with N vias through K random
// viaIs/viaDel changes made while its attribute-log adapter has no room (so
// every change becomes a per-key dirty mark), then the flow-out that sends
// the marked keys. The baseline does the least that job needs: a hash map of
// the vias, a std::unordered_set of the changed ones, and the same records
// written to an NboAttrLog::Out. "vsStd" is the per-change CPU time against
// the baseline run just before it.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Cog/NboAttrLogSa.h"
#include "RoutingLib/Routing.h"

namespace {

using Routing::RouteKey;
using Routing::RouteList;
using Routing::RouteType;

constexpr std::uint32_t kRoutes = 1u << 20;

struct KeyHash {
  std::size_t operator()(const RouteKey& k) const noexcept { return k.hash(); }
};
using StdMap = std::unordered_map<RouteKey, RouteType, KeyHash>;

// 1M distinct host routes 10.0.0.0/32 .. 10.15.255.255/32, preference 1.
const std::vector<RouteKey>& keys() {
  static const std::vector<RouteKey> ks = [] {
    std::vector<RouteKey> out;
    out.reserve(kRoutes);
    for (std::uint32_t i = 0; i < kRoutes; ++i) {
      out.emplace_back(Velnet::IpGenPrefix(Velnet::IpGenAddr::ipv4(0x0A000000u + i), 32),
                       Routing::RoutePreference());
    }
    return out;
  }();
  return ks;
}

// The same keys in a random order, for lookups and deletions.
const std::vector<RouteKey>& shuffled() {
  static const std::vector<RouteKey> ks = [] {
    std::vector<RouteKey> out = keys();
    std::shuffle(out.begin(), out.end(), std::mt19937(42));
    return out;
  }();
  return ks;
}

double threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

std::size_t heapInUse() { return mallinfo2().uordblks; }

RouteType typeOf(std::uint32_t i) { return i % 16 == 0 ? RouteType::drop : RouteType::forward; }

Cog::Ptr<RouteList> filledList() {
  auto list = Routing::routeListFactory("bench");
  const auto& ks = keys();
  for (std::uint32_t i = 0; i < kRoutes; ++i) list->routeIs(ks[i], typeOf(i));
  return list;
}

StdMap filledMap() {
  StdMap map;
  const auto& ks = keys();
  for (std::uint32_t i = 0; i < kRoutes; ++i) map.try_emplace(ks[i], typeOf(i));
  return map;
}

// CPU nanoseconds per route of the last baseline run of each kind.
double stdNs[5] = {};
enum Kind { kInsert, kLookup, kDelete, kResync, kApply };

void report(benchmark::State& state, Kind kind, bool baseline, double start) {
  const double ns =
      (threadCpuNs() - start) / (static_cast<double>(state.iterations()) * kRoutes);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRoutes));
  if (baseline) {
    stdNs[kind] = ns;
  } else if (stdNs[kind] > 0) {
    state.counters["vsStd"] = ns / stdNs[kind];
  }
}

void BM_Insert_Std(benchmark::State& state) {
  const auto& ks = keys();
  std::size_t bytes = 0;
  const double start = threadCpuNs();
  for (auto _ : state) {
    std::size_t before = heapInUse();
    StdMap map;
    for (std::uint32_t i = 0; i < kRoutes; ++i) map.try_emplace(ks[i], typeOf(i));
    bytes = heapInUse() - before;
    benchmark::DoNotOptimize(map);
  }
  report(state, kInsert, true, start);
  state.counters["bytesPerRoute"] = static_cast<double>(bytes) / kRoutes;
}

void BM_Insert_RouteList(benchmark::State& state) {
  const auto& ks = keys();
  std::size_t bytes = 0;
  const double start = threadCpuNs();
  for (auto _ : state) {
    std::size_t before = heapInUse();
    auto list = Routing::routeListFactory("bench");
    for (std::uint32_t i = 0; i < kRoutes; ++i) list->routeIs(ks[i], typeOf(i));
    bytes = heapInUse() - before;
    benchmark::DoNotOptimize(list);
  }
  report(state, kInsert, false, start);
  state.counters["bytesPerRoute"] = static_cast<double>(bytes) / kRoutes;
}

void BM_Lookup_Std(benchmark::State& state) {
  StdMap map = filledMap();
  const auto& ps = shuffled();
  const double start = threadCpuNs();
  for (auto _ : state) {
    std::size_t forward = 0;
    for (const RouteKey& k : ps) forward += map.find(k)->second == RouteType::forward;
    benchmark::DoNotOptimize(forward);
  }
  report(state, kLookup, true, start);
}

void BM_Lookup_RouteList(benchmark::State& state) {
  auto list = filledList();
  const auto& ps = shuffled();
  const double start = threadCpuNs();
  for (auto _ : state) {
    std::size_t forward = 0;
    for (const RouteKey& k : ps) forward += list->route(k)->routeType() == RouteType::forward;
    benchmark::DoNotOptimize(forward);
  }
  report(state, kLookup, false, start);
}

// Deletion in random order; the fill before each pass is not timed.
void BM_Delete_Std(benchmark::State& state) {
  const auto& ps = shuffled();
  double spent = 0;
  for (auto _ : state) {
    state.PauseTiming();
    StdMap map = filledMap();
    state.ResumeTiming();
    const double start = threadCpuNs();
    for (const RouteKey& k : ps) map.erase(k);
    spent += threadCpuNs() - start;
    benchmark::DoNotOptimize(map);
  }
  report(state, kDelete, true, threadCpuNs() - spent);
}

void BM_Delete_RouteList(benchmark::State& state) {
  const auto& ps = shuffled();
  double spent = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto list = filledList();
    state.ResumeTiming();
    const double start = threadCpuNs();
    for (const RouteKey& k : ps) list->routeDel(k);
    spent += threadCpuNs() - start;
    benchmark::DoNotOptimize(list);
  }
  report(state, kDelete, false, threadCpuNs() - spent);
}

// The baseline writes the same records a RouteList resync writes: a delAll
// record, then per route the attribute id, the keySet op, the key and the
// route type.
void writeMap(const StdMap& map, const Cog::Ptr<Cog::NboAttrLog::Out>& out) {
  out->putU32(258);
  out->putU8(static_cast<std::uint8_t>(Cog::AttrLogOp::delAll));
  for (const auto& [k, type] : map) {
    out->putU32(258);
    out->putU8(static_cast<std::uint8_t>(Cog::AttrLogOp::keySet));
    out << k;
    out->putU32(static_cast<std::uint32_t>(type));
  }
}

void BM_Resync_Std(benchmark::State& state) {
  StdMap map = filledMap();
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  const double start = threadCpuNs();
  for (auto _ : state) {
    out->clear();
    writeMap(map, out);
  }
  report(state, kResync, true, start);
  state.counters["logBytesPerRoute"] = static_cast<double>(out->size()) / kRoutes;
}

void BM_Resync_RouteList(benchmark::State& state) {
  auto list = filledList();
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = list->cogNboAttrLogSaIs(0, 0, out);
  sa->capacityIs(std::size_t{1} << 30);
  const double start = threadCpuNs();
  for (auto _ : state) {
    out->clear();
    if (!sa->resync()) state.SkipWithError("resync did not finish");
  }
  report(state, kResync, false, start);
  state.counters["logBytesPerRoute"] = static_cast<double>(out->size()) / kRoutes;
}

// Applying a full resync to a mirror that starts empty.
void BM_Apply_Std(benchmark::State& state) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  writeMap(filledMap(), out);
  const double start = threadCpuNs();
  for (auto _ : state) {
    Cog::NboAttrLog::In in(out->bytes());
    StdMap mirror;
    in.nextU32();
    in.nextU8();
    for (std::uint32_t i = 0; i < kRoutes; ++i) {
      in.nextU32();
      in.nextU8();
      RouteKey k(&in, Cog::StreamBogon{});
      mirror.try_emplace(k, static_cast<RouteType>(in.nextU32()));
    }
    benchmark::DoNotOptimize(mirror);
  }
  report(state, kApply, true, start);
}

void BM_Apply_RouteList(benchmark::State& state) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  {
    auto list = filledList();
    auto sa = list->cogNboAttrLogSaIs(0, 0, out);
    sa->capacityIs(std::size_t{1} << 30);
    sa->resync();
  }
  const double start = threadCpuNs();
  for (auto _ : state) {
    auto mirror = Routing::routeListFactory("mirror");
    auto sa = mirror->cogNboAttrLogSaIs(0, 0, Cog::allocate<Cog::NboAttrLog::Out>());
    sa->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
    if (mirror->route().size() != kRoutes) state.SkipWithError("mirror incomplete");
  }
  report(state, kApply, false, start);
}


// ---- per-key dirty marks

using Routing::Via;

constexpr std::uint32_t kChanges = 64;
constexpr Cog::AttributeId kViaId = 262;

struct ViaHash {
  std::size_t operator()(const Via& v) const noexcept { return v.hash(); }
};

Via benchVia(std::uint32_t i) {
  return Via(Velnet::IpGenAddr::ipv4(0x0B000000u + i), Velnet::IntfId(Cog::String("Ethernet1")),
             Velnet::MplsLabel(), i % 3, Velnet::IpGenAddr(), Velnet::EthAddr());
}

// A change: set `via` to `value`, or delete it.
struct Change {
  Via via;
  bool del;
  bool value;
};

// K changes among 2N vias (about half of them present at any time), the
// same sequence for both candidates.
std::vector<Change> changes(std::uint32_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<Change> out;
  for (std::uint32_t i = 0; i < kChanges; ++i) {
    std::uint32_t r = rng();
    out.push_back(Change{benchVia(r % (2 * n)), (r >> 16) % 3 == 0, ((r >> 20) & 1) != 0});
  }
  return out;
}

double perKeyStdNs[2] = {};

void reportPerKey(benchmark::State& state, bool baseline, double spent) {
  const double ns = spent / (static_cast<double>(state.iterations()) * kChanges);
  const int slot = state.range(0) > 8 ? 1 : 0;
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kChanges));
  state.counters["cpuNsPerChange"] = ns;
  if (baseline) {
    perKeyStdNs[slot] = ns;
  } else if (perKeyStdNs[slot] > 0) {
    state.counters["vsStd"] = ns / perKeyStdNs[slot];
  }
}

void BM_DirtyKeys_Std(benchmark::State& state) {
  const auto n = static_cast<std::uint32_t>(state.range(0));
  std::unordered_map<Via, bool, ViaHash> vias;
  for (std::uint32_t i = 0; i < n; ++i) vias.emplace(benchVia(2 * i), true);
  std::unordered_set<Via, ViaHash> dirty;
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  std::uint32_t round = 0;
  double spent = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::vector<Change> cs = changes(n, round++);
    out->clear();
    state.ResumeTiming();
    const double start = threadCpuNs();
    for (const Change& c : cs) {
      bool changed;
      if (c.del) {
        changed = vias.erase(c.via) != 0;
      } else {
        auto [it, inserted] = vias.try_emplace(c.via, c.value);
        changed = inserted || it->second != c.value;
        it->second = c.value;
      }
      if (changed) dirty.insert(c.via);
    }
    for (const Via& v : dirty) {
      auto it = vias.find(v);
      out->putU32(kViaId);
      if (it == vias.end()) {
        out->putU8(static_cast<std::uint8_t>(Cog::AttrLogOp::keyDel));
        out << v;
      } else {
        out->putU8(static_cast<std::uint8_t>(Cog::AttrLogOp::keySet));
        out << v;
        out->putU8(it->second);
      }
    }
    dirty.clear();
    spent += threadCpuNs() - start;
    benchmark::DoNotOptimize(out->size());
  }
  reportPerKey(state, true, spent);
}

void BM_DirtyKeys_Route(benchmark::State& state) {
  const auto n = static_cast<std::uint32_t>(state.range(0));
  auto list = Routing::routeListFactory("bench");
  auto route = list->routeIs(keys()[0], RouteType::forward);
  for (std::uint32_t i = 0; i < n; ++i) route->viaIs(benchVia(2 * i), true);
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = route->cogNboAttrLogSaIs(0, 0, out);
  std::uint32_t round = 0;
  double spent = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::vector<Change> cs = changes(n, round++);
    out->clear();
    sa->capacityIs(0);  // no room: every change waits as a dirty mark
    state.ResumeTiming();
    const double start = threadCpuNs();
    for (const Change& c : cs) {
      if (c.del) route->viaDel(c.via);
      else route->viaIs(c.via, c.value);
    }
    sa->capacityIs(std::size_t{1} << 30);
    sa->flowOutIs(true);
    spent += threadCpuNs() - start;
    if (sa->dirtyKeys(kViaId) != 0) state.SkipWithError("flow-out left marks");
  }
  reportPerKey(state, false, spent);
}

}  // namespace

// Baselines first: each RouteList run divides by the run before it.
BENCHMARK(BM_Insert_Std)->Name("BM_Insert1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Insert_RouteList)->Name("BM_Insert1M/RouteList")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup_Std)->Name("BM_Lookup1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup_RouteList)->Name("BM_Lookup1M/RouteList")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Delete_Std)->Name("BM_Delete1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Delete_RouteList)->Name("BM_Delete1M/RouteList")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resync_Std)->Name("BM_Resync1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Resync_RouteList)->Name("BM_Resync1M/RouteList")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Apply_Std)->Name("BM_Apply1M/std::unordered_map")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Apply_RouteList)->Name("BM_Apply1M/RouteList")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DirtyKeys_Std)->Name("BM_DirtyKeys/std::unordered_set")->Arg(8)->Arg(256);
BENCHMARK(BM_DirtyKeys_Route)->Name("BM_DirtyKeys/Route")->Arg(8)->Arg(256);
