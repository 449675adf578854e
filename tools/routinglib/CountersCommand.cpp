// `routinglib counters`: the activity counters of a running process.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <ostream>
#include <string>

#include "Activity/Counter.h"
#include "Command.h"

namespace routinglib {
namespace {

constexpr const char* kUsage =
    "usage: routinglib counters <pid> [--json] [--watch [--interval MS] [--count N]]\n"
    "Lists the activity counters of process <pid>, one \"name value\" line each, in\n"
    "registration order.\n"
    "  --json         one JSON object: {\"pid\": N, \"counters\": {\"name\": value, ...}}\n"
    "  --watch        after the list, prints \"name +delta value\" for each counter that\n"
    "                 changed, every interval, until interrupted, the process exits\n"
    "                 or N changes were shown\n"
    "  --interval MS  how often --watch reads the counters (default 1000)\n"
    "  --count N      stop --watch after N changed counters\n";

volatile std::sig_atomic_t gStop = 0;

int refuse(std::ostream& err, const std::string& message) {
  err << "routinglib counters: " << message << "\n";
  return kExitUsage;
}

bool number(const std::string& text, unsigned long long max, unsigned long long* value) {
  if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *value = std::strtoull(text.c_str(), nullptr, 10);
  return *value <= max;
}

void print(const std::vector<Activity::CounterReading>& counters, pid_t pid, bool json,
           std::ostream& out) {
  if (!json) {
    for (const auto& c : counters) out << c.name << " " << c.value << "\n";
    return;
  }
  out << "{\"pid\": " << pid << ", \"counters\": {";
  for (std::size_t i = 0; i < counters.size(); ++i) {
    out << (i ? ", " : "") << jsonString(counters[i].name) << ": " << counters[i].value;
  }
  out << "}}\n";
}

// Reads the counters every interval and prints those that changed. Ends
// when stopped, after `count` changes (0: no limit), or when the process's
// counters are gone (it exited).
int watch(pid_t pid, std::vector<Activity::CounterReading> last, unsigned long long intervalMs,
          unsigned long long count, bool json, std::ostream& out) {
  std::signal(SIGINT, [](int) { gStop = 1; });
  std::signal(SIGTERM, [](int) { gStop = 1; });
  std::map<std::string, std::uint64_t> seen;
  for (const auto& c : last) seen[c.name] = c.value;
  unsigned long long shown = 0;
  out.flush();
  while (gStop == 0 && (count == 0 || shown < count)) {
    usleep(static_cast<useconds_t>(intervalMs * 1000));
    std::vector<Activity::CounterReading> now;
    try {
      now = Activity::readCounters(pid);
    } catch (const std::exception&) {
      return 0;  // the process is gone
    }
    for (const auto& c : now) {
      auto [it, fresh] = seen.try_emplace(c.name, 0);
      if (!fresh && it->second == c.value) continue;
      const std::uint64_t delta = c.value - it->second;
      it->second = c.value;
      if (json) {
        out << "{\"name\": " << jsonString(c.name) << ", \"delta\": " << delta
            << ", \"value\": " << c.value << "}\n";
      } else {
        out << c.name << " +" << delta << " " << c.value << "\n";
      }
      if (count != 0 && ++shown == count) break;
    }
    out.flush();
  }
  return 0;
}

int countersMain(const Args& args, std::ostream& out, std::ostream& err) {
  bool json = false;
  bool watching = false;
  unsigned long long interval = 1000, count = 0, pidValue = 0;
  std::string pidText;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--json") {
      json = true;
    } else if (a == "--watch") {
      watching = true;
    } else if (a == "--interval" || a == "--count") {
      if (i + 1 == args.size()) return refuse(err, a + " needs a value");
      unsigned long long* target = a == "--interval" ? &interval : &count;
      if (!number(args[++i], a == "--interval" ? 3600000 : ~0ull >> 1, target) ||
          (a == "--interval" && interval == 0)) {
        return refuse(err, a + " '" + args[i] + "' is not a positive number");
      }
    } else if (!a.empty() && a[0] == '-') {
      return refuse(err, "unknown option '" + a + "' (" + usageLine(kUsage) + ")");
    } else if (pidText.empty()) {
      pidText = a;
    } else {
      return refuse(err, usageLine(kUsage));
    }
  }
  if (pidText.empty() || !number(pidText, 999999999, &pidValue)) {
    return refuse(err, usageLine(kUsage));
  }
  if (!watching && (interval != 1000 || count != 0)) {
    return refuse(err, "--interval and --count go with --watch");
  }
  const auto pid = static_cast<pid_t>(pidValue);
  const auto counters = Activity::readCounters(pid);
  print(counters, pid, json, out);
  return watching ? watch(pid, counters, interval, count, json, out) : 0;
}

Registration reg{"counters", "list (or watch) the activity counters of a running process",
                 kUsage, &countersMain};

}  // namespace
}  // namespace routinglib
