// What tools print of a table: entries through their value type's
// registration (memtabString(), else the stream form), JSON with its
// strings escaped, and the list of tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <sstream>

#include "Memtab/Catalog.h"
#include "Memtab/Registry.h"
#include "TestValues.h"

namespace MemtabTest {

// Named prints through memtabString(); Record through operator<<.
struct Labelled : Named {
  using Named::Named;
  std::string memtabString() const { return "[" + std::to_string(id) + "] " + text(); }
};
std::ostream& operator<<(std::ostream& os, const Record& r) { return os << "record " << r.id << "/" << r.seq; }

}  // namespace MemtabTest

namespace {

using namespace MemtabTest;

Memtab::ValueTypeRegistration<Labelled> labelled;
Memtab::ValueTypeRegistration<Record> records;

TEST(MemtabCatalog, DumpsEntriesThroughTheirRegistration) {
  TableName name("dump");
  Memtab::Writer<Labelled> w(name);
  w.insert(Labelled(1, 0, "one"));
  w.insert(Labelled(2, 0, "say \"two\"\n"));
  std::ostringstream text, json;
  std::string why;
  EXPECT_EQ(Memtab::dumpTable(name.value, false, text, &why), Memtab::kCatalogDone) << why;
  std::vector<std::string> lines;
  std::istringstream in(text.str());
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{"", "[1] one", "[2] say \"two\""}));
  EXPECT_EQ(Memtab::dumpTable(name.value, true, json, &why), Memtab::kCatalogDone);
  EXPECT_NE(json.str().find("{\"text\": \"[2] say \\\"two\\\"\\n\"}"), std::string::npos) << json.str();
  EXPECT_EQ(json.str().rfind("{\"table\": \"" + name.value + "\", \"type\": \"" +
                                 Memtab::ValueTraits<Labelled>::typeName() + "\", \"entries\": [",
                             0),
            0u)
      << json.str();

  TableName other("stream");
  Memtab::Writer<Record> r(other);
  r.insert(Record(5, 6));
  std::ostringstream out;
  EXPECT_EQ(Memtab::dumpTable(other.value, false, out, &why), Memtab::kCatalogDone);
  EXPECT_EQ(out.str(), "record 5/6\n");

  const auto tables = Memtab::listTables();
  auto it = std::find_if(tables.begin(), tables.end(),
                         [&](const Memtab::TableInfo& t) { return t.name == name.value; });
  ASSERT_NE(it, tables.end());
  EXPECT_EQ(it->typeName, Memtab::ValueTraits<Labelled>::typeName());
  EXPECT_EQ(it->entries, 2u);
  EXPECT_TRUE(it->writerAlive);
  EXPECT_EQ(it->writerPid, static_cast<std::uint32_t>(getpid()));
}

TEST(MemtabCatalog, AnImageItsTypeCannotReadIsDamage) {
  TableName name("baddump");
  Memtab::Writer<Labelled> w(name);
  w.insert(Labelled(1, 0, "one"));
  // The same segment read as another registered type: Record images are 64 bytes.
  Memtab::ValueType wrong{Memtab::ValueTraits<Labelled>::typeName(),
                          Memtab::findValueType(Memtab::ValueTraits<Record>::typeName())->text};
  Memtab::registerValueType(wrong);
  std::ostringstream out;
  std::string why;
  EXPECT_EQ(Memtab::dumpTable(name.value, false, out, &why), Memtab::kCatalogFailed);
  EXPECT_NE(why.find("is damaged: record at offset "), std::string::npos) << why;
  EXPECT_NE(why.find("invalid image of 13 bytes"), std::string::npos) << why;
  Memtab::registerValueType({Memtab::ValueTraits<Labelled>::typeName(), &Memtab::detail::valueText<Labelled>});
}

}  // namespace
