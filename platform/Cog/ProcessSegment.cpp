#include "Cog/ProcessSegment.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Cog::ProcessSegment {

int create(const std::string& name, std::size_t size, const void* initial) {
  int fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0 && errno == EEXIST) {
    // A previous process with our pid died without removing it.
    shm_unlink(name.c_str());
    fd = shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
  }
  if (fd < 0) return -1;
  bool ok = ftruncate(fd, static_cast<off_t>(size)) == 0;
  if (ok && initial != nullptr) {
    const char* p = static_cast<const char*>(initial);
    std::size_t done = 0;
    while (ok && done < size) {
      ssize_t n = pwrite(fd, p + done, size - done, static_cast<off_t>(done));
      if (n < 0 && errno == EINTR) continue;
      ok = n > 0;
      if (ok) done += static_cast<std::size_t>(n);
    }
  }
  if (!ok) {
    close(fd);
    shm_unlink(name.c_str());
    return -1;
  }
  return fd;
}

void removeStale(std::string_view prefix) {
  DIR* dir = opendir("/dev/shm");
  if (dir == nullptr) return;
  const uid_t me = geteuid();
  while (dirent* e = readdir(dir)) {
    std::string_view n(e->d_name);
    if (n.substr(0, prefix.size()) != prefix || n.size() == prefix.size() ||
        n.size() > prefix.size() + 10)
      continue;
    std::string_view digits = n.substr(prefix.size());
    if (digits.find_first_not_of("0123456789") != std::string_view::npos) continue;
    long pid = std::strtol(std::string(digits).c_str(), nullptr, 10);
    if (pid <= 0 || pid == getpid()) continue;
    struct stat st;
    if (fstatat(dirfd(dir), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_uid != me)
      continue;
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      shm_unlink(("/" + std::string(n)).c_str());
    }
  }
  closedir(dir);
}

}  // namespace Cog::ProcessSegment
