// Memtab::KernelUnprogrammedRoute::ErrorKey: the key of a route the kernel
// refused to program, its prefix and its VRF name. It is the key of the
// shared-memory tables "error" and "error6", so its layout is part of their
// images: prefix (24 bytes), name count (u32), then the name in a fixed
// 101-byte array indexed by Vrf::VrfIdMap::VrfNameIndex, NUL-terminated, the
// count including the terminator; 3 bytes of padding; 132 bytes in all.
//
// vrfNameIs only ever raises the count: storing a shorter name into a key
// that held a longer one leaves the old bytes behind the new terminator as
// part of the key (equality, order and hash all see them). Producers build a
// fresh key per route; do not reuse keys across names.
//
// A key has no text constructor (it holds a collection); asking for one is a
// programming error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "Cog/Generated.h"
#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"
#include "Memtab/Table.h"
#include "RoutingLib/VrfName.h"
#include "Velnet/IpGenPrefix.h"
#include "Vrf/VrfId.h"

namespace Memtab::KernelUnprogrammedRoute {

class ErrorKey {
 public:
  static constexpr std::uint32_t nameCapacity = Vrf::VrfIdMap::VrfNameIndex::capacity;
  // Tells the schema compiler that neither this key nor a value holding it
  // can be parsed from text.
  static constexpr bool cogHasCollection = true;
  using NameIterator = const unsigned char*;

  ErrorKey() = default;
  // Copies the prefix and stores the name (count from 0).
  ErrorKey(const L3::VrfName& vrfName, const Velnet::IpGenPrefix& prefix);
  // Asserts: a key holds a collection and has no text form to parse.
  ErrorKey(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end);
  // Attribute-log form: prefix, name count (u32), then count name bytes.
  ErrorKey(Cog::NboAttrLog::In* in, Cog::StreamBogon);

  const Velnet::IpGenPrefix& prefix() const { return prefix_; }
  void prefixIs(const Velnet::IpGenPrefix& prefix) { prefix_ = prefix; }

  // The stored name, up to its terminator. RangeException
  // "VrfName::bytes > VrfName::maxLength not allowed" when it is longer
  // than a VRF name may be (only a corrupt or hand-built key).
  L3::VrfName vrfName() const;
  // The stored name as raw text, without the VRF-name bound.
  Cog::String vrfNameText() const;
  // Stores `name` NUL-terminated; the count is raised, never lowered.
  // RangeException "VrfNameIndex::value < VrfNameIndex::min or >
  // VrfNameIndex::max not allowed" for a name of 101 bytes or more (the
  // bytes that fit are stored first).
  void vrfNameIs(const Cog::String& name);

  std::uint32_t nameCount() const { return nameCount_; }
  unsigned char name(Vrf::VrfIdMap::VrfNameIndex i) const { return name_[i.value()]; }
  // Sets one element; the count grows to cover it.
  void nameIs(Vrf::VrfIdMap::VrfNameIndex i, unsigned char c);
  // Clears one element; the count shrinks when it was the last one.
  void nameDel(Vrf::VrfIdMap::VrfNameIndex i);
  // Clears the element at `it` (within name()..nameEnd()); returns the next.
  NameIterator nameDel(NameIterator it);
  void nameDelAll();
  NameIterator nameBegin() const { return name_; }
  NameIterator nameEnd() const { return name_ + nameCount_; }
  const unsigned char* nameBytes() const { return name_; }

  friend bool operator==(const ErrorKey& a, const ErrorKey& b);
  friend bool operator<(const ErrorKey& a, const ErrorKey& b);
  bool operator!() const { return *this == ErrorKey(); }
  // Jenkins one-at-a-time steps (no final avalanche) over the name's string
  // hash and then the prefix's 24 stored bytes.
  Cog::HashValue hash() const;

  // Image helpers shared by Error and Error6: the key's fixed words and used
  // name bytes at `out`, and back. readImage takes a count below 102 on
  // trust (deserializeLen checks it) and reads that many name bytes.
  void writeImage(std::uint8_t* out) const;
  void readImage(const std::uint8_t* in);
  static constexpr std::size_t imageFixed = 28;  // prefix and count

 private:
  Velnet::IpGenPrefix prefix_;
  std::uint32_t nameCount_ = 0;
  unsigned char name_[nameCapacity] = {};
};

static_assert(sizeof(ErrorKey) == 132 && alignof(ErrorKey) == 4);
static_assert(std::is_trivially_copyable_v<ErrorKey>, "copied byte for byte into shared-memory images");

Cog::String valueToStrep(const ErrorKey& k);
// "<prefix=" prefix ", vrfName=" name ">"
std::ostream& operator<<(std::ostream& os, const ErrorKey& k);
const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const ErrorKey& k);

}  // namespace Memtab::KernelUnprogrammedRoute

// Reflection offers no text parser for the key (it has a collection);
// defined in unprogrammed/ErrorKey.cpp.
template <>
Cog::TypeGlue Cog::Glue::ValueGlue<Memtab::KernelUnprogrammedRoute::ErrorKey>::externalGlue();

template <>
struct std::hash<Memtab::KernelUnprogrammedRoute::ErrorKey> {
  std::size_t operator()(const Memtab::KernelUnprogrammedRoute::ErrorKey& k) const noexcept {
    return k.hash();
  }
};

namespace Memtab::KernelUnprogrammedRoute {
class Error;
class Error6;
}  // namespace Memtab::KernelUnprogrammedRoute

// The tables record their value types by these names, which `routinglib
// memtab list` shows and dump finds the registrations by.
template <>
struct Memtab::ValueTraits<Memtab::KernelUnprogrammedRoute::Error> {
  template <class V>
  static decltype(auto) key(const V& v) {
    return v.key();
  }
  static const char* typeName() { return "Memtab::KernelUnprogrammedRoute::Error"; }
};

template <>
struct Memtab::ValueTraits<Memtab::KernelUnprogrammedRoute::Error6> {
  template <class V>
  static decltype(auto) key(const V& v) {
    return v.key();
  }
  static const char* typeName() { return "Memtab::KernelUnprogrammedRoute::Error6"; }
};
