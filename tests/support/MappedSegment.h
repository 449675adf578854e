// A writable mapping of a shared-memory table's segment, as any process with
// the owner's rights could make: how tests damage a table on purpose.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace testsupport {

struct MappedSegment {
  std::uint8_t* base = nullptr;
  std::size_t size = 0;

  // `table` is the table's name; a missing segment fails the test and maps
  // nothing (`base` stays null).
  explicit MappedSegment(const std::string& table) {
    int fd = shm_open(("/memtab." + table).c_str(), O_RDWR, 0);
    EXPECT_GE(fd, 0) << table;
    if (fd < 0) return;
    struct stat st;
    if (fstat(fd, &st) == 0) {
      size = static_cast<std::size_t>(st.st_size);
      void* at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      EXPECT_NE(at, MAP_FAILED) << table;
      if (at != MAP_FAILED) base = static_cast<std::uint8_t*>(at);
    }
    close(fd);
  }
  ~MappedSegment() {
    if (base != nullptr) munmap(base, size);
  }
  MappedSegment(const MappedSegment&) = delete;
  MappedSegment& operator=(const MappedSegment&) = delete;
};

}  // namespace testsupport
