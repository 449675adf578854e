#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Cog/DynArray.h"
#include "Cog/HashMap2018.h"
#include "Cog/RbTreeMap.h"
#include "Cog/String.h"

namespace {

// A key whose hash collides often, so that probing and erasure across
// collision chains are exercised.
struct CollidingKey {
  std::uint32_t v = 0;
  Cog::HashValue hash() const { return v % 7; }
  friend bool operator==(const CollidingKey&, const CollidingKey&) = default;
  friend bool operator<(const CollidingKey& a, const CollidingKey& b) { return a.v < b.v; }
};

template <typename K>
K makeKey(std::uint32_t i) {
  if constexpr (std::is_same_v<K, CollidingKey>) {
    return CollidingKey{i};
  } else if constexpr (std::is_same_v<K, Cog::Name>) {
    return Cog::Name("k" + std::to_string(i));
  } else {
    return static_cast<K>(i);
  }
}

template <typename Map>
struct MapCase : ::testing::Test {};

using MapTypes = ::testing::Types<Cog::HashMap2018<CollidingKey, int>,
                                  Cog::HashMap2018<Cog::Name, int>,
                                  Cog::HashMap2018<std::uint64_t, int>,
                                  Cog::RbTreeMap<CollidingKey, int>,
                                  Cog::RbTreeMap<Cog::Name, int>>;
TYPED_TEST_SUITE(MapCase, MapTypes);

// Random operations against std::map as the model, including deletion of a
// random subset while iterating.
TYPED_TEST(MapCase, AgreesWithModelUnderRandomOperations) {
  using Map = TypeParam;
  using K = typename Map::key_type;
  std::mt19937 rng(1234);
  Map map;
  std::map<K, int> model;
  for (int step = 0; step < 20000; ++step) {
    K key = makeKey<K>(rng() % 300);
    int value = static_cast<int>(rng() % 1000);
    switch (rng() % 6) {
      case 0: {
        auto [stored, added] = map.insert(key, value);
        auto [it, modelAdded] = model.try_emplace(key, value);
        ASSERT_EQ(added, modelAdded);
        ASSERT_EQ(*stored, it->second);
        break;
      }
      case 1:
        ASSERT_EQ(map.insertOrAssign(key, value), value);
        model[key] = value;
        break;
      case 2:
        ASSERT_EQ(map.erase(key), model.erase(key) == 1);
        break;
      case 3: {
        const int* found = std::as_const(map).find(key);
        auto it = model.find(key);
        ASSERT_EQ(found != nullptr, it != model.end());
        if (found) {
          ASSERT_EQ(*found, it->second);
        }
        ASSERT_EQ(map.contains(key), found != nullptr);
        break;
      }
      case 4:
        if (rng() % 50 == 0) {
          // Sweep: delete about a third while iterating; every survivor and
          // every deleted element must be visited exactly once.
          const std::size_t before = map.size();
          std::size_t visited = 0;
          for (auto it = map.begin(); it != map.end();) {
            ++visited;
            if (it->second % 3 == 0) {
              model.erase(it->first);
              it = map.erase(it);
            } else {
              ++it;
            }
          }
          ASSERT_EQ(visited, before);
        }
        break;
      default:
        if (int* v = map.find(key)) {
          *v += 1;
          model[key] += 1;
        }
        break;
    }
    ASSERT_EQ(map.size(), model.size());
  }
  std::map<K, int> seen;
  for (auto& [k, v] : map) ASSERT_TRUE(seen.emplace(k, v).second);
  EXPECT_EQ(seen, model);
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.begin(), map.end());
}

TYPED_TEST(MapCase, DeletingEveryElementDuringIterationVisitsEachOnce) {
  using Map = TypeParam;
  using K = typename Map::key_type;
  Map map;
  for (std::uint32_t i = 0; i < 500; ++i) map.insert(makeKey<K>(i), static_cast<int>(i));
  std::set<int> visited;
  for (auto it = map.begin(); it != map.end();) {
    EXPECT_TRUE(visited.insert(it->second).second);
    it = map.erase(it);
  }
  EXPECT_EQ(visited.size(), 500u);
  EXPECT_TRUE(map.empty());
}

TEST(RbTreeMap, IteratesInKeyOrderAndFindsBounds) {
  Cog::RbTreeMap<Cog::Name, int> map;
  for (const char* n : {"vrf3", "default", "vrf10", "mgmt"}) map.insert(Cog::Name(n), 1);
  std::vector<std::string> order;
  for (auto& [k, v] : map) order.push_back(k.str());
  EXPECT_EQ(order, (std::vector<std::string>{"default", "mgmt", "vrf10", "vrf3"}));
  EXPECT_EQ(map.lowerBound(Cog::Name("n"))->first, Cog::Name("vrf10"));
  EXPECT_EQ(map.lowerBound(Cog::Name("mgmt"))->first, Cog::Name("mgmt"));
  EXPECT_EQ(map.upperBound(Cog::Name("mgmt"))->first, Cog::Name("vrf10"));
  EXPECT_EQ(map.lowerBound(Cog::Name("zzz")), map.end());
  // Pointers stay valid across insertions.
  int* mgmt = map.find(Cog::Name("mgmt"));
  for (int i = 0; i < 1000; ++i) map.insert(Cog::Name("x" + std::to_string(i)), i);
  EXPECT_EQ(mgmt, map.find(Cog::Name("mgmt")));
}

TEST(HashSet2018, BehavesAsASet) {
  Cog::HashSet2018<CollidingKey> set;
  std::set<std::uint32_t> model;
  std::mt19937 rng(99);
  for (int step = 0; step < 5000; ++step) {
    std::uint32_t v = rng() % 200;
    if (rng() % 3 == 0) {
      ASSERT_EQ(set.erase(CollidingKey{v}), model.erase(v) == 1);
    } else {
      ASSERT_EQ(set.insert(CollidingKey{v}), model.insert(v).second);
    }
    ASSERT_EQ(set.size(), model.size());
  }
  for (std::uint32_t v = 0; v < 200; ++v) {
    ASSERT_EQ(set.contains(CollidingKey{v}), model.count(v) == 1);
    const CollidingKey* found = set.find(CollidingKey{v});
    if (found) {
      EXPECT_EQ(found->v, v);
    }
  }
  // Erase the odd ones while iterating.
  for (auto it = set.begin(); it != set.end();) {
    if (it->v % 2) {
      model.erase(it->v);
      it = set.erase(it);
    } else {
      ++it;
    }
  }
  std::set<std::uint32_t> left;
  for (const CollidingKey& k : set) left.insert(k.v);
  EXPECT_EQ(left, model);
}

// --- DynArray -------------------------------------------------------------

TEST(DynArray, GrowsFillsAndErases) {
  Cog::DynArray<std::uint32_t> a;
  EXPECT_EQ(a.get(0), 0u);
  EXPECT_EQ(a.get(std::numeric_limits<std::uint64_t>::max()), 0u);
  a.set(3, 7);
  EXPECT_EQ(a.size(), 4u);
  EXPECT_EQ(std::vector<std::uint32_t>(a.begin(), a.end()), (std::vector<std::uint32_t>{0, 0, 0, 7}));
  a.set(1, 5);
  a.erase(1);  // inner: reset, size kept
  EXPECT_EQ(a.size(), 4u);
  EXPECT_EQ(a.get(1), 0u);
  a.erase(3);  // last: shrinks
  EXPECT_EQ(a.size(), 3u);
  a.erase(100);  // beyond the end: nothing
  EXPECT_EQ(a.size(), 3u);
  a.append(9);
  EXPECT_EQ(a.get(3), 9u);
  a.eraseAll();
  EXPECT_TRUE(a.empty());
  a.set(Cog::DynArray<std::uint32_t>::kEntryLimit - 2, 1);
  EXPECT_EQ(a.size(), 2003003u);
}

TEST(DynArray, OrderIsLexicographic) {
  using A = Cog::DynArray<int>;
  EXPECT_EQ((A{1, 2}), (A{1, 2}));
  EXPECT_LT((A{1, 2}), (A{1, 3}));
  EXPECT_LT((A{1, 2}), (A{1, 2, 0}));  // a proper prefix is smaller
  EXPECT_FALSE((A{1, 2, 0}) < (A{1, 2}));
  EXPECT_LT((A{}), (A{0}));
  EXPECT_FALSE((A{2}) < (A{1, 9}));
}

TEST(DynArrayDeathTest, GrowthPastTheBoundAborts) {
  Cog::DynArray<int> a;
  EXPECT_DEATH(a.set(2003003, 1), "newEntries < 2003004");
  // The largest index must not wrap round to a small size.
  EXPECT_DEATH(a.set(std::numeric_limits<std::uint64_t>::max(), 1), "newEntries < 2003004");
  EXPECT_DEATH(a.set(std::uint64_t(1) << 32, 1), "newEntries < 2003004");
}

}  // namespace
