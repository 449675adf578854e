// The C++ side of bench/python_table_lookups.py: lookups of every key of a
// table of N unprogrammed-route errors (10.x.y.z/32 in VRF "default", the
// table PyTableWriter's "fill N" writes), in key order, through a reader in
// the same process as the writer:
//
//   ReaderLookup/N     Memtab::Reader<Error>::lookup, the C++ peer of the
//                      Python module's TableReader.lookup
//   GenericLookup/N    the same through the type-erased reader the module
//                      uses (keys and values as reflected handles): what the
//                      module costs before Python is involved
//
// The Python script runs this program and reports both against its own
// figures.
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Memtab/GenericReader.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"

namespace {

using Memtab::KernelUnprogrammedRoute::Error;
using Memtab::KernelUnprogrammedRoute::ErrorKey;

std::string fillPrefix(std::uint32_t i) {
  return "10." + std::to_string((i >> 16) & 255) + "." + std::to_string((i >> 8) & 255) + "." +
         std::to_string(i & 255) + "/32";
}

struct Fixture {
  explicit Fixture(std::uint32_t n) : name("lookuppeer" + std::to_string(getpid())), writer(name) {
    for (std::uint32_t i = 0; i < n; ++i) {
      ErrorKey k(L3::VrfName("default"), Velnet::IpGenPrefix(Cog::String(fillPrefix(i))));
      writer.insert(Error(i, k));
      keys.push_back(k);
    }
  }
  ~Fixture() { Memtab::unlinkTable(name); }
  std::string name;
  Memtab::Writer<Error> writer;
  std::vector<ErrorKey> keys;
};

void ReaderLookup(benchmark::State& state) {
  Fixture f(static_cast<std::uint32_t>(state.range(0)));
  Memtab::Reader<Error> reader(f.name);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader.lookup(f.keys[i]));
    if (++i == f.keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void GenericLookup(benchmark::State& state) {
  Fixture f(static_cast<std::uint32_t>(state.range(0)));
  auto reader = Memtab::openGenericReader(f.name);
  std::vector<Cog::Ptr<Cog::GenericIf>> keys;
  for (const auto& k : f.keys) keys.push_back(Cog::genericIfOf(k));
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(reader->lookup(keys[i]));
    if (++i == keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(ReaderLookup)->Arg(10000);
BENCHMARK(GenericLookup)->Arg(10000);

}  // namespace
