#include <poll.h>

#include <gtest/gtest.h>

#include <map>
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

  log.clear();
  w.delAll();
  w.insert(Record(7, 0));
  ASSERT_TRUE(readable(r.fd(), kHangMs));
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 1);
  EXPECT_EQ(log.keys, std::vector<std::uint64_t>{7});
}

TEST(MemtabNotify, AReaderThatFallsBehindGetsOneWholeTableNotification) {
  TableName name("behind");
  Memtab::Writer<Record> w(name, ring(4096));
  Memtab::Reader<Record> r(name);
  Log log;
  settle(r, log, &w);
  log.clear();
  // 80-byte entries: 4096 bytes hold about fifty.
  for (std::uint64_t i = 0; i < 1000; ++i) w.insert(Record(i, 1));
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 1);
  EXPECT_TRUE(log.keys.empty());
  EXPECT_EQ(r.size(), 1000u);
  log.clear();
  w.insert(Record(5, 2));
  r.processNotifications(log);
  EXPECT_EQ(log.tables, 0);
  EXPECT_EQ(log.keys, std::vector<std::uint64_t>{5});
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
  EXPECT_EQ(r.lookup(Id{1}), Record());
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
