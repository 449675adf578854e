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

#include "Cog/KeyedMap.h"

namespace Cog {

template <typename K, typename V>
class RbTreeMap : public KeyedMap<std::map<K, V>> {
  using Base = KeyedMap<std::map<K, V>>;
  using Base::table_;

 public:
  using typename Base::const_iterator;
  using typename Base::iterator;
  using Base::erase;

  // The first element whose key is not less than `key` / greater than `key`.
  iterator lowerBound(const K& key) { return table_.lower_bound(key); }
  const_iterator lowerBound(const K& key) const { return table_.lower_bound(key); }
  iterator upperBound(const K& key) { return table_.upper_bound(key); }
  const_iterator upperBound(const K& key) const { return table_.upper_bound(key); }

  // Removes the element at `pos` and returns the iterator to the next one.
  iterator erase(iterator pos) { return table_.erase(pos); }
  iterator erase(const_iterator pos) { return table_.erase(pos); }

  friend bool operator==(const RbTreeMap& a, const RbTreeMap& b) { return a.table_ == b.table_; }
};

}  // namespace Cog
