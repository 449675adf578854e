// Hand-written functions of tests/schema/AllConstructs.cog.
#include <AllConstructs.h>

#include <cstring>

#include "Cog/Trace.h"

COG_TRACE_HANDLE("AllConstructs");

namespace CogTest {

std::uint64_t Widths::sum() const { return std::uint64_t{a_} + b_ + c_ + d_; }

Widths Widths::make(std::uint8_t a, const Cog::String& s) {
  Widths w;
  w.aIs(a);
  w.sIs(s);
  return w;
}

// Image: key then weight, little-endian, 12 bytes.
void Entry::serialize(std::uint8_t* out) const {
  std::uint32_t k = key_.value();
  std::memcpy(out, &k, 4);
  std::memcpy(out + 4, &weight_, 8);
}

std::size_t Entry::deserializeLen(const std::uint8_t*, std::size_t size) {
  return size >= 12 ? 12 : 0;
}

void Entry::deserialize(const std::uint8_t* in, std::size_t) {
  std::uint32_t k;
  std::memcpy(&k, in, 4);
  key_ = Single(k);
  std::memcpy(&weight_, in + 4, 8);
}

Cog::String Derived::describe() const {
  return Cog::String(name().str() + ":" + std::to_string(count()) + ":" + stringValue(color()).str());
}

Cog::Ptr<Leaf> Derived::adopt(const Cog::Ptr<Leaf>& leaf) {
  if (leaf) leaf->xIs(count());
  return leaf;
}

void Mirror::handleCount() {
  COG_TRACE(8, __PRETTY_FUNCTION__);
  if (target() && source()) target()->xIs(source()->count());
}

void Mirror::handleFlags(std::uint32_t key) {
  COG_TRACE(8, __PRETTY_FUNCTION__ << " key " << key);
  flagCallsIs(flagCalls() + 1);
}

}  // namespace CogTest
