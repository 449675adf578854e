// FecId against a hand-written struct doing the same work, side by side:
//   - hash (one-at-a-time over the 8 bytes),
//   - compare (operator< and ==, as a sort and as a hash-map probe would),
//   - attribute-log round trip (write to an Out, read back from an In).
// Each benchmark runs both candidates alternately and reports "vsHand", the
// generated code's time over the hand-written one's; about 1 means generated
// code costs nothing.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

#include "RoutingLib/FecBasicTypes.h"

namespace {

// What one would write by hand: a struct of one 64-bit value.
struct HandFecId {
  std::uint64_t value = 0;
  std::uint32_t hash() const { return Cog::oneAtATimeHash(&value, sizeof value); }
  bool operator<(const HandFecId& o) const { return value < o.value; }
  bool operator==(const HandFecId& o) const { return value == o.value; }
};

void put(const Cog::Ptr<Cog::NboAttrLog::Out>& out, const HandFecId& f) { out->putU64(f.value); }
HandFecId next(Cog::NboAttrLog::In* in) { return HandFecId{in->nextU64()}; }

constexpr std::size_t kValues = 4096;

std::vector<std::uint64_t> values() {
  std::mt19937_64 rng(7);
  std::vector<std::uint64_t> v(kValues);
  for (auto& x : v) x = (rng() % 21) << 56 | (rng() & ((std::uint64_t{1} << 56) - 1));
  return v;
}

template <typename T>
std::vector<T> make() {
  std::vector<T> out;
  for (std::uint64_t v : values()) out.push_back(T{v});
  return out;
}

// Runs the hand-written and the generated candidate alternately in every
// iteration, each over the same 4096 values, timing each pass: both see the
// same machine state, so their ratio is stable on a busy machine. Counters:
// handNs and fecIdNs per value, vsHand = fecIdNs / handNs.
template <typename HandPass, typename GenPass>
void sideBySide(benchmark::State& state, HandPass hand, GenPass gen) {
  using Clock = std::chrono::steady_clock;
  Clock::duration handTime{}, genTime{};
  for (auto _ : state) {
    auto t0 = Clock::now();
    hand();
    auto t1 = Clock::now();
    gen();
    auto t2 = Clock::now();
    handTime += t1 - t0;
    genTime += t2 - t1;
  }
  double n = double(state.iterations()) * kValues;
  double handNs = std::chrono::duration<double, std::nano>(handTime).count() / n;
  double genNs = std::chrono::duration<double, std::nano>(genTime).count() / n;
  state.counters["handNs"] = handNs;
  state.counters["fecIdNs"] = genNs;
  state.counters["vsHand"] = genNs / handNs;
}

template <typename T>
void hashPass(const std::vector<T>& xs) {
  std::uint32_t acc = 0;
  for (const T& x : xs) acc += x.hash();
  benchmark::DoNotOptimize(acc);
}

template <typename T>
void comparePass(const std::vector<T>& xs) {
  unsigned less = 0, equal = 0;
  for (std::size_t i = 1; i < xs.size(); ++i) {
    less += xs[i - 1] < xs[i];
    equal += xs[i - 1] == xs[i];
  }
  benchmark::DoNotOptimize(less);
  benchmark::DoNotOptimize(equal);
}

template <typename T, typename Put, typename Next>
void roundTripPass(const Cog::Ptr<Cog::NboAttrLog::Out>& out, const std::vector<T>& xs, Put putFn,
                   Next nextFn) {
  out->clear();
  for (const T& x : xs) putFn(out, x);
  Cog::NboAttrLog::In in(out->bytes());
  std::uint64_t acc = 0;
  for (std::size_t i = 0; i < xs.size(); ++i) acc += (nextFn(&in) == xs[i]);
  benchmark::DoNotOptimize(acc);
}

using Memtab::Fib::FecId;

void BM_Hash(benchmark::State& state) {
  auto hand = make<HandFecId>();
  auto gen = make<FecId>();
  sideBySide(state, [&] { hashPass(hand); }, [&] { hashPass(gen); });
}

void BM_Compare(benchmark::State& state) {
  auto hand = make<HandFecId>();
  auto gen = make<FecId>();
  sideBySide(state, [&] { comparePass(hand); }, [&] { comparePass(gen); });
}

void BM_AttrLogRoundTrip(benchmark::State& state) {
  auto hand = make<HandFecId>();
  auto gen = make<FecId>();
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  sideBySide(
      state, [&] { roundTripPass(out, hand, put, next); },
      [&] {
        roundTripPass(
            out, gen, [](const Cog::Ptr<Cog::NboAttrLog::Out>& o, const FecId& f) { o << f; },
            [](Cog::NboAttrLog::In* in) { return FecId(in, Cog::StreamBogon{}); });
      });
}

BENCHMARK(BM_Hash);
BENCHMARK(BM_Compare);
BENCHMARK(BM_AttrLogRoundTrip);

}  // namespace
