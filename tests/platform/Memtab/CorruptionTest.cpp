// The segment as hostile input: bytes corrupted on purpose reach the
// corruption handler; random damage never crashes or hangs a reader or a
// re-attaching writer.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <random>

#include "TestValues.h"
#include "support/MappedSegment.h"

namespace {

using namespace MemtabTest;
using namespace Memtab::Shm;

// A table's segment with its layout's fields at hand.
struct Segment : testsupport::MappedSegment {
  using MappedSegment::MappedSegment;
  Header& header() { return *reinterpret_cast<Header*>(base); }
  IndexWord index() { return IndexWord::decode(header().index.load()); }
  std::atomic<std::uint64_t>& at(std::uint64_t off) {
    return *reinterpret_cast<std::atomic<std::uint64_t>*>(base + off);
  }
  // The bucket holding the entry whose image starts with `id` (4 or 8 bytes).
  std::uint64_t bucketOf(std::uint64_t id, std::size_t idBytes) {
    IndexWord ix = index();
    for (std::uint32_t pos = 0; pos < ix.totalBuckets(); ++pos) {
      std::uint64_t w = at(ix.offset + bucketOffset(pos)).load();
      if (w == 0) continue;
      std::uint64_t image = bucketRecord(w) + kRecordHeader;
      std::uint64_t v = 0;
      std::memcpy(&v, base + image, idBytes);
      if (v == id) return ix.offset + bucketOffset(pos);
    }
    ADD_FAILURE() << "no entry " << id;
    return 0;
  }
  std::uint64_t recordOf(std::uint64_t id, std::size_t idBytes) {
    return bucketRecord(at(bucketOf(id, idBytes)).load());
  }
};

TEST(MemtabCorruption, InvalidImagesAndOffsetsReachTheHandlerAndYieldDefaults) {
  TableName name("corrupt");
  Messages msgs;
  Memtab::Writer<Named> w(name, msgs.options());
  for (std::uint32_t id = 1; id <= 50; ++id) w.insert(Named(id, id, std::string(20, 'n')));
  Memtab::Reader<Named> r(name, msgs.options());
  Segment seg(name);

  // deserializeLen() says 0: a name length beyond the array.
  std::uint64_t rec = seg.recordOf(1, 4);
  std::uint16_t bad = 250;
  std::memcpy(seg.base + rec + kRecordHeader + 8, &bad, 2);
  EXPECT_EQ(r.lookup(Named::Key{1}), Named());
  EXPECT_TRUE(msgs.has("invalid image")) << msgs.all.size();

  // The image length disagrees with the value it holds.
  msgs.all.clear();
  rec = seg.recordOf(2, 4);
  std::uint16_t shorter = 5;
  std::memcpy(seg.base + rec + kRecordHeader + 8, &shorter, 2);
  EXPECT_EQ(r.lookup(Named::Key{2}), Named());
  EXPECT_TRUE(msgs.has("holds a value of 15 bytes"));

  // A record offset past the end of the segment.
  msgs.all.clear();
  std::uint64_t b = seg.bucketOf(3, 4);
  std::uint64_t w3 = seg.at(b).load();
  seg.at(b).store(bucketWord(bucketHash(w3), seg.size + 4096));
  EXPECT_EQ(r.lookup(Named::Key{3}), Named());
  EXPECT_TRUE(msgs.has("outside the segment"));

  // A record length past the end of the segment.
  msgs.all.clear();
  rec = seg.recordOf(4, 4);
  std::uint64_t rw = seg.at(rec).load();
  seg.at(rec).store(recordWord(recordVersion(rw), 0xffffff));
  EXPECT_EQ(r.lookup(Named::Key{4}), Named());
  EXPECT_TRUE(msgs.has("outside the segment"));

  // The others are still there, and the writer sees what readers see.
  EXPECT_EQ(r.lookup(Named::Key{5}), Named(5, 5, std::string(20, 'n')));
  EXPECT_EQ(w.lookup(Named::Key{1}), Named());

  // Iteration stops at the first damaged entry it meets, after reporting it.
  msgs.all.clear();
  std::size_t visited = 0;
  for (const Named& v : r) {
    EXPECT_GE(v.id, 5u);
    ++visited;
  }
  EXPECT_LT(visited, 46u);
  EXPECT_EQ(msgs.all.size(), 1u);

  // A bucket array said to lie outside the segment.
  msgs.all.clear();
  IndexWord ix = seg.index();
  IndexWord far = ix;
  far.offset = (seg.size / kBlockBytes + 10) * kBlockBytes;
  seg.header().index.store(far.encode());
  EXPECT_EQ(r.lookup(Named::Key{5}), Named());
  EXPECT_EQ(r.begin(), r.end());
  EXPECT_TRUE(msgs.has("bucket array lies outside"));
  seg.header().index.store(ix.encode());
}

TEST(MemtabCorruption, ARestartedWriterDropsDamagedEntriesAndKeepsTheRest) {
  TableName name("repair");
  Messages msgs;
  {
    Memtab::Writer<Record> w(name);
    for (std::uint64_t id = 0; id < 500; ++id) w.insert(Record(id, 1));
    Segment seg(name);
    seg.base[seg.recordOf(10, 8) + kRecordHeader] ^= 0xff;  // id no longer matches the hash
    std::uint64_t rec = seg.recordOf(20, 8);
    seg.at(rec).store(recordWord(recordVersion(seg.at(rec).load()), 63));  // deserializeLen 0
    // A bucket copied over its neighbour: one record, two buckets.
    std::uint64_t b = seg.bucketOf(30, 8);
    seg.at(b + 8).store(seg.at(b).load());
  }
  Memtab::Writer<Record> w(name, msgs.options());
  EXPECT_GE(msgs.all.size(), 2u);
  EXPECT_TRUE(msgs.has("dropped the entry"));
  Memtab::Reader<Record> r(name);
  std::size_t present = 0;
  for (std::uint64_t id = 0; id < 500; ++id) {
    Record v = r.lookup(Id{id});
    if (id == 10 || id == 20) {
      EXPECT_EQ(v, Record()) << id;
    } else if (v == Record(id, 1)) {
      ++present;
    }
  }
  EXPECT_GE(present, 496u);  // at most the neighbour of 30 is gone besides
  EXPECT_EQ(r.size(), present);
  w.insert(Record(10, 2));
  EXPECT_EQ(r.lookup(Id{10}), Record(10, 2));
}

TEST(MemtabCorruption, AGarbledChangeRingIsReportedAndItsChangesStillDelivered) {
  TableName name("ring");
  Messages msgs;
  Memtab::Writer<Record> w(name);
  Memtab::Reader<Record> r(name, msgs.options());
  struct Log : Memtab::Notifiee<Id> {
    int tables = 0, keys = 0;
    void onKey(const Id&) override { ++keys; }
    void onTable() override { ++tables; }
  } log;
  r.processNotifications(log);
  log = {};
  Segment seg(name);
  std::uint64_t head = seg.header().ringHead.load();
  w.insert(Record(1, 1));
  std::uint8_t* entry = seg.base + seg.header().ringOffset + (head & (seg.header().ringBytes - 1));
  std::uint32_t wrong = 8;  // not a multiple of 16
  std::memcpy(entry, &wrong, 4);
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 0);
  EXPECT_EQ(log.keys, 1);  // found by comparing the table with what was delivered
  EXPECT_TRUE(msgs.has("malformed"));
  w.insert(Record(2, 1));
  r.processNotifications(log);
  EXPECT_EQ(log.keys, 2);
}

// Random bytes anywhere in the segment, then every kind of read in a child
// that must neither crash nor run past its alarm.
TEST(MemtabCorruption, RandomDamageNeverCrashesOrHangsReadersOrARestartedWriter) {
  std::mt19937_64 rng(2024);
  for (int round = 0; round < 150 / kScale; ++round) {
    TableName name("fuzz");
    {
      Memtab::Options o;
      o.ringBytes = 4096;
      Memtab::Writer<Named> w(name, o);
      for (std::uint32_t id = 0; id < 300; ++id)
        w.insert(Named(id, id, std::string(rng() % 60, 'q')));
      for (std::uint32_t id = 0; id < 300; id += 3) w.del(Named::Key{id});
    }
    {
      Segment seg(name);
      int flips = 1 + static_cast<int>(rng() % 40);
      for (int i = 0; i < flips; ++i) {
        // Mostly the header and bucket array, where damage hurts most.
        std::size_t span = rng() % 2 == 0 ? std::min<std::size_t>(seg.size, 8192 + 4096 * 4) : seg.size;
        std::size_t off = rng() % span;
        seg.base[off] = static_cast<std::uint8_t>(rng());
      }
    }
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      alarm(60);  // a hang bound, not a time limit
      Memtab::Options quiet;
      quiet.corruptionHandler = [](const std::string&) {};
      {
        Memtab::Reader<Named> r(name.value, quiet);
        struct Q : Memtab::Notifiee<Named::Key> {} q;
        r.processNotifications(q);
        for (std::uint32_t id = 0; id < 400; ++id) (void)r.lookup(Named::Key{id});
        std::size_t n = 0;
        for (auto it = r.begin(); it != r.end() && n < 100000; ++it) ++n;
      }
      try {
        Memtab::Writer<Named> w(name.value, quiet);
        for (std::uint32_t id = 0; id < 400; ++id) {
          Named v = w.lookup(Named::Key{id});
          if (!(v == Named()) && v.id != id) _exit(3);
        }
        for (std::uint32_t id = 0; id < 50; ++id) w.insert(Named(id, 1, "again"));
        for (std::uint32_t id = 0; id < 50; ++id)
          if (!(w.lookup(Named::Key{id}) == Named(id, 1, "again"))) _exit(4);
      } catch (const Cog::Exception&) {
        _exit(5);
      }
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    shm_unlink(("/activity." + std::to_string(child)).c_str());
    ASSERT_TRUE(WIFEXITED(status)) << "round " << round << " signal " << WTERMSIG(status);
    ASSERT_EQ(WEXITSTATUS(status), 0) << "round " << round;
  }
}

TEST(MemtabCorruptionDeathTest, IteratorMisuseIsAProgrammingError) {
  Memtab::LocalTable<Record> t;
  EXPECT_DEATH((void)*t.end(), "done_");
  EXPECT_DEATH(++t.begin(), "done_");
}

}  // namespace
