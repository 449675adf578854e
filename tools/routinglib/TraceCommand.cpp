// `routinglib trace`: the trace handles of a running process (by its pid),
// or of this tool, and their levels; with settings, changes the levels.
#include <cstdlib>
#include <ostream>
#include <string>

#include "Cog/Trace.h"
#include "Command.h"

namespace routinglib {
namespace {

constexpr const char* kUsage =
    "usage: routinglib trace [--json] [--pid PID] [SETTINGS]\n"
    "Lists trace handles and their levels, \"name level\" a line (-1: off): those of\n"
    "the process PID, through the trace control area each process that loads the\n"
    "library keeps, or without --pid those this tool registers.\n"
    "  SETTINGS   \"name=level,pattern*=level,...\" as COG_TRACE takes them (levels\n"
    "             0 to 9): sets the levels of the matching handles, then lists\n"
    "  --json     {\"pid\": PID, \"handles\": {\"name\": level, ...}}\n";

int refuse(std::ostream& err, const std::string& message) {
  err << "routinglib trace: " << message << "\n";
  return kExitUsage;
}

void print(const std::vector<std::pair<std::string, int>>& levels, long pid, bool json,
           std::ostream& out) {
  if (!json) {
    for (const auto& [name, level] : levels) out << name << " " << level << "\n";
    return;
  }
  out << "{\"pid\": " << pid << ", \"handles\": {";
  for (std::size_t i = 0; i < levels.size(); ++i) {
    out << (i ? ", " : "") << jsonString(levels[i].first) << ": " << levels[i].second;
  }
  out << "}}\n";
}

int traceMain(const Args& args, std::ostream& out, std::ostream& err) {
  bool json = false;
  std::string pidText, settings;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--json") {
      json = true;
    } else if (a == "--pid") {
      if (i + 1 == args.size()) return refuse(err, "--pid needs a value");
      pidText = args[++i];
      if (pidText.empty() || pidText.size() > 9 ||
          pidText.find_first_not_of("0123456789") != std::string::npos) {
        return refuse(err, "--pid '" + pidText + "' is not a process id");
      }
    } else if (!a.empty() && a[0] == '-') {
      return refuse(err, "unknown option '" + a + "' (" + usageLine(kUsage) + ")");
    } else if (settings.empty()) {
      settings = a;
    } else {
      return refuse(err, usageLine(kUsage));
    }
  }
  if (!settings.empty() && !Cog::Trace::validSettings(settings)) {
    return refuse(err, "malformed settings '" + settings + "' (name=level,pattern*=level,...)");
  }
  if (pidText.empty()) {
    if (!settings.empty()) Cog::Trace::configure(settings);
    std::vector<std::pair<std::string, int>> levels;
    for (const auto* h : Cog::Trace::handles()) levels.emplace_back(h->name(), h->level());
    print(levels, 0, json, out);
    return 0;
  }
  const auto pid = static_cast<pid_t>(std::strtol(pidText.c_str(), nullptr, 10));
  if (!settings.empty()) Cog::Trace::requestLevels(pid, settings);
  print(Cog::Trace::readLevels(pid), pid, json, out);
  return 0;
}

Registration reg{"trace", "list or set the trace levels of a running process", kUsage,
                 &traceMain};

}  // namespace
}  // namespace routinglib
