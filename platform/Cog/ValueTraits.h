// Cog::ValueTraits<T>: the value operations generated code applies to an
// attribute of type T, uniform over every kind of attribute type:
//
//   put(out, v)        attribute-log form (network byte order)
//   next(in)           reads it back (StreamException when truncated)
//   strep(text, v)     appends the string form
//   parse(it, end)     reads the string form, advancing `it`
//   hash(h, v)         feeds the hash mixer
//   less(a, b)         the order used by generated operator<
//
// Kinds of T and their forms:
//   - unsigned and signed integers: decimal text (parsing also takes 0x-hex),
//     fixed width in the log (signed as their two's complement bits);
//   - bool: True / False, one byte;
//   - float, double: shortest text that reads back to the same bits; IEEE
//     bits in the log;
//   - Cog::String, Cog::Name: quoted text ('...'), 32-bit length + bytes;
//   - enumerations that have a Cog::EnumType (found by the ADL hook
//     cogEnumType(E)): the enumerator's name, the value as an unsigned
//     32-bit word (reading refuses a number that is no enumerator);
//   - value types (generated or hand-written) with the value-type frame:
//     T(IteratorConst&, const IteratorConst&), T(In*, StreamBogon),
//     operator<<(const Ptr<Out>&, const T&), valueToStrep(const T&) (ADL),
//     hash(), operator<, operator==;
//   - the collections Cog::HashMap2018, Cog::HashSet2018, Cog::RbTreeMap,
//     Cog::DynArray of the above: {k: v, ...} / [k, ...] text (printing only:
//     a type with a collection has no string constructor), a 32-bit count
//     then the elements in the log, order by the elements sorted by key.
#pragma once

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "Cog/DynArray.h"
#include "Cog/Exception.h"
#include "Cog/Hash.h"
#include "Cog/HashMap2018.h"
#include "Cog/NboAttrLog.h"
#include "Cog/RbTreeMap.h"
#include "Cog/String.h"

namespace Cog {

class EnumType;

template <typename T>
struct ValueTraits;

template <typename E>
concept CogEnum = std::is_enum_v<E> && requires(E e) {
  { cogEnumType(e) } -> std::convertible_to<const EnumType*>;
};

template <typename T>
concept FrameValue = std::is_class_v<T> && requires(const T& v, String::IteratorConst& it,
                                                     NboAttrLog::In* in, const Ptr<NboAttrLog::Out>& out) {
  T(in, StreamBogon{});
  out << v;
  { v.hash() } -> std::convertible_to<HashValue>;
  { v < v } -> std::convertible_to<bool>;
};

namespace detail {
// The EnumType's checked conversions and names, kept out of line so that
// this header needs only the declaration of EnumType.
std::uint32_t enumChecked(const EnumType* type, std::uint32_t value);
void enumStrep(std::string& text, const EnumType* type, std::uint32_t value);
std::uint32_t enumParse(const EnumType* type, String::IteratorConst& it,
                        const String::IteratorConst& end);
void floatStrep(std::string& text, double v, bool single);
}  // namespace detail

template <>
struct ValueTraits<bool> {
  static void put(const Ptr<NboAttrLog::Out>& out, bool v) { out->putbool(v); }
  static bool next(NboAttrLog::In* in) { return in->nextbool(); }
  static void strep(std::string& text, bool v) { text += v ? "True" : "False"; }
  static bool parse(String::IteratorConst& it, const String::IteratorConst& end) {
    return Parse::boolean(it, end);
  }
  static void hash(Hash& h, bool v) { h.mix(v); }
  static bool less(bool a, bool b) { return a < b; }
};

template <typename T>
  requires std::is_integral_v<T> && (!std::is_same_v<T, bool>)
struct ValueTraits<T> {
  using U = std::make_unsigned_t<T>;
  static void put(const Ptr<NboAttrLog::Out>& out, T v) {
    auto u = static_cast<U>(v);
    if constexpr (sizeof(T) == 1) out->putU8(u);
    else if constexpr (sizeof(T) == 2) out->putU16(u);
    else if constexpr (sizeof(T) == 4) out->putU32(u);
    else out->putU64(u);
  }
  static T next(NboAttrLog::In* in) {
    if constexpr (sizeof(T) == 1) return static_cast<T>(in->nextU8());
    else if constexpr (sizeof(T) == 2) return static_cast<T>(in->nextU16());
    else if constexpr (sizeof(T) == 4) return static_cast<T>(in->nextU32());
    else return static_cast<T>(in->nextU64());
  }
  static void strep(std::string& text, T v) {
    if constexpr (std::is_signed_v<T>) text += std::to_string(static_cast<long long>(v));
    else text += std::to_string(static_cast<unsigned long long>(v));
  }
  static T parse(String::IteratorConst& it, const String::IteratorConst& end) {
    if constexpr (std::is_signed_v<T>) {
      return static_cast<T>(Parse::signedNumber(it, end, std::numeric_limits<T>::min(),
                                                std::numeric_limits<T>::max(), "a number"));
    } else {
      return static_cast<T>(Parse::unsignedNumber(it, end, std::numeric_limits<T>::max(),
                                                  "a number"));
    }
  }
  static void hash(Hash& h, T v) { h.mix(v); }
  static bool less(T a, T b) { return a < b; }
};

template <typename T>
  requires std::is_floating_point_v<T>
struct ValueTraits<T> {
  static void put(const Ptr<NboAttrLog::Out>& out, T v) {
    if constexpr (sizeof(T) == 4) out->putFloat(v);
    else out->putDouble(v);
  }
  static T next(NboAttrLog::In* in) {
    if constexpr (sizeof(T) == 4) return in->nextFloat();
    else return in->nextDouble();
  }
  static void strep(std::string& text, T v) { detail::floatStrep(text, v, sizeof(T) == 4); }
  static T parse(String::IteratorConst& it, const String::IteratorConst& end) {
    return static_cast<T>(Parse::floatingNumber(it, end));
  }
  static void hash(Hash& h, T v) { h.mix(v); }
  static bool less(T a, T b) { return a < b; }
};

template <typename S>
  requires std::is_same_v<S, String> || std::is_same_v<S, Name>
struct ValueTraits<S> {
  static void put(const Ptr<NboAttrLog::Out>& out, const S& v) { out->putString(v.str()); }
  static S next(NboAttrLog::In* in) { return S(in->nextString()); }
  static void strep(std::string& text, const S& v) { text += Parse::quote(v.str()); }
  static S parse(String::IteratorConst& it, const String::IteratorConst& end) {
    return S(Parse::quoted(it, end));
  }
  static void hash(Hash& h, const S& v) { h.mix(v.hash()); }
  static bool less(const S& a, const S& b) { return a < b; }
};

template <CogEnum E>
struct ValueTraits<E> {
  static const EnumType* type() { return cogEnumType(E{}); }
  static void put(const Ptr<NboAttrLog::Out>& out, E v) {
    out->putU32(static_cast<std::uint32_t>(v));
  }
  static E next(NboAttrLog::In* in) {
    return static_cast<E>(detail::enumChecked(type(), in->nextU32()));
  }
  static void strep(std::string& text, E v) {
    detail::enumStrep(text, type(), static_cast<std::uint32_t>(v));
  }
  static E parse(String::IteratorConst& it, const String::IteratorConst& end) {
    return static_cast<E>(detail::enumParse(type(), it, end));
  }
  static void hash(Hash& h, E v) { h.mix(static_cast<std::uint32_t>(v)); }
  static bool less(E a, E b) {
    return static_cast<std::uint32_t>(a) < static_cast<std::uint32_t>(b);
  }
};

template <FrameValue T>
struct ValueTraits<T> {
  static void put(const Ptr<NboAttrLog::Out>& out, const T& v) { out << v; }
  static T next(NboAttrLog::In* in) { return T(in, StreamBogon{}); }
  static void strep(std::string& text, const T& v) {
    text += std::string_view(valueToStrep(v));
  }
  static T parse(String::IteratorConst& it, const String::IteratorConst& end) {
    return T(it, end);
  }
  static void hash(Hash& h, const T& v) { h.mix(static_cast<std::uint32_t>(v.hash())); }
  static bool less(const T& a, const T& b) { return a < b; }
};

namespace detail {

// Elements of a keyed collection, sorted by key, for order and hashing
// independent of the table's layout.
template <typename Map>
std::vector<const typename Map::value_type*> sortedEntries(const Map& m) {
  using K = typename Map::key_type;
  std::vector<const typename Map::value_type*> out;
  out.reserve(m.size());
  for (const auto& e : m) out.push_back(&e);
  std::sort(out.begin(), out.end(), [](auto* a, auto* b) {
    if constexpr (requires { a->first; }) return ValueTraits<K>::less(a->first, b->first);
    else return ValueTraits<K>::less(*a, *b);
  });
  return out;
}

[[noreturn]] void collectionHasNoStringForm();

}  // namespace detail

template <typename Map, typename K, typename V>
struct MapTraits {
  static void put(const Ptr<NboAttrLog::Out>& out, const Map& m) {
    out->putU32(static_cast<std::uint32_t>(m.size()));
    for (auto* e : detail::sortedEntries(m)) {
      ValueTraits<K>::put(out, e->first);
      ValueTraits<V>::put(out, e->second);
    }
  }
  static Map next(NboAttrLog::In* in) {
    Map m;
    std::uint32_t n = in->nextU32();
    for (std::uint32_t i = 0; i < n; ++i) {
      K k = ValueTraits<K>::next(in);
      V v = ValueTraits<V>::next(in);
      m.insertOrAssign(k, std::move(v));
    }
    return m;
  }
  static void strep(std::string& text, const Map& m) {
    text += "{";
    bool first = true;
    for (auto* e : detail::sortedEntries(m)) {
      if (!first) text += ", ";
      first = false;
      ValueTraits<K>::strep(text, e->first);
      text += ": ";
      ValueTraits<V>::strep(text, e->second);
    }
    text += "}";
  }
  static Map parse(String::IteratorConst&, const String::IteratorConst&) {
    detail::collectionHasNoStringForm();
  }
  static void hash(Hash& h, const Map& m) {
    h.mix(static_cast<std::uint32_t>(m.size()));
    for (auto* e : detail::sortedEntries(m)) {
      ValueTraits<K>::hash(h, e->first);
      ValueTraits<V>::hash(h, e->second);
    }
  }
  static bool less(const Map& a, const Map& b) {
    auto ea = detail::sortedEntries(a), eb = detail::sortedEntries(b);
    for (std::size_t i = 0; i < ea.size() && i < eb.size(); ++i) {
      if (ValueTraits<K>::less(ea[i]->first, eb[i]->first)) return true;
      if (ValueTraits<K>::less(eb[i]->first, ea[i]->first)) return false;
      if (ValueTraits<V>::less(ea[i]->second, eb[i]->second)) return true;
      if (ValueTraits<V>::less(eb[i]->second, ea[i]->second)) return false;
    }
    return ea.size() < eb.size();
  }
};

template <typename K, typename V>
struct ValueTraits<HashMap2018<K, V>> : MapTraits<HashMap2018<K, V>, K, V> {};
template <typename K, typename V>
struct ValueTraits<RbTreeMap<K, V>> : MapTraits<RbTreeMap<K, V>, K, V> {};

template <typename K>
struct ValueTraits<HashSet2018<K>> {
  using Set = HashSet2018<K>;
  static void put(const Ptr<NboAttrLog::Out>& out, const Set& s) {
    out->putU32(static_cast<std::uint32_t>(s.size()));
    for (auto* e : detail::sortedEntries(s)) ValueTraits<K>::put(out, *e);
  }
  static Set next(NboAttrLog::In* in) {
    Set s;
    std::uint32_t n = in->nextU32();
    for (std::uint32_t i = 0; i < n; ++i) s.insert(ValueTraits<K>::next(in));
    return s;
  }
  static void strep(std::string& text, const Set& s) {
    text += "[";
    bool first = true;
    for (auto* e : detail::sortedEntries(s)) {
      if (!first) text += ", ";
      first = false;
      ValueTraits<K>::strep(text, *e);
    }
    text += "]";
  }
  static Set parse(String::IteratorConst&, const String::IteratorConst&) {
    detail::collectionHasNoStringForm();
  }
  static void hash(Hash& h, const Set& s) {
    h.mix(static_cast<std::uint32_t>(s.size()));
    for (auto* e : detail::sortedEntries(s)) ValueTraits<K>::hash(h, *e);
  }
  static bool less(const Set& a, const Set& b) {
    auto ea = detail::sortedEntries(a), eb = detail::sortedEntries(b);
    for (std::size_t i = 0; i < ea.size() && i < eb.size(); ++i) {
      if (ValueTraits<K>::less(*ea[i], *eb[i])) return true;
      if (ValueTraits<K>::less(*eb[i], *ea[i])) return false;
    }
    return ea.size() < eb.size();
  }
};

template <typename V>
struct ValueTraits<DynArray<V>> {
  using Array = DynArray<V>;
  static void put(const Ptr<NboAttrLog::Out>& out, const Array& a) {
    out->putU32(static_cast<std::uint32_t>(a.size()));
    for (const V& v : a) ValueTraits<V>::put(out, v);
  }
  static Array next(NboAttrLog::In* in) {
    Array a;
    std::uint32_t n = in->nextU32();
    if (n > in->remaining()) {
      throw StreamException("attribute log truncated: array of " + std::to_string(n) +
                            " entries with " + std::to_string(in->remaining()) + " bytes left");
    }
    for (std::uint32_t i = 0; i < n; ++i) a.set(i, ValueTraits<V>::next(in));
    return a;
  }
  static void strep(std::string& text, const Array& a) {
    text += "[";
    bool first = true;
    for (const V& v : a) {
      if (!first) text += ", ";
      first = false;
      ValueTraits<V>::strep(text, v);
    }
    text += "]";
  }
  static Array parse(String::IteratorConst&, const String::IteratorConst&) {
    detail::collectionHasNoStringForm();
  }
  static void hash(Hash& h, const Array& a) {
    h.mix(static_cast<std::uint32_t>(a.size()));
    for (const V& v : a) ValueTraits<V>::hash(h, v);
  }
  static bool less(const Array& a, const Array& b) {
    std::uint64_t n = std::min(a.size(), b.size());
    for (std::uint64_t i = 0; i < n; ++i) {
      if (ValueTraits<V>::less(a[i], b[i])) return true;
      if (ValueTraits<V>::less(b[i], a[i])) return false;
    }
    return a.size() < b.size();
  }
};

// The string form of any value: what generated valueToStrep builds on.
template <typename T>
std::string strepOf(const T& v) {
  std::string text;
  ValueTraits<T>::strep(text, v);
  return text;
}

// Bounds test kept out of the generated code's expressions, so that a lower
// bound of 0 on an unsigned attribute does not trip -Wtype-limits.
template <typename T, typename L, typename H>
bool outOfBounds(const T& v, const L& lo, const H& hi) {
  return std::cmp_less(v, lo) || std::cmp_greater(v, hi);
}
template <typename T, typename L, typename H>
  requires std::is_floating_point_v<T>
bool outOfBounds(const T& v, const L& lo, const H& hi) {
  return v < lo || v > hi;
}

}  // namespace Cog
