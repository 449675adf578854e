// Cog::HashMap2018<K, V> and Cog::HashSet2018<K>: the framework's unordered
// collections, used by generated keyed collections whose schema asks for a
// hash map.
//
// Keys: a key type provides `Cog::HashValue hash() const` (32 bits, the same
// on the 32-bit and 64-bit builds) and `operator==`. Integers, enumerations
// and Cog::Ptr<T> are accepted as keys too (hashed with the framework's mixer
// or by address).
//
// Storage is an open-addressing table (Boost's unordered_flat_map). What a
// caller must know:
//   - find(key) returns a pointer to the stored value, or nullptr. The pointer
//     (and any iterator) is invalidated by the next insertion, which may move
//     every element; erasing never moves the others. Entities are stored as
//     Cog::Ptr<T> values: copy the Ptr when it must outlive an insertion.
//   - Deleting while iterating is supported: erase(iterator) returns the
//     iterator to the next element, and the remaining elements are all still
//     visited exactly once. Inserting while iterating is not supported.
//   - Iteration order is unspecified but deterministic for a given sequence of
//     operations.
//   - Iterators dereference to std::pair<const K, V> (`it->first`,
//     `it->second`); set iterators to `const K`.
#pragma once

#include <concepts>
#include <cstddef>
#include <type_traits>
#include <utility>

#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

#include "Cog/Hash.h"
#include "Cog/KeyedMap.h"
#include "Cog/Ptr.h"

namespace Cog {

template <typename K>
concept HasMemberHash = requires(const K& k) {
  { k.hash() } -> std::convertible_to<HashValue>;
};

// The hash function object of the framework's hash collections.
template <typename K>
struct KeyHash {
  std::size_t operator()(const K& key) const noexcept {
    if constexpr (HasMemberHash<K>) {
      return key.hash();
    } else if constexpr (std::is_integral_v<K> || std::is_enum_v<K>) {
      Hash h;
      h.mix(key);
      return h.result();
    } else {
      static_assert(sizeof(K) == 0, "a HashMap2018 key needs a member hash()");
      return 0;
    }
  }
};

template <typename T>
struct KeyHash<Ptr<T>> {
  std::size_t operator()(const Ptr<T>& key) const noexcept {
    return std::hash<const void*>()(key.ptr());
  }
};

template <typename K, typename V>
class HashMap2018 : public KeyedMap<boost::unordered_flat_map<K, V, KeyHash<K>>> {
  using Base = KeyedMap<boost::unordered_flat_map<K, V, KeyHash<K>>>;
  using Base::table_;

 public:
  using typename Base::const_iterator;
  using typename Base::iterator;
  using Base::erase;

  // Removes the element at `pos` and returns the iterator to the next one.
  iterator erase(iterator pos) {
    iterator next = pos;
    ++next;
    table_.erase(pos);  // open addressing: the others stay where they are
    return next;
  }
  iterator erase(const_iterator pos) { return erase(table_.find(pos->first)); }
  void reserve(std::size_t n) { table_.reserve(n); }

  friend bool operator==(const HashMap2018& a, const HashMap2018& b) {
    return a.table_ == b.table_;
  }
};

template <typename K>
class HashSet2018 {
  using Table = boost::unordered_flat_set<K, KeyHash<K>>;

 public:
  using key_type = K;
  using value_type = K;
  using iterator = typename Table::iterator;
  using const_iterator = typename Table::const_iterator;

  HashSet2018() = default;

  std::size_t size() const { return table_.size(); }
  bool empty() const { return table_.empty(); }
  bool contains(const K& key) const { return table_.find(key) != table_.end(); }
  // The stored key equal to `key`, or nullptr.
  const K* find(const K& key) const {
    auto it = table_.find(key);
    return it == table_.end() ? nullptr : &*it;
  }
  const_iterator findIterator(const K& key) const { return table_.find(key); }

  // Adds `key`; returns whether it was absent.
  bool insert(const K& key) { return table_.insert(key).second; }
  bool erase(const K& key) { return table_.erase(key) != 0; }
  // Removes the key at `pos` and returns the iterator to the next one.
  const_iterator erase(const_iterator pos) {
    const_iterator next = pos;
    ++next;
    table_.erase(pos);
    return next;
  }
  void clear() { table_.clear(); }
  void reserve(std::size_t n) { table_.reserve(n); }

  const_iterator begin() const { return table_.begin(); }
  const_iterator end() const { return table_.end(); }

  friend bool operator==(const HashSet2018& a, const HashSet2018& b) {
    return a.table_ == b.table_;
  }

 private:
  Table table_;
};

}  // namespace Cog
