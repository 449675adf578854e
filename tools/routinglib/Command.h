// The subcommands of the `routinglib` tool. A subcommand is a function from
// its arguments (after the subcommand name) to an exit status; it writes its
// output to `out` and a one-line error to `err`. Exit status 2 means the
// input was refused.
//
// Register one with a static Registration in its own file:
//   static routinglib::Registration reg{"rebase", "rebase UCMP weights", kUsage, &rebaseMain};
// where kUsage is the command's help: its first line the synopsis
// ("usage: routinglib rebase ..."), then what it does and its options.
//
// Help is the tool's, the same for every command: `routinglib help CMD`,
// `routinglib CMD -h` and `routinglib CMD --help` print the usage text on
// stdout with exit status 0 (the command itself is not run). A refusal
// names the synopsis through usageLine(), on stderr, in one line.
#pragma once

#include <cstdio>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace routinglib {

using Args = std::vector<std::string>;
using CommandMain = int (*)(const Args& args, std::ostream& out, std::ostream& err);

struct Registration {
  Registration(const char* name, const char* summary, const char* usage, CommandMain main);
  // A command without its own help text: its usage is "routinglib NAME ...".
  Registration(const char* name, const char* summary, CommandMain main)
      : Registration(name, summary, nullptr, main) {}
};

constexpr int kExitUsage = 2;

// The first line of a usage text (its synopsis).
inline std::string usageLine(const char* usage) {
  std::string_view u(usage);
  return std::string(u.substr(0, u.find('\n')));
}

// `text` as a JSON string literal, quotes included.
inline std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", u);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

}  // namespace routinglib
