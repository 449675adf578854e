// Writers and readers in separate processes: torn-read freedom under a
// hammering writer, a writer killed at random moments, readers killed, and a
// table of a million entries.
#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "TestValues.h"

namespace {

using namespace MemtabTest;
using Clock = std::chrono::steady_clock;

pid_t spawn(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) {
    int status = 2;
    try {
      status = body();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child: %s\n", e.what());
    }
    _exit(status);
  }
  return pid;
}

int exitStatus(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  // The child's activity counters (it ended without running exit handlers).
  shm_unlink(("/activity." + std::to_string(pid)).c_str());
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

// Keys below kStable are inserted first and then only overwritten: a lookup
// must always find them. Keys from kStable to kStable + kChurn come and go.
constexpr std::uint64_t kStable = 3000;
constexpr std::uint64_t kChurn = 3000;

bool waitMounted(Memtab::Reader<Record>& r, Clock::duration limit) {
  struct Quiet : Memtab::Notifiee<Id> {} quiet;
  auto until = Clock::now() + limit;
  while (Clock::now() < until) {
    pollfd p{r.fd(), POLLIN, 0};
    poll(&p, 1, 10);
    r.processNotifications(quiet);
    if (r.mountStatus() != Memtab::MountStatus::unmounted && r.size() >= kStable) return true;
  }
  return false;
}

// What a reader checks, over and over, while the writer works.
// Returns 0 or a distinct failure code.
int checkReader(const std::string& name, Clock::duration runFor, std::uint64_t seed) {
  Memtab::Reader<Record> r(name);
  std::string corruption;
  r.corruptionHandlerIs([&](const std::string& m) { corruption = m; });
  if (!waitMounted(r, std::chrono::seconds(10))) return 10;
  std::mt19937_64 rng(seed);
  auto until = Clock::now() + runFor;
  std::uint64_t rounds = 0;
  while (Clock::now() < until || rounds < 3) {
    for (int i = 0; i < 2000; ++i) {
      std::uint64_t id = rng() % (kStable + kChurn);
      Record v = r.lookup(Id{id});
      if (v == Record()) {
        if (id < kStable) return 11;  // a stable key went missing
        continue;
      }
      if (v.id != id) return 12;
      if (!v.intact()) return 13;  // torn
    }
    std::set<std::uint64_t> seen;
    for (const Record& v : r) {
      if (!v.intact()) return 14;
      if (!seen.insert(v.id).second) return 15;  // visited twice
    }
    for (std::uint64_t id = 0; id < kStable; ++id) {
      if (!seen.count(id)) return 16;  // iteration missed a stable key
    }
    ++rounds;
  }
  if (!corruption.empty()) {
    std::fprintf(stderr, "reader: %s\n", corruption.c_str());
    return 17;
  }
  return 0;
}

// Writes forever (until killed or `runFor` passes): overwrites stable keys,
// inserts and deletes churn keys, and now and then rebuilds the bucket array.
int hammer(const std::string& name, Clock::duration runFor, std::uint64_t seed, bool check) {
  Memtab::Options o;
  o.ringBytes = 1 << 16;
  std::string corruption;
  o.corruptionHandler = [&](const std::string& m) { corruption = m; };
  Memtab::Writer<Record> w(name, o);
  if (check) {
    // Re-attached after a kill: every stable key is there, every value whole.
    for (std::uint64_t id = 0; id < kStable; ++id) {
      Record v = w.lookup(Id{id});
      if (v.id != id || !v.intact()) return 20;
    }
    if (!corruption.empty()) {
      std::fprintf(stderr, "writer: %s\n", corruption.c_str());
      return 21;
    }
  } else {
    for (std::uint64_t id = 0; id < kStable; ++id) w.insert(Record(id, 0));
  }
  std::mt19937_64 rng(seed);
  auto until = Clock::now() + runFor;
  for (std::uint64_t op = 0; Clock::now() < until; ++op) {
    std::uint64_t r = rng();
    if (r % 3 == 0) {
      std::uint64_t id = rng() % kStable;
      w.insert(Record(id, rng() % 1000000));
    } else if (r % 3 == 1) {
      w.insert(Record(kStable + rng() % kChurn, rng() % 1000000));
    } else {
      w.del(Id{kStable + rng() % kChurn});
    }
    if (op % 20000 == 19999) w.reserve(w.size() * 2 + 7 * (op % 3));
    if (op % 64 == 0) w.serviceReaders();
  }
  return 0;
}

TEST(MemtabProcesses, ReadersNeverSeeTornOrMissingValuesWhileTheWriterHammers) {
  TableName name("hammer");
  const auto run = std::chrono::milliseconds(1500);
  pid_t writer = spawn([&] { return hammer(name.value, run, 1, false); });
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(spawn([&, i] { return checkReader(name.value, run, 100 + i); }));
  }
  EXPECT_EQ(exitStatus(writer), 0);
  for (pid_t r : readers) EXPECT_EQ(exitStatus(r), 0);
}

TEST(MemtabProcesses, AWriterKilledAtAnyMomentLeavesOldOrNewValuesAndARestartCarriesOn) {
  TableName name("kill");
  // One reader watches across all the kills and restarts.
  pid_t watcher = spawn([&] { return checkReader(name.value, std::chrono::milliseconds(1500), 7); });
  std::mt19937 rng(42);
  for (int round = 0; round < 10; ++round) {
    pid_t writer = spawn([&, round] {
      return hammer(name.value, std::chrono::seconds(30), round, round > 0);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(round == 0 ? 150 : 20 + rng() % 120));
    kill(writer, SIGKILL);
    int status = exitStatus(writer);
    ASSERT_EQ(status, 128 + SIGKILL) << "writer of round " << round << " failed early";
  }
  // A last writer re-attaches and checks everything, then exits normally.
  pid_t last = spawn([&] { return hammer(name.value, std::chrono::milliseconds(50), 99, true); });
  EXPECT_EQ(exitStatus(last), 0);
  EXPECT_EQ(exitStatus(watcher), 0);
}

int openDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

TEST(MemtabProcesses, ReadersKilledCostTheWriterNothing) {
  TableName name("readerkill");
  Memtab::Writer<Record> w(name);
  for (std::uint64_t id = 0; id < kStable; ++id) w.insert(Record(id, 0));
  w.serviceReaders();
  const int baseline = openDescriptors();
  std::vector<pid_t> readers;
  for (int i = 0; i < 4; ++i) {
    readers.push_back(spawn([&] {
      Memtab::Reader<Record> r(name.value);
      struct Quiet : Memtab::Notifiee<Id> {} quiet;
      for (;;) {
        pollfd p{r.fd(), POLLIN, 0};
        poll(&p, 1, 100);
        r.processNotifications(quiet);
      }
      return 0;
    }));
  }
  auto until = Clock::now() + std::chrono::seconds(5);
  while (w.readers() < readers.size() && Clock::now() < until) {
    w.serviceReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_EQ(w.readers(), readers.size());
  EXPECT_GT(openDescriptors(), baseline);
  for (pid_t r : readers) {
    kill(r, SIGKILL);
    exitStatus(r);
  }
  // The writer goes on at full speed; the dead readers' links are dropped.
  for (std::uint64_t i = 0; i < 50000; ++i) w.insert(Record(i % kStable, i));
  until = Clock::now() + std::chrono::seconds(5);
  while (w.readers() > 0 && Clock::now() < until) {
    w.serviceReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(w.readers(), 0u);
  EXPECT_EQ(openDescriptors(), baseline);
}

TEST(MemtabProcesses, NotificationsReachAReaderInAnotherProcess) {
  TableName name("remote");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  constexpr std::uint64_t kKeys = 2000;
  pid_t reader = spawn([&] {
    Memtab::Reader<Record> r(name.value);
    struct Collect : Memtab::Notifiee<Id> {
      Memtab::Reader<Record>* r;
      std::set<std::uint64_t> seen;
      void onKey(const Id& k) override {
        if (r->lookup(k) == Record(k.v, 1)) seen.insert(k.v);
      }
      void onTable() override {
        for (const Record& v : *r)
          if (v == Record(v.id, 1)) seen.insert(v.id);
      }
    } c;
    c.r = &r;
    char x = 'r';
    if (write(ready[1], &x, 1) != 1) return 3;
    auto until = Clock::now() + std::chrono::seconds(10);
    while (c.seen.size() < kKeys && Clock::now() < until) {
      pollfd p{r.fd(), POLLIN, 0};
      poll(&p, 1, 50);
      r.processNotifications(c);
    }
    return c.seen.size() == kKeys ? 0 : 4;
  });
  char x;
  ASSERT_EQ(read(ready[0], &x, 1), 1);
  Memtab::Writer<Record> w(name);
  auto until = Clock::now() + std::chrono::seconds(5);
  while (w.readers() == 0 && Clock::now() < until) {
    w.serviceReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (std::uint64_t id = 0; id < kKeys; ++id) w.insert(Record(id, 1));
  EXPECT_EQ(exitStatus(reader), 0);
  close(ready[0]);
  close(ready[1]);
}

TEST(MemtabProcesses, AMillionEntries) {
  TableName name("million");
  constexpr std::uint64_t kEntries = 1000000 / kScale;
  Memtab::Options o;
  o.ringBytes = 0;
  Memtab::Writer<Record> w(name, o);
  for (std::uint64_t id = 0; id < kEntries; ++id) w.insert(Record(id * 7919, id));
  EXPECT_EQ(w.size(), kEntries);
  // Bucket array, record headers and padding beyond the 64-byte images.
  const double overhead = static_cast<double>(w.usedBytes()) / kEntries - 64;
  EXPECT_LE(overhead, 32.0);
  pid_t reader = spawn([&] {
    Memtab::Reader<Record> r(name.value);
    if (r.size() != kEntries) return 3;
    for (std::uint64_t id = 0; id < kEntries; id += 7) {
      if (!(r.lookup(Id{id * 7919}) == Record(id * 7919, id))) return 4;
    }
    std::uint64_t n = 0;
    for (const Record& v : r) n += v.intact();
    return n == kEntries ? 0 : 5;
  });
  EXPECT_EQ(exitStatus(reader), 0);
}

}  // namespace
