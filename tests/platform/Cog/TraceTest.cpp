#include "Cog/Trace.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Cog/Exception.h"

COG_TRACE_HANDLE("CogTraceTest");

namespace {

int evaluations = 0;
int counted() { return ++evaluations; }

TEST(Trace, RecordIsBuiltOnlyWhenItsLevelIsOn) {
  Cog::Trace::CaptureSink sink;
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
  evaluations = 0;
  COG_TRACE(0, "never " << counted());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(sink.texts().empty());

  Cog::Trace::levelIs("CogTrace*", 3);
  COG_TRACE(3, "level three " << counted());
  COG_TRACE(4, "level four " << counted());
  EXPECT_EQ(evaluations, 1);
  ASSERT_EQ(sink.records().size(), 1u);
  auto r = sink.records()[0];
  EXPECT_EQ(r.text, "level three 1");
  EXPECT_EQ(r.level, 3);
  EXPECT_STREQ(r.file, "TraceTest.cpp");
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
}

TEST(Trace, ConfigureParsesAndRefusesMalformedSettings) {
  EXPECT_TRUE(Cog::Trace::configure("CogTraceTest=7"));
  ASSERT_NE(Cog::Trace::handle("CogTraceTest"), nullptr);
  EXPECT_EQ(Cog::Trace::handle("CogTraceTest")->level(), 7);
  EXPECT_FALSE(Cog::Trace::configure("CogTraceTest=x"));
  EXPECT_FALSE(Cog::Trace::configure("=3"));
  EXPECT_EQ(Cog::Trace::handle("CogTraceTest")->level(), 7);
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
}

}  // namespace

namespace {

int levelIn(const std::vector<std::pair<std::string, int>>& levels, const std::string& name) {
  for (const auto& [n, l] : levels)
    if (n == name) return l;
  return -100;
}

TEST(TraceControl, AnotherProcessSetsLevelsTakenInAtTheNextSite) {
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
  Cog::Trace::poll();
  EXPECT_EQ(levelIn(Cog::Trace::readLevels(getpid()), "CogTraceTest"), Cog::Trace::kOff);

  // A child process asks; this process takes it in at its next trace site.
  pid_t parent = getpid();
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Cog::Trace::requestLevels(parent, "CogTrace*=6,NoSuchHandle=1");
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  shm_unlink(("/cogtrace." + std::to_string(child)).c_str());
  EXPECT_EQ(levelIn(Cog::Trace::readLevels(getpid()), "CogTraceTest"), 6);
  EXPECT_TRUE(COG_TRACE_ENABLED(6));
  EXPECT_FALSE(COG_TRACE_ENABLED(7));
  EXPECT_EQ(Cog::Trace::handle("CogTraceTest")->level(), 6);

  EXPECT_THROW(Cog::Trace::requestLevels(getpid(), "CogTraceTest=x"), Cog::RangeException);
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
  EXPECT_EQ(levelIn(Cog::Trace::readLevels(getpid()), "CogTraceTest"), Cog::Trace::kOff);
}

TEST(TraceControl, ForkedChildHasAnAreaOfItsOwn) {
  Cog::Trace::levelIs("CogTraceTest", 2);
  int toParent[2], toChild[2];
  ASSERT_EQ(pipe(toParent), 0);
  ASSERT_EQ(pipe(toChild), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Cog::Trace::levelIs("CogTraceTest", 8);
    char x = 'r';
    if (write(toParent[1], &x, 1) != 1) _exit(1);
    if (read(toChild[0], &x, 1) != 1) _exit(1);
    Cog::Trace::poll();
    _exit(Cog::Trace::handle("CogTraceTest")->level() == 3 ? 0 : 1);
  }
  char x;
  ASSERT_EQ(read(toParent[0], &x, 1), 1);
  EXPECT_EQ(levelIn(Cog::Trace::readLevels(child), "CogTraceTest"), 8);
  EXPECT_EQ(levelIn(Cog::Trace::readLevels(getpid()), "CogTraceTest"), 2);
  Cog::Trace::requestLevels(child, "CogTraceTest=3");
  Cog::Trace::poll();
  EXPECT_EQ(Cog::Trace::handle("CogTraceTest")->level(), 2);  // the parent's is its own
  ASSERT_EQ(write(toChild[1], &x, 1), 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  // _exit skips the removal at exit, as a crash would: the next process
  // that creates an area removes such leftovers; here the test does.
  shm_unlink(("/cogtrace." + std::to_string(child)).c_str());
  for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) close(fd);
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
}

TEST(TraceControl, ReaderRefusesMissingAndMalformedAreas) {
  constexpr pid_t kFakePid = 999999937;  // above the kernel's limit: nobody's
  const std::string fake = "/cogtrace." + std::to_string(kFakePid);
  EXPECT_THROW(Cog::Trace::readLevels(kFakePid), Cog::RangeException);
  int fd = shm_open(("/cogtrace." + std::to_string(getpid())).c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  std::vector<unsigned char> image(64 + 512 * 128);
  ASSERT_EQ(read(fd, image.data(), image.size()), static_cast<ssize_t>(image.size()));
  close(fd);
  auto write = [&](const std::vector<unsigned char>& bytes, std::size_t size) {
    int f = shm_open(fake.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0600);
    ASSERT_GE(f, 0);
    ASSERT_EQ(::write(f, bytes.data(), size), static_cast<ssize_t>(size));
    close(f);
  };
  write(image, 10);
  EXPECT_THROW(Cog::Trace::readLevels(kFakePid), Cog::StreamException);
  auto bad = image;
  bad[0] ^= 0xff;  // magic
  write(bad, bad.size());
  EXPECT_THROW(Cog::Trace::readLevels(kFakePid), Cog::StreamException);
  bad = image;
  const std::uint32_t huge = 0xfffffff0;
  std::memcpy(&bad[16], &huge, 4);  // count
  write(bad, bad.size());
  EXPECT_THROW(Cog::Trace::readLevels(kFakePid), Cog::StreamException);
  EXPECT_THROW(Cog::Trace::requestLevels(kFakePid, "a=1"), Cog::StreamException);
  bad = image;
  std::memset(&bad[64], 'z', 124);  // first name without its NUL
  write(bad, bad.size());
  EXPECT_THROW(Cog::Trace::readLevels(kFakePid), Cog::StreamException);
  write(image, image.size());
  EXPECT_EQ(Cog::Trace::readLevels(kFakePid), Cog::Trace::readLevels(getpid()));
  shm_unlink(fake.c_str());
}

}  // namespace
