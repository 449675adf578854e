#include <sys/mman.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <fstream>

#include <map>
#include <random>
#include <set>

#include "TestValues.h"

namespace {

using namespace MemtabTest;
using Memtab::LocalTable;
using Memtab::Reader;
using Memtab::Writer;

Memtab::Options ring(std::size_t bytes) {
  Memtab::Options o;
  o.ringBytes = bytes;
  return o;
}
Memtab::Options handler(std::function<void(const std::string&)> f) {
  Memtab::Options o;
  o.corruptionHandler = std::move(f);
  return o;
}

template <class Table>
std::map<std::uint64_t, Record> contents(const Table& t) {
  std::map<std::uint64_t, Record> out;
  for (const Record& r : t) {
    EXPECT_TRUE(out.emplace(r.id, r).second) << "key " << r.id << " visited twice";
  }
  return out;
}

// Random inserts, overwrites and deletes against a std::map, checking
// lookups, size and iteration of the writer, a reader and a local table.
TEST(MemtabTable, BehavesLikeAMapUnderRandomOperations) {
  for (unsigned seed = 1; seed <= 4; ++seed) {
    TableName name("model");
    Writer<Record> w(name, ring(4096));
    Reader<Record> r(name);
    LocalTable<Record> local;
    std::map<std::uint64_t, Record> model;
    std::mt19937_64 rng(seed);
    const std::uint64_t keys = 200 * seed * seed;  // sparse and dense tables
    for (int op = 0; op < 20000; ++op) {
      std::uint64_t id = rng() % keys;
      switch (rng() % 10) {
        case 0:
        case 1: {
          bool had = model.erase(id) != 0;
          EXPECT_EQ(w.del(Id{id}), had);
          EXPECT_EQ(local.del(Id{id}), had);
          break;
        }
        case 2:
          if (rng() % 500 == 0) {
            model.clear();
            w.delAll();
            local.delAll();
          }
          break;
        default: {
          Record v(id, rng() % 4);
          bool changed = !model.count(id) || !(model[id] == v);
          model[id] = v;
          EXPECT_EQ(w.insert(v), changed);
          EXPECT_EQ(local.insert(v), changed);
        }
      }
      std::uint64_t probe = rng() % keys;
      Record expect = model.count(probe) ? model[probe] : Record();
      ASSERT_EQ(w.lookup(Id{probe}), expect) << "seed " << seed << " op " << op;
      ASSERT_EQ(r.lookup(Id{probe}), expect);
      ASSERT_EQ(local.lookup(Id{probe}), expect);
    }
    EXPECT_EQ(w.size(), model.size());
    EXPECT_EQ(r.size(), model.size());
    EXPECT_EQ(local.size(), model.size());
    EXPECT_EQ(contents(w), model);
    EXPECT_EQ(contents(r), model);
    EXPECT_EQ(contents(local), model);
  }
}

TEST(MemtabTable, GrowsFromTheSmallestSizeAndKeepsEveryKey) {
  TableName name("grow");
  Writer<Named> w(name, ring(0));
  Reader<Named> r(name);
  const std::uint32_t n = 60000;
  for (std::uint32_t i = 0; i < n; ++i) {
    w.insert(Named(i, i * 3, std::string(i % 150, static_cast<char>('a' + i % 26))));
  }
  EXPECT_GT(w.resizes(), 5u);
  EXPECT_EQ(r.size(), n);
  for (std::uint32_t i = 0; i < n; ++i) {
    Named v = r.lookup(Named::Key{i});
    ASSERT_EQ(v, Named(i, i * 3, std::string(i % 150, static_cast<char>('a' + i % 26))));
  }
  std::set<std::uint32_t> seen;
  for (const Named& v : r) seen.insert(v.id);
  EXPECT_EQ(seen.size(), n);
  for (std::uint32_t i = 0; i < n; i += 2) w.del(Named::Key{i});
  EXPECT_EQ(r.size(), n / 2);
  for (std::uint32_t i = 0; i < n; ++i) ASSERT_EQ(r.contains(Named::Key{i}), i % 2 == 1);
}

TEST(MemtabTable, VariableLengthImagesRoundTrip) {
  TableName name("named");
  Writer<Named> w(name);
  Reader<Named> r(name);
  for (std::size_t len : {0u, 1u, 7u, 8u, 9u, 100u, 200u}) {
    Named v(static_cast<std::uint32_t>(len), 7, std::string(len, 'x'));
    w.insert(v);
    EXPECT_EQ(r.lookup(v.key()), v);
  }
  // Shorter and longer images under one key.
  w.insert(Named(1, 1, std::string(200, 'y')));
  w.insert(Named(1, 2, "z"));
  EXPECT_EQ(r.lookup(Named::Key{1}), Named(1, 2, "z"));
  EXPECT_EQ(r.lookup(Named::Key{999}), Named());
}

TEST(MemtabTable, DirectCommitPublishesAnEditedCopyAndAlwaysNotifies) {
  struct Count : Memtab::Notifiee<Id> {
    int keys = 0, tables = 0;
    void onKey(const Id&) override { ++keys; }
    void onTable() override { ++tables; }
  } n;
  TableName name("commit");
  Writer<Record> w(name);
  w.notifieeIs(&n);
  EXPECT_EQ(w.edit(Id{5}), nullptr);
  w.insert(Record(5, 1));
  EXPECT_FALSE(w.insert(Record(5, 1)));  // identical: no change, no notification
  EXPECT_EQ(n.keys, 1);
  Record* e = w.edit(Id{5});
  ASSERT_NE(e, nullptr);
  *e = Record(5, 2);
  EXPECT_EQ(w.lookup(Id{5}).seq, 1u);  // not published before commit
  w.commit(e);
  EXPECT_EQ(w.lookup(Id{5}).seq, 2u);
  EXPECT_EQ(n.keys, 2);
  Record same(5, 2);
  w.commit(&same);  // unchanged image, still notified
  EXPECT_EQ(n.keys, 3);
  w.delAll();
  EXPECT_EQ(n.tables, 1);
  EXPECT_EQ(w.size(), 0u);
}

TEST(MemtabTable, NamesAreValidated) {
  for (const char* bad : {"", "a/b", "..", "../x", "a..b", ".hidden", "sp ace", "tab\t", "é"}) {
    EXPECT_THROW(Writer<Record>{bad}, Cog::RangeException) << bad;
    EXPECT_THROW(Reader<Record>{bad}, Cog::RangeException) << bad;
    EXPECT_THROW(Memtab::unlinkTable(bad), Cog::RangeException) << bad;
  }
  EXPECT_THROW(Writer<Record>{std::string(Memtab::kMaxTableNameLength + 1, 'a')},
               Cog::RangeException);
  EXPECT_NO_THROW(Memtab::validateTableName("Ok.name_1-2"));
}

TEST(MemtabTable, OneWriterPerTableAndOneValueTypePerTable) {
  TableName name("owner");
  {
    Writer<Record> w(name);
    EXPECT_THROW(Writer<Record>{name}, Cog::NameInUseException);
    EXPECT_THROW(Writer<Named>{name}, Cog::NameInUseException);
    std::string message;
    Reader<Named> wrongType(name, handler([&](const std::string& m) { message = m; }));
    EXPECT_EQ(wrongType.mountStatus(), Memtab::MountStatus::unmounted);
    EXPECT_NE(message.find("another value type"), std::string::npos) << message;
  }
  // The first writer is gone: a second one re-attaches.
  Writer<Record> again(name);
  again.insert(Record(1, 1));
}

TEST(MemtabTable, SegmentModeIsPrivateByDefault) {
  TableName name("mode");
  Writer<Record> w(name);
  struct stat st;
  ASSERT_EQ(stat(("/dev/shm/memtab." + name.value).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_uid, geteuid());
}

TEST(MemtabTable, ReadersMapTheSegmentReadOnly) {
  TableName name("ro");
  {
    Writer<Record> w(name);  // the table stays after its writer
    w.insert(Record(1, 1));
  }
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Reader<Record> r(name.value);
    if (!(r.lookup(Id{1}) == Record(1, 1))) _exit(2);
    std::ifstream maps("/proc/self/maps");
    std::string line, path = "/dev/shm/memtab." + name.value;
    int found = 0;
    while (std::getline(maps, line)) {
      if (line.find(path) == std::string::npos) continue;
      std::string perms = line.substr(line.find(' ') + 1, 4);
      if (perms != "r--s") _exit(3);
      ++found;
    }
    _exit(found == 0 ? 4 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  shm_unlink(("/activity." + std::to_string(child)).c_str());
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
