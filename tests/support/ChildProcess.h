// Children of a multi-process test: a forked body whose return value is its
// exit status, and that status read back once it has ended.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
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
// not ours. Removes the child's activity counters and trace control area, which it cannot remove
// itself when it ends without running exit handlers.
inline int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  shm_unlink(("/activity." + std::to_string(pid)).c_str());
  shm_unlink(("/cogtrace." + std::to_string(pid)).c_str());
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

// Reads exactly `n` bytes from `fd` (a pipe or socket to another process of
// the test); false at end of file or on an error.
inline bool readAll(int fd, void* p, std::size_t n) {
  auto* b = static_cast<char*>(p);
  while (n > 0) {
    const ssize_t got = read(fd, b, n);
    if (got <= 0) return false;
    b += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace testsupport
