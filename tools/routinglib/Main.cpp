#include <algorithm>
#include <iostream>
#include <map>
#include <string>

#include "Command.h"

namespace routinglib {
namespace {

struct Entry {
  const char* summary;
  CommandMain main;
};

std::map<std::string, Entry>& commands() {
  static std::map<std::string, Entry> table;
  return table;
}

void usage(std::ostream& os) {
  os << "usage: routinglib <command> [arguments]\n\ncommands:\n";
  std::size_t width = 0;
  for (auto& [name, entry] : commands()) width = std::max(width, name.size());
  for (auto& [name, entry] : commands()) {
    os << "  " << name << std::string(width - name.size() + 2, ' ') << entry.summary << "\n";
  }
}

}  // namespace

Registration::Registration(const char* name, const char* summary, CommandMain main) {
  commands()[name] = Entry{summary, main};
}

}  // namespace routinglib

int main(int argc, char** argv) {
  using namespace routinglib;
  if (argc < 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "help") {
    usage(argc < 2 ? std::cerr : std::cout);
    return argc < 2 ? kExitUsage : 0;
  }
  auto it = commands().find(argv[1]);
  if (it == commands().end()) {
    std::cerr << "routinglib: unknown command '" << argv[1] << "' (try routinglib help)\n";
    return kExitUsage;
  }
  Args args(argv + 2, argv + argc);
  try {
    return it->second.main(args, std::cout, std::cerr);
  } catch (const std::exception& e) {
    std::cerr << "routinglib " << argv[1] << ": " << e.what() << "\n";
    return kExitUsage;
  }
}
