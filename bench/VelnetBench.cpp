// Text conversions of Velnet addresses next to the C library's:
//   - IPv6 parse: Ip6Addr's parser against inet_pton(AF_INET6);
//   - IPv6 print: valueToStrep(Ip6Addr) against inet_ntop(AF_INET6) into a
//     std::string;
//   - IPv4 parse: IpGenAddr's parser against inet_pton(AF_INET);
//   - IntfId name parse and print, for scale (no baseline).
// Inputs: 4096 random addresses with many zero groups (so "::" compression
// is exercised), fixed seed. Counter "vsLibc": time per item of the Velnet
// candidate over the C library's, measured in the same run (below 1 is
// faster). Baselines run first.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "Velnet/IntfId.h"
#include "Velnet/IpGenAddr.h"

namespace {

using Velnet::Ip6Addr;

constexpr std::size_t kItems = 4096;

double threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e9 + ts.tv_nsec;
}

const std::vector<Ip6Addr>& addrs() {
  static const std::vector<Ip6Addr> v = [] {
    std::mt19937 rng(42);
    std::vector<Ip6Addr> out;
    for (std::size_t i = 0; i < kItems; ++i) {
      std::uint32_t w[4];
      for (auto& x : w) {
        std::uint32_t hi = rng() % 3 ? rng() & 0xFFFF : 0;
        std::uint32_t lo = rng() % 3 ? rng() & 0xFFFF : 0;
        x = hi << 16 | lo;
      }
      out.emplace_back(w[0], w[1], w[2], w[3]);
    }
    return out;
  }();
  return v;
}

const std::vector<std::string>& texts6() {
  static const std::vector<std::string> v = [] {
    std::vector<std::string> out;
    for (const Ip6Addr& a : addrs()) out.push_back(valueToStrep(a).str());
    return out;
  }();
  return v;
}

const std::vector<std::string>& texts4() {
  static const std::vector<std::string> v = [] {
    std::mt19937 rng(43);
    std::vector<std::string> out;
    for (std::size_t i = 0; i < kItems; ++i) {
      out.push_back(valueToStrep(Velnet::IpGenAddr::ipv4(static_cast<std::uint32_t>(rng()))).str());
    }
    return out;
  }();
  return v;
}

// Runs `body` over all items per iteration; records ns per item and, for a
// candidate, its ratio to the baseline recorded in `baselineNs`.
template <typename Body>
void run(benchmark::State& state, double* baselineNs, bool isBaseline, Body body) {
  const double start = threadCpuNs();
  for (auto _ : state) body();
  const double ns = (threadCpuNs() - start) / (static_cast<double>(state.iterations()) * kItems);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kItems));
  if (isBaseline) {
    *baselineNs = ns;
  } else if (*baselineNs > 0) {
    state.counters["vsLibc"] = ns / *baselineNs;
  }
}

double parse6Ns = 0, print6Ns = 0, parse4Ns = 0;

void BM_Ip6Parse_inet_pton(benchmark::State& state) {
  run(state, &parse6Ns, true, [] {
    in6_addr a;
    for (const std::string& t : texts6()) {
      inet_pton(AF_INET6, t.c_str(), &a);
      benchmark::DoNotOptimize(a);
    }
  });
}
void BM_Ip6Parse_Velnet(benchmark::State& state) {
  run(state, &parse6Ns, false, [] {
    for (const std::string& t : texts6()) {
      auto it = t.cbegin();
      Ip6Addr a(it, t.cend());
      benchmark::DoNotOptimize(a);
    }
  });
}

void BM_Ip6Print_inet_ntop(benchmark::State& state) {
  run(state, &print6Ns, true, [] {
    char buf[INET6_ADDRSTRLEN];
    for (const Ip6Addr& a : addrs()) {
      inet_ntop(AF_INET6, a.bytes(), buf, sizeof buf);
      std::string s(buf);
      benchmark::DoNotOptimize(s);
    }
  });
}
void BM_Ip6Print_Velnet(benchmark::State& state) {
  run(state, &print6Ns, false, [] {
    for (const Ip6Addr& a : addrs()) {
      Cog::String s = valueToStrep(a);
      benchmark::DoNotOptimize(s);
    }
  });
}

void BM_Ip4Parse_inet_pton(benchmark::State& state) {
  run(state, &parse4Ns, true, [] {
    in_addr a;
    for (const std::string& t : texts4()) {
      inet_pton(AF_INET, t.c_str(), &a);
      benchmark::DoNotOptimize(a);
    }
  });
}
void BM_Ip4Parse_Velnet(benchmark::State& state) {
  run(state, &parse4Ns, false, [] {
    for (const std::string& t : texts4()) {
      auto it = t.cbegin();
      Velnet::IpGenAddr a(it, t.cend());
      benchmark::DoNotOptimize(a);
    }
  });
}

BENCHMARK(BM_Ip6Parse_inet_pton);
BENCHMARK(BM_Ip6Parse_Velnet);
BENCHMARK(BM_Ip6Print_inet_ntop);
BENCHMARK(BM_Ip6Print_Velnet);
BENCHMARK(BM_Ip4Parse_inet_pton);
BENCHMARK(BM_Ip4Parse_Velnet);

void BM_IntfIdNameRoundTrip(benchmark::State& state) {
  const std::vector<Velnet::IntfId> ids = {Velnet::IntfId::ethernet(3, 1), Velnet::IntfId::vlan(100),
                                           Velnet::IntfId::portChannel(12), Velnet::IntfId::loopback(0)};
  for (auto _ : state) {
    for (const auto& id : ids) {
      Cog::String name = id.name();
      auto it = name.begin();
      Velnet::IntfId back(it, name.end());
      benchmark::DoNotOptimize(back);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(ids.size()));
}
BENCHMARK(BM_IntfIdNameRoundTrip);

}  // namespace
