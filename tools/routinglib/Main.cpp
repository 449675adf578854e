#include <algorithm>
#include <iostream>
#include <map>
#include <string>

#include "Command.h"
#include "RoutingLib/Version.h"

namespace routinglib {
namespace {

struct Entry {
  const char* summary;
  std::string usage;
  CommandMain main;
};

std::map<std::string, Entry>& commands() {
  static std::map<std::string, Entry> table;
  return table;
}

constexpr const char* kToolUsage =
    "usage: routinglib <command> [arguments]\n"
    "       routinglib help [command] | --help | -h | --version\n";

void usage(std::ostream& os) {
  os << kToolUsage << "\ncommands:\n";
  std::size_t width = 0;
  for (auto& [name, entry] : commands()) width = std::max(width, name.size());
  for (auto& [name, entry] : commands()) {
    os << "  " << name << std::string(width - name.size() + 2, ' ') << entry.summary << "\n";
  }
  os << "\n`routinglib help <command>` or `routinglib <command> --help` shows a command's usage.\n";
}

bool isHelp(const std::string& a) { return a == "-h" || a == "--help"; }

int unknown(const std::string& name) {
  std::cerr << "routinglib: unknown command '" << name << "' (try routinglib help)\n";
  return kExitUsage;
}

}  // namespace

Registration::Registration(const char* name, const char* summary, const char* usage,
                           CommandMain main) {
  std::string text = usage != nullptr ? usage
                                      : std::string("usage: routinglib ") + name + " [arguments]\n";
  if (text.empty() || text.back() != '\n') text += '\n';
  commands()[name] = Entry{summary, text, main};
}

}  // namespace routinglib

int main(int argc, char** argv) {
  using namespace routinglib;
  if (argc < 2) {
    usage(std::cerr);
    return kExitUsage;
  }
  const std::string first = argv[1];
  if (isHelp(first) || first == "help") {
    if (first == "help" && argc > 3) {
      std::cerr << "routinglib help: usage: routinglib help [command]\n";
      return kExitUsage;
    }
    if (first == "help" && argc == 3) {
      auto it = commands().find(argv[2]);
      if (it == commands().end()) return unknown(argv[2]);
      std::cout << it->second.usage;
      return 0;
    }
    usage(std::cout);
    return 0;
  }
  if (first == "--version") {
    std::cout << "routinglib " << RoutingLib::version() << "\n";
    return 0;
  }
  auto it = commands().find(first);
  if (it == commands().end()) return unknown(first);
  Args args(argv + 2, argv + argc);
  // Help is asked for with -h or --help anywhere among the arguments; the
  // command does not run.
  if (std::any_of(args.begin(), args.end(), isHelp)) {
    std::cout << it->second.usage;
    return 0;
  }
  try {
    return it->second.main(args, std::cout, std::cerr);
  } catch (const std::exception& e) {
    std::cerr << "routinglib " << first << ": " << e.what() << "\n";
    return kExitUsage;
  }
}
