// A shared-memory table attribute: local until bound, then a writer entity
// and a reader entity (as two processes would have) on one table.
#include <gtest/gtest.h>

#include "Memtab/Segment.h"

#include <unistd.h>

#include <AllConstructs.h>

#include "Cog/GenericIf.h"

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

}  // namespace
