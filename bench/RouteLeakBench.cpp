// Leaked connected routes: 1M leaked routes (262,144 source prefixes, each
// leaked into 4 of 4,096 destination VRFs), written by one process into the
// shared table and followed by another.
//
//   Notify_Raw       keys per second the reader is told of (notification
//                    and a lookup per key), writer insert to last delivery
//   Notify_Machine   the same table and writer, with the reverse-index
//                    reactor handling every key in an agent's poll loop:
//                    writer insert -> callback -> index updated; vsRaw is
//                    its rate over Notify_Raw's, vsRawCpu the same from the
//                    reader's CPU time per key (readerCpuUsPerKey)
//   Heap_StdMap      heap bytes per index entry (source prefix) of a
//                    hand-written unordered_map<SourceVrfPrefix,
//                    unordered_set<uint32_t>> holding the same index
//   Heap_Machine     heap bytes per entry of the reactor's index
//                    (ConnectedRouteLeakLocalStatus), vsStdMap its ratio;
//                    previousBytesPerRoute: the reactor's private copy of
//                    every value it handled, in its local table
#include <malloc.h>
#include <sys/resource.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <ctime>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "Memtab/Segment.h"
#include "RoutingLib/ConnectedRouteLeakSourceVrfSm.h"

using namespace Routing;
using Vrf::VrfIdMap::VrfId;

template <>
struct std::hash<Routing::SourceVrfPrefix> {
  std::size_t operator()(const Routing::SourceVrfPrefix& k) const noexcept { return k.hash(); }
};

namespace {

constexpr std::uint32_t kDestVrfs = 4096;
constexpr std::uint32_t kPrefixes = 262144;
constexpr std::uint32_t kLeaksPerPrefix = 4;
constexpr std::uint32_t kRoutes = kPrefixes * kLeaksPerPrefix;  // 1,048,576

Velnet::IpGenPrefix prefixOf(std::uint32_t p) {
  return Velnet::IpGenPrefix(Velnet::IpGenAddr::ipv4(0x0A000000u | p << 6), 26);
}
VrfId sourceOf(std::uint32_t p) { return VrfId(5000 + p % 64); }

RouteLeakedToVrf route(std::uint32_t i) {
  const std::uint32_t p = i / kLeaksPerPrefix;
  const std::uint32_t d = (p * kLeaksPerPrefix + i % kLeaksPerPrefix) % kDestVrfs;
  return RouteLeakedToVrf(DestVrfPrefix(VrfId(d), prefixOf(p)), sourceOf(p));
}

// Written last: its delivery means every route before it was delivered.
const RouteLeakedToVrf kLast(DestVrfPrefix(VrfId(kDestVrfs), prefixOf(0)), sourceOf(0));

std::uint64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

// Allocated heap bytes, the large blocks malloc maps on its own included.
std::size_t heapInUse() {
  const auto m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

struct Shared {
  std::atomic<int> mounted{0};
  std::atomic<std::uint64_t> startNs{0};
  std::atomic<std::uint64_t> endNs{0};
  std::atomic<std::uint64_t> keys{0};
  std::atomic<std::uint64_t> readerCpuNs{0};
};

std::uint64_t processCpuNs() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  auto ns = [](const timeval& t) {
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000u + static_cast<std::uint64_t>(t.tv_usec) * 1000u;
  };
  return ns(u.ru_utime) + ns(u.ru_stime);
}

std::string tableName() { return "routeleakbench" + std::to_string(getpid()); }

// The raw reader: told of each key, it looks it up.
int rawReader(const std::string& name, Shared* shared) {
  auto status = connectedRouteLeakStatusFactory(Cog::Name("crlStatus"));
  struct Take : ConnectedRouteLeakStatus::NotifieeConst {
    ConnectedRouteLeakStatus* status;
    std::uint64_t keys = 0;
    bool last = false;
    void onLeakedRoute(const DestVrfPrefix& k) override {
      RouteLeakedToVrf v = status->leakedRoute(k);
      benchmark::DoNotOptimize(v);
      ++keys;
      last = last || k == kLast.destVrfPrefix();
    }
  };
  auto take = Cog::allocate<Take>();
  take->status = status.ptr();
  take->notifierIs(status);
  status->leakedRouteReaderIs(name);
  const std::uint64_t cpuStart = processCpuNs();
  while (!take->last) {
    pollfd p{status->leakedRouteFd(), POLLIN, 0};
    poll(&p, 1, 10);
    status->leakedRouteProcessNotifications();
    if (status->leakedRouteControl() == Memtab::MountStatus::mounted) shared->mounted = 1;
  }
  shared->endNs = nowNs();
  shared->readerCpuNs = processCpuNs() - cpuStart;
  shared->keys = take->keys;
  return 0;
}

// The agent: the reactor follows the table; a whole-table notification in a
// delivery is answered with a sweep.
int machineReader(const std::string& name, Shared* shared) {
  auto status = connectedRouteLeakStatusFactory(Cog::Name("crlStatus"));
  auto local = connectedRouteLeakLocalStatusFactory();
  auto sm = ConnectedRouteLeakSourceVrfSmIs(status, local);
  struct Agent : ConnectedRouteLeakStatus::NotifieeConst {
    ConnectedRouteLeakSourceVrfSm* sm;
    bool delivering = false;
    bool last = false;
    void onLeakedRoute() override {
      if (delivering) sm->handleLeakedRoute();
    }
    void onLeakedRoute(const DestVrfPrefix& k) override { last = last || k == kLast.destVrfPrefix(); }
  };
  auto agent = Cog::allocate<Agent>();
  agent->sm = sm.ptr();
  agent->notifierIs(status);
  status->leakedRouteReaderIs(name);
  const std::uint64_t cpuStart = processCpuNs();
  while (!agent->last) {
    pollfd p{status->leakedRouteFd(), POLLIN, 0};
    poll(&p, 1, 10);
    agent->delivering = true;
    status->leakedRouteProcessNotifications();
    agent->delivering = false;
    if (status->leakedRouteControl() == Memtab::MountStatus::mounted) shared->mounted = 1;
  }
  shared->endNs = nowNs();
  shared->readerCpuNs = processCpuNs() - cpuStart;
  std::uint64_t members = 0;
  for (const auto& [k, e] : local->leakedRouteBySourceVrf()) members += e->destVrfId().size();
  shared->keys = members;
  return 0;
}

double gRawRate = 0;
double gRawCpuUs = 0;
double gCpuUs = 0;

// Writer (this process) inserts every route at full speed while a reader
// process follows; keys per second from the first insert to the reader's
// last delivery.
double run(benchmark::State& state, int (*reader)(const std::string&, Shared*)) {
  const std::string name = tableName();
  Memtab::unlinkTable(name);
  auto* shared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (shared) Shared();
  double rate = 0;
  {
    Memtab::Options options;
    options.capacity = kRoutes + 1;
    auto status = connectedRouteLeakStatusFactory(Cog::Name("crlStatus"));
    status->leakedRouteWriterIs(name, options);
    pid_t child = fork();
    if (child == 0) _exit(reader(name, shared));
    while (shared->mounted == 0) usleep(1000);
    status->leakedRouteIs(route(0));  // takes the reader in
    shared->startNs = nowNs();
    for (std::uint32_t i = 1; i < kRoutes; ++i) status->leakedRouteIs(route(i));
    status->leakedRouteIs(kLast);
    waitpid(child, nullptr, 0);
    shm_unlink(("/activity." + std::to_string(child)).c_str());
    const double seconds = static_cast<double>(shared->endNs - shared->startNs) / 1e9;
    rate = kRoutes / seconds;
    state.SetIterationTime(seconds);
    state.counters["keysPerSecond"] = rate;
    state.counters["readerKeys"] = static_cast<double>(shared->keys.load());
    gCpuUs = static_cast<double>(shared->readerCpuNs.load()) / 1e3 / kRoutes;
    state.counters["readerCpuUsPerKey"] = gCpuUs;
  }
  Memtab::unlinkTable(name);
  munmap(shared, sizeof(Shared));
  return rate;
}

void Notify_Raw(benchmark::State& state) {
  for (auto _ : state) gRawRate = run(state, rawReader);
  gRawCpuUs = gCpuUs;
}

void Notify_Machine(benchmark::State& state) {
  double rate = 0;
  for (auto _ : state) rate = run(state, machineReader);
  if (gRawRate > 0) state.counters["vsRaw"] = rate / gRawRate;
  // The same ratio from the reader's own CPU time, which the load of other
  // processes on the machine disturbs less than the elapsed time.
  if (gRawCpuUs > 0) state.counters["vsRawCpu"] = gRawCpuUs / gCpuUs;
}

double gStdBytesPerEntry = 0;

void Heap_StdMap(benchmark::State& state) {
  for (auto _ : state) {
    const std::size_t before = heapInUse();
    auto* index = new std::unordered_map<SourceVrfPrefix, std::unordered_set<std::uint32_t>>();
    for (std::uint32_t i = 0; i < kRoutes; ++i) {
      const RouteLeakedToVrf r = route(i);
      (*index)[SourceVrfPrefix(r.sourceVrfId(), r.destVrfPrefix().prefix())].insert(
          r.destVrfPrefix().destVrfId().value());
    }
    gStdBytesPerEntry = static_cast<double>(heapInUse() - before) / static_cast<double>(index->size());
    state.counters["bytesPerEntry"] = gStdBytesPerEntry;
    state.counters["entries"] = static_cast<double>(index->size());
    delete index;
  }
}

void Heap_Machine(benchmark::State& state) {
  for (auto _ : state) {
    auto status = connectedRouteLeakStatusFactory(Cog::Name("crlStatus"));
    for (std::uint32_t i = 0; i < kRoutes; ++i) status->leakedRouteIs(route(i));
    const std::size_t before = heapInUse();
    auto local = connectedRouteLeakLocalStatusFactory();
    auto sm = ConnectedRouteLeakSourceVrfSmIs(status, local);
    const double entries = static_cast<double>(local->leakedRouteBySourceVrf().size());
    // The private copy lives in its local table's own memory, not on the
    // heap: reported apart, per leaked route.
    const double perEntry = static_cast<double>(heapInUse() - before) / entries;
    const auto* previous = dynamic_cast<const Memtab::detail::WritableTable<RouteLeakedToVrf>*>(
        &sm->prevCrlStatus()->leakedRoute());
    state.counters["bytesPerEntry"] = perEntry;
    if (previous != nullptr) {
      state.counters["previousBytesPerRoute"] = static_cast<double>(previous->usedBytes()) / kRoutes;
    }
    state.counters["entries"] = entries;
    if (gStdBytesPerEntry > 0) state.counters["vsStdMap"] = perEntry / gStdBytesPerEntry;
  }
}

}  // namespace

BENCHMARK(Notify_Raw)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Notify_Machine)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Heap_StdMap)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Heap_Machine)->Iterations(1)->Unit(benchmark::kMillisecond);
