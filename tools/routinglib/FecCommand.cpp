// `routinglib fec`: decodes FEC ids and the interface ids that carry them,
// for people reading logs.
//
//   routinglib fec [--json] ID...
//
// An ID that starts with a digit is a FEC id, in decimal or 0x-hex; it
// prints
//   fecId: 0x<hex> (<decimal>)
//   valid: yes | no
//   adjType: <name> (<number>)          or "none (...)" beyond the last kind
//   adjIndex: <decimal>
//   toStrep: <high>-<low>--<value>
//   fecIntfId: <name of its FEC interface id>   or "none (...)"
//   hierarchicalIntfId: <name>                  or "none (...)"
// Any other ID is an interface name as interface ids print
// ("NexthopGroup5", "Tunnel3", "DynamicTunnel17", "GenericIntf19/5/393216",
// "Ethernet1"); it prints "intfId: <name>" and then the block above for the
// FEC id it folds (hierarchicalIntfIdToFecId), or "fecId: 0 (none)" when it
// folds none. Several IDs give one block each, separated by blank lines.
//
// A malformed number, an unknown interface name, or an interface id that
// names a tunnel beyond the tunnel table's range is refused with a one-line
// error and exit status 2, before anything is printed.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Cog/Exception.h"
#include "Command.h"
#include "RoutingLib/FecIdIntfId.h"

namespace routinglib {
namespace {

using Memtab::Fib::FecId;

constexpr const char* kUsage =
    "usage: routinglib fec [--json] ID... (a FEC id in decimal or 0x-hex, or an interface name)\n"
    "Decodes each FEC id (type, index, string form, the interface ids that carry it),\n"
    "or the FEC id an interface id folds.\n"
    "  --json  one JSON object per ID, one a line, with the same fields\n";

struct Decoded {
  bool fromIntfId = false;
  Velnet::IntfId intfId;
  FecId fecId;
};

int refuse(std::ostream& err, const std::string& message) {
  err << "routinglib fec: " << message << "\n";
  return kExitUsage;
}

bool parseFecId(const std::string& text, std::uint64_t* value) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const char* first = text.data() + (hex ? 2 : 0);
  const char* last = text.data() + text.size();
  const auto [end, ec] = std::from_chars(first, last, *value, hex ? 16 : 10);
  return ec == std::errc() && end == last;
}

std::string hex(std::uint64_t v) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(v));
  return text;
}

// Reports in place of a form the FEC id has none of.
template <typename F>
std::string formOrWhyNot(F form) {
  try {
    return form();
  } catch (const Cog::Exception& e) {
    return std::string("none (") + e.what() + ")";
  }
}

using Fields = std::vector<std::pair<std::string, std::string>>;

void fecFields(Fields& fields, const FecId& f) {
  const std::uint64_t v = f.value();
  const unsigned type = static_cast<unsigned>(v >> Memtab::Fib::adjTypePos());
  const bool typeKnown = type < static_cast<unsigned>(Memtab::Fib::adjTypeMax());
  fields.emplace_back("fecId", hex(v) + " (" + std::to_string(v) + ")");
  fields.emplace_back("valid", f.isValid() ? "yes" : "no");
  if (typeKnown) {
    std::ostringstream name;
    name << f.adjType();
    fields.emplace_back("adjType", name.str() + " (" + std::to_string(type) + ")");
  } else {
    fields.emplace_back("adjType", "none (" + std::to_string(type) + " is beyond the last adjacency type)");
  }
  fields.emplace_back("adjIndex", std::to_string(f.adjIndex()));
  fields.emplace_back("toStrep", f.toStrep().str());
  fields.emplace_back("fecIntfId", formOrWhyNot([&] {
    return Velnet::FecIdIntfId::fecIdToIntfId(v).name().str();
  }));
  fields.emplace_back("hierarchicalIntfId", formOrWhyNot([&] {
    const Velnet::IntfId i = FecId::fecIdToHierarchicalIntfId(f);
    return !i ? std::string("none (no FEC)") : i.name().str();
  }));
}

void print(const Fields& fields, bool json, std::ostream& out) {
  if (!json) {
    for (const auto& [key, value] : fields) out << key << ": " << value << "\n";
    return;
  }
  out << "{";
  for (std::size_t i = 0; i < fields.size(); ++i) {
    out << (i ? ", " : "") << jsonString(fields[i].first) << ": " << jsonString(fields[i].second);
  }
  out << "}\n";
}

int fecMain(const Args& args, std::ostream& out, std::ostream& err) {
  bool json = false;
  std::vector<Decoded> decoded;
  for (const std::string& a : args) {
    if (a == "--json") {
      json = true;
      continue;
    }
    Decoded d;
    if (!a.empty() && a[0] >= '0' && a[0] <= '9') {
      std::uint64_t value = 0;
      if (!parseFecId(a, &value)) {
        return refuse(err, "'" + a + "' is not a FEC id (a 64-bit number, decimal or 0x-hex)");
      }
      d.fecId = FecId(value);
    } else {
      if (a.empty() || a[0] == '-') return refuse(err, "'" + a + "' is neither a FEC id nor an interface name");
      try {
        d.intfId = Velnet::IntfId(Cog::String(a));
        d.fecId = FecId::hierarchicalIntfIdToFecId(d.intfId);
      } catch (const Cog::Exception& e) {
        return refuse(err, "'" + a + "': " + e.what());
      }
      d.fromIntfId = true;
    }
    decoded.push_back(d);
  }
  if (decoded.empty()) return refuse(err, std::string("no id given (") + usageLine(kUsage) + ")");
  for (std::size_t n = 0; n < decoded.size(); ++n) {
    const Decoded& d = decoded[n];
    if (n > 0 && !json) out << "\n";
    Fields fields;
    if (d.fromIntfId) fields.emplace_back("intfId", d.intfId.name().str());
    if (d.fromIntfId && !d.fecId) {
      fields.emplace_back("fecId", "0 (none)");
    } else {
      fecFields(fields, d.fecId);
    }
    print(fields, json, out);
  }
  return 0;
}

Registration reg{"fec", "decode a FEC id, or the FEC id an interface id folds", kUsage, &fecMain};

}  // namespace
}  // namespace routinglib
