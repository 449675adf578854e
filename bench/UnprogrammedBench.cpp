// Unprogrammed-route tracking at scale: 1M failed routes over 4,096 VRFs,
// every fourth one IPv6, recorded by a kernel-side UnprogrammedRoute writer
// and followed by a status-side reader running both machines (counter and
// splitter). One run, fixed workload, each case once over fresh tables.
//
//   Record/Lmdb      baseline: the same Error / Error6 images put one by one
//                    into LMDB (MDB_NOSYNC | MDB_WRITEMAP), a transaction
//                    per put, keyed by the ErrorKey image
//   Record/Memtab/0  errorIs / error6Is into the shared tables, from empty;
//   Record/Memtab/1  the same into tables sized for 1M entries up front;
//                    both with the default options (change ring on);
//                    "vsBaseline" is its rate over Record/Lmdb, and
//                    "bytesBeyondImage" the segment bytes per failed route
//                    beyond the route's image
//   Notify/Raw       baseline: a reader delivering the 1M changed keys to
//                    a notifiee that does nothing
//   Notify/Machines  the same keys delivered to both machines through the
//                    status entity; "vsBaseline" is its rate over Notify/Raw
//
// "vsBaseline" compares elapsed time, "vsBaselineCpu" the thread's CPU time
// (the steadier figure on a loaded machine).
//
// The readers are attached before the writes, which overflow the change
// ring: delivery is the catch-up path (table against what was delivered),
// the one a busy status agent takes.
#include <lmdb.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Memtab/Segment.h"
#include "RoutingLib/KernelUnprogrammedRouteSplitterSm.h"

using namespace Memtab::KernelUnprogrammedRoute;

namespace {

constexpr std::uint32_t kRoutes = 1000000;
constexpr std::uint32_t kVrfs = 4096;

struct Workload {
  std::vector<Error> v4;
  std::vector<Error6> v6;
  std::vector<bool> isV6;  // in recording order
  std::uint64_t imageBytes = 0;
  Workload() {
    for (std::uint32_t i = 0; i < kRoutes; ++i) {
      // Four routes in a row share a VRF, so every VRF has both families.
      const L3::VrfName vrf(Cog::String("vrf" + std::to_string((i / 4) % kVrfs)));
      if (i % 4 == 3) {
        char p[64];
        std::snprintf(p, sizeof p, "2001:db8:%x:%x::/64", i >> 16, i & 0xFFFF);
        v6.emplace_back(i % 50, Velnet::IntfId(1, i % 64), ErrorKey(vrf, Velnet::IpGenPrefix(Cog::String(p))));
        imageBytes += v6.back().serializeLen();
      } else {
        char p[64];
        std::snprintf(p, sizeof p, "10.%u.%u.%u/32", (i >> 16) & 0xFF, (i >> 8) & 0xFF, i & 0xFF);
        v4.emplace_back(i % 50, ErrorKey(vrf, Velnet::IpGenPrefix(Cog::String(p))));
        imageBytes += v4.back().serializeLen();
      }
      isV6.push_back(i % 4 == 3);
    }
  }
};

const Workload& workload() {
  static const Workload w;
  return w;
}

struct Names {
  std::string n4 = "unprogbench.error." + std::to_string(getpid());
  std::string n6 = "unprogbench.error6." + std::to_string(getpid());
  Names() { clear(); }
  ~Names() { clear(); }
  void clear() {
    Memtab::unlinkTable(n4);
    Memtab::unlinkTable(n6);
  }
};

void record(UnprogrammedRoute& kernel, const Workload& w) {
  std::size_t a = 0, b = 0;
  for (bool v6 : w.isV6) {
    if (v6) {
      kernel.error6Is(w.v6[b++]);
    } else {
      kernel.errorIs(w.v4[a++]);
    }
  }
}

// Seconds spent in the timed parts, for the ratios between cases.
// Both elapsed and this thread's CPU time: on a shared machine the CPU
// ratio is the steadier one.
double threadCpu() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Stopwatch {
  std::chrono::steady_clock::time_point start;
  double cpuStart = 0;
  double seconds = 0;
  double cpu = 0;
  void go() {
    start = std::chrono::steady_clock::now();
    cpuStart = threadCpu();
  }
  void stop() {
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    cpu += threadCpu() - cpuStart;
  }
};

struct Rate {
  double wall = 0;
  double cpu = 0;
};

void ratios(benchmark::State& state, double items, const Stopwatch& sw, const Rate& base) {
  state.counters["vsBaseline"] = items / sw.seconds / base.wall;
  state.counters["vsBaselineCpu"] = items / sw.cpu / base.cpu;
}

Rate gRecordBaseline;
Rate gNotifyBaseline;

void recordLmdb(benchmark::State& state) {
  const Workload& w = workload();
  bool failed = false;
  Stopwatch sw;
  for (auto _ : state) {
    state.PauseTiming();
    char dir[] = "/tmp/unprogbench.XXXXXX";
    if (mkdtemp(dir) == nullptr) std::abort();
    MDB_env* env = nullptr;
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, std::size_t{1} << 30);
    if (mdb_env_open(env, dir, MDB_NOSYNC | MDB_WRITEMAP, 0600) != 0) std::abort();
    MDB_dbi dbi;
    MDB_txn* txn;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, 0, &dbi);
    mdb_txn_commit(txn);
    std::uint8_t image[Error6::imageSize];
    state.ResumeTiming();
    sw.go();
    std::size_t a = 0, b = 0;
    for (bool v6 : w.isV6) {
      std::size_t len, keyAt;
      if (v6) {
        const Error6& e = w.v6[b++];
        e.serialize(image);
        len = e.serializeLen();
        keyAt = 12;
      } else {
        const Error& e = w.v4[a++];
        e.serialize(image);
        len = e.serializeLen();
        keyAt = 4;
      }
      MDB_val k{len - keyAt - 3, image + keyAt};
      MDB_val v{len, image};
      mdb_txn_begin(env, nullptr, 0, &txn);
      if (mdb_put(txn, dbi, &k, &v, 0) != 0) failed = true;
      mdb_txn_commit(txn);
    }
    sw.stop();
    state.PauseTiming();
    mdb_env_close(env);
    std::system((std::string("rm -rf ") + dir).c_str());
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRoutes);
  gRecordBaseline = {static_cast<double>(state.iterations()) * kRoutes / sw.seconds,
                     static_cast<double>(state.iterations()) * kRoutes / sw.cpu};
  if (failed) state.SkipWithError("mdb_put failed");
}

// state.range(0): 1 to size the tables for the workload up front.
void recordMemtab(benchmark::State& state) {
  const Workload& w = workload();
  const bool presized = state.range(0) != 0;
  double bytesBeyond = 0;
  Stopwatch sw;
  for (auto _ : state) {
    state.PauseTiming();
    Names names;
    // Default options, change ring included, as an agent runs the table.
    Memtab::Options o;
    Memtab::Options o6 = o;
    if (presized) {
      o.capacity = w.v4.size();
      o6.capacity = w.v6.size();
    }
    auto kernel = unprogrammedRouteFactory(Cog::Name("kernel"));
    kernel->errorWriterIs(names.n4, o);
    kernel->error6WriterIs(names.n6, o6);
    state.ResumeTiming();
    sw.go();
    record(*kernel, w);
    sw.stop();
    state.PauseTiming();
    const auto& t4 = dynamic_cast<const Memtab::Writer<Error>&>(kernel->error());
    const auto& t6 = dynamic_cast<const Memtab::Writer<Error6>&>(kernel->error6());
    const double used = static_cast<double>(t4.usedBytes() + t6.usedBytes());
    bytesBeyond = (used - static_cast<double>(w.imageBytes)) / kRoutes;
    kernel = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRoutes);
  state.counters["bytesBeyondImage"] = bytesBeyond;
  ratios(state, static_cast<double>(state.iterations()) * kRoutes, sw, gRecordBaseline);
}

struct NullNotifiee : Memtab::Notifiee<ErrorKey> {
  std::uint64_t keys = 0;
  void onKey(const ErrorKey&) override { ++keys; }
};

void notifyRaw(benchmark::State& state) {
  const Workload& w = workload();
  std::uint64_t keys = 0;
  Stopwatch sw;
  for (auto _ : state) {
    state.PauseTiming();
    Names names;
    auto kernel = unprogrammedRouteFactory(Cog::Name("kernel"));
    kernel->errorWriterIs(names.n4);
    kernel->error6WriterIs(names.n6);
    Memtab::Reader<Error> r4(names.n4);
    Memtab::Reader<Error6> r6(names.n6);
    NullNotifiee n;
    r4.processNotifications(n);
    r6.processNotifications(n);
    record(*kernel, w);
    n.keys = 0;
    state.ResumeTiming();
    sw.go();
    r4.processNotifications(n);
    r6.processNotifications(n);
    sw.stop();
    state.PauseTiming();
    keys = n.keys;
    kernel = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * keys));
  state.counters["keys"] = static_cast<double>(keys);
  gNotifyBaseline = {static_cast<double>(state.iterations() * keys) / sw.seconds,
                     static_cast<double>(state.iterations() * keys) / sw.cpu};
}

void notifyMachines(benchmark::State& state) {
  const Workload& w = workload();
  bool missed = false;
  std::uint64_t keys = 0;
  Stopwatch sw;
  for (auto _ : state) {
    state.PauseTiming();
    Names names;
    auto kernel = unprogrammedRouteFactory(Cog::Name("kernel"));
    kernel->errorWriterIs(names.n4);
    kernel->error6WriterIs(names.n6);
    auto status = unprogrammedRouteFactory(Cog::Name("status"));
    status->errorReaderIs(names.n4);
    status->error6ReaderIs(names.n6);
    status->errorProcessNotifications();
    status->error6ProcessNotifications();
    auto counts = unprogrammedRouteCountByVrfFactory();
    auto sets = unprogrammedRouteByVrfFactory();
    auto counter = KernelUnprogrammedRouteCounterSmIs(status, counts);
    auto splitter = KernelUnprogrammedRouteSplitterSmIs(status, sets);
    record(*kernel, w);
    const std::uint64_t before = counter->cogFwkActivity();
    state.ResumeTiming();
    sw.go();
    status->errorProcessNotifications();
    status->error6ProcessNotifications();
    sw.stop();
    state.PauseTiming();
    keys = counter->cogFwkActivity() - before;
    missed = sets->error4KeySet().size() + sets->error6KeySet().size() != 2 * kVrfs;
    counter = nullptr;
    splitter = nullptr;
    status = nullptr;
    kernel = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * keys));
  state.counters["keys"] = static_cast<double>(keys);
  ratios(state, static_cast<double>(state.iterations() * keys), sw, gNotifyBaseline);
  if (missed) state.SkipWithError("the splitter missed VRFs");
}

}  // namespace

BENCHMARK(recordLmdb)->Name("Record/Lmdb")->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(recordMemtab)->Name("Record/Memtab")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(notifyRaw)->Name("Notify/Raw")->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(notifyMachines)->Name("Notify/Machines")->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();
