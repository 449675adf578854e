// Cog::DynArray<T>: a dense array indexed by an unsigned 64-bit position,
// the framework's array attribute (for example the output weights of a
// multipath rebase).
//
//   - set(i, v) grows the array to cover position i, filling new positions
//     with T(); get(i) reads T() beyond the end, so a reader never needs to
//     check size() first.
//   - erase(i) (or erase(iterator)) of the last position shrinks the array by one; of an inner
//     position it resets that position to T() and keeps the size, so that
//     the positions after it keep their indexes. Erasing beyond the end does
//     nothing.
//   - An array holds at most 2003003 entries: growing past that is a
//     programming error and aborts with the assertion "newEntries < 2003004".
//   - == compares size and elements; < is lexicographic (a proper prefix is
//     the smaller).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "Cog/Assert.h"

namespace Cog {

template <typename T>
class DynArray {
 public:
  using value_type = T;
  using const_iterator = typename std::vector<T>::const_iterator;
  // One more than the largest number of entries an array may hold.
  static constexpr std::uint64_t kEntryLimit = 2003004;

  DynArray() = default;
  DynArray(std::initializer_list<T> values) : values_(values) {
    checkGrowth(values_.size());
  }

  std::uint64_t size() const { return values_.size(); }
  bool empty() const { return values_.empty(); }

  T get(std::uint64_t index) const {
    return index < values_.size() ? values_[static_cast<std::size_t>(index)] : T();
  }
  // The stored element; position `index` must be below size().
  const T& operator[](std::uint64_t index) const {
    COG_ASSERT(index < values_.size());
    return values_[static_cast<std::size_t>(index)];
  }

  void set(std::uint64_t index, T value) {
    if (index >= values_.size()) {
      // Saturate so that index 2^64-1 cannot wrap round to a small count.
      std::uint64_t newEntries = index >= kEntryLimit ? kEntryLimit : index + 1;
      checkGrowth(newEntries);
      values_.resize(static_cast<std::size_t>(newEntries));
    }
    values_[static_cast<std::size_t>(index)] = std::move(value);
  }
  // Adds `value` after the last position.
  void append(T value) { set(values_.size(), std::move(value)); }

  void erase(std::uint64_t index) {
    if (index >= values_.size()) return;
    if (index + 1 == values_.size()) {
      values_.pop_back();
    } else {
      values_[static_cast<std::size_t>(index)] = T();
    }
  }
  // erase(i) for the position of `pos`; returns the iterator to the next
  // position, which is end() when the last one went.
  const_iterator erase(const_iterator pos) {
    const auto index = static_cast<std::size_t>(pos - values_.cbegin());
    erase(index);
    return index + 1 < values_.size() ? values_.cbegin() + static_cast<std::ptrdiff_t>(index + 1)
                                      : values_.cend();
  }
  void eraseAll() { values_.clear(); }

  const_iterator begin() const { return values_.begin(); }
  const_iterator end() const { return values_.end(); }
  const T* data() const { return values_.data(); }

  friend bool operator==(const DynArray& a, const DynArray& b) { return a.values_ == b.values_; }
  friend bool operator<(const DynArray& a, const DynArray& b) {
    return std::lexicographical_compare(a.values_.begin(), a.values_.end(), b.values_.begin(),
                                        b.values_.end());
  }

 private:
  static void checkGrowth(std::uint64_t newEntries) {
    COG_ASSERT_AT(newEntries < kEntryLimit, "newEntries < 2003004", "DynArray.h", __LINE__,
                  __PRETTY_FUNCTION__);
  }

  std::vector<T> values_;
};

}  // namespace Cog
