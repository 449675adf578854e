#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Cog/Ptr.h"

namespace {

struct Tracked : Cog::PtrInterface {
  explicit Tracked(std::atomic<int>* deletions) : deletions(deletions) {}
  ~Tracked() override { deletions->fetch_add(1); }
  std::atomic<int>* deletions;
};

// Restores the process-wide switch whatever the test does.
struct ThreadSafeSwitch {
  explicit ThreadSafeSwitch(bool on) : was(Cog::threadSafePtr()) { Cog::threadSafePtrIs(on); }
  ~ThreadSafeSwitch() { Cog::threadSafePtrIs(was); }
  bool was;
};

TEST(Ptr, ConcurrentCopiesDeleteExactlyOnce) {
  ThreadSafeSwitch on(true);
  constexpr int kThreads = 8;
  constexpr int kRounds = 20;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> deletions{0};
    auto shared = Cog::allocate<Tracked>(&deletions);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      // Each thread owns one reference and churns copies of it; the last
      // thread to let go deletes the object.
      threads.emplace_back([p = shared, &go]() mutable {
        while (!go.load()) {
        }
        for (int i = 0; i < 20000; ++i) {
          Cog::Ptr<Tracked> a = p;
          Cog::Ptr<const Tracked> b = a;
          Cog::Ptr<Tracked> c = std::move(a);
          c = p;
        }
        p = nullptr;
      });
    }
    shared = nullptr;  // the threads now hold the only references
    go.store(true);
    for (auto& th : threads) th.join();
    ASSERT_EQ(deletions.load(), 1) << "round " << round;
  }
}

// An object that recycles itself instead of being deleted when its last
// reference goes, and whose flag bits must not disturb the count.
struct Pooled : Cog::PtrInterface {
  int zeroes = 0;
  void onZeroReferences() override { ++zeroes; }
  void flag() { flagsIs(0x40000000u, 0); }
  std::uint32_t flagBits() const { return flags(); }
};

TEST(Ptr, ZeroReferenceHandlerOverride) {
  for (bool threadSafe : {false, true}) {
    ThreadSafeSwitch sw(threadSafe);
    Pooled pooled;
    pooled.flag();
    {
      Cog::Ptr<Pooled> a(&pooled);
      Cog::Ptr<Pooled> b = a;
      EXPECT_EQ(pooled.references(), 2u);
    }
    EXPECT_EQ(pooled.zeroes, 1);
    EXPECT_EQ(pooled.flagBits(), 0x40000000u);  // flags survive the count
    { Cog::Ptr<Pooled> again(&pooled); }
    EXPECT_EQ(pooled.zeroes, 2);
  }
}

}  // namespace
