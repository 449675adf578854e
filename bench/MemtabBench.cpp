// Shared-memory tables against an in-process std::unordered_map holding the
// same values: 1M entries of a 64-byte value keyed by a 64-bit id, random
// 64-bit ids, fixed seed.
//
//   Lookup/*         lookups of random present keys in one process
//   Lookup8Proc/*    the same in 8 forked processes at once (aggregate rate)
//   Upsert/*         overwrites of random present keys, one call each
//   Fill/*           inserts of 1M new keys from empty (growth included);
//                    Memtab also reports bytes per entry beyond the image
//   Notify/*         a writer process changing keys and a reader process
//                    taking per-key callbacks: throughput, and latency from
//                    the change to the callback (median, 99th percentile).
//                    Baseline: the keys written down a pipe. The writer
//                    never polls nor services its readers.
//   UpsertWithReader a writer overwriting random keys of a 1M-entry table
//                    (default 1 MiB ring, never polling) while a reader
//                    process takes a callback (and a lookup) per key:
//                    the writer's rate against Upsert/Memtab, and the share
//                    of changed keys the reader delivered one by one
//                    ("delivered", 1 = all) after the writer stopped.
//   CatchUp          a reader that fell behind 1M changed keys (every key
//                    of a 1M-entry table overwritten through a 64 KiB ring)
//                    delivers them, each with a lookup: seconds for the
//                    whole catch-up (elapsed and CPU), keys delivered, and
//                    the reader's shadow in bytes per key.
//
// Counter "vsBaseline": the candidate's rate over the baseline's (above 1 is
// faster), from the baseline run just before it.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

#include "Cog/Hash.h"
#include "Memtab/Table.h"

namespace {

constexpr std::size_t kEntries = 1000000;

struct Id {
  std::uint64_t v = 0;
  Cog::HashValue hash() const {
    Cog::Hash h;
    h.mix(v);
    return h.result();
  }
  bool operator==(const Id&) const = default;
};
struct IdHash {
  std::size_t operator()(std::uint64_t v) const { return Id{v}.hash(); }
};

struct Value {
  std::uint64_t id = 0;
  std::uint64_t seq = 0;  // the notification runs carry a timestamp here
  std::uint8_t payload[48] = {};

  Id key() const { return Id{id}; }
  std::size_t serializeLen() const { return 64; }
  void serialize(std::uint8_t* out) const {
    std::memcpy(out, &id, 8);
    std::memcpy(out + 8, &seq, 8);
    std::memcpy(out + 16, payload, 48);
  }
  static std::size_t deserializeLen(const std::uint8_t*, std::size_t avail) {
    return avail == 64 ? 64 : 0;
  }
  void deserialize(const std::uint8_t* in, std::size_t) {
    std::memcpy(&id, in, 8);
    std::memcpy(&seq, in + 8, 8);
    std::memcpy(payload, in + 16, 48);
  }
};

Value makeValue(std::uint64_t id, std::uint64_t seq) {
  Value v;
  v.id = id;
  v.seq = seq;
  for (int i = 0; i < 48; ++i) v.payload[i] = static_cast<std::uint8_t>(id + i);
  return v;
}

// CPU time of this thread: single-process rates must not depend on what
// else the machine runs.
double cpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

std::uint64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

const std::string& tableName() {
  static std::string name = "bench." + std::to_string(getpid());
  return name;
}

struct Data {
  std::vector<std::uint64_t> ids;     // the keys present
  std::vector<std::uint64_t> probes;  // ids in random order
  std::unordered_map<std::uint64_t, Value, IdHash> map;
  std::unique_ptr<Memtab::Writer<Value>> writer;

  Data() {
    std::mt19937_64 rng(42);
    ids.resize(kEntries);
    for (auto& id : ids) id = rng();
    probes = ids;
    std::shuffle(probes.begin(), probes.end(), rng);
    map.reserve(kEntries);
    Memtab::unlinkTable(tableName());
    writer = std::make_unique<Memtab::Writer<Value>>(tableName());
    for (auto id : ids) {
      Value v = makeValue(id, 0);
      map.emplace(id, v);
      writer->insert(v);
    }
    std::atexit([] { Memtab::unlinkTable(tableName()); });
  }
};

Data& data() {
  static Data d;
  return d;
}

double gBaselineRate = 0;

void recordRate(benchmark::State& state, double rate, bool baseline) {
  state.counters["perSecond"] = rate;
  if (baseline) {
    gBaselineRate = rate;
  } else if (gBaselineRate > 0) {
    state.counters["vsBaseline"] = rate / gBaselineRate;
  }
}

// ------------------------------------------------------------ lookups

template <class Find>
double lookupRate(benchmark::State& state, Find find) {
  const auto& probes = data().probes;
  std::uint64_t sum = 0, done = 0;
  const double start = cpuNs();
  for (auto _ : state) {
    for (std::size_t i = 0; i < probes.size(); ++i) sum += find(probes[i]);
    done += probes.size();
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(static_cast<std::int64_t>(done));
  return done * 1e9 / (cpuNs() - start);
}

void Lookup_UnorderedMap(benchmark::State& state) {
  auto& m = data().map;
  double rate = lookupRate(state, [&](std::uint64_t id) {
    Value v = m.find(id)->second;
    return v.seq + v.payload[0];
  });
  recordRate(state, rate, true);
}

void Lookup_Memtab(benchmark::State& state) {
  data();
  Memtab::Reader<Value> r(tableName());
  double rate = lookupRate(state, [&](std::uint64_t id) {
    Value v = r.lookup(Id{id});
    return v.seq + v.payload[0];
  });
  recordRate(state, rate, false);
}

struct Rates {
  double wall = 0;  // per second of elapsed time
  double cpu = 0;   // per second of the process's own CPU time
};

// Forks `procs` children that each run `body` for `seconds` once all have
// started; returns the sum of their rates.
template <class Body>
Rates acrossProcesses(int procs, double seconds, Body body) {
  int results[2], go[2];
  if (pipe(results) != 0 || pipe(go) != 0) return {};
  std::vector<pid_t> kids;
  for (int p = 0; p < procs; ++p) {
    pid_t pid = fork();
    if (pid == 0) {
      close(go[1]);
      char c;
      auto prepared = body(p);  // set up before the start signal
      if (read(go[0], &c, 1) < 0) _exit(1);  // end of file: go
      Rates rate = prepared(seconds);
      if (write(results[1], &rate, sizeof rate) != sizeof rate) _exit(1);
      _exit(0);
    }
    kids.push_back(pid);
  }
  close(go[0]);
  usleep(300000);  // children build their readers
  close(go[1]);    // everyone starts at once
  close(results[1]);
  Rates total;
  for (int p = 0; p < procs; ++p) {
    Rates rate;
    if (read(results[0], &rate, sizeof rate) == sizeof rate) {
      total.wall += rate.wall;
      total.cpu += rate.cpu;
    }
  }
  for (pid_t k : kids) {
    waitpid(k, nullptr, 0);
    shm_unlink(("/activity." + std::to_string(k)).c_str());
  }
  close(results[0]);
  return total;
}

template <class Find>
Rates timedLookups(double seconds, Find find) {
  const auto& probes = data().probes;
  std::uint64_t sum = 0, done = 0;
  const double cpuStart = cpuNs();
  const std::uint64_t start = nowNs(), until = start + static_cast<std::uint64_t>(seconds * 1e9);
  std::size_t i = 0;
  while (nowNs() < until) {
    for (int k = 0; k < 4096; ++k, ++i) {
      if (i == probes.size()) i = 0;
      sum += find(probes[i]);
    }
    done += 4096;
  }
  benchmark::DoNotOptimize(sum);
  return {done * 1e9 / static_cast<double>(nowNs() - start), done * 1e9 / (cpuNs() - cpuStart)};
}

void Lookup8Proc_UnorderedMap(benchmark::State& state) {
  data();
  for (auto _ : state) {
    Rates rate = acrossProcesses(8, 1.0, [](int) {
      return [](double s) {
        auto& m = data().map;
        return timedLookups(s, [&](std::uint64_t id) {
          Value v = m.find(id)->second;
          return v.seq + v.payload[0];
        });
      };
    });
    state.SetIterationTime(1.0);
    // Elapsed-time aggregate: bounded by the machine's cores, shared with
    // whatever else runs. perProcessCpu: the mean rate per CPU-second.
    state.counters["perProcessCpu"] = rate.cpu / 8;
    recordRate(state, rate.wall, true);
  }
}

void Lookup8Proc_Memtab(benchmark::State& state) {
  data();
  for (auto _ : state) {
    Rates rate = acrossProcesses(8, 1.0, [](int) {
      auto r = std::make_shared<Memtab::Reader<Value>>(tableName());
      return [r](double s) {
        return timedLookups(s, [&](std::uint64_t id) {
          Value v = r->lookup(Id{id});
          return v.seq + v.payload[0];
        });
      };
    });
    state.SetIterationTime(1.0);
    // Elapsed-time aggregate: bounded by the machine's cores, shared with
    // whatever else runs. perProcessCpu: the mean rate per CPU-second.
    state.counters["perProcessCpu"] = rate.cpu / 8;
    recordRate(state, rate.wall, false);
  }
}

// ------------------------------------------------------------ writes

template <class Put>
double upsertRate(benchmark::State& state, Put put) {
  const auto& probes = data().probes;
  std::uint64_t done = 0, seq = 1;
  const double start = cpuNs();
  for (auto _ : state) {
    for (std::size_t i = 0; i < probes.size(); ++i) put(makeValue(probes[i], seq++));
    done += probes.size();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(done));
  return done * 1e9 / (cpuNs() - start);
}

void Upsert_UnorderedMap(benchmark::State& state) {
  auto& m = data().map;
  recordRate(state, upsertRate(state, [&](const Value& v) { m.insert_or_assign(v.id, v); }), true);
}

void Upsert_Memtab(benchmark::State& state) {
  auto& w = *data().writer;
  recordRate(state, upsertRate(state, [&](const Value& v) { w.insert(v); }), false);
}

void Fill_UnorderedMap(benchmark::State& state) {
  const auto& ids = data().ids;
  double rate = 0;
  for (auto _ : state) {
    std::unordered_map<std::uint64_t, Value, IdHash> m;
    const double start = cpuNs();
    for (auto id : ids) m.insert_or_assign(id, makeValue(id, 1));
    rate = ids.size() * 1e9 / (cpuNs() - start);
    benchmark::DoNotOptimize(m.size());
  }
  recordRate(state, rate, true);
}

void Fill_Memtab(benchmark::State& state) {
  const auto& ids = data().ids;
  double rate = 0, beyondImage = 0, fileBytes = 0;
  for (auto _ : state) {
    std::string name = tableName() + ".fill";
    Memtab::unlinkTable(name);
    {
      Memtab::Options o;
      o.ringBytes = 1u << 20;
      Memtab::Writer<Value> w(name, o);
      const double start = cpuNs();
      for (auto id : ids) w.insert(makeValue(id, 1));
      rate = ids.size() * 1e9 / (cpuNs() - start);
      // Header and ring are per table, not per entry.
      beyondImage = (static_cast<double>(w.usedBytes()) - 256 - o.ringBytes) / ids.size() - 64;
      struct stat st;
      stat(("/dev/shm/memtab." + name).c_str(), &st);
      fileBytes = static_cast<double>(st.st_blocks) * 512 / ids.size() - 64;
    }
    Memtab::unlinkTable(name);
  }
  state.counters["bytesPerEntryBeyondImage"] = beyondImage;
  state.counters["fileBytesPerEntryBeyondImage"] = fileBytes;
  recordRate(state, rate, false);
}

// ------------------------------------------------------------ notifications

struct NotifyResult {
  double callbacksPerSecond = 0;
  double p50Us = 0;
  double p99Us = 0;
};

// Reader side, in a child: takes callbacks until it has seen `expect` keys
// (throughput) or `samples` timestamps (latency), via Memtab or a pipe.
// The parent writes. Returns what the child measured.
NotifyResult runNotify(bool viaPipe, bool latency, std::size_t count) {
  const std::string name = tableName() + ".notify";
  Memtab::unlinkTable(name);
  int keys[2], results[2], ready[2];
  if (pipe(keys) != 0 || pipe(results) != 0 || pipe(ready) != 0) return {};
  pid_t child = fork();
  if (child == 0) {
    close(keys[1]);
    NotifyResult out;
    std::vector<std::uint64_t> lat;
    lat.reserve(count);
    std::uint64_t first = 0, last = 0, seen = 0;
    auto took = [&](std::uint64_t stamp) {
      std::uint64_t t = nowNs();
      if (seen++ == 0) first = t;
      last = t;
      if (latency) lat.push_back(t - stamp);
    };
    char c = 'r';
    if (viaPipe) {
      if (write(ready[1], &c, 1) != 1) _exit(1);
      std::vector<std::uint64_t> buf(4096);
      while (seen < count) {
        ssize_t n = read(keys[0], buf.data(), buf.size() * 8);
        if (n <= 0) break;
        for (ssize_t i = 0; i < n / 16; ++i) took(buf[2 * i + 1]);
      }
    } else {
      Memtab::Reader<Value> r(name);
      struct Take : Memtab::Notifiee<Id> {
        Memtab::Reader<Value>* r;
        std::function<void(std::uint64_t)> took;
        void onKey(const Id& k) override { took(r->lookup(k).seq); }
      } take;
      take.r = &r;
      take.took = took;
      while (r.mountStatus() != Memtab::MountStatus::mounted) {
        pollfd p{r.fd(), POLLIN, 0};
        poll(&p, 1, 10);
        r.processNotifications(take);
      }
      seen = 0;
      if (write(ready[1], &c, 1) != 1) _exit(1);
      while (seen < count) {
        pollfd p{r.fd(), POLLIN, 0};
        if (poll(&p, 1, 2000) <= 0) break;
        r.processNotifications(take);
      }
    }
    out.callbacksPerSecond = seen > 1 ? (seen - 1) * 1e9 / static_cast<double>(last - first) : 0;
    if (!lat.empty()) {
      std::sort(lat.begin(), lat.end());
      out.p50Us = lat[lat.size() / 2] / 1e3;
      out.p99Us = lat[lat.size() * 99 / 100] / 1e3;
    }
    if (write(results[1], &out, sizeof out) != sizeof out) _exit(1);
    _exit(0);
  }
  close(keys[0]);
  std::unique_ptr<Memtab::Writer<Value>> w;
  if (!viaPipe) {
    Memtab::Options o;
    o.ringBytes = latency ? (1u << 20) : (64u << 20);  // room for the whole burst
    // Never polled: the reader is taken in by the first change.
    w = std::make_unique<Memtab::Writer<Value>>(name, o);
  }
  char c;
  if (read(ready[0], &c, 1) != 1) return {};
  usleep(20000);
  for (std::size_t i = 0; i < count; ++i) {
    if (latency) {
      // Spaced out, so that every change finds the reader asleep in poll().
      std::uint64_t until = nowNs() + 200000;
      while (nowNs() < until) {
      }
    }
    std::uint64_t key = i % kEntries;
    std::uint64_t stamp = nowNs();
    if (viaPipe) {
      std::uint64_t rec[2] = {key, stamp};
      if (write(keys[1], rec, sizeof rec) != sizeof rec) break;
    } else {
      w->insert(makeValue(key, stamp));
    }
  }
  NotifyResult out;
  if (read(results[0], &out, sizeof out) != sizeof out) out = {};
  waitpid(child, nullptr, 0);
  shm_unlink(("/activity." + std::to_string(child)).c_str());
  for (int fd : {keys[1], results[0], results[1], ready[0], ready[1]}) close(fd);
  w.reset();
  Memtab::unlinkTable(name);
  return out;
}

void NotifyThroughput(benchmark::State& state, bool viaPipe) {
  NotifyResult r;
  for (auto _ : state) {
    r = runNotify(viaPipe, false, 500000);
    state.SetIterationTime(1.0);
  }
  recordRate(state, r.callbacksPerSecond, viaPipe);
}
void Notify_Throughput_Pipe(benchmark::State& state) { NotifyThroughput(state, true); }
void Notify_Throughput_Memtab(benchmark::State& state) { NotifyThroughput(state, false); }

void NotifyLatency(benchmark::State& state, bool viaPipe) {
  NotifyResult r;
  for (auto _ : state) {
    r = runNotify(viaPipe, true, 5000);
    state.SetIterationTime(1.0);
  }
  state.counters["p50us"] = r.p50Us;
  state.counters["p99us"] = r.p99Us;
}
void Notify_Latency_Pipe(benchmark::State& state) { NotifyLatency(state, true); }
void Notify_Latency_Memtab(benchmark::State& state) { NotifyLatency(state, false); }

// ------------------------------------------------------------ lossless delivery

// Flags shared by the writer (parent) and the reader (child) below.
struct Shared {
  std::atomic<int> mounted{0};
  std::atomic<int> done{0};      // the writer has written its last change
  std::atomic<int> finished{0};  // the reader has taken in everything
  std::atomic<std::uint64_t> fellBehind{0};
  std::uint8_t changed[kEntries];    // set by the writer
  std::uint8_t delivered[kEntries];  // set by the reader
};

constexpr std::uint64_t kLastKey = std::uint64_t{1} << 40;

// The baseline of UpsertWithReader: the same writer with no reader.
void UpsertNoReader_Memtab(benchmark::State& state) {
  auto& w = *data().writer;
  recordRate(state, upsertRate(state, [&](const Value& v) { w.insert(v); }), true);
}

void UpsertWithReader(benchmark::State& state) {
  data();
  const std::string name = tableName() + ".upsert";
  Memtab::unlinkTable(name);
  auto* shared = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (shared) Shared();
  double rate = 0, share = 0;
  {
    Memtab::Writer<Value> w(name);  // default options: 1 MiB ring
    for (std::uint64_t id = 0; id < kEntries; ++id) w.insert(makeValue(id, 0));
    pid_t child = fork();
    if (child == 0) {
      Memtab::Reader<Value> r(name);
      struct Take : Memtab::Notifiee<Id> {
        Memtab::Reader<Value>* r;
        Shared* shared;
        bool last = false;
        void onKey(const Id& k) override {
          Value v = r->lookup(k);
          benchmark::DoNotOptimize(v);
          if (k.v < kEntries) shared->delivered[k.v] = 1;
          if (k.v == kLastKey) last = true;
        }
      } take;
      take.r = &r;
      take.shared = shared;
      for (;;) {
        pollfd p{r.fd(), POLLIN, 0};
        poll(&p, 1, 10);
        r.processNotifications(take);
        if (shared->mounted == 0 && r.mountStatus() == Memtab::MountStatus::mounted) shared->mounted = 1;
        pollfd again{r.fd(), POLLIN, 0};
        if (shared->done != 0 && take.last && poll(&again, 1, 0) == 0) break;
      }
      shared->fellBehind = Memtab::detail::Counters::counter("memtab." + name, "fellBehind").value();
      shared->finished = 1;
      _exit(0);
    }
    while (shared->mounted == 0) usleep(1000);
    w.insert(makeValue(kLastKey + 1, 0));  // takes the reader in
    const auto& probes = data().probes;
    std::mt19937_64 rng(7);
    std::uint64_t seq = 1;
    for (auto _ : state) {
      const double start = cpuNs();
      for (std::size_t i = 0; i < probes.size(); ++i) {
        const std::uint64_t id = rng() % kEntries;
        w.insert(makeValue(id, seq++));
        shared->changed[id] = 1;
      }
      rate = static_cast<double>(probes.size()) * 1e9 / (cpuNs() - start);
    }
    w.insert(makeValue(kLastKey, 1));
    shared->done = 1;
    waitpid(child, nullptr, 0);
    shm_unlink(("/activity." + std::to_string(child)).c_str());
    std::uint64_t changed = 0, delivered = 0;
    for (std::size_t i = 0; i < kEntries; ++i) {
      changed += shared->changed[i];
      delivered += shared->changed[i] & shared->delivered[i];
    }
    share = changed == 0 ? 0 : static_cast<double>(delivered) / static_cast<double>(changed);
    state.counters["changedKeys"] = static_cast<double>(changed);
    state.counters["fellBehind"] = static_cast<double>(shared->fellBehind.load());
  }
  Memtab::unlinkTable(name);
  munmap(shared, sizeof(Shared));
  state.counters["delivered"] = share;
  recordRate(state, rate, false);
}

void CatchUp(benchmark::State& state) {
  const std::string name = tableName() + ".catchup";
  Memtab::unlinkTable(name);
  Memtab::Options o;
  o.ringBytes = 64u << 10;
  Memtab::Writer<Value> w(name, o);
  for (std::uint64_t id = 0; id < kEntries; ++id) w.insert(makeValue(id, 0));
  struct Count : Memtab::Notifiee<Id> {
    Memtab::Reader<Value>* r;
    std::uint64_t keys = 0;
    void onKey(const Id& k) override {
      Value v = r->lookup(k);
      benchmark::DoNotOptimize(v);
      ++keys;
    }
  } count;
  Memtab::Reader<Value> r(name);
  count.r = &r;
  r.processNotifications(count);  // first mapping: the shadow is filled
  const double shadowBytes = static_cast<double>(r.shadowBytes()) / static_cast<double>(kEntries);
  double seconds = 0, cpuSeconds = 0;
  std::uint64_t seq = 1;
  for (auto _ : state) {
    for (std::uint64_t id = 0; id < kEntries; ++id) w.insert(makeValue(id, seq));
    ++seq;
    count.keys = 0;
    const std::uint64_t start = nowNs();
    const double cpuStart = cpuNs();
    r.processNotifications(count);
    cpuSeconds = (cpuNs() - cpuStart) / 1e9;
    seconds = static_cast<double>(nowNs() - start) / 1e9;
    state.SetIterationTime(seconds);
  }
  state.counters["seconds"] = seconds;
  state.counters["cpuSeconds"] = cpuSeconds;
  state.counters["keysDelivered"] = static_cast<double>(count.keys);
  state.counters["shadowBytesPerKey"] = shadowBytes;
  Memtab::unlinkTable(name);
}

BENCHMARK(Lookup_UnorderedMap)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(Lookup_Memtab)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(Lookup8Proc_UnorderedMap)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Lookup8Proc_Memtab)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Upsert_UnorderedMap)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(Upsert_Memtab)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(Fill_UnorderedMap)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Fill_Memtab)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(Notify_Throughput_Pipe)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Notify_Throughput_Memtab)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Notify_Latency_Pipe)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Notify_Latency_Memtab)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(UpsertNoReader_Memtab)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(UpsertWithReader)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(CatchUp)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
