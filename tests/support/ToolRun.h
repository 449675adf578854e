// Runs the `routinglib` tool as a process (the test target defines
// ROUTINGLIB_TOOL as its path) and collects its exit status and output, so
// that tests see exactly what a person at a shell sees.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "support/Emulation.h"

namespace testsupport {

struct ToolRun {
  int status;          // the exit status, or -1 when the tool did not exit
  std::string output;  // stdout and stderr together
};

// `args` go through the shell: quote them as a shell needs. `redirect`
// says where stderr goes ("2>&1": into the output, "2>/dev/null": away).
inline ToolRun runRoutinglib(const std::string& args, const char* redirect = "2>&1") {
  const std::string command =
      programPrefix() + "'" + ROUTINGLIB_TOOL + "' " + args + " " + redirect;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "popen failed"};
  std::string output;
  char buf[4096];
  std::size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, pipe)) > 0) output.append(buf, got);
  const int wait = pclose(pipe);
  return {WIFEXITED(wait) ? WEXITSTATUS(wait) : -1, output};
}

}  // namespace testsupport
