// A shared-memory table attribute: local until bound, then a writer entity
// and a reader entity (as two processes would have) on one table.
#include <gtest/gtest.h>

#include "Memtab/Segment.h"

#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include <AllConstructs.h>

#include "Cog/GenericIf.h"
#include "Memtab/GenericReader.h"

using namespace CogTest;

namespace {

struct EntriesWatcher : Tables::NotifieeConst {
  std::vector<std::uint32_t> keys;
  int whole = 0;
  void onEntries(const Single& key) override { keys.push_back(key.value()); }
  void onEntries() override { ++whole; }
};

Entry entry(std::uint32_t key, std::uint64_t weight) {
  Entry e;
  e.keyIs(Single(key));
  e.weightIs(weight);
  return e;
}

TEST(MemtabAttribute, LocalTableNotifiesPerKey) {
  auto t = tablesFactory(Cog::Name("t"));
  auto w = Cog::allocate<EntriesWatcher>();
  w->notifierIs(t);
  t->entriesIs(entry(1, 10));
  t->entriesIs(entry(1, 10));  // unchanged: no notification
  t->entriesIs(entry(2, 20));
  EXPECT_EQ(t->entries(Single(1)).weight(), 10u);
  EXPECT_EQ(t->entries(Single(9)), Entry());
  t->entriesDel(Single(1));
  EXPECT_EQ(w->keys, (std::vector<std::uint32_t>{1, 2, 1}));
  EXPECT_EQ(t->entries().size(), 1u);

  auto g = Cog::genericIfOf(t);
  auto it = g->iterator("entries");
  ASSERT_TRUE(it->iterNonnull());
  EXPECT_EQ(it->iterKey()->strRep().str(), "2");
  it->iterDel();
  EXPECT_EQ(t->entries().size(), 0u);
}

TEST(MemtabAttribute, WriterAndReaderShareOneTable) {
  std::string name = "cogtest" + std::to_string(getpid());
  // The segment outlives the entities by design; remove it when the test ends.
  struct Unlink {
    std::string name;
    ~Unlink() { Memtab::unlinkTable(name); }
  } unlink{name};
  auto writer = tablesFactory(Cog::Name("w"));
  writer->entriesWriterIs(name);
  auto reader = tablesFactory(Cog::Name("r"));
  reader->entriesReaderIs(name);
  auto w = Cog::allocate<EntriesWatcher>();
  w->notifierIs(reader);
  EXPECT_TRUE(reader->entriesIsReader());
  EXPECT_GE(reader->entriesFd(), 0);

  writer->entriesIs(entry(5, 50));
  reader->entriesProcessNotifications();
  EXPECT_EQ(reader->entries(Single(5)).weight(), 50u);
  EXPECT_NE(std::find(w->keys.begin(), w->keys.end(), 5u), w->keys.end());
  EXPECT_THROW(reader->entriesIs(entry(6, 60)), Cog::ReadOnlyException);
  writer->entriesDelAll();
}

TEST(MemtabAttribute, AGenericReaderOpensTheTableByNameAlone) {
  std::string name = "cogtestg" + std::to_string(getpid());
  struct Unlink {
    std::string name;
    ~Unlink() { Memtab::unlinkTable(name); }
  } unlink{name};
  // Named with its value type, a reader waits for a table that is not there.
  auto early = Memtab::openGenericReader(name, "CogTest::Entry");
  EXPECT_EQ(early->mountStatus(), Memtab::MountStatus::unmounted);
  EXPECT_THROW(Memtab::openGenericReader(name + "x"), Cog::RangeException);
  EXPECT_THROW(Memtab::openGenericReader(name, "CogTest::Single"), Cog::NotSupportedException);

  auto writer = tablesFactory(Cog::Name("w"));
  writer->entriesWriterIs(name);
  writer->entriesIs(entry(5, 50));
  writer->entriesIs(entry(6, 60));
  auto r = Memtab::openGenericReader(name);
  EXPECT_STREQ(r->valueType()->name(), "CogTest::Entry");
  EXPECT_STREQ(r->keyType()->name(), "CogTest::Single");
  EXPECT_THROW(Memtab::openGenericReader(name, "CogTest::Widths"), Cog::RangeException);
  EXPECT_EQ(r->size(), 2u);
  auto v = r->lookup(Cog::genericIfOf(Single(5)));
  ASSERT_TRUE(v);
  EXPECT_EQ(v->as<Entry>()->weight(), 50u);
  EXPECT_FALSE(r->lookup(Cog::genericIfOf(Single(7))));
  EXPECT_THROW(r->lookup(Cog::genericIfOf(Cog::String("x"))), Cog::Exception);
  std::set<std::uint32_t> seen;
  auto c = r->cursor();
  while (auto each = c->next()) seen.insert(each->as<Entry>()->key().value());
  EXPECT_EQ(seen, (std::set<std::uint32_t>{5, 6}));

  int tables = 0;
  std::vector<std::string> keys;
  Memtab::GenericReader::Events events;
  events.onTable = [&] { ++tables; };
  events.onKey = [&](const Cog::Ptr<Cog::GenericIf>& k) { keys.push_back(k->strRep().str()); };
  r->processNotifications(events);
  EXPECT_EQ(tables, 1);
  writer->entriesDel(Single(5));
  r->processNotifications(events);
  EXPECT_EQ(keys, (std::vector<std::string>{"5"}));
  early->processNotifications(events);  // mounts the table that appeared
  EXPECT_NE(early->mountStatus(), Memtab::MountStatus::unmounted);
  EXPECT_EQ(early->size(), 1u);
}

}  // namespace
