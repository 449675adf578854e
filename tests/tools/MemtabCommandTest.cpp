// `routinglib memtab` run as a process against tables this test makes: a
// live one, one whose writer is gone, damaged ones and names that are no
// table, with the exit statuses a script sees.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include "Cog/Hash.h"
#include "Memtab/Table.h"
#include "support/ToolRun.h"

namespace {

using testsupport::runRoutinglib;
using testsupport::ToolRun;

struct Code {
  std::uint32_t id = 0;
  Cog::HashValue hash() const { return id * 2654435761u; }
  bool operator==(const Code&) const = default;
};

// An 8-byte value of a type the tool has no registration for: it prints
// images in hex.
struct Pair {
  std::uint32_t id = 0;
  std::uint32_t code = 0;
  Code key() const { return Code{id}; }
  std::size_t serializeLen() const { return 8; }
  void serialize(std::uint8_t* out) const {
    std::memcpy(out, &id, 4);
    std::memcpy(out + 4, &code, 4);
  }
  static std::size_t deserializeLen(const std::uint8_t*, std::size_t n) { return n == 8 ? 8 : 0; }
  void deserialize(const std::uint8_t* in, std::size_t) {
    std::memcpy(&id, in, 4);
    std::memcpy(&code, in + 4, 4);
  }
};

// The image of Pair{id, code} as the tool prints it (little-endian hosts).
std::string hexOf(std::uint32_t id, std::uint32_t code) {
  char buf[17];
  std::uint8_t b[8];
  Pair{id, code}.serialize(b);
  for (int i = 0; i < 8; ++i) std::snprintf(buf + 2 * i, 3, "%02x", b[i]);
  return buf;
}

struct Name {
  std::string value;
  explicit Name(const char* what) : value(std::string("tool.") + what + "." + std::to_string(getpid())) {
    Memtab::unlinkTable(value);
  }
  ~Name() { Memtab::unlinkTable(value); }
};

std::set<std::string> lines(const std::string& text) {
  std::set<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.insert(l);
  return out;
}

TEST(MemtabCommand, ListsDumpsAndRemovesTablesLiveAndDead) {
  Name name("live");
  auto w = std::make_unique<Memtab::Writer<Pair>>(name.value);
  w->insert(Pair{1, 10});
  w->insert(Pair{2, 20});
  w->insert(Pair{3, 30});

  const ToolRun list = runRoutinglib("memtab list");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.output.rfind("NAME  ", 0), 0u) << list.output;
  std::string row;
  for (const auto& l : lines(list.output))
    if (l.rfind(name.value + " ", 0) == 0) row = l;
  ASSERT_FALSE(row.empty()) << list.output;
  EXPECT_NE(row.find(Memtab::ValueTraits<Pair>::typeName()), std::string::npos) << row;
  EXPECT_NE(row.find(" 3 "), std::string::npos) << row;
  EXPECT_NE(row.find(std::to_string(getpid()) + " alive"), std::string::npos) << row;

  const ToolRun dump = runRoutinglib("memtab dump " + name.value);
  EXPECT_EQ(dump.status, 0);
  EXPECT_EQ(lines(dump.output), (std::set<std::string>{hexOf(1, 10), hexOf(2, 20), hexOf(3, 30)}));
  const ToolRun json = runRoutinglib("memtab dump " + name.value + " --json");
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.output.rfind("{\"table\": \"" + name.value + "\", \"type\": \"", 0), 0u) << json.output;
  EXPECT_NE(json.output.find("{\"image\": \"" + hexOf(2, 20) + "\"}"), std::string::npos) << json.output;

  const ToolRun refused = runRoutinglib("memtab rm " + name.value);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "routinglib memtab: table " + name.value + " has a live writer (pid " +
                                std::to_string(getpid()) + ")\n");

  w.reset();  // the writer goes; the table stays
  const ToolRun dead = runRoutinglib("memtab list");
  EXPECT_NE(dead.output.find(std::to_string(getpid()) + " gone"), std::string::npos) << dead.output;
  EXPECT_EQ(runRoutinglib("memtab dump " + name.value).status, 0);
  const ToolRun rm = runRoutinglib("memtab rm " + name.value);
  EXPECT_EQ(rm.status, 0) << rm.output;
  EXPECT_EQ(rm.output, "");
  const ToolRun gone = runRoutinglib("memtab dump " + name.value);
  EXPECT_EQ(gone.status, 2);
  EXPECT_EQ(gone.output, "routinglib memtab: no table named '" + name.value + "'\n");
}

TEST(MemtabCommand, WatchShowsChangesAsTheyHappen) {
  Name name("watch");
  Memtab::Writer<Pair> w(name.value);
  w.insert(Pair{1, 10});
  const std::string command = std::string("'") + ROUTINGLIB_TOOL + "' memtab watch " + name.value +
                              " --count 3 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[512];
  ASSERT_NE(std::fgets(line, sizeof line, pipe), nullptr);
  EXPECT_EQ(std::string(line).rfind("watching " + name.value + " (", 0), 0u) << line;
  // The writer never polls: the watcher is taken in by the first change.
  w.insert(Pair{2, 20});
  w.insert(Pair{1, 11});
  w.del(Code{2});
  std::string rest;
  while (std::fgets(line, sizeof line, pipe) != nullptr) rest += line;
  const int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(rest, "set " + hexOf(2, 20) + "\nset " + hexOf(1, 11) + "\ndel " + hexOf(2, 20) + "\n");
}

TEST(MemtabCommand, DamagedSegmentsAndNamesThatAreNoTable) {
  Name shortFile("short");
  int fd = shm_open(("/memtab." + shortFile.value).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "not a table", 11), 11);
  close(fd);
  for (const char* command : {"dump", "watch"}) {
    const ToolRun r = runRoutinglib(std::string("memtab ") + command + " " + shortFile.value);
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_EQ(r.output, "routinglib memtab: table " + shortFile.value +
                            " is damaged: segment has no valid header (11 bytes)\n")
        << command;
  }
  const ToolRun list = runRoutinglib("memtab list");
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.output.find("is damaged: segment has no valid header"), std::string::npos)
      << list.output;
  EXPECT_EQ(runRoutinglib("memtab rm " + shortFile.value).status, 0);

  // A header whose change ring cannot be.
  Name broken("broken");
  {
    Memtab::Writer<Pair> w(broken.value);
    for (std::uint32_t i = 0; i < 20; ++i) w.insert(Pair{i, i});
  }
  fd = shm_open(("/memtab." + broken.value).c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0);
  auto* base = static_cast<std::uint8_t*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ASSERT_NE(base, MAP_FAILED);
  auto* header = reinterpret_cast<Memtab::Shm::Header*>(base);
  header->ringBytes = 12345;  // not a power of two
  munmap(base, 4096);
  close(fd);
  const ToolRun damaged = runRoutinglib("memtab dump " + broken.value + " --json");
  EXPECT_EQ(damaged.status, 1);
  EXPECT_EQ(damaged.output, "routinglib memtab: table " + broken.value +
                                " is damaged: segment header has an invalid change ring\n");

  for (const char* args : {"memtab dump no.such.table", "memtab watch no.such.table",
                           "memtab rm no.such.table", "memtab dump ../etc", "memtab rm '.x'",
                           "memtab", "memtab dump", "memtab frob x", "memtab watch x --count -1"}) {
    const ToolRun r = runRoutinglib(args);
    EXPECT_EQ(r.status, 2) << args << ": " << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << args << ": " << r.output;
  }
}

}  // namespace
