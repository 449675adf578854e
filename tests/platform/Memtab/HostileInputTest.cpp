// Cases that fuzzing of table segments turned up, pinned so they stay fixed.
// Copying an empty image is undefined behaviour rather than a wrong answer:
// those cases fail under the sanitizer presets (storing one also failed an
// assertion in the writer's allocator).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "TestValues.h"
#include "support/MappedSegment.h"

namespace {

using namespace MemtabTest;
using namespace Memtab::Shm;

// A value whose image is empty for key 0 and one byte for any other key.
struct Tiny {
  std::uint8_t id = 0;

  struct Key {
    std::uint8_t id = 0;
    Cog::HashValue hash() const { return id; }
    bool operator==(const Key&) const = default;
  };
  Key key() const { return Key{id}; }
  bool operator==(const Tiny&) const = default;
  std::size_t serializeLen() const { return id == 0 ? 0 : 1; }
  void serialize(std::uint8_t* out) const {
    if (id != 0) out[0] = id;
  }
  static std::size_t deserializeLen(const std::uint8_t*, std::size_t avail) {
    return avail <= 1 ? 1 : 0;
  }
  void deserialize(const std::uint8_t* in, std::size_t length) { id = length == 0 ? 0 : in[0]; }
};

struct Log : Memtab::Notifiee<Tiny::Key> {
  int tables = 0;
  std::vector<int> keys;
  void onKey(const Tiny::Key& k) override { keys.push_back(k.id); }
  void onTable() override { ++tables; }
};

TEST(MemtabHostileInput, AReaderTakesInTheEmptyEntryOfDeleteAll) {
  TableName name("delall");
  Memtab::Writer<Tiny> w(name);
  w.insert(Tiny{5});
  Memtab::Reader<Tiny> r(name);
  // The reader has read nothing yet: its copy buffer has no storage.
  w.delAll();
  Log log;
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 1);
  EXPECT_TRUE(log.keys.empty());
  EXPECT_EQ(r.size(), 0u);
}

TEST(MemtabHostileInput, EmptyImagesAreReadByLookupIterationAndNotification) {
  TableName name("empty");
  Messages msgs;
  Memtab::Writer<Tiny> w(name);
  Memtab::Reader<Tiny> notified(name, msgs.options());
  Log log;
  notified.processNotifications(log);
  // The writer stores, compares and replaces an empty image like any other.
  EXPECT_TRUE(w.insert(Tiny{0}));
  EXPECT_FALSE(w.insert(Tiny{0}));
  EXPECT_EQ(w.lookup(Tiny::Key{0}), Tiny{0});
  log = {};
  notified.processNotifications(log);
  EXPECT_EQ(log.keys, std::vector<int>{0});

  Memtab::Reader<Tiny> looker(name, msgs.options());
  EXPECT_TRUE(looker.contains(Tiny::Key{0}));
  Memtab::Reader<Tiny> iterator(name, msgs.options());
  std::vector<int> seen;
  for (const Tiny& t : iterator) seen.push_back(t.id);
  EXPECT_EQ(seen, std::vector<int>{0});
  EXPECT_TRUE(msgs.all.empty()) << msgs.all.front();
}

TEST(MemtabHostileInput, AReattachingWriterRealignsAMisalignedHeapTop) {
  TableName name("heaptop");
  Messages msgs;
  {
    Memtab::Writer<Named> w(name);
    for (std::uint32_t id = 1; id <= 20; ++id) w.insert(Named(id, id, "old"));
  }
  {
    testsupport::MappedSegment segment(name.value);
    ASSERT_NE(segment.base, nullptr);
    auto& top = reinterpret_cast<Header*>(segment.base)->heapTop;
    // Three bytes past a cache line: the new bucket array is aligned above
    // it, and the run below it is left free at an odd offset.
    top.store((top.load() + 63) / 64 * 64 + 3);
  }
  Memtab::Writer<Named> w(name, msgs.options());
  EXPECT_TRUE(msgs.has("heap top")) << msgs.all.size();
  msgs.all.clear();
  // Records of every size up to two cache lines, one of which fits the run
  // left free below the bucket array.
  for (std::uint32_t n = 0; n <= 120; ++n) w.insert(Named(100 + n, n, std::string(n, 'x')));
  for (std::uint32_t n = 0; n <= 120; ++n) {
    EXPECT_EQ(w.lookup(Named::Key{100 + n}), Named(100 + n, n, std::string(n, 'x'))) << n;
  }
  for (std::uint32_t id = 1; id <= 20; ++id) EXPECT_EQ(w.lookup(Named::Key{id}), Named(id, id, "old"));
  Memtab::Reader<Named> r(name, msgs.options());
  std::size_t n = 0;
  for (auto it = r.begin(); it != r.end(); ++it) ++n;
  EXPECT_EQ(n, 141u);
  EXPECT_TRUE(msgs.all.empty()) << msgs.all.front();
}

}  // namespace
