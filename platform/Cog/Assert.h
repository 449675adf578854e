// Fatal assertions: programming errors (violated preconditions) abort the
// process after printing the assertion text, source file, line and function.
//
//   COG_ASSERT(x < 3);                       // text, file, line from the site
//   COG_ASSERT_AT(x < 3, "x < 3", "Unit", 18, "void f()");  // fixed texts
//
// The printed line is
//   <file>:<line>: <function>: Assertion `<text>' failed.
#pragma once

namespace Cog {

[[noreturn]] void assertFailed(const char* text, const char* file, unsigned line,
                               const char* function);

}  // namespace Cog

#define COG_ASSERT(cond)                                                       \
  ((cond) ? static_cast<void>(0)                                               \
          : ::Cog::assertFailed(#cond, __FILE_NAME__, __LINE__, __PRETTY_FUNCTION__))

#define COG_ASSERT_AT(cond, text, file, line, function)                        \
  ((cond) ? static_cast<void>(0) : ::Cog::assertFailed(text, file, line, function))
