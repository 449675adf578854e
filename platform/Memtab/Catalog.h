// What an operator's tools see of the shared-memory tables of the machine,
// whatever their value types: a list, an entry-by-entry dump, the changes as
// they happen, and removal of a table whose writer is gone. Entries print
// through their value type's registration (Registry.h); a type without one
// prints its images in hex.
//
// Every function returns an exit status for the tool: 0 done, 1 the table
// is damaged or the request refused (`why` says why in one line), 2 there
// is no such table (or the name cannot be one).
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Memtab {

inline constexpr int kCatalogDone = 0;
inline constexpr int kCatalogFailed = 1;
inline constexpr int kCatalogNoTable = 2;

struct TableInfo {
  std::string name;
  std::string typeName;
  std::uint64_t entries = 0;
  std::uint64_t bytes = 0;  // of the segment
  std::uint32_t writerPid = 0;
  bool writerAlive = false;
  std::uint32_t readers = 0;  // as the writer last counted them
  std::string damage;         // empty unless the segment is unusable
};

// Every table in /dev/shm, by name.
std::vector<TableInfo> listTables();
// One line per table under a header line.
void printTables(const std::vector<TableInfo>& tables, std::ostream& out);

int dumpTable(std::string_view name, bool json, std::ostream& out, std::string* why);

// Prints a first line, then one line per change until `changes` key changes
// have been printed (0: no limit) or `stop()` says so.
int watchTable(std::string_view name, std::uint64_t changes, const std::function<bool()>& stop,
               std::ostream& out, std::string* why);

// Removes table `name`; refuses while its writer lives.
int removeTable(std::string_view name, std::string* why);

}  // namespace Memtab
