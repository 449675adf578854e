#include "Cog/Ptr.h"

namespace Cog {
namespace detail {
bool gThreadSafePtr = false;
}

void threadSafePtrIs(bool on) { detail::gThreadSafePtr = on; }
bool threadSafePtr() { return detail::gThreadSafePtr; }

}  // namespace Cog
