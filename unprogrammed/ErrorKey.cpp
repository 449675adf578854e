// ErrorKey: the key of the unprogrammed-route tables (see
// RoutingLib/KernelUnprogrammedRouteErrorKey.h).
#include "RoutingLib/KernelUnprogrammedRouteErrorKey.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>

#include "Cog/Assert.h"
#include "Cog/Exception.h"
#include "Cog/Generated.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"

namespace Memtab::KernelUnprogrammedRoute {

namespace {

constexpr const char* kIndexRangeText =
    "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed";

// One step of the Jenkins one-at-a-time hash, without its final avalanche.
inline void oneAtATime(std::uint32_t& h, const unsigned char* p, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    h += p[i];
    h += h << 10;
    h ^= h >> 6;
  }
}

}  // namespace

ErrorKey::ErrorKey(const L3::VrfName& vrfName, const Velnet::IpGenPrefix& prefix) : prefix_(prefix) {
  nameCount_ = 0;
  vrfNameIs(vrfName.value());
}

ErrorKey::ErrorKey(Cog::String::IteratorConst&, const Cog::String::IteratorConst&) {
  COG_ASSERT_AT(false, "!\"No String constructor for ErrorKey - has collection\"",
                "KernelUnprogrammedRoute", 1, __PRETTY_FUNCTION__);
}

ErrorKey::ErrorKey(Cog::NboAttrLog::In* in, Cog::StreamBogon)
    : prefix_(Cog::ValueTraits<Velnet::IpGenPrefix>::next(in)) {
  const std::uint32_t count = in->nextU32();
  if (count > nameCapacity) throw Cog::RangeException(kIndexRangeText);
  for (std::uint32_t i = 0; i < count; ++i) name_[i] = in->nextU8();
  nameCount_ = count;
}

Cog::String ErrorKey::vrfNameText() const {
  const char* p = reinterpret_cast<const char*>(name_);
  return Cog::String(std::string(p, strnlen(p, nameCount_)));
}

L3::VrfName ErrorKey::vrfName() const { return L3::VrfName(vrfNameText()); }

void ErrorKey::vrfNameIs(const Cog::String& name) {
  const std::size_t n = std::min<std::size_t>(name.size(), nameCapacity);
  if (n == 0) {
    if (nameCount_ == 0) nameCount_ = 1;
    name_[0] = 0;
    return;
  }
  std::memcpy(name_, name.str().data(), n);
  if (n == nameCapacity) throw Cog::RangeException(kIndexRangeText);
  if (nameCount_ < n + 1) nameCount_ = static_cast<std::uint32_t>(n + 1);
  name_[n] = 0;
}

void ErrorKey::nameIs(Vrf::VrfIdMap::VrfNameIndex i, unsigned char c) {
  name_[i.value()] = c;
  if (nameCount_ < i.value() + 1) nameCount_ = i.value() + 1;
}

void ErrorKey::nameDel(Vrf::VrfIdMap::VrfNameIndex i) {
  if (i.value() >= nameCount_) return;
  name_[i.value()] = 0;
  if (i.value() + 1 == nameCount_) --nameCount_;
}

ErrorKey::NameIterator ErrorKey::nameDel(NameIterator it) {
  COG_ASSERT(it >= nameBegin() && it < nameEnd());
  const auto i = static_cast<std::uint32_t>(it - name_);
  nameDel(Vrf::VrfIdMap::VrfNameIndex(i));
  return i + 1 < nameCount_ ? name_ + i + 1 : nameEnd();
}

void ErrorKey::nameDelAll() {
  std::memset(name_, 0, sizeof(name_));
  nameCount_ = 0;
}

bool operator==(const ErrorKey& a, const ErrorKey& b) {
  return a.prefix_ == b.prefix_ && a.nameCount_ == b.nameCount_ &&
         std::memcmp(a.name_, b.name_, a.nameCount_) == 0;
}

bool operator<(const ErrorKey& a, const ErrorKey& b) {
  if (a.prefix_ < b.prefix_) return true;
  if (b.prefix_ < a.prefix_) return false;
  const std::uint32_t n = std::min(a.nameCount_, b.nameCount_);
  if (int c = std::memcmp(a.name_, b.name_, n)) return c < 0;
  return a.nameCount_ < b.nameCount_;
}

Cog::HashValue ErrorKey::hash() const {
  std::uint32_t h = 0;
  const char* text = reinterpret_cast<const char*>(name_);
  const std::size_t n = strnlen(text, nameCount_);
  const std::uint32_t s = n == 0 ? 0 : Cog::stringHash(text, n);
  unsigned char sb[4];
  std::memcpy(sb, &s, 4);
  oneAtATime(h, sb, 4);
  unsigned char pb[sizeof(Velnet::IpGenPrefix)];
  std::memcpy(pb, &prefix_, sizeof(pb));
  oneAtATime(h, pb, sizeof(pb));
  return h;
}

void ErrorKey::writeImage(std::uint8_t* out) const {
  std::memcpy(out, &prefix_, sizeof(prefix_));
  std::memcpy(out + 24, &nameCount_, 4);
  std::memcpy(out + imageFixed, name_, nameCount_);
}

void ErrorKey::readImage(const std::uint8_t* in) {
  std::memcpy(&prefix_, in, sizeof(prefix_));
  std::uint32_t count;
  std::memcpy(&count, in + 24, 4);
  if (count > nameCapacity) throw Cog::RangeException(kIndexRangeText);
  std::memset(name_, 0, sizeof(name_));
  std::memcpy(name_, in + imageFixed, count);
  nameCount_ = count;
}

Cog::String valueToStrep(const ErrorKey& k) {
  Cog::Glue::StrepWriter w("Memtab::KernelUnprogrammedRoute::ErrorKey", false);
  w.attr("prefix", k.prefix());
  w.attr("name", k.vrfNameText());
  return w.done();
}

std::ostream& operator<<(std::ostream& os, const ErrorKey& k) {
  return os << "<prefix=" << k.prefix() << ", vrfName=" << k.vrfNameText().str() << ">";
}

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const ErrorKey& k) {
  out << k.prefix();
  out->putU32(k.nameCount());
  for (auto it = k.nameBegin(); it != k.nameEnd(); ++it) out->putU8(*it);
  return out;
}

}  // namespace Memtab::KernelUnprogrammedRoute

template <>
Cog::TypeGlue Cog::Glue::ValueGlue<Memtab::KernelUnprogrammedRoute::ErrorKey>::externalGlue() {
  return TypeGlue{&attributeOp, nullptr, &fromDefaultOrString, &samples, &fromAttrLog};
}
