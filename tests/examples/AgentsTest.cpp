// The example agents end to end, as processes: the kernel agent records and
// clears failures in shared tables, the status agent derives per-VRF counts
// and key sets and publishes them through a mount, and `routinglib show
// unprogrammed --json` prints them. Once the kernel agent is done, what
// `show` prints must equal what the final tables hold: per VRF, the number
// of IPv4 and IPv6 failures and their prefixes. Both agents stop cleanly on
// SIGTERM.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Memtab/Segment.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"
#include "support/ChildProcess.h"
#include "support/Emulation.h"
#include "support/ToolRun.h"

namespace {

using namespace Memtab::KernelUnprogrammedRoute;

// An agent started through the shell (and the emulator where tests need
// it), its output on a pipe.
struct Agent {
  pid_t pid = -1;
  int out = -1;
  std::string seen;

  explicit Agent(const std::string& command) {
    int p[2];
    if (pipe(p) != 0) return;
    pid = testsupport::spawn([&]() -> int {
      dup2(p[1], 1);
      dup2(p[1], 2);
      close(p[0]);
      close(p[1]);
      const std::string cmd = "exec " + testsupport::programPrefix() + command;
      execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
      return 127;
    });
    close(p[1]);
    out = p[0];
  }
  ~Agent() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      testsupport::exitStatus(pid);
    }
    if (out >= 0) close(out);
  }
  // Reads output until it holds `text`; false at end of output or after
  // the deadline (a hang).
  bool await(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (seen.find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      pollfd p{out, POLLIN, 0};
      if (poll(&p, 1, 1000) != 1) continue;
      char buf[512];
      const ssize_t got = read(out, buf, sizeof buf);
      if (got <= 0) return false;
      seen.append(buf, static_cast<std::size_t>(got));
    }
    return true;
  }
  int stop() {
    kill(pid, SIGTERM);
    const int status = testsupport::exitStatus(pid);
    pid = -1;
    return status;
  }
};

std::string prefixText(const ErrorKey& k) {
  std::ostringstream os;
  os << k.prefix();
  return os.str();
}

// The per-VRF lines `show unprogrammed --json` prints for these tables.
std::set<std::string> expectedLines(const UnprogrammedRoute& tables) {
  struct Vrf {
    unsigned v4 = 0, v6 = 0;
    std::vector<std::string> failed;
  };
  std::map<std::string, Vrf> vrfs;
  for (const Error& e : tables.error()) {
    Vrf& v = vrfs[e.key().vrfNameText().str()];
    ++v.v4;
    v.failed.push_back(prefixText(e.key()));
  }
  for (const Error6& e : tables.error6()) {
    Vrf& v = vrfs[e.key().vrfNameText().str()];
    ++v.v6;
    v.failed.push_back(prefixText(e.key()));
  }
  std::set<std::string> lines;
  for (auto& [name, v] : vrfs) {
    std::sort(v.failed.begin(), v.failed.end());
    std::string line = "{\"vrf\": \"" + name + "\", \"ipv4\": " + std::to_string(v.v4) +
                       ", \"ipv6\": " + std::to_string(v.v6) + ", \"failed\": [";
    for (std::size_t i = 0; i < v.failed.size(); ++i) line += (i ? ", \"" : "\"") + v.failed[i] + "\"";
    lines.insert(line + "]}");
  }
  return lines;
}

std::set<std::string> shownLines(const std::string& output) {
  std::set<std::string> lines;
  std::istringstream in(output);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("  {\"vrf\"", 0) != 0) continue;
    line = line.substr(2);
    if (!line.empty() && line.back() == ',') line.pop_back();
    lines.insert(line);
  }
  return lines;
}

TEST(Agents, ShowEqualsTheFinalTables) {
  const std::string tag = "agents." + std::to_string(getpid());
  const std::string n4 = tag + ".e4", n6 = tag + ".e6", leaked = tag + ".leaked";
  const std::string sock = "/tmp/rl-" + tag + ".sock";
  struct Cleanup {
    std::vector<std::string> tables;
    std::string sock;
    ~Cleanup() {
      for (const auto& t : tables) Memtab::unlinkTable(t);
      unlink(sock.c_str());
    }
  } cleanup{{n4, n6, leaked}, sock};
  const std::string tables = " --error4 " + n4 + " --error6 " + n6 + " --leaked " + leaked;

  Agent kernel(std::string("'") + KERNEL_AGENT + "' --vrfs 5 --rate 400 --changes 600 --keep 120 --after-socket " +
               sock + tables);
  ASSERT_TRUE(kernel.await("programming")) << kernel.seen;
  Agent status(std::string("'") + STATUS_AGENT + "' --socket " + sock + tables);
  ASSERT_TRUE(status.await("serving")) << status.seen;
  ASSERT_TRUE(kernel.await("done")) << kernel.seen;

  auto reader = unprogrammedRouteFactory(Cog::Name("test"));
  reader->errorReaderIs(n4);
  reader->error6ReaderIs(n6);
  const std::set<std::string> want = expectedLines(*reader);
  ASSERT_EQ(want.size(), 5u);  // every VRF has failures

  // The status agent may still be taking in the last changes: ask again
  // until it has (each answer is a full resynchronisation).
  std::set<std::string> shown;
  std::string output;
  for (int i = 0; i < 50 && shown != want; ++i) {
    const auto run = testsupport::runRoutinglib("show unprogrammed --json --socket " + sock);
    ASSERT_EQ(run.status, 0) << run.output;
    output = run.output;
    shown = shownLines(output);
  }
  EXPECT_EQ(shown, want) << output;

  const auto one = testsupport::runRoutinglib("show unprogrammed --vrf vrf2 --socket " + sock);
  EXPECT_EQ(one.status, 0);
  EXPECT_NE(one.output.find("vrf2"), std::string::npos) << one.output;
  EXPECT_EQ(one.output.find("vrf3"), std::string::npos) << one.output;

  EXPECT_EQ(status.stop(), 0);
  EXPECT_EQ(kernel.stop(), 0);
  EXPECT_TRUE(kernel.await("stopping")) << kernel.seen;
  const auto gone = testsupport::runRoutinglib("show unprogrammed --wait 0.2 --socket " + sock);
  EXPECT_EQ(gone.status, 1) << gone.output;
  EXPECT_NE(gone.output.find("no status agent at " + sock), std::string::npos) << gone.output;
}

}  // namespace
