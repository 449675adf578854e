#include <poll.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "TestValues.h"

namespace {

using namespace MemtabTest;
using Memtab::MountStatus;

// Waits for something that must happen: only a bound against a hang.
constexpr int kHangMs = 60000;

bool readable(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeoutMs) == 1;
}

struct Log : Memtab::Notifiee<Id> {
  std::vector<std::uint64_t> keys;
  int tables = 0;
  std::vector<MountStatus> statuses;
  void onKey(const Id& k) override { keys.push_back(k.v); }
  void onTable() override { ++tables; }
  void onMountStatus(MountStatus s) override { statuses.push_back(s); }
  void clear() {
    keys.clear();
    tables = 0;
    statuses.clear();
  }
};

std::vector<std::uint64_t> sorted(std::vector<std::uint64_t> v) {
  std::sort(v.begin(), v.end());
  return v;
}

Memtab::Options ring(std::size_t bytes) {
  Memtab::Options o;
  o.ringBytes = bytes;
  return o;
}

// Waits for the reader's descriptor, then takes in what it reports.
void settle(Memtab::Reader<Record>& r, Log& log, Memtab::Writer<Record>* w = nullptr) {
  for (int idle = 0, i = 0; idle < 3 && i < 100; ++i) {
    if (w != nullptr) w->serviceReaders();
    if (readable(r.fd(), 10)) {
      r.processNotifications(log);
      idle = 0;
    } else {
      ++idle;
    }
  }
}

TEST(MemtabNotify, ChangesToAKeyCoalesceAndEachChangedKeyIsDeliveredOnce) {
  TableName name("coalesce");
  Memtab::Writer<Record> w(name);
  Memtab::Reader<Record> r(name);
  Log log;
  w.serviceReaders();
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  r.processNotifications(log);
  EXPECT_EQ(log.statuses, std::vector{MountStatus::mounted});
  EXPECT_EQ(log.tables, 1);
  w.serviceReaders();
  log.clear();

  w.insert(Record(3, 0));
  ASSERT_TRUE(readable(r.fd(), kHangMs)) << "the doorbell did not ring";
  for (int i = 1; i <= 5; ++i) w.insert(Record(1, i));
  w.insert(Record(2, 0));
  w.del(Id{3});
  w.insert(Record(1, 9));
  r.processNotifications(log);
  EXPECT_EQ(log.keys, (std::vector<std::uint64_t>{3, 1, 2}));
  EXPECT_EQ(log.tables, 0);
  EXPECT_EQ(r.lookup(Id{1}).seq, 9u);  // the latest state
  EXPECT_FALSE(r.contains(Id{3}));
  EXPECT_FALSE(readable(r.fd(), 0));

  // Clearing the table announces the keys it removed, each once.
  log.clear();
  w.delAll();
  w.insert(Record(7, 0));
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 1);
  EXPECT_EQ(sorted(log.keys), (std::vector<std::uint64_t>{1, 2, 7}));
  // Cleared with nothing delivered since: nothing to announce but the clear.
  log.clear();
  w.delAll();
  w.delAll();
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 1);
  EXPECT_EQ(log.keys, std::vector<std::uint64_t>{7});
}

TEST(MemtabNotify, AReaderThatFallsBehindStillDeliversEveryChangedKeyOnce) {
  TableName name("behind");
  Memtab::Writer<Record> w(name, ring(4096));
  for (std::uint64_t i = 0; i < 500; ++i) w.insert(Record(i, 0));
  Memtab::Reader<Record> r(name);
  Log log;
  settle(r, log);
  log.clear();
  // 80-byte entries: 4096 bytes hold about fifty. Keys 0..99 change, 100..149
  // are removed, 500..599 are new, 150..499 are left alone (450 is changed
  // and changed back: a new record all the same).
  for (std::uint64_t i = 0; i < 100; ++i) w.insert(Record(i, 1));
  for (std::uint64_t i = 100; i < 150; ++i) w.del(Id{i});
  for (std::uint64_t i = 500; i < 600; ++i) w.insert(Record(i, 1));
  w.insert(Record(450, 1));
  w.insert(Record(450, 0));
  w.reserve(5000);  // the bucket array moves: versions do not
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 0);
  std::vector<std::uint64_t> expected;
  for (std::uint64_t i = 0; i < 150; ++i) expected.push_back(i);
  expected.push_back(450);
  for (std::uint64_t i = 500; i < 600; ++i) expected.push_back(i);
  EXPECT_EQ(sorted(log.keys), expected);
  EXPECT_EQ(log.keys.size(), expected.size()) << "a key was delivered twice";
  EXPECT_EQ(r.shadowKeys(), 550u);

  log.clear();
  w.insert(Record(5, 2));
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 0);
  EXPECT_EQ(log.keys, std::vector<std::uint64_t>{5});
}

// Rounds of random changes, some within the ring and some far beyond it,
// with clears now and then: after every round the reader has delivered
// every key that changed, and a copy kept from its deliveries alone is the
// table.
TEST(MemtabNotify, NoChangedKeyIsLostWhateverTheReaderMissed) {
  TableName name("lossless");
  Memtab::Writer<Record> w(name, ring(4096));
  Memtab::Reader<Record> r(name);
  Mirror c;
  c.r = &r;
  r.processNotifications(c);
  std::mt19937_64 rng(1);
  std::map<std::uint64_t, Record> before;
  for (int round = 0; round < 200; ++round) {
    // Keys touched may or may not be delivered (a key added and removed
    // again is as it was); keys whose entry differs must be.
    std::set<std::uint64_t> touched;
    const std::uint64_t ops = rng() % 4 == 0 ? rng() % 3000 : rng() % 40;
    for (std::uint64_t op = 0; op < ops; ++op) {
      const std::uint64_t id = rng() % 500;
      touched.insert(id);
      if (rng() % 3 == 0) {
        w.del(Id{id});
      } else {
        w.insert(Record(id, rng() % 4));
      }
    }
    if (rng() % 50 == 0) {
      for (const Record& v : w) touched.insert(v.id);
      w.delAll();
    }
    c.delivered.clear();
    r.processNotifications(c);
    std::map<std::uint64_t, Record> actual;
    for (const Record& v : r) actual[v.id] = v;
    for (std::uint64_t k = 0; k < 500; ++k) {
      const bool differs = before.count(k) != actual.count(k) || (actual.count(k) && !(before[k] == actual[k]));
      if (differs) {
        ASSERT_TRUE(c.delivered.count(k)) << "round " << round << ": changed key " << k;
      }
      if (c.delivered.count(k)) {
        ASSERT_TRUE(touched.count(k)) << "round " << round << ": untouched key " << k;
      }
    }
    ASSERT_EQ(c.copy, actual) << "round " << round;
    before = actual;
  }
}

TEST(MemtabNotify, AWriterThatNeverPollsServesReadersThatJoinAtAnyTime) {
  TableName name("nopoll");
  Memtab::Reader<Record> early(name);  // before the table exists
  Memtab::Writer<Record> w(name);      // never serviceReaders(), never polled
  Log earlyLog, lateLog;
  ASSERT_TRUE(readable(early.fd(), kHangMs)) << "table creation went unnoticed";
  early.processNotifications(earlyLog);
  EXPECT_EQ(earlyLog.statuses, std::vector{MountStatus::mounted});
  earlyLog.clear();
  w.insert(Record(1, 1));
  ASSERT_TRUE(readable(early.fd(), kHangMs)) << "the first change did not wake the reader";
  early.processNotifications(earlyLog);
  EXPECT_EQ(earlyLog.keys, std::vector<std::uint64_t>{1});

  Memtab::Reader<Record> late(name);  // joins between two changes
  late.processNotifications(lateLog);
  EXPECT_EQ(lateLog.tables, 1);
  EXPECT_EQ(late.lookup(Id{1}), Record(1, 1));
  lateLog.clear();
  w.insert(Record(2, 1));
  ASSERT_TRUE(readable(late.fd(), kHangMs)) << "the next change did not take the reader in";
  late.processNotifications(lateLog);
  EXPECT_EQ(lateLog.keys, std::vector<std::uint64_t>{2});
  EXPECT_EQ(w.readers(), 2u);
  w.insert(Record(3, 1));
  ASSERT_TRUE(readable(late.fd(), kHangMs));
  late.processNotifications(lateLog);
  EXPECT_EQ(lateLog.keys, (std::vector<std::uint64_t>{2, 3}));
}

TEST(MemtabNotify, ReplayAnnouncesEveryPresentKeyOnce) {
  TableName name("replay");
  Memtab::Writer<Record> w(name);
  for (std::uint64_t i = 0; i < 300; ++i) w.insert(Record(i, 0));
  w.del(Id{7});
  Memtab::Reader<Record> r(name);
  Log log;
  settle(r, log);
  EXPECT_TRUE(log.keys.empty()) << "the first mapping is announced as a whole";
  log.clear();
  r.replay(log);
  std::vector<std::uint64_t> expected;
  for (std::uint64_t i = 0; i < 300; ++i)
    if (i != 7) expected.push_back(i);
  EXPECT_EQ(sorted(log.keys), expected);
  EXPECT_EQ(log.keys.size(), expected.size());
  EXPECT_EQ(log.tables, 0);
  // Replaying changes nothing of what processNotifications() owes.
  log.clear();
  w.insert(Record(3, 1));
  settle(r, log);
  EXPECT_EQ(log.keys, std::vector<std::uint64_t>{3});
}

TEST(MemtabNotify, MountStatusFollowsTheTableAndItsWriter) {
  TableName name("mount");
  Memtab::Reader<Record> r(name);
  EXPECT_EQ(r.mountStatus(), MountStatus::unmounted);
  EXPECT_EQ(r.lookup(Id{1}), Record());
  EXPECT_EQ(r.begin(), r.end());
  Log log;
  r.processNotifications(log);
  EXPECT_TRUE(log.statuses.empty());

  auto w = std::make_unique<Memtab::Writer<Record>>(name.value);
  w->insert(Record(1, 1));
  ASSERT_TRUE(readable(r.fd(), kHangMs)) << "table creation went unnoticed";
  settle(r, log, w.get());
  EXPECT_EQ(r.mountStatus(), MountStatus::mounted);
  EXPECT_EQ(log.statuses, std::vector{MountStatus::mounted});
  EXPECT_GE(log.tables, 1);
  EXPECT_EQ(r.lookup(Id{1}), Record(1, 1));

  log.clear();
  w.reset();  // the writer goes away; the table stays
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  r.processNotifications(log);
  EXPECT_EQ(log.statuses, std::vector{MountStatus::writerGone});
  EXPECT_EQ(r.lookup(Id{1}), Record(1, 1));

  log.clear();
  w = std::make_unique<Memtab::Writer<Record>>(name.value);  // a new writer re-attaches
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  settle(r, log, w.get());
  EXPECT_EQ(log.statuses, std::vector{MountStatus::mounted});
  EXPECT_GE(log.tables, 1);
  w->insert(Record(2, 2));
  settle(r, log, w.get());
  EXPECT_EQ(r.lookup(Id{2}), Record(2, 2));

  log.clear();
  Memtab::unlinkTable(name.value);
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  r.processNotifications(log);
  EXPECT_EQ(log.statuses, std::vector{MountStatus::unmounted});
  EXPECT_EQ(log.tables, 1);
  EXPECT_EQ(sorted(log.keys), (std::vector<std::uint64_t>{1, 2})) << "removed keys are announced";
  EXPECT_EQ(r.lookup(Id{1}), Record());

  // A new table under the name: every key it holds is new to this reader.
  log.clear();
  w.reset();
  w = std::make_unique<Memtab::Writer<Record>>(name.value);
  w->insert(Record(4, 4));
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  settle(r, log, w.get());
  EXPECT_EQ(log.statuses, std::vector{MountStatus::mounted});
  EXPECT_EQ(log.keys, std::vector<std::uint64_t>{4});
}

TEST(MemtabNotify, WriterAndLocalTableNotifyTheirOwnNotifieeAsTheyChange) {
  struct Seen : Memtab::Notifiee<Id> {
    std::vector<std::uint64_t> keys;
    int tables = 0;
    void onKey(const Id& k) override { keys.push_back(k.v); }
    void onTable() override { ++tables; }
  };
  Seen a, b;
  TableName name("own");
  Memtab::Writer<Record> w(name);
  Memtab::LocalTable<Record> local;
  w.notifieeIs(&a);
  local.notifieeIs(&b);
  for (auto* t : std::vector<Memtab::detail::WritableTable<Record>*>{&w, &local}) {
    t->insert(Record(1, 1));
    t->insert(Record(1, 1));  // unchanged
    t->insert(Record(1, 2));
    t->del(Id{1});
    t->del(Id{1});  // absent
    t->delAll();
  }
  for (auto* s : {&a, &b}) {
    EXPECT_EQ(s->keys, (std::vector<std::uint64_t>{1, 1, 1}));
    EXPECT_EQ(s->tables, 1);
  }
}

}  // namespace
