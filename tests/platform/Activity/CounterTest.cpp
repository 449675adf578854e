#include "Activity/Counter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

#include "Cog/Exception.h"

namespace {

std::optional<std::uint64_t> readOne(pid_t pid, const std::string& name) {
  for (auto& r : Activity::readCounters(pid))
    if (r.name == name) return r.value;
  return std::nullopt;
}

TEST(ActivityCounter, SameNameSameHandleAndReadableFromTheSegment) {
  auto& w = Activity::CounterWriter::process();
  ASSERT_FALSE(w.segmentName().empty()) << "no /dev/shm segment";
  auto& a = w.counter("testLeakedRouteIs");
  auto& b = w.counter("testLeakedRouteIs");
  EXPECT_EQ(&a, &b);
  auto& other = w.counter("testErrorDel");
  EXPECT_NE(&a, &other);
  std::uint64_t before = a.value();
  a.increment();
  b.increment(41);
  EXPECT_EQ(a.value(), before + 42);
  EXPECT_EQ(readOne(getpid(), "testLeakedRouteIs"), before + 42);
  EXPECT_EQ(readOne(getpid(), "testErrorDel"), other.value());
  EXPECT_TRUE(a.exported());
}

TEST(ActivityCounter, ConcurrentIncrementsAreExact) {
  auto& c = Activity::CounterWriter::process().counter("testConcurrent");
  std::uint64_t before = c.value();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 100000; ++i) c.increment();
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(c.value(), before + 400000);
}

TEST(ActivityCounter, RefusesBadNames) {
  auto& w = Activity::CounterWriter::process();
  EXPECT_THROW(w.counter(""), Cog::RangeException);
  EXPECT_THROW(w.counter("has blank"), Cog::RangeException);
  EXPECT_THROW(w.counter(std::string("nul\0inside", 10)), Cog::RangeException);
  EXPECT_THROW(w.counter(std::string(Activity::kMaxNameLength + 1, 'x')), Cog::RangeException);
  EXPECT_NO_THROW(w.counter(std::string(Activity::kMaxNameLength, 'y')));
  EXPECT_EQ(readOne(getpid(), std::string(Activity::kMaxNameLength, 'y')), 0u);
}

TEST(ActivityCounter, ForkedChildCountsInItsOwnSegment) {
  auto& c = Activity::CounterWriter::process().counter("testForked");
  c.increment(5);
  int toParent[2], toChild[2];
  ASSERT_EQ(pipe(toParent), 0);
  ASSERT_EQ(pipe(toChild), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    c.increment(10);  // the handle taken before the fork
    Activity::CounterWriter::process().counter("testChildOnly").increment(3);
    char x = 'r';
    if (write(toParent[1], &x, 1) != 1) _exit(1);
    if (read(toChild[0], &x, 1) != 1) _exit(1);
    _exit(0);
  }
  char x;
  ASSERT_EQ(read(toParent[0], &x, 1), 1);
  EXPECT_EQ(readOne(child, "testForked"), 15u);
  EXPECT_EQ(readOne(child, "testChildOnly"), 3u);
  EXPECT_EQ(readOne(getpid(), "testForked"), 5u);
  EXPECT_EQ(readOne(getpid(), "testChildOnly"), std::nullopt);
  ASSERT_EQ(write(toChild[1], &x, 1), 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  shm_unlink(("/activity." + std::to_string(child)).c_str());
  for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) close(fd);
}

// A pid above the kernel's limit, so no real process owns the name.
constexpr pid_t kFakePid = 999999937;

void writeFakeSegment(const void* data, std::size_t size) {
  std::string name = "/activity." + std::to_string(kFakePid);
  int fd = shm_open(name.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, data, size), static_cast<ssize_t>(size));
  close(fd);
}

TEST(ActivityCounter, ReaderRefusesMissingAndMalformedSegments) {
  EXPECT_THROW(Activity::readCounters(kFakePid), Cog::RangeException);

  // Start from this process's own (valid) image and break it in turn.
  Activity::CounterWriter::process().counter("testReader").increment();
  std::string self = "/activity." + std::to_string(getpid());
  int fd = shm_open(self.c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  std::vector<unsigned char> image(64 + Activity::kCapacity * 128);
  ASSERT_EQ(read(fd, image.data(), image.size()), static_cast<ssize_t>(image.size()));
  close(fd);

  writeFakeSegment(image.data(), 10);
  EXPECT_THROW(Activity::readCounters(kFakePid), Cog::StreamException);

  auto bad = image;
  bad[0] ^= 0xff;  // magic
  writeFakeSegment(bad.data(), bad.size());
  EXPECT_THROW(Activity::readCounters(kFakePid), Cog::StreamException);

  bad = image;
  std::uint32_t huge = 0xfffffff0;
  std::memcpy(&bad[16], &huge, 4);  // count
  writeFakeSegment(bad.data(), bad.size());
  EXPECT_THROW(Activity::readCounters(kFakePid), Cog::StreamException);

  bad = image;
  std::memset(&bad[64 + 8], 'z', 120);  // first name without its NUL
  writeFakeSegment(bad.data(), bad.size());
  EXPECT_THROW(Activity::readCounters(kFakePid), Cog::StreamException);

  writeFakeSegment(image.data(), image.size());
  EXPECT_EQ(Activity::readCounters(kFakePid), Activity::readCounters(getpid()));
  shm_unlink(("/activity." + std::to_string(kFakePid)).c_str());
}

}  // namespace
