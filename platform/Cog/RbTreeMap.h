// Cog::RbTreeMap<K, V>: the framework's ordered collection, used by generated
// keyed collections that need their keys in order (per-VRF directories,
// name-keyed tables). Keys are ordered by their operator<.
//
// The API has the shape of Cog::HashMap2018 plus ordered lookups. What a
// caller must know:
//   - find(key) returns a pointer to the stored value, or nullptr. Values
//     never move: pointers and iterators stay valid until their own element
//     is erased.
//   - Deleting while iterating is supported: erase(iterator) returns the
//     iterator to the next element in key order. Inserting while iterating is
//     allowed too; an element inserted ahead of the iterator will be visited.
//   - Iterators dereference to std::pair<const K, V>.
#pragma once

#include <cstddef>
#include <map>
#include <utility>

namespace Cog {

template <typename K, typename V>
class RbTreeMap {
  using Table = std::map<K, V>;

 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = typename Table::value_type;
  using iterator = typename Table::iterator;
  using const_iterator = typename Table::const_iterator;

  RbTreeMap() = default;

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
  iterator findIterator(const K& key) { return table_.find(key); }
  const_iterator findIterator(const K& key) const { return table_.find(key); }

  // The first element whose key is not less than `key` / greater than `key`.
  iterator lowerBound(const K& key) { return table_.lower_bound(key); }
  const_iterator lowerBound(const K& key) const { return table_.lower_bound(key); }
  iterator upperBound(const K& key) { return table_.upper_bound(key); }
  const_iterator upperBound(const K& key) const { return table_.upper_bound(key); }

  // Adds `value` under `key` unless the key is present. Returns the stored
  // value and whether it was added.
  std::pair<V*, bool> insert(const K& key, V value) {
    auto [it, added] = table_.try_emplace(key, std::move(value));
    return {&it->second, added};
  }
  V& insertOrAssign(const K& key, V value) {
    return table_.insert_or_assign(key, std::move(value)).first->second;
  }
  V& operator[](const K& key) { return table_[key]; }

  bool erase(const K& key) { return table_.erase(key) != 0; }
  // Removes the element at `pos` and returns the iterator to the next one.
  iterator erase(iterator pos) { return table_.erase(pos); }
  iterator erase(const_iterator pos) { return table_.erase(pos); }
  void clear() { table_.clear(); }

  iterator begin() { return table_.begin(); }
  iterator end() { return table_.end(); }
  const_iterator begin() const { return table_.begin(); }
  const_iterator end() const { return table_.end(); }

  friend bool operator==(const RbTreeMap& a, const RbTreeMap& b) { return a.table_ == b.table_; }

 private:
  Table table_;
};

}  // namespace Cog
