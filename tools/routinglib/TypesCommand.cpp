// `routinglib types` and `routinglib value`: the type registry and the value
// types' two wire forms, for people reading logs and dumps.
//
//   routinglib types [PATTERN]       one line per registered type whose name
//                                    contains PATTERN: "<kind> <name>"
//   routinglib types --describe NAME the type's members in reflection order:
//                                    "<index> <kind> <name>: <type>" (with
//                                    "[key <type>]", "resync", "settable",
//                                    "static" where they apply), the base type,
//                                    and an enumeration's enumerators
//   routinglib value NAME TEXT       parses TEXT in NAME's string form and
//                                    prints "text: ..." (the value as it
//                                    prints) and "attrlog: <hex bytes>"
//   routinglib value NAME --attrlog HEX
//                                    reads one value of NAME from its
//                                    attribute-log bytes (hex, spaces allowed)
//                                    and prints the same two lines
//
// Unknown types, types without the asked-for form, malformed text and
// malformed or trailing attribute-log bytes are refused with a one-line
// error and exit status 2.
#include <cctype>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "Cog/Describe.h"
#include "Cog/Exception.h"
#include "Cog/GenericIf.h"
#include "Cog/NboAttrLog.h"
#include "Cog/Type.h"
#include "Command.h"

namespace routinglib {
namespace {

int refuse(std::ostream& err, const char* command, const std::string& message) {
  err << "routinglib " << command << ": " << message << "\n";
  return kExitUsage;
}

int typesMain(const Args& args, std::ostream& out, std::ostream& err) {
  if (args.size() == 2 && args[0] == "--describe") {
    const Cog::CogType* t = Cog::typeByName(args[1]);
    if (t == nullptr) return refuse(err, "types", "no registered type '" + args[1] + "'");
    Cog::describeType(*t, out);
    return 0;
  }
  if (args.size() > 1 || (args.size() == 1 && args[0].starts_with("-"))) {
    return refuse(err, "types", "usage: routinglib types [PATTERN] | --describe NAME");
  }
  const std::string pattern = args.empty() ? "" : args[0];
  for (const Cog::CogType* t : Cog::registeredTypes()) {
    if (std::string(t->name()).find(pattern) == std::string::npos) continue;
    out << Cog::typeKindName(t->kind()) << " " << t->name() << "\n";
  }
  return 0;
}

bool parseHex(const std::string& text, std::vector<std::uint8_t>* bytes) {
  std::string digits;
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    digits += c;
  }
  if (digits.size() % 2 != 0) return false;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes->push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return true;
}

void printValue(const Cog::GenericIf& value, std::ostream& out) {
  auto log = Cog::allocate<Cog::NboAttrLog::Out>();
  value.attrLogOut(log);
  static const char* const kDigits = "0123456789abcdef";
  std::string hex;
  for (std::uint8_t b : log->bytes()) {
    if (!hex.empty()) hex += ' ';
    hex += kDigits[b >> 4];
    hex += kDigits[b & 15];
  }
  out << "text: " << value.strRep() << "\n" << "attrlog: " << hex << "\n";
}

int valueMain(const Args& args, std::ostream& out, std::ostream& err) {
  const bool fromLog = args.size() >= 2 && args[1] == "--attrlog";
  if (args.size() != (fromLog ? 3u : 2u)) {
    return refuse(err, "value", "usage: routinglib value NAME TEXT | NAME --attrlog HEX");
  }
  const Cog::CogType* t = Cog::typeByName(args[0]);
  if (t == nullptr) return refuse(err, "value", "no registered type '" + args[0] + "'");
  if (!fromLog) {
    if (t->glue().fromStrRep == nullptr) {
      return refuse(err, "value", std::string(t->name()) + " has no string form");
    }
    try {
      printValue(*t->fromStrRep(Cog::String(args[1])), out);
    } catch (const Cog::Exception& e) {
      return refuse(err, "value", e.what());
    }
    return 0;
  }
  if (t->glue().fromAttrLog == nullptr) {
    return refuse(err, "value", std::string(t->name()) + " has no attribute-log form of its own");
  }
  std::vector<std::uint8_t> bytes;
  if (!parseHex(args[2], &bytes)) return refuse(err, "value", "'" + args[2] + "' is not hex bytes");
  auto in = Cog::allocate<Cog::NboAttrLog::In>(std::move(bytes));
  try {
    Cog::Ptr<Cog::GenericIf> value = t->glue().fromAttrLog(in.ptr());
    if (!in->atEnd()) {
      return refuse(err, "value", std::to_string(in->remaining()) + " bytes left after the value");
    }
    printValue(*value, out);
  } catch (const Cog::Exception& e) {
    return refuse(err, "value", e.what());
  }
  return 0;
}

Registration typesRegistration{"types", "list registered types, or describe one", &typesMain};
Registration valueRegistration{"value", "print a value's text and attribute-log forms",
                               &valueMain};

}  // namespace
}  // namespace routinglib
