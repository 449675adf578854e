// `routinglib counters <pid>`: lists the activity counters of a running
// process, one "name value" line each, in registration order.
#include <cstdlib>
#include <ostream>
#include <string>

#include "Activity/Counter.h"
#include "Command.h"

namespace routinglib {
namespace {

int countersMain(const Args& args, std::ostream& out, std::ostream& err) {
  if (args.size() != 1 || args[0].empty() ||
      args[0].find_first_not_of("0123456789") != std::string::npos || args[0].size() > 9) {
    err << "routinglib counters: usage: routinglib counters <pid>\n";
    return kExitUsage;
  }
  auto pid = static_cast<pid_t>(std::strtol(args[0].c_str(), nullptr, 10));
  for (const auto& c : Activity::readCounters(pid)) out << c.name << " " << c.value << "\n";
  return 0;
}

Registration reg{"counters", "list the activity counters of a running process", &countersMain};

}  // namespace
}  // namespace routinglib
