// `routinglib show unprogrammed`: the routes the kernel failed to program,
// per VRF, as a status agent publishes them (examples/status-agent).
//
//   routinglib show unprogrammed [--vrf NAME] [--json] [--watch [--count N]]
//                                [--socket PATH] [--wait SECONDS]
//
// Subscribes to the status agent's mount at PATH (default
// /tmp/routinglib-status.sock), waits for the full resynchronisation and
// prints, per VRF in name order, the number of failed IPv4 and IPv6 routes
// and their prefixes. --watch prints again each time the picture changes,
// until interrupted or N pictures were printed. A status agent that cannot be
// reached within --wait seconds (default 5) is an error (exit status 1).
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"
#include "Loop/EventLoop.h"
#include "Mount/Mount.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"

namespace routinglib {
namespace {

using namespace Memtab::KernelUnprogrammedRoute;

Loop::EventLoop* gLoop = nullptr;

void onSignal(int) {
  if (gLoop != nullptr) gLoop->stop();
}

constexpr const char* kUsage =
    "usage: routinglib show unprogrammed [--vrf NAME] [--json] [--watch [--count N]]\n"
    "                                    [--socket PATH] [--wait SECONDS]\n"
    "Subscribes to a status agent and prints, per VRF, the number of routes the\n"
    "kernel refused (IPv4 and IPv6) and their keys.\n"
    "  --vrf NAME      that VRF only\n"
    "  --json          one JSON object per picture\n"
    "  --watch         a new picture on every change (until interrupted, or N times\n"
    "                  with --count N)\n"
    "  --socket PATH   the status agent's socket (default /tmp/routinglib-status.sock)\n"
    "  --wait SECONDS  how long to wait for the agent before giving up (default 5)\n";

int usage(std::ostream& err, const std::string& why) {
  err << "routinglib show: " << why << " (" << usageLine(kUsage) << ")\n";
  return kExitUsage;
}

bool number(const std::string& text, double* out) {
  char* end = nullptr;
  *out = std::strtod(text.c_str(), &end);
  return !text.empty() && end != nullptr && *end == '\0' && *out >= 0;
}

struct VrfPicture {
  std::uint32_t ipv4 = 0;
  std::uint32_t ipv6 = 0;
  std::vector<std::string> failed;  // prefixes, sorted
};

std::string prefixText(const ErrorKey& k) {
  std::ostringstream os;
  os << k.prefix();
  return os.str();
}

std::map<std::string, VrfPicture> picture(const Cog::Dir& dir, const std::string& only) {
  std::map<std::string, VrfPicture> out;
  auto keep = [&](const std::string& vrf) { return only.empty() || vrf == only; };
  if (auto* counts = dynamic_cast<const UnprogrammedRouteCountByVrf*>(dir.entity(Cog::Name("counts")).ptr())) {
    for (const auto& [vrf, count] : counts->errorCount()) {
      const std::string name = vrf.value().str();
      if (!keep(name)) continue;
      VrfPicture& p = out[name];
      for (const auto& [af, n] : count->numRoutes()) {
        if (af == Velnet::AddressFamily::ipv6) p.ipv6 = n;
        else p.ipv4 = n;
      }
    }
  }
  if (auto* sets = dynamic_cast<const UnprogrammedRouteByVrf*>(dir.entity(Cog::Name("routes")).ptr())) {
    for (const auto* collection : {&sets->error4KeySet(), &sets->error6KeySet()}) {
      for (const auto& [vrf, set] : *collection) {
        const std::string name = vrf.value().str();
        if (!keep(name)) continue;
        VrfPicture& p = out[name];
        for (const auto& [key, v] : set->errorKey()) p.failed.push_back(prefixText(key));
      }
    }
  }
  for (auto& [vrf, p] : out) std::sort(p.failed.begin(), p.failed.end());
  return out;
}

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
      continue;
    }
    out += c;
  }
  return out + "\"";
}

std::string render(const std::map<std::string, VrfPicture>& vrfs, bool json, const std::string& source) {
  std::ostringstream os;
  if (json) {
    // One VRF a line, so that line tools can take it apart too.
    os << "{\"source\": " << jsonString(source) << ", \"vrfs\": [\n";
    std::size_t i = 0;
    for (const auto& [vrf, p] : vrfs) {
      os << "  {\"vrf\": " << jsonString(vrf) << ", \"ipv4\": " << p.ipv4 << ", \"ipv6\": " << p.ipv6
         << ", \"failed\": [";
      for (std::size_t k = 0; k < p.failed.size(); ++k) os << (k ? ", " : "") << jsonString(p.failed[k]);
      os << "]}" << (++i < vrfs.size() ? "," : "") << "\n";
    }
    os << "]}\n";
    return os.str();
  }
  std::uint64_t total4 = 0, total6 = 0;
  std::size_t width = 5;
  for (const auto& [vrf, p] : vrfs) width = std::max(width, vrf.size());
  os << "Unprogrammed routes (" << source << ")\n";
  os << "VRF" << std::string(width - 1, ' ') << "  IPv4   IPv6\n";
  for (const auto& [vrf, p] : vrfs) {
    std::ostringstream n4, n6;
    n4 << p.ipv4;
    n6 << p.ipv6;
    os << vrf << std::string(width + 2 - vrf.size(), ' ') << std::string(6 - std::min<std::size_t>(6, n4.str().size()), ' ')
       << n4.str() << " " << std::string(6 - std::min<std::size_t>(6, n6.str().size()), ' ') << n6.str() << "\n";
    total4 += p.ipv4;
    total6 += p.ipv6;
  }
  std::ostringstream t4, t6;
  t4 << total4;
  t6 << total6;
  os << "total" << std::string(width - 3, ' ') << std::string(6 - std::min<std::size_t>(6, t4.str().size()), ' ')
     << t4.str() << " " << std::string(6 - std::min<std::size_t>(6, t6.str().size()), ' ') << t6.str() << "\n";
  for (const auto& [vrf, p] : vrfs) {
    if (p.failed.empty()) continue;
    os << "\nVRF " << vrf << ": " << p.failed.size() << " failed\n";
    for (const auto& f : p.failed) os << "  " << f << "\n";
  }
  return os.str();
}

int showMain(const Args& args, std::ostream& out, std::ostream& err) {
  if (args.empty() || args[0] != "unprogrammed") return usage(err, "show what? only 'unprogrammed' is known");
  std::string vrf, socket = "/tmp/routinglib-status.sock";
  bool json = false, watch = false;
  unsigned long count = 0;
  double wait = 5;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string* v) {
      if (i + 1 >= args.size()) return false;
      *v = args[++i];
      return true;
    };
    std::string v;
    if (a == "--json") json = true;
    else if (a == "--watch") watch = true;
    else if (a == "--vrf" && value(&vrf)) continue;
    else if (a == "--socket" && value(&socket)) continue;
    else if (a == "--count" && value(&v)) {
      double n = 0;
      if (!number(v, &n) || n != static_cast<double>(static_cast<unsigned long>(n))) {
        return usage(err, "'" + v + "' is not a count");
      }
      count = static_cast<unsigned long>(n);
    } else if (a == "--wait" && value(&v)) {
      if (!number(v, &wait)) return usage(err, "'" + v + "' is not a number of seconds");
    } else {
      return usage(err, "unknown or incomplete option '" + a + "'");
    }
  }

  Mount::Options options;
  options.log = [](const std::string&) {};  // reasons are reported below
  options.retry = std::chrono::milliseconds(50);
  Mount::Subscriber sub(socket, "Cog::Dir", options);
  Loop::EventLoop loop;
  gLoop = &loop;
  auto oldInt = std::signal(SIGINT, onSignal);
  auto oldTerm = std::signal(SIGTERM, onSignal);
  std::string last;
  unsigned long printed = 0;
  bool everSynced = false;
  sub.onUpdateIs([&] {
    if (sub.status() != Mount::Subscriber::Status::synced) return;
    everSynced = true;
    const auto* dir = dynamic_cast<const Cog::Dir*>(sub.root().ptr());
    const std::string now = render(picture(*dir, vrf), json, socket);
    if (now == last) return;
    if (watch && printed > 0 && !json) out << "\n";
    out << now << std::flush;
    last = now;
    ++printed;
    if (!watch || (count != 0 && printed >= count)) loop.stop();
  });
  loop.sourceIs(sub);
  const auto deadline = std::chrono::duration_cast<Loop::EventLoop::Clock::duration>(std::chrono::duration<double>(wait));
  loop.timerIs(deadline, [&] {
    if (!everSynced) loop.stop();
  });
  loop.run();
  gLoop = nullptr;
  std::signal(SIGINT, oldInt);
  std::signal(SIGTERM, oldTerm);
  if (!everSynced) {
    err << "routinglib show: no status agent at " << socket
        << (sub.lastError().empty() ? std::string() : ": " + sub.lastError()) << "\n";
    return 1;
  }
  return 0;
}

Registration reg{"show", "show state published by agents: unprogrammed routes per VRF", kUsage,
                 &showMain};

}  // namespace
}  // namespace routinglib
