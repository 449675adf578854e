// Children of a multi-process test: a forked body whose return value is its
// exit status, and that status read back once it has ended.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <string>

namespace testsupport {

// Runs `body` in a child process that never outlives the test, whatever it
// is waiting for. An exception out of `body` is printed and exits 2.
inline pid_t spawn(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int status = 2;
    try {
      status = body();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child: %s\n", e.what());
    }
    _exit(status);
  }
  return pid;
}

// The child's exit status, 128 + the signal for a killed one, -1 when it was
// not ours. Removes the child's activity counters, which it cannot remove
// itself when it ends without running exit handlers.
inline int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  shm_unlink(("/activity." + std::to_string(pid)).c_str());
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

}  // namespace testsupport
