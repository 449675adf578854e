// Whether this test program runs under a CPU emulator (the 32-bit build on a
// kernel that cannot run 32-bit programs), and how to start another program
// of the same build from it. CTest sets ROUTINGLIB_TEST_EMULATOR for such runs.
#pragma once

#include <cstdlib>
#include <string>

namespace testsupport {

// The emulator's path, or empty when programs run natively.
inline std::string emulator() {
  const char* e = std::getenv("ROUTINGLIB_TEST_EMULATOR");
  return e != nullptr ? e : "";
}

// A shell command prefix that starts a program built here: empty natively,
// the quoted emulator and a space otherwise.
inline std::string programPrefix() {
  const std::string e = emulator();
  return e.empty() ? e : "'" + e + "' ";
}

// Death tests re-executing the test program would start it without the
// emulator; forked death tests work everywhere. Use this where a test wants
// the re-executing style.
inline const char* reexecutingDeathTestStyle() {
  return emulator().empty() ? "threadsafe" : "fast";
}

}  // namespace testsupport
