#include "Cog/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Cog {

void assertFailed(const char* text, const char* file, unsigned line, const char* function) {
  std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, text);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Cog
