// `routinglib trace`: lists the trace handles this build registers and the
// level each is at (as set by COG_TRACE).
#include <ostream>

#include "Cog/Trace.h"
#include "Command.h"

namespace routinglib {
namespace {

int traceMain(const Args& args, std::ostream& out, std::ostream& err) {
  if (!args.empty()) {
    err << "routinglib trace: takes no arguments\n";
    return kExitUsage;
  }
  for (const auto* h : Cog::Trace::handles()) out << h->name() << " " << h->level() << "\n";
  return 0;
}

Registration reg{"trace", "list the trace handles and their levels", &traceMain};

}  // namespace
}  // namespace routinglib
