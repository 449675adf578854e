// A reader stopped at arbitrary points while the writer makes whole
// changes, which is how a slow or loaded machine interleaves them. The
// reader's mapping of the segment is made inaccessible, so every load it
// makes from the segment traps; the trap handler lets the writer (in the
// same thread, through its own mapping) make a change now and then, and
// then lets the one load through by single-stepping it. Every read must
// still be of one consistent state.
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "TestValues.h"
#include "support/Emulation.h"

namespace {

using namespace MemtabTest;

// Keys below kStable are only ever overwritten; the others come and go, so
// that buckets keep moving under the reader.
constexpr std::uint64_t kStable = 100;
constexpr std::uint64_t kChurn = 100;

struct Interleaver {
  std::uint8_t* base = nullptr;  // the reader's mapping
  std::size_t bytes = 0;
  Memtab::Writer<Record>* writer = nullptr;
  std::mt19937_64 rng{7};
  std::uint64_t changes = 0;
  // One change in `every` traps: often enough to hit every window, rarely
  // enough that a reader's pass still gets through now and then.
  unsigned every = 6;

  // A change aimed at bucket `q`, which the reader is about to read or has
  // just read: remove a churn key sitting next to it, or add one whose home
  // is next to it, so that the buckets around it move.
  void changeNear(std::uint32_t q, const Memtab::Shm::IndexWord& ix) {
    using namespace Memtab::Shm;
    const std::uint32_t lo = q >= 2 ? q - 2 : 0;
    const std::uint32_t hi = std::min(q + 2, ix.totalBuckets());
    if (rng() % 2 == 0) {
      // Nearest first: removing the entry in `q` itself pulls the next one in.
      for (std::uint32_t pos : {q, q + 1, q - 1, q - 2}) {
        if (pos < lo || pos >= hi) continue;
        const std::uint64_t w = wordAt(base, ix.offset + bucketOffset(pos)).load();
        if (w == 0 || bucketRecord(w) + kRecordHeader + 8 > bytes) continue;
        std::uint64_t id = 0;
        std::memcpy(&id, base + bucketRecord(w) + kRecordHeader, 8);
        if (id >= kStable && id < kStable + kChurn) {
          writer->del(Id{id});
          ++changes;
          return;
        }
      }
    }
    for (std::uint64_t id = kStable; id < kStable + kChurn; ++id) {
      const std::uint32_t home = homeOf(Memtab::detail::hashOf<Record>(Id{id}), ix.homeBuckets());
      if (home >= lo && home <= q && writer->insert(Record(id, ++changes))) return;
    }
  }

  void change() {
    const std::uint64_t x = rng();
    if (x % 3 == 0) {
      writer->insert(Record(rng() % kStable, ++changes));
    } else if (x % 3 == 1) {
      writer->insert(Record(kStable + rng() % kChurn, ++changes));
    } else {
      writer->del(Id{kStable + rng() % kChurn});
      ++changes;
    }
  }
};
Interleaver* gInterleaver = nullptr;

#if defined(__x86_64__) || defined(__i386__)
constexpr unsigned long kTrapFlag = 0x100;

void onFault(int, siginfo_t* info, void* context) {
  Interleaver& il = *gInterleaver;
  auto* at = static_cast<std::uint8_t*>(info->si_addr);
  if (at < il.base || at >= il.base + il.bytes) {
    signal(SIGSEGV, SIG_DFL);  // a real fault: let it happen
    return;
  }
  mprotect(il.base, il.bytes, PROT_READ);
  if (il.rng() % il.every == 0) {
    using namespace Memtab::Shm;
    const auto ix = IndexWord::decode(reinterpret_cast<Header*>(il.base)->index.load());
    const auto rel = static_cast<std::uint64_t>(at - il.base) - ix.offset;
    if (at - il.base >= static_cast<std::ptrdiff_t>(ix.offset) && rel < ix.bytes()) {
      const auto block = static_cast<std::uint32_t>(rel / kBlockBytes);
      const auto inBlock = static_cast<std::uint32_t>(rel % kBlockBytes);
      std::uint32_t q = block * kBucketsPerBlock + (inBlock < 8 ? 0 : (inBlock - 8) / 8);
      if (inBlock < 8) {
        // A block's sequence word: aim at the first entry the reader reads
        // in that block.
        while (q + 1 < (block + 1) * kBucketsPerBlock &&
               wordAt(il.base, ix.offset + bucketOffset(q)).load() == 0) {
          ++q;
        }
      }
      il.changeNear(q, ix);
    } else {
      il.change();
    }
  }
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
}

void onStep(int, siginfo_t*, void* context) {
  static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
  mprotect(gInterleaver->base, gInterleaver->bytes, PROT_NONE);
}
#endif

// The read-only shared mapping of `path` in this process.
bool findMapping(const std::string& path, std::uint8_t** base, std::size_t* bytes) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.size() < path.size() || line.compare(line.size() - path.size(), path.size(), path) != 0 ||
        line.find(" r--s ") == std::string::npos) {
      continue;
    }
    unsigned long long from = 0, to = 0;
    if (std::sscanf(line.c_str(), "%llx-%llx", &from, &to) != 2) return false;
    *base = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(from));
    *bytes = static_cast<std::size_t>(to - from);
    return true;
  }
  return false;
}

TEST(MemtabPreemption, AReaderStoppedBeforeAnyLoadNeverMissesAKeyOrSeesATornValue) {
#if !defined(__x86_64__) && !defined(__i386__)
  GTEST_SKIP() << "single-stepping is set up for x86 only";
#else
  if (!testsupport::emulator().empty()) {
    GTEST_SKIP() << "single-stepping a trapped load needs a real CPU; this run is under "
                 << testsupport::emulator();
  }
  TableName name("preempt");
  Memtab::Options options;
  options.capacity = 4 * (kStable + kChurn);  // no growth: the mapping stays put
  Memtab::Writer<Record> w(name, options);
  for (std::uint64_t id = 0; id < kStable; ++id) w.insert(Record(id, 0));
  Memtab::Reader<Record> r(name.value);
  std::string corruption;
  r.corruptionHandlerIs([&](const std::string& m) { corruption = m; });
  ASSERT_EQ(r.size(), kStable);

  Interleaver il;
  il.writer = &w;
  ASSERT_TRUE(findMapping("/dev/shm/memtab." + name.value, &il.base, &il.bytes));
  gInterleaver = &il;
  struct sigaction fault {}, step {}, oldFault {}, oldStep {};
  fault.sa_sigaction = &onFault;
  fault.sa_flags = SA_SIGINFO;
  sigemptyset(&fault.sa_mask);
  step.sa_sigaction = &onStep;
  step.sa_flags = SA_SIGINFO;
  sigemptyset(&step.sa_mask);
  ASSERT_EQ(sigaction(SIGSEGV, &fault, &oldFault), 0);
  ASSERT_EQ(sigaction(SIGTRAP, &step, &oldStep), 0);
  mprotect(il.base, il.bytes, PROT_NONE);

  std::string failure;
  std::mt19937_64 rng(5);
  for (int round = 0; round < 8 && failure.empty(); ++round) {
    std::vector<int> seen(kStable + kChurn);
    for (const Record& v : r) {
      if (!v.intact() || v.id >= seen.size()) {
        failure = "iteration met a torn value";
      } else if (++seen[v.id] > 1) {
        failure = "iteration visited key " + std::to_string(v.id) + " twice";
      }
    }
    for (std::uint64_t id = 0; id < kStable && failure.empty(); ++id) {
      if (seen[id] == 0) failure = "iteration missed key " + std::to_string(id);
    }
    for (int i = 0; i < 20 && failure.empty(); ++i) {
      const std::uint64_t id = rng() % (kStable + kChurn);
      const Record v = r.lookup(Id{id});
      if (v == Record() ? id < kStable : v.id != id || !v.intact()) {
        failure = "lookup of key " + std::to_string(id) + " went wrong";
      }
    }
    if (!corruption.empty()) failure = corruption;
  }

  mprotect(il.base, il.bytes, PROT_READ);
  sigaction(SIGSEGV, &oldFault, nullptr);
  sigaction(SIGTRAP, &oldStep, nullptr);
  gInterleaver = nullptr;
  EXPECT_EQ(failure, "");
  // The writer really did change things under the reader, many times.
  EXPECT_GT(il.changes, 2000u);
#endif
}

}  // namespace
