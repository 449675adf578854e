// The kernel side and the status side as two processes: a forked writer
// process records and deletes failed routes in the shared tables, phase by
// phase; this process mounts the tables as a reader and runs both machines
// on them. After each phase has been delivered, the per-VRF counts and key
// sets must match the tables exactly: after small phases that the change
// ring holds, after large ones that overflow it (the reader falls behind and
// compares the table with what it delivered), and after the writer process
// was killed and a new one carried on with the same tables. The dump of the
// tool must show one line per entry.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Activity/Counter.h"
#include "Memtab/Segment.h"
#include "RoutingLib/KernelUnprogrammedRouteSplitterSm.h"
#include "support/ChildProcess.h"
#include "support/ToolRun.h"

using namespace Memtab::KernelUnprogrammedRoute;

namespace {

constexpr std::uint32_t kQuit = 0xFFFFFFFFu;
// Small enough that a large phase overflows it.
constexpr std::size_t kRingBytes = 4096;

// Route i of the workload: one of 37 VRFs; every third one IPv6.
ErrorKey routeKey(std::uint32_t i) {
  const std::string vrf = "vrf" + std::to_string(i % 37);
  if (i % 3 == 0) {
    std::ostringstream p;
    p << "2001:db8:" << std::hex << (i >> 16) << ":" << (i & 0xFFFF) << "::/64";
    return ErrorKey(L3::VrfName(Cog::String(vrf)), Velnet::IpGenPrefix(Cog::String(p.str())));
  }
  const std::string p = "10." + std::to_string((i >> 16) & 0xFF) + "." + std::to_string((i >> 8) & 0xFF) +
                        "." + std::to_string(i & 0xFF) + "/32";
  return ErrorKey(L3::VrfName(Cog::String(vrf)), Velnet::IpGenPrefix(Cog::String(p)));
}

using testsupport::readAll;

// Phase p: delete every present key whose hash falls in the phase's third
// (all of them were added, and delivered, in earlier phases), then add new
// keys. A key is never re-added, so each delivered notification of it is
// one real change.
void runPhase(UnprogrammedRoute& kernel, std::uint32_t p) {
  std::vector<ErrorKey> dead;
  for (const Error& e : kernel.error())
    if (e.key().hash() % 3 == p % 3) dead.push_back(e.key());
  for (const Error6& e : kernel.error6())
    if (e.key().hash() % 3 == p % 3) dead.push_back(e.key());
  for (const ErrorKey& k : dead) {
    if (k.prefix().isIpv6()) {
      kernel.error6Del(k);
    } else {
      kernel.errorDel(k);
    }
  }
  const std::uint32_t adds = p % 2 == 0 ? 40 : 3000;
  for (std::uint32_t i = p * 10000; i < p * 10000 + adds; ++i) {
    const ErrorKey k = routeKey(i);
    if (k.prefix().isIpv6()) {
      kernel.error6Is(Error6(100 + p, Velnet::IntfId(i, p), k));
    } else {
      kernel.errorIs(Error(100 + p, k));
    }
  }
}

// The kernel-side process: serves phases from `cmd` and answers on `ack`.
[[noreturn]] void writerMain(const std::string& n4, const std::string& n6, int cmd, int ack) {
  int status = 0;
  try {
    Memtab::Options o;
    o.ringBytes = kRingBytes;
    auto kernel = unprogrammedRouteFactory(Cog::Name("kernel"));
    kernel->errorWriterIs(n4, o);
    kernel->error6WriterIs(n6, o);
    char c = 'R';
    if (write(ack, &c, 1) != 1) _exit(3);
    for (std::uint32_t p; readAll(cmd, &p, sizeof p) && p != kQuit;) {
      runPhase(*kernel, p);
      c = 'D';
      if (write(ack, &c, 1) != 1) _exit(3);
    }
  } catch (...) {
    status = 4;
  }
  _exit(status);
}

struct Writer {
  pid_t pid = -1;
  int cmd = -1;
  int ack = -1;
  Writer(const std::string& n4, const std::string& n6) {
    int c[2], a[2];
    if (pipe(c) != 0 || pipe(a) != 0) return;
    pid = fork();
    if (pid == 0) {
      close(c[1]);
      close(a[0]);
      writerMain(n4, n6, c[0], a[1]);
    }
    close(c[0]);
    close(a[1]);
    cmd = c[1];
    ack = a[0];
  }
  bool await(char want) {
    char c = 0;
    return readAll(ack, &c, 1) && c == want;
  }
  bool phase(std::uint32_t p) { return write(cmd, &p, sizeof p) == sizeof p && await('D'); }
  int quit() {
    std::uint32_t q = kQuit;
    if (write(cmd, &q, sizeof q) != sizeof q) return -1;
    return reap();
  }
  void kill() {
    ::kill(pid, SIGKILL);
    reap();
  }
  int reap() {
    int st = 0;
    waitpid(pid, &st, 0);
    close(cmd);
    close(ack);
    pid = -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  }
  ~Writer() {
    if (pid > 0) kill();
  }
};

struct Tables {
  std::string n4 = "unprog.error." + std::to_string(getpid());
  std::string n6 = "unprog.error6." + std::to_string(getpid());
  Tables() { clear(); }
  ~Tables() { clear(); }
  void clear() {
    Memtab::unlinkTable(n4);
    Memtab::unlinkTable(n6);
  }
};

// Delivers everything the readers have: once after the writer's phase ended,
// then until neither descriptor is readable.
void drain(UnprogrammedRoute& status) {
  status.errorProcessNotifications();
  status.error6ProcessNotifications();
  for (;;) {
    pollfd fds[2] = {{status.errorFd(), POLLIN, 0}, {status.error6Fd(), POLLIN, 0}};
    if (poll(fds, 2, 0) <= 0) return;
    status.errorProcessNotifications();
    status.error6ProcessNotifications();
  }
}

using Keys = std::map<std::pair<std::string, bool>, std::set<std::string>>;  // (vrf, v6) -> keys

std::string text(const ErrorKey& k) {
  std::ostringstream os;
  os << k;
  return os.str();
}

Keys tableKeys(const UnprogrammedRoute& r) {
  Keys out;
  for (const Error& e : r.error()) out[{e.key().vrfNameText().str(), false}].insert(text(e.key()));
  for (const Error6& e : r.error6()) out[{e.key().vrfNameText().str(), true}].insert(text(e.key()));
  return out;
}

void expectAgree(const UnprogrammedRoute& status, const UnprogrammedRouteCountByVrf& counts,
                 const UnprogrammedRouteByVrf& sets, const std::string& when) {
  const Keys want = tableKeys(status);
  Keys split;
  for (const auto& [vrf, set] : sets.error4KeySet()) {
    EXPECT_NE(set->errorKey().size(), 0u) << when << ": an empty set of " << vrf;
    for (const auto& [k, v] : set->errorKey()) split[{vrf.value().str(), false}].insert(text(k));
  }
  for (const auto& [vrf, set] : sets.error6KeySet()) {
    EXPECT_NE(set->errorKey().size(), 0u) << when << ": an empty set of " << vrf;
    for (const auto& [k, v] : set->errorKey()) split[{vrf.value().str(), true}].insert(text(k));
  }
  EXPECT_EQ(split, want) << when;
  std::map<std::pair<std::string, bool>, std::uint32_t> counted, wanted;
  for (const auto& [vrf, c] : counts.errorCount()) {
    for (const auto& [af, n] : c->numRoutes())
      if (n != 0) counted[{vrf.value().str(), af == Velnet::AddressFamily::ipv6}] = n;
  }
  for (const auto& [k, v] : want) wanted[k] = static_cast<std::uint32_t>(v.size());
  EXPECT_EQ(counted, wanted) << when;
}

std::size_t entries(const UnprogrammedRoute& r) {
  std::size_t n = 0;
  for (const auto& [k, v] : tableKeys(r)) n += v.size();
  return n;
}

TEST(UnprogrammedProcesses, StatusSideAgreesWithTheTables) {
  Tables names;
  auto writer = std::make_unique<Writer>(names.n4, names.n6);
  ASSERT_GT(writer->pid, 0);
  ASSERT_TRUE(writer->await('R'));

  auto status = unprogrammedRouteFactory(Cog::Name("status"));
  status->errorReaderIs(names.n4);
  status->error6ReaderIs(names.n6);
  auto counts = unprogrammedRouteCountByVrfFactory();
  auto sets = unprogrammedRouteByVrfFactory();
  auto counter = KernelUnprogrammedRouteCounterSmIs(status, counts);
  auto splitter = KernelUnprogrammedRouteSplitterSmIs(status, sets);

  std::uint32_t p = 0;
  // Small phases (even) fit the change ring; large ones (odd) overflow it.
  for (; p < 4; ++p) {
    ASSERT_TRUE(writer->phase(p));
    drain(*status);
    expectAgree(*status, *counts, *sets, "after phase " + std::to_string(p));
  }
  ASSERT_GT(entries(*status), 3000u);
  // The large phases did overflow the ring.
  EXPECT_GT(Activity::CounterWriter::process().counter("memtab." + names.n4 + ".fellBehind").value(), 0u);

  // The kernel side dies without warning; a new process takes the tables over.
  writer->kill();
  writer = std::make_unique<Writer>(names.n4, names.n6);
  ASSERT_TRUE(writer->await('R'));
  for (; p < 7; ++p) {
    ASSERT_TRUE(writer->phase(p));
    drain(*status);
    expectAgree(*status, *counts, *sets, "after restart, phase " + std::to_string(p));
  }

  // The tool lists both tables with their value types and prints one
  // memtabString() line per entry of a live table.
  const auto list = testsupport::runRoutinglib("memtab list");
  EXPECT_EQ(list.status, 0) << list.output;
  for (const auto& [n, type] : {std::pair{names.n4, std::string("Memtab::KernelUnprogrammedRoute::Error")},
                                std::pair{names.n6, std::string("Memtab::KernelUnprogrammedRoute::Error6")}}) {
    std::istringstream lines(list.output);
    bool found = false;
    for (std::string l; std::getline(lines, l);)
      if (l.rfind(n + " ", 0) == 0) found = l.find(" " + type + " ") != std::string::npos;
    EXPECT_TRUE(found) << n << " " << type << "\n" << list.output;
  }
  const auto dump = testsupport::runRoutinglib("memtab dump " + names.n6);
  EXPECT_EQ(dump.status, 0) << dump.output;
  std::set<std::string> want;
  for (const Error6& e : status->error6()) want.insert(e.memtabString());
  std::set<std::string> got;
  std::istringstream in(dump.output);
  for (std::string l; std::getline(in, l);) got.insert(l);
  EXPECT_EQ(got, want);
  const auto json = testsupport::runRoutinglib("memtab dump " + names.n4 + " --json");
  EXPECT_EQ(json.status, 0);
  const Error any = *status->error().begin();
  EXPECT_NE(json.output.find(any.memtabString()), std::string::npos) << json.output.substr(0, 400);

  EXPECT_EQ(writer->quit(), 0);
}

}  // namespace
