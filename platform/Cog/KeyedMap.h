// The part of the framework's keyed maps (HashMap2018, RbTreeMap) that does
// not depend on the container underneath: lookup by key returning a pointer
// to the value (nullptr when absent), insertion, erase by key, iteration.
// Erase through an iterator and ordering queries belong to each map, since
// their iterator rules differ.
#pragma once

#include <cstddef>
#include <utility>

namespace Cog {

template <typename Table>
class KeyedMap {
  using K = typename Table::key_type;
  using V = typename Table::mapped_type;

 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = typename Table::value_type;
  using iterator = typename Table::iterator;
  using const_iterator = typename Table::const_iterator;

  std::size_t size() const { return table_.size(); }
  bool empty() const { return table_.empty(); }
  bool contains(const K& key) const { return table_.find(key) != table_.end(); }

  V* find(const K& key) {
    auto it = table_.find(key);
    return it == table_.end() ? nullptr : &it->second;
  }
  const V* find(const K& key) const {
    auto it = table_.find(key);
    return it == table_.end() ? nullptr : &it->second;
  }
  // The iterator at `key`, or end().
  iterator findIterator(const K& key) { return table_.find(key); }
  const_iterator findIterator(const K& key) const { return table_.find(key); }

  // Adds `value` under `key` unless the key is present. Returns the stored
  // value and whether it was added.
  std::pair<V*, bool> insert(const K& key, V value) {
    auto [it, added] = table_.try_emplace(key, std::move(value));
    return {&it->second, added};
  }
  // Stores `value` under `key`, replacing any value there.
  V& insertOrAssign(const K& key, V value) {
    return table_.insert_or_assign(key, std::move(value)).first->second;
  }
  // The value under `key`, default-constructed and added when absent.
  V& operator[](const K& key) { return table_[key]; }

  // Removes `key`; returns whether it was there.
  bool erase(const K& key) { return table_.erase(key) != 0; }
  void clear() { table_.clear(); }

  iterator begin() { return table_.begin(); }
  iterator end() { return table_.end(); }
  const_iterator begin() const { return table_.begin(); }
  const_iterator end() const { return table_.end(); }

 protected:
  Table table_;
};

}  // namespace Cog
