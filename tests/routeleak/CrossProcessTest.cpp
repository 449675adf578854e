// The leaked-route table written by one process and followed by the
// reverse-index reactor in another, attached through the reader's
// notifications in an agent's poll loop. When the writer has stopped, the
// reader's index must equal the index built from the table's final contents,
// whether the reader kept up, fell behind a small change ring, started after
// the table was filled, or saw its writer killed and a new one take over.
//
// The writer keeps each prefix in one source VRF (as connected routes are):
// a value that moved between source VRFs under one key would, by design,
// leave its old source in the index, and then the result would depend on
// which intermediate values the reader happened to see.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/MappedSegment.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>

#include "Memtab/Segment.h"
#include "RoutingLib/ConnectedRouteLeakSourceVrfSm.h"

using namespace Routing;
using Vrf::VrfIdMap::VrfId;
using Velnet::IpGenPrefix;

namespace {

using testsupport::exitStatus;
using testsupport::spawn;

constexpr std::uint32_t kDestVrfs = 64;
constexpr std::uint32_t kPrefixes = 256;
constexpr std::uint32_t kSourceVrfs = 16;

IpGenPrefix prefixOf(std::uint32_t i) {
  if (i % 4 == 3) {
    return IpGenPrefix(Velnet::Ip6Prefix(Velnet::Ip6Addr(0x20010db8, i, 0, 0), 64));
  }
  return IpGenPrefix(Velnet::IpGenAddr::ipv4(0x0A000000 | i << 8), 24 + i % 3);
}

// The source VRF that owns prefix i.
VrfId sourceOf(std::uint32_t i) { return VrfId(1000 + i % kSourceVrfs); }

// Full-speed changes: inserts, unchanged rewrites, direct commits, deletes.
void churn(ConnectedRouteLeakStatus& status, std::uint32_t seed, int ops) {
  std::mt19937 rng(seed);
  for (int n = 0; n < ops; ++n) {
    const std::uint32_t p = rng() % kPrefixes;
    const DestVrfPrefix key(VrfId(rng() % kDestVrfs), prefixOf(p));
    const unsigned op = rng() % 8;
    if (op < 4) {
      status.leakedRouteIs(RouteLeakedToVrf(key, sourceOf(p)));
    } else if (op == 4) {
      if (RouteLeakedToVrf* e = status.leakedRouteEdit(key)) status.leakedRouteCommit(e);
    } else {
      status.leakedRouteDel(key);
    }
  }
}

void fill(ConnectedRouteLeakStatus& status) {
  for (std::uint32_t d = 0; d < kDestVrfs; d += 2) {
    for (std::uint32_t p = 0; p < kPrefixes; p += 3) {
      status.leakedRouteIs(RouteLeakedToVrf(DestVrfPrefix(VrfId(d), prefixOf(p)), sourceOf(p)));
    }
  }
}

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() {
    if (pipe(fd) != 0) throw std::runtime_error("pipe");
  }
  ~Pipe() {
    close(fd[0]);
    close(fd[1]);
  }
  void signal() const {
    char c = 1;
    if (write(fd[1], &c, 1) != 1) std::abort();
  }
  // Blocks until signalled; false when the other end closed first.
  bool await() const {
    char c;
    return read(fd[0], &c, 1) == 1;
  }
};

// The agent's side: the machine follows the table through the reader's
// notifications. A whole-table notification delivered by the reader (the
// table first mapped, or replaced) is answered with a full sweep inside
// the delivery, so that the reader knows what the machine has seen.
struct Agent : ConnectedRouteLeakStatus::NotifieeConst {
  Cog::Ptr<ConnectedRouteLeakStatus> status = connectedRouteLeakStatusFactory(Cog::Name("crlStatus"));
  Cog::Ptr<ConnectedRouteLeakLocalStatus> local = connectedRouteLeakLocalStatusFactory();
  Cog::Ptr<ConnectedRouteLeakSourceVrfSm> sm;
  bool delivering = false;

  explicit Agent(const std::string& table) {
    sm = ConnectedRouteLeakSourceVrfSmIs(status, local);
    notifierIs(status);
    status->leakedRouteReaderIs(table);
  }
  void onLeakedRoute() override {
    if (delivering) sm->handleLeakedRoute();
  }
  void deliver() {
    delivering = true;
    status->leakedRouteProcessNotifications();
    delivering = false;
  }
};

using Index = std::map<SourceVrfPrefix, std::set<std::uint32_t>>;

Index indexOf(const ConnectedRouteLeakLocalStatus& local) {
  Index out;
  for (const auto& [key, entry] : local.leakedRouteBySourceVrf()) {
    auto& ids = out[key];
    for (const VrfId& id : entry->destVrfId()) ids.insert(id.value());
  }
  return out;
}

Index indexOfTable(const ConnectedRouteLeakStatus& status) {
  Index out;
  for (const RouteLeakedToVrf& v : status.leakedRoute()) {
    out[SourceVrfPrefix(v.sourceVrfId(), v.destVrfPrefix().prefix())].insert(v.destVrfPrefix().destVrfId().value());
  }
  return out;
}

// Follows the table until `done` is signalled, then takes in the last
// changes and compares. 0: equal; 1: they differ; 3: empty table.
int runReader(const std::string& table, const Pipe& done) {
  Agent agent(table);
  for (;;) {
    pollfd p[2] = {{agent.status->leakedRouteFd(), POLLIN, 0}, {done.fd[0], POLLIN, 0}};
    if (poll(p, 2, -1) < 0) continue;
    if (p[0].revents != 0) agent.deliver();
    if (p[1].revents != 0) break;
  }
  agent.deliver();
  const Index got = indexOf(*agent.local);
  const Index want = indexOfTable(*agent.status);
  if (want.empty()) return 3;
  if (got == want) return 0;
  int shown = 0;
  for (const auto& [k, ids] : want) {
    auto it = got.find(k);
    if ((it == got.end() || it->second != ids) && ++shown <= 5) {
      std::fprintf(stderr, "reader: %s: %zu destinations in the table, %zu in the index\n",
                   valueToStrep(k).str().c_str(), ids.size(), it == got.end() ? 0 : it->second.size());
    }
  }
  std::fprintf(stderr, "reader: %zu index entries, %zu expected\n", got.size(), want.size());
  return 1;
}

class CrossProcess : public ::testing::Test {
 protected:
  std::string table = "routeleak" + std::to_string(getpid()) + "-" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name();
  void TearDown() override { Memtab::unlinkTable(table); }

  // A writer that fills the table, churns `before` changes, signals
  // `progress`, then churns `ops` more.
  pid_t writer(std::uint32_t seed, int ops, const Pipe* progress, std::size_t ringBytes, int before = 0) {
    return spawn([=, this] {
      Memtab::Options options;
      options.ringBytes = ringBytes;
      auto status = connectedRouteLeakStatusFactory(Cog::Name("crlStatus"));
      status->leakedRouteWriterIs(table, options);
      fill(*status);
      churn(*status, seed + 1, before);
      if (progress) progress->signal();
      churn(*status, seed, ops);
      return 0;
    });
  }
  pid_t reader(const Pipe& done) {
    return spawn([&] { return runReader(table, done); });
  }
};

const char* readerMeaning(int status) {
  switch (status) {
    case 0: return "index equals the table's";
    case 1: return "index differs from the table's (see above)";
    case 2: return "exception (see above)";
    case 3: return "the reader found the table empty";
    default: return "killed or failed otherwise";
  }
}

TEST_F(CrossProcess, ReaderKeepsUpOrFallsBehind) {
  // A 4 KiB change ring: the reader falls behind the writer again and again.
  for (std::size_t ring : {std::size_t{4096}, std::size_t{1} << 20}) {
    Pipe done;
    pid_t r = reader(done);
    pid_t w = writer(7, 60000, nullptr, ring);
    ASSERT_EQ(exitStatus(w), 0);
    done.signal();
    const int status = exitStatus(r);
    EXPECT_EQ(status, 0) << readerMeaning(status) << " (ring " << ring << ")";
    Memtab::unlinkTable(table);
  }
}

TEST_F(CrossProcess, ReaderStartsAfterTheTableIsFilled) {
  Pipe filled, done;
  pid_t w = writer(11, 60000, &filled, 4096);
  ASSERT_TRUE(filled.await());
  pid_t r = reader(done);
  ASSERT_EQ(exitStatus(w), 0);
  done.signal();
  const int status = exitStatus(r);
  EXPECT_EQ(status, 0) << readerMeaning(status);
}

TEST_F(CrossProcess, WriterKilledAndRestarted) {
  Pipe filled, done;
  pid_t r = reader(done);
  // Killed while it churns: it would run far longer than this test.
  pid_t first = writer(13, 1 << 30, &filled, 4096, 20000);
  ASSERT_TRUE(filled.await());
  kill(first, SIGKILL);
  ASSERT_EQ(exitStatus(first), 128 + SIGKILL);
  pid_t second = writer(17, 60000, nullptr, 4096);
  ASSERT_EQ(exitStatus(second), 0);
  done.signal();
  const int status = exitStatus(r);
  EXPECT_EQ(status, 0) << readerMeaning(status);
}

}  // namespace

namespace {

// A damaged record in the shared table reaches the table's corruption
// handler, from the machine's sweep and from its per-key lookups alike; the
// machine goes on with what it could read.
TEST(LeakedRouteTable, CorruptionGoesToTheTablesHandler) {
  const std::string table = "routeleakbad" + std::to_string(getpid());
  struct Unlink {
    std::string name;
    ~Unlink() { Memtab::unlinkTable(name); }
  } unlink{table};
  auto writer = connectedRouteLeakStatusFactory(Cog::Name("w"));
  writer->leakedRouteWriterIs(table);
  const RouteLeakedToVrf damaged(DestVrfPrefix(VrfId(0x5EED5EED), prefixOf(1)), VrfId(3));
  writer->leakedRouteIs(damaged);

  // Overwrite the address family of the record's image with one that
  // does not exist.
  std::vector<std::uint8_t> image(damaged.serializeLen());
  damaged.serialize(image.data());
  testsupport::MappedSegment segment(table);
  ASSERT_NE(segment.base, nullptr);
  std::uint8_t* const base = segment.base;
  const std::size_t size = segment.size;
  // Every copy: the change ring holds one too.
  int copies = 0;
  for (std::size_t from = 0; from < size;) {
    auto* at = static_cast<std::uint8_t*>(memmem(base + from, size - from, image.data(), image.size()));
    if (at == nullptr) break;
    at[7] = 9;
    ++copies;
    from = static_cast<std::size_t>(at - base) + 1;
  }
  ASSERT_GE(copies, 1);

  std::vector<std::string> messages;
  Memtab::Options options;
  options.corruptionHandler = [&](const std::string& m) { messages.push_back(m); };
  auto status = connectedRouteLeakStatusFactory(Cog::Name("r"));
  status->leakedRouteReaderIs(table, options);
  auto local = connectedRouteLeakLocalStatusFactory();
  auto sm = ConnectedRouteLeakSourceVrfSmIs(status, local);
  EXPECT_EQ(messages.size(), 1u);
  sm->handleLeakedRoute(damaged.destVrfPrefix());
  EXPECT_EQ(messages.size(), 2u);
  EXPECT_EQ(local->leakedRouteBySourceVrf().size(), 0u);
  EXPECT_EQ(sm->prevCrlStatus()->leakedRoute().size(), 0u);
}

}  // namespace
