// Hand-written functions of tests/schema/AllConstructs.cog.
#include <AllConstructs.h>

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

Cog::String Derived::describe() const {
  return Cog::String(name().str() + ":" + std::to_string(count()) + ":" + stringValue(color()).str());
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
