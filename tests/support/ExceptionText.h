// The text of the exception of kind E that `f` throws, or "no exception":
// lets a test compare exact error texts in one EXPECT_EQ.
#pragma once

#include <functional>
#include <string>

#include "Cog/Exception.h"

namespace testsupport {

template <typename E = Cog::RangeException>
std::string exceptionText(const std::function<void()>& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "no exception";
}

}  // namespace testsupport
