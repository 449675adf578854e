// kernel-agent: simulates the agent that programs routes into the kernel.
// It owns the shared unprogrammed-route tables and records a failure (an
// Error or Error6 under its prefix and VRF) or clears one at a steady rate,
// over a given number of VRFs; it also leaks one connected route of each VRF
// into the next one in the shared leaked-route table.
//
//   kernel-agent [--vrfs N] [--rate CHANGES_PER_S] [--changes N] [--keep N]
//                [--error4 TABLE] [--error6 TABLE] [--leaked TABLE]
//                [--after-socket PATH]
//
// With --after-socket it makes its tables and then waits until something
// listens at PATH (the status agent's mount) before the first change, so
// that the status agent starts over tables that stand still.
//
// Failures are recorded until `keep` are present; from then on it clears
// the oldest failure and records a new one in turn, so each failure stays
// recorded for a while. After `changes` changes (0: no limit) it prints
// "kernel-agent: done ..." and keeps its tables until it is stopped
// (SIGTERM or SIGINT), when it prints a summary and exits 0.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <sstream>
#include <string>

#include "Loop/EventLoop.h"
#include "RoutingLib/ConnectedRouteLeak.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"

namespace {

using namespace Memtab::KernelUnprogrammedRoute;

Loop::EventLoop* gLoop = nullptr;

void onSignal(int) {
  if (gLoop != nullptr) gLoop->stop();
}

struct Config {
  unsigned vrfs = 4;
  double rate = 1000;
  unsigned long changes = 0;
  unsigned keep = 64;
  std::string error4 = "unprog.error";
  std::string error6 = "unprog.error6";
  std::string leaked = "crl.leaked";
  std::string afterSocket;
};

bool listening(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (fd < 0 || path.size() >= sizeof a.sun_path) {
    if (fd >= 0) close(fd);
    return false;
  }
  std::memcpy(a.sun_path, path.data(), path.size());
  const bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
  close(fd);
  return ok;
}

int usage() {
  std::cerr << "usage: kernel-agent [--vrfs N] [--rate CHANGES_PER_S] [--changes N] [--keep N]\n"
               "                    [--error4 TABLE] [--error6 TABLE] [--leaked TABLE] [--after-socket PATH]\n";
  return 2;
}

std::string vrfName(unsigned i) { return i == 0 ? "default" : "vrf" + std::to_string(i); }

// Failure i: in VRF i % vrfs, every fourth one IPv6.
ErrorKey failureKey(unsigned long i, unsigned vrfs) {
  const L3::VrfName vrf(Cog::String(vrfName(static_cast<unsigned>(i % vrfs))));
  const unsigned long n = i / vrfs;
  if (i % 4 == 3) {
    std::ostringstream p;
    p << "2001:db8:" << std::hex << (n >> 16) << ":" << (n & 0xFFFF) << "::/64";
    return ErrorKey(vrf, Velnet::IpGenPrefix(Cog::String(p.str())));
  }
  const std::string p = "10." + std::to_string((n >> 16) & 0xFF) + "." + std::to_string((n >> 8) & 0xFF) + "." +
                        std::to_string(n & 0xFF) + "/32";
  return ErrorKey(vrf, Velnet::IpGenPrefix(Cog::String(p)));
}

}  // namespace

int main(int argc, char** argv) {
  Config c;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (i + 1 >= argc) return usage();
    const std::string v = argv[++i];
    try {
      if (a == "--vrfs") c.vrfs = static_cast<unsigned>(std::stoul(v));
      else if (a == "--rate") c.rate = std::stod(v);
      else if (a == "--changes") c.changes = std::stoul(v);
      else if (a == "--keep") c.keep = static_cast<unsigned>(std::stoul(v));
      else if (a == "--error4") c.error4 = v;
      else if (a == "--error6") c.error6 = v;
      else if (a == "--leaked") c.leaked = v;
      else if (a == "--after-socket") c.afterSocket = v;
      else return usage();
    } catch (const std::exception&) {
      return usage();
    }
  }
  if (c.vrfs == 0 || c.rate <= 0) return usage();

  try {
    auto kernel = unprogrammedRouteFactory(Cog::Name("kernel"));
    kernel->errorWriterIs(c.error4);
    kernel->error6WriterIs(c.error6);
    auto leaks = Routing::connectedRouteLeakStatusFactory(Cog::Name("kernel"));
    leaks->leakedRouteWriterIs(c.leaked);
    leaks->leakedRouteDelAll();
    for (unsigned v = 0; v < c.vrfs; ++v) {
      const std::string p = "10.255." + std::to_string(v) + ".0/24";
      const Vrf::VrfIdMap::VrfId dest((v + 1) % c.vrfs + 1);
      leaks->leakedRouteIs(Routing::RouteLeakedToVrf(
          Routing::DestVrfPrefix(dest, Velnet::IpGenPrefix(Cog::String(p))), Vrf::VrfIdMap::VrfId(v + 1)));
    }
    // A previous run's failures are not ours to keep.
    kernel->errorDelAll();
    kernel->error6DelAll();

    std::cout << "kernel-agent: programming routes in " << c.vrfs << " VRFs, " << c.rate
              << " changes/s (tables " << c.error4 << ", " << c.error6 << ", " << c.leaked << ")" << std::endl;

    Loop::EventLoop loop;
    gLoop = &loop;
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);

    std::deque<ErrorKey> present;
    unsigned long next = 0, recorded = 0, cleared = 0, done = 0;
    bool finished = false, started = c.afterSocket.empty();
    auto start = Loop::EventLoop::Clock::now();
    auto change = [&] {
      if (present.size() >= c.keep && done % 2 == 1) {
        const ErrorKey k = present.front();
        present.pop_front();
        if (k.prefix().isIpv6()) kernel->error6Del(k);
        else kernel->errorDel(k);
        ++cleared;
      } else {
        const ErrorKey k = failureKey(next, c.vrfs);
        // Kernel error codes: ENOMEM, ENETUNREACH, EEXIST in turn.
        const std::uint32_t code = next % 3 == 0 ? 12 : next % 3 == 1 ? 101 : 17;
        if (k.prefix().isIpv6()) {
          kernel->error6Is(Error6(code, Velnet::IntfId(1000 + static_cast<std::uint32_t>(next % 8), 0), k));
        } else {
          kernel->errorIs(Error(code, k));
        }
        present.push_back(k);
        ++next;
        ++recorded;
      }
      ++done;
    };
    const auto period = std::chrono::duration_cast<Loop::EventLoop::Clock::duration>(
        std::chrono::duration<double>(std::max(1.0 / c.rate, 0.001)));
    loop.timerIs(period, [&] {
      if (finished) return;
      if (!started) {
        if (!listening(c.afterSocket)) return;
        started = true;
        start = Loop::EventLoop::Clock::now();
        std::cout << "kernel-agent: " << c.afterSocket << " is served; starting" << std::endl;
      }
      const double elapsed = std::chrono::duration<double>(Loop::EventLoop::Clock::now() - start).count();
      auto due = static_cast<unsigned long>(elapsed * c.rate);
      if (c.changes != 0) due = std::min(due, c.changes);
      while (done < due) change();
      if (c.changes != 0 && done >= c.changes) {
        finished = true;
        std::cout << "kernel-agent: done: " << done << " changes, " << present.size()
                  << " failures present" << std::endl;
      }
    }, period);
    loop.run();
    std::cout << "kernel-agent: stopping: recorded " << recorded << " failures, cleared " << cleared << ", "
              << present.size() << " present" << std::endl;
    gLoop = nullptr;
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "kernel-agent: " << e.what() << std::endl;
    return 1;
  }
}
