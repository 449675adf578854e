// `routinglib memtab`: the shared-memory tables of this machine.
//
//   routinglib memtab list [--json]     one line per table: name, value type,
//                                       entries, segment bytes, writer pid and
//                                       whether it is alive, linked readers
//   routinglib memtab dump NAME [--json]
//                                       every entry in its text form (through
//                                       its value type's registration; images
//                                       in hex for a type without one)
//   routinglib memtab watch NAME [--count N]
//                                       changes as they happen ("set <entry>",
//                                       "del <entry>", "-- <event>"), until
//                                       interrupted or N changes were shown
//   routinglib memtab rm NAME           removes a table whose writer is gone
//
// A damaged table is reported in one line with exit status 1, as is rm of a
// table whose writer lives; a name that is not a table exits with status 2.
#include <csignal>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "Command.h"
#include "Memtab/Catalog.h"

namespace routinglib {
namespace {

volatile std::sig_atomic_t gStop = 0;

constexpr const char* kUsage =
    "usage: routinglib memtab list [--json] | dump NAME [--json] | watch NAME [--count N] | rm NAME\n"
    "The shared-memory tables of this machine.\n"
    "  list             one line per table: name, value type, entries, segment bytes,\n"
    "                   writer pid and whether it is alive, linked readers\n"
    "  dump NAME        every entry in its text form (images in hex for a type the\n"
    "                   tool does not know)\n"
    "  watch NAME       changes as they happen (\"set <entry>\", \"del <entry>\",\n"
    "                   \"-- <event>\"), until interrupted or N changes were shown\n"
    "  rm NAME          removes a table whose writer is gone\n"
    "  --json           list or dump as JSON\n"
    "A damaged table, or rm of a table whose writer lives, exits with status 1.\n";

void printTablesJson(const std::vector<Memtab::TableInfo>& tables, std::ostream& out) {
  out << "[";
  for (std::size_t i = 0; i < tables.size(); ++i) {
    const Memtab::TableInfo& t = tables[i];
    out << (i ? ", " : "") << "{\"name\": " << jsonString(t.name) << ", \"type\": "
        << jsonString(t.typeName) << ", \"entries\": " << t.entries << ", \"bytes\": " << t.bytes
        << ", \"writerPid\": " << t.writerPid
        << ", \"writerAlive\": " << (t.writerAlive ? "true" : "false")
        << ", \"readers\": " << t.readers << ", \"damage\": " << jsonString(t.damage) << "}";
  }
  out << "]\n";
}

int usage(std::ostream& err) {
  err << "routinglib memtab: " << usageLine(kUsage) << "\n";
  return kExitUsage;
}

int finish(int status, const std::string& why, std::ostream& err) {
  if (status != Memtab::kCatalogDone) err << "routinglib memtab: " << why << "\n";
  return status;
}

int memtabMain(const Args& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) return usage(err);
  const std::string& what = args[0];
  std::string why;
  if (what == "list" && args.size() == 1) {
    Memtab::printTables(Memtab::listTables(), out);
    return 0;
  }
  if (what == "list" && args.size() == 2 && args[1] == "--json") {
    printTablesJson(Memtab::listTables(), out);
    return 0;
  }
  if (what == "dump" && (args.size() == 2 || (args.size() == 3 && args[2] == "--json"))) {
    return finish(Memtab::dumpTable(args[1], args.size() == 3, out, &why), why, err);
  }
  if (what == "watch" && (args.size() == 2 || (args.size() == 4 && args[2] == "--count"))) {
    std::uint64_t count = 0;
    if (args.size() == 4) {
      if (args[3].empty() || args[3].size() > 18 ||
          args[3].find_first_not_of("0123456789") != std::string::npos) {
        return usage(err);
      }
      count = std::strtoull(args[3].c_str(), nullptr, 10);
    }
    std::signal(SIGINT, [](int) { gStop = 1; });
    std::signal(SIGTERM, [](int) { gStop = 1; });
    return finish(Memtab::watchTable(args[1], count, [] { return gStop != 0; }, out, &why), why,
                  err);
  }
  if (what == "rm" && args.size() == 2) {
    return finish(Memtab::removeTable(args[1], &why), why, err);
  }
  return usage(err);
}

Registration reg{"memtab", "list, dump, watch or remove shared-memory tables", kUsage,
                 &memtabMain};

}  // namespace
}  // namespace routinglib
