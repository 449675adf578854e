// `routinglib types` and `routinglib value`: the type registry and the value
// types' two wire forms, for people reading logs and dumps.
//
//   routinglib types [--json] [PATTERN]
//                                    one line per registered type whose name
//                                    matches PATTERN: "<kind> <name>". A
//                                    PATTERN with a shell wildcard (* ? [...])
//                                    matches the whole name or any part of it
//                                    after a "::" ('Fec*' finds
//                                    Memtab::Fib::FecId); any other PATTERN
//                                    is looked for inside the name
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
#include <fnmatch.h>

#include <cctype>
#include <algorithm>
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

const char* typeName(const Cog::CogType* t) { return t ? t->name() : "void"; }

constexpr const char* kTypesUsage =
    "usage: routinglib types [--json] [PATTERN] | types [--json] --describe NAME\n"
    "Lists the registered types, \"<kind> <name>\" a line, or describes one: its\n"
    "members in reflection order, its base type, an enumeration's enumerators.\n"
    "  PATTERN     a shell pattern (* ? [...]) matched against the whole name or any\n"
    "              part of it after a \"::\" ('Fec*', 'Routing::*Route'); text\n"
    "              without a wildcard is looked for inside the name\n"
    "  --json      the list as [{\"kind\": ..., \"name\": ...}, ...]; a description\n"
    "              as {\"kind\", \"name\", \"base\", \"members\" or \"enumerators\"}\n";

constexpr const char* kValueUsage =
    "usage: routinglib value [--json] NAME TEXT | value [--json] NAME --attrlog HEX\n"
    "Reads a value of type NAME from its string form (TEXT) or from its attribute-log\n"
    "bytes (HEX, spaces allowed) and prints both forms: \"text: ...\" and\n"
    "\"attrlog: <hex bytes>\".\n"
    "  --json  {\"type\": NAME, \"text\": ..., \"attrlog\": ...} on one line\n";

bool matches(const std::string& pattern, const std::string& name) {
  if (pattern.find_first_of("*?[") == std::string::npos) {
    return name.find(pattern) != std::string::npos;
  }
  if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) return true;
  for (std::size_t at = name.find("::"); at != std::string::npos; at = name.find("::", at + 2)) {
    if (fnmatch(pattern.c_str(), name.c_str() + at + 2, 0) == 0) return true;
  }
  return false;
}

void describeJson(const Cog::CogType& t, std::ostream& out) {
  out << "{\"kind\": " << jsonString(Cog::typeKindName(t.kind()))
      << ", \"name\": " << jsonString(t.name());
  if (const Cog::CogType* base = t.base()) out << ", \"base\": " << jsonString(base->name());
  if (t.kind() == Cog::TypeKind::enumeration) {
    out << ", \"enumerators\": [";
    const auto& all = static_cast<const Cog::EnumType&>(t).enumerators();
    for (std::size_t i = 0; i < all.size(); ++i) {
      out << (i ? ", " : "") << "{\"name\": " << jsonString(all[i].name)
          << ", \"value\": " << all[i].value << "}";
    }
    out << "]}\n";
    return;
  }
  out << ", \"members\": [";
  bool first = true;
  for (const Cog::MemberInfo* m : t.members()) {
    out << (first ? "" : ", ") << "{\"index\": " << m->index
        << ", \"kind\": " << jsonString(Cog::memberKindName(m->kind))
        << ", \"name\": " << jsonString(m->name)
        << ", \"type\": " << jsonString(typeName(m->memberType()));
    if (m->kind == Cog::MemberKind::function) {
      out << ", \"params\": [";
      for (std::size_t i = 0; i < m->params.size(); ++i) {
        out << (i ? ", " : "") << "{\"name\": " << jsonString(m->params[i].name)
            << ", \"type\": " << jsonString(typeName(m->params[i].type())) << "}";
      }
      out << "]";
    }
    if (const Cog::CogType* key = m->memberKeyType()) out << ", \"key\": " << jsonString(key->name());
    out << ", \"resync\": " << (m->resync ? "true" : "false")
        << ", \"settable\": " << (m->settable && m->kind != Cog::MemberKind::function ? "true" : "false")
        << ", \"static\": " << (m->isStatic ? "true" : "false") << "}";
    first = false;
  }
  out << "]}\n";
}

// Removes a leading --json from args; true when there was one.
bool takeJson(Args& args) {
  auto it = std::find(args.begin(), args.end(), "--json");
  if (it == args.end()) return false;
  args.erase(it);
  return true;
}

int typesMain(const Args& given, std::ostream& out, std::ostream& err) {
  Args args = given;
  const bool json = takeJson(args);
  if (args.size() == 2 && args[0] == "--describe") {
    const Cog::CogType* t = Cog::typeByName(args[1]);
    if (t == nullptr) return refuse(err, "types", "no registered type '" + args[1] + "'");
    if (json) {
      describeJson(*t, out);
    } else {
      Cog::describeType(*t, out);
    }
    return 0;
  }
  if (args.size() > 1 || (args.size() == 1 && args[0].starts_with("-"))) {
    return refuse(err, "types", usageLine(kTypesUsage));
  }
  const std::string pattern = args.empty() ? "" : args[0];
  bool first = true;
  if (json) out << "[";
  for (const Cog::CogType* t : Cog::registeredTypes()) {
    if (!matches(pattern, t->name())) continue;
    if (json) {
      out << (first ? "" : ", ") << "{\"kind\": " << jsonString(Cog::typeKindName(t->kind()))
          << ", \"name\": " << jsonString(t->name()) << "}";
    } else {
      out << Cog::typeKindName(t->kind()) << " " << t->name() << "\n";
    }
    first = false;
  }
  if (json) out << "]\n";
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

void printValue(const Cog::GenericIf& value, bool json, std::ostream& out) {
  auto log = Cog::allocate<Cog::NboAttrLog::Out>();
  value.attrLogOut(log);
  static const char* const kDigits = "0123456789abcdef";
  std::string hex;
  for (std::uint8_t b : log->bytes()) {
    if (!hex.empty()) hex += ' ';
    hex += kDigits[b >> 4];
    hex += kDigits[b & 15];
  }
  if (json) {
    out << "{\"type\": " << jsonString(value.type()->name()) << ", \"text\": "
        << jsonString(value.strRep().str()) << ", \"attrlog\": " << jsonString(hex) << "}\n";
    return;
  }
  out << "text: " << value.strRep() << "\n" << "attrlog: " << hex << "\n";
}

int valueMain(const Args& given, std::ostream& out, std::ostream& err) {
  Args args = given;
  const bool json = takeJson(args);
  const bool fromLog = args.size() >= 2 && args[1] == "--attrlog";
  if (args.size() != (fromLog ? 3u : 2u)) {
    return refuse(err, "value", usageLine(kValueUsage));
  }
  const Cog::CogType* t = Cog::typeByName(args[0]);
  if (t == nullptr) return refuse(err, "value", "no registered type '" + args[0] + "'");
  if (!fromLog) {
    if (t->glue().fromStrRep == nullptr) {
      return refuse(err, "value", std::string(t->name()) + " has no string form");
    }
    try {
      printValue(*t->fromStrRep(Cog::String(args[1])), json, out);
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
    printValue(*value, json, out);
  } catch (const Cog::Exception& e) {
    return refuse(err, "value", e.what());
  }
  return 0;
}

Registration typesRegistration{"types", "list registered types, or describe one", kTypesUsage,
                               &typesMain};
Registration valueRegistration{"value", "print a value's text and attribute-log forms",
                               kValueUsage, &valueMain};

}  // namespace
}  // namespace routinglib
