// The subcommands of the `routinglib` tool. A subcommand is a function from
// its arguments (after the subcommand name) to an exit status; it writes its
// output to `out` and a one-line error to `err`. Exit status 2 means the
// input was refused.
//
// Register one with a static Registration in its own file:
//   static routinglib::Registration reg{"rebase", "rebase UCMP weights", &rebaseMain};
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace routinglib {

using Args = std::vector<std::string>;
using CommandMain = int (*)(const Args& args, std::ostream& out, std::ostream& err);

struct Registration {
  Registration(const char* name, const char* summary, CommandMain main);
};

constexpr int kExitUsage = 2;

}  // namespace routinglib
