// Writers and readers in separate processes: torn-read freedom under a
// hammering writer, a writer killed at random moments, readers killed, and a
// table of a million entries.
#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "TestValues.h"

namespace {

using testsupport::exitStatus;
using testsupport::spawn;

using namespace MemtabTest;
using Clock = std::chrono::steady_clock;

// How long to wait for something that must happen before a test calls it a
// hang. Only a bound: nothing waits this long unless something is broken.
constexpr auto kHang = std::chrono::seconds(60);

// What the exit status of a reader or writer child below means.
std::string meaning(int status) {
  switch (status) {
    case 0: return "0: all well";
    case 2: return "2: an exception (see its message above)";
    case 10: return "10: the table never showed its stable keys";
    case 11: return "11: a lookup missed a stable key";
    case 12: return "12: a lookup returned another key's value";
    case 13: return "13: a lookup returned a torn value";
    case 14: return "14: iteration met a torn value";
    case 15: return "15: iteration visited a key twice";
    case 16: return "16: iteration missed a stable key";
    case 17: return "17: the reader met corruption (message above)";
    case 20: return "20: a stable key was missing or torn after re-attach";
    case 21: return "21: re-attach reported corruption (message above)";
    default:
      if (status > 128) return std::to_string(status) + ": killed by signal " + std::to_string(status - 128);
      return std::to_string(status);
  }
}

// Ends child `pid` if it still runs and says how it ended.
std::string ended(pid_t pid) {
  kill(pid, SIGKILL);
  return meaning(exitStatus(pid));
}

// Flags the test and its children share, to wait on events instead of
// sleeping on hope.
struct Events {
  std::atomic<int> stableKeysIn{0};  // writers that have their stable keys in place
  std::atomic<int> watching{0};      // readers that have seen the stable keys
  std::atomic<bool> go{false};       // writers may start changing things
  std::atomic<bool> stop{false};     // readers finish their round and end
};

struct SharedEvents {
  Events* e;
  SharedEvents() {
    void* m = mmap(nullptr, sizeof(Events), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    e = new (m) Events();
  }
  ~SharedEvents() { munmap(e, sizeof(Events)); }
  Events* operator->() const { return e; }
};

// Waits until `done()`; false, with the reason in `why`, when child `pid`
// ended first (it is left to be reaped) or nothing happened for kHang.
bool await(pid_t pid, const std::function<bool()>& done, std::string* why) {
  const auto until = Clock::now() + kHang;
  while (!done()) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == pid) {
      *why = "the child ended first";
      return false;
    }
    if (Clock::now() > until) {
      *why = "nothing happened for a minute";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Keys below kStable are inserted first and then only overwritten: a lookup
// must always find them. Keys from kStable to kStable + kChurn come and go.
constexpr std::uint64_t kStable = 3000;
constexpr std::uint64_t kChurn = 3000;

bool waitMounted(Memtab::Reader<Record>& r) {
  struct Quiet : Memtab::Notifiee<Id> {} quiet;
  auto until = Clock::now() + kHang;
  while (Clock::now() < until) {
    pollfd p{r.fd(), POLLIN, 0};
    poll(&p, 1, 10);
    r.processNotifications(quiet);
    if (r.mountStatus() != Memtab::MountStatus::unmounted && r.size() >= kStable) return true;
  }
  return false;
}

// What a reader checks, over and over, until told to stop (and at least
// three times). Returns 0 or a failure code (see meaning()).
int checkReader(const std::string& name, Events* events, std::uint64_t seed) {
  Memtab::Reader<Record> r(name);
  std::string corruption;
  r.corruptionHandlerIs([&](const std::string& m) { corruption = m; });
  if (!waitMounted(r)) return 10;
  ++events->watching;
  std::mt19937_64 rng(seed);
  for (std::uint64_t rounds = 0; !events->stop || rounds < 3; ++rounds) {
    for (int i = 0; i < 2000; ++i) {
      std::uint64_t id = rng() % (kStable + kChurn);
      Record v = r.lookup(Id{id});
      if (v == Record()) {
        if (id < kStable) return 11;
        continue;
      }
      if (v.id != id) return 12;
      if (!v.intact()) return 13;
    }
    std::set<std::uint64_t> seen;
    for (const Record& v : r) {
      if (!v.intact()) return 14;
      if (!seen.insert(v.id).second) return 15;
    }
    for (std::uint64_t id = 0; id < kStable; ++id) {
      if (!seen.count(id)) return 16;
    }
  }
  if (!corruption.empty()) {
    std::fprintf(stderr, "reader: %s\n", corruption.c_str());
    return 17;
  }
  return 0;
}

// Overwrites stable keys, inserts and deletes churn keys, and now and then
// rebuilds the bucket array, `ops` times (or until killed). A first writer
// puts the stable keys in; a later one (`check`) re-attaches after a kill
// and first checks that they are all there and whole. Reports the stable
// keys in place, then waits for `go` when `waitForGo`.
int hammer(const std::string& name, Events* events, std::uint64_t ops, std::uint64_t seed,
           bool check, bool waitForGo) {
  Memtab::Options o;
  o.ringBytes = 1 << 16;
  std::string corruption;
  o.corruptionHandler = [&](const std::string& m) { corruption = m; };
  Memtab::Writer<Record> w(name, o);
  if (check) {
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
  ++events->stableKeysIn;
  while (waitForGo && !events->go) {
    w.serviceReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::mt19937_64 rng(seed);
  for (std::uint64_t op = 0; op < ops; ++op) {
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

constexpr std::uint64_t kForever = ~std::uint64_t{0};

TEST(MemtabProcesses, ReadersNeverSeeTornOrMissingValuesWhileTheWriterHammers) {
  TableName name("hammer");
  SharedEvents events;
  pid_t writer = spawn([&] { return hammer(name.value, events.e, 500000 / kScale, 1, false, true); });
  std::string why;
  ASSERT_TRUE(await(writer, [&] { return events->stableKeysIn == 1; }, &why))
      << why << "; writer exited " << ended(writer);
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(spawn([&, i] { return checkReader(name.value, events.e, 100 + i); }));
  }
  // The writer starts once every reader is watching.
  for (pid_t r : readers) {
    ASSERT_TRUE(await(r, [&] { return events->watching == 3; }, &why))
        << why << "; a reader exited " << ended(r);
  }
  events->go = true;
  EXPECT_EQ(exitStatus(writer), 0);
  events->stop = true;
  for (pid_t r : readers) {
    const int status = exitStatus(r);
    EXPECT_EQ(status, 0) << "reader exited " << meaning(status);
  }
}

TEST(MemtabProcesses, AWriterKilledAtAnyMomentLeavesOldOrNewValuesAndARestartCarriesOn) {
  TableName name("kill");
  SharedEvents events;
  // One reader watches across all the kills and restarts.
  pid_t watcher = spawn([&] { return checkReader(name.value, events.e, 7); });
  std::mt19937 rng(42);
  for (int round = 0; round < 12; ++round) {
    pid_t writer = spawn([&, round] {
      return hammer(name.value, events.e, kForever, round, round > 0, false);
    });
    std::string why;
    if (round == 0) {
      // The first writer is killed only once its stable keys are in and the
      // watcher has seen them.
      ASSERT_TRUE(await(writer, [&] { return events->stableKeysIn == 1; }, &why))
          << why << "; first writer exited " << ended(writer);
      ASSERT_TRUE(await(watcher, [&] { return events->watching == 1; }, &why))
          << why << "; watcher exited " << ended(watcher);
    }
    // Later writers die anywhere: while re-attaching and repairing, while
    // checking, or while changing things.
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 60000));
    kill(writer, SIGKILL);
    const int status = exitStatus(writer);
    ASSERT_EQ(status, 128 + SIGKILL) << "writer of round " << round << " exited " << meaning(status);
  }
  // A last writer re-attaches and checks everything, then exits normally.
  pid_t last = spawn([&] { return hammer(name.value, events.e, 20000, 99, true, false); });
  const int status = exitStatus(last);
  EXPECT_EQ(status, 0) << "last writer exited " << meaning(status);
  events->stop = true;
  const int watched = exitStatus(watcher);
  EXPECT_EQ(watched, 0) << "watcher exited " << meaning(watched);
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
  auto until = Clock::now() + kHang;
  while (w.readers() < readers.size() && Clock::now() < until) {
    w.serviceReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  const std::size_t connected = w.readers();
  EXPECT_GT(openDescriptors(), baseline);
  for (pid_t r : readers) {
    kill(r, SIGKILL);
    exitStatus(r);
  }
  ASSERT_EQ(connected, readers.size());
  // The writer goes on at full speed; the dead readers' links are dropped.
  for (std::uint64_t i = 0; i < 50000; ++i) w.insert(Record(i % kStable, i));
  until = Clock::now() + kHang;
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
    auto until = Clock::now() + kHang;
    while (c.seen.size() < kKeys && Clock::now() < until) {
      pollfd p{r.fd(), POLLIN, 0};
      poll(&p, 1, 50);
      r.processNotifications(c);
    }
    return c.seen.size() == kKeys ? 0 : 4;  // not every key arrived
  });
  close(ready[1]);
  char x;
  ASSERT_EQ(read(ready[0], &x, 1), 1) << "reader exited " << ended(reader);
  Memtab::Writer<Record> w(name);
  auto until = Clock::now() + kHang;
  while (w.readers() == 0 && Clock::now() < until) {
    w.serviceReaders();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (std::uint64_t id = 0; id < kKeys; ++id) w.insert(Record(id, 1));
  EXPECT_EQ(exitStatus(reader), 0);
  close(ready[0]);
}

// ------------------------------------------------------------ lossless notifications

// Flags of the notification tests below, shared with their children.
struct Progress {
  std::atomic<int> mounted{0};    // readers that have mapped the table
  std::atomic<bool> half{false};  // the writer is halfway through its burst
  std::atomic<bool> done{false};  // the writer has written its last change
  std::atomic<int> finished{0};   // readers that have compared their copy
};

struct SharedProgress {
  Progress* p;
  SharedProgress() {
    void* m = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    p = new (m) Progress();
  }
  ~SharedProgress() { munmap(p, sizeof(Progress)); }
  Progress* operator->() const { return p; }
};

// Written last by every burst below: a reader that has it has had the
// chance to see everything.
constexpr std::uint64_t kLast = std::uint64_t{1} << 40;

// Waits, without touching the table, until `done()`; false after kHang.
bool waitFor(const std::function<bool()>& done) {
  const auto until = Clock::now() + kHang;
  while (!done()) {
    if (Clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

// Follows table `name` until the writer has finished and everything it did
// has been taken in; returns 0 when the copy is the table, 30 when it is
// not, 31 on a hang. `check` may look at the mirror before that.
int follow(const std::string& name, Progress* progress, int slowUs,
           const std::function<int(Memtab::Reader<Record>&, Mirror&)>& check = nullptr) {
  Memtab::Reader<Record> r(name);
  Mirror m;
  m.r = &r;
  m.slowUs = slowUs;
  bool counted = false;
  const auto until = Clock::now() + kHang;
  for (;;) {
    if (Clock::now() > until) return 31;
    pollfd p{r.fd(), POLLIN, 0};
    poll(&p, 1, 5);
    r.processNotifications(m);
    if (!counted && r.mountStatus() != Memtab::MountStatus::unmounted) {
      counted = true;
      ++progress->mounted;
    }
    // Caught up: the writer is done, its last change is in, and nothing
    // more is waiting (the reader's fd would be readable).
    pollfd again{r.fd(), POLLIN, 0};
    if (progress->done && m.copy.count(kLast) != 0 && poll(&again, 1, 0) == 0) break;
  }
  std::map<std::uint64_t, Record> actual;
  for (const Record& v : r) actual[v.id] = v;
  int status = 0;
  if (m.copy != actual) {
    std::size_t wrong = 0;
    auto show = [&](std::uint64_t id) {
      if (wrong <= 5) {
        std::fprintf(stderr, "reader: key %llu: copy seq %lld, table seq %lld, %s\n",
                     static_cast<unsigned long long>(id),
                     m.copy.count(id) ? static_cast<long long>(m.copy[id].seq) : -1LL,
                     actual.count(id) ? static_cast<long long>(actual[id].seq) : -1LL,
                     m.delivered.count(id) ? "delivered" : "never delivered");
      }
    };
    for (auto& [id, v] : actual) {
      if (m.copy.count(id) == 0 || !(m.copy[id] == v)) {
        ++wrong;
        show(id);
      }
    }
    for (auto& [id, v] : m.copy) {
      if (actual.count(id) == 0) {
        ++wrong;
        show(id);
      }
    }
    std::fprintf(stderr, "reader: %zu of %zu keys differ from the table\n", wrong, actual.size());
    status = 30;
  }
  if (status == 0 && check) status = check(r, m);
  ++progress->finished;
  return status;
}

// One random change to keys below `keys`: inserts and overwrites (seq makes
// every value new) or removals. Returns the key.
std::uint64_t change(Memtab::Writer<Record>& w, std::mt19937_64& rng, std::uint64_t keys,
                     std::uint64_t seq) {
  const std::uint64_t id = rng() % keys;
  if (rng() % 4 == 0) {
    w.del(Id{id});
  } else {
    w.insert(Record(id, seq));
  }
  return id;
}

TEST(MemtabProcesses, AWriterThatNeverPollsServesReadersJoiningBeforeDuringAndAfterABurst) {
  TableName name("nopoll");
  SharedProgress progress;
  constexpr std::uint64_t kKeys = 4000, kOps = 40000;
  pid_t before = spawn([&] { return follow(name.value, progress.p, 0); });
  pid_t writer = spawn([&] {
    Memtab::Writer<Record> w(name.value);  // never polled, never serviced
    if (!waitFor([&] { return progress->mounted >= 1; })) return 3;
    std::mt19937_64 rng(5);
    for (std::uint64_t op = 0; op < kOps; ++op) {
      change(w, rng, kKeys, op + 1);
      if (op == kOps / 2) {
        progress->half = true;
        if (!waitFor([&] { return progress->mounted >= 2; })) return 4;
      }
    }
    w.insert(Record(kLast, 1));
    progress->done = true;
    // Stays, still never polling, until every reader has compared.
    return waitFor([&] { return progress->finished >= 3; }) ? 0 : 5;
  });
  std::string why;
  ASSERT_TRUE(await(writer, [&] { return progress->half.load(); }, &why))
      << why << "; writer exited " << ended(writer);
  pid_t during = spawn([&] { return follow(name.value, progress.p, 0); });
  ASSERT_TRUE(await(writer, [&] { return progress->done.load(); }, &why))
      << why << "; writer exited " << ended(writer);
  pid_t after = spawn([&] { return follow(name.value, progress.p, 0); });
  for (auto [who, pid] : {std::pair{"before", before}, {"during", during}, {"after", after}}) {
    EXPECT_EQ(exitStatus(pid), 0) << "the reader that joined " << who << " the burst";
  }
  EXPECT_EQ(exitStatus(writer), 0);
}

TEST(MemtabProcesses, ASlowReaderBehindASmallRingDeliversEveryChangedKey) {
  TableName name("flood");
  SharedProgress progress;
  constexpr std::uint64_t kKeys = 3000, kOps = 60000 / kScale;
  constexpr std::uint64_t kSeed = 11;
  pid_t writer = spawn([&] {
    Memtab::Options o;
    o.ringBytes = 4096;  // about fifty changes
    Memtab::Writer<Record> w(name.value, o);
    for (std::uint64_t id = 0; id < kKeys; id += 2) w.insert(Record(id, 0));
    progress->half = true;  // the table the reader starts from
    if (!waitFor([&] { return progress->mounted >= 1; })) return 3;
    std::mt19937_64 rng(kSeed);
    for (std::uint64_t op = 0; op < kOps; ++op) change(w, rng, kKeys, op + 1);
    w.insert(Record(kLast, 1));
    progress->done = true;
    return waitFor([&] { return progress->finished >= 1; }) ? 0 : 5;
  });
  std::string why;
  ASSERT_TRUE(await(writer, [&] { return progress->half.load(); }, &why))
      << why << "; writer exited " << ended(writer);
  pid_t reader = spawn([&] {
    return follow(name.value, progress.p, 20, [&](Memtab::Reader<Record>& r, Mirror& m) {
      // Every key whose entry differs from the one before the flood must
      // have been delivered; no key the writer left alone may have been.
      std::set<std::uint64_t> touched;
      std::mt19937_64 rng(kSeed);
      for (std::uint64_t op = 0; op < kOps; ++op) {
        touched.insert(rng() % kKeys);
        rng();
      }
      std::size_t missed = 0, spurious = 0, differ = 0;
      for (std::uint64_t id = 0; id < kKeys; ++id) {
        const bool was = id % 2 == 0;
        auto now = r.find(Id{id});
        if (was != now.has_value() || (now && !(*now == Record(id, 0)))) {
          ++differ;
          missed += m.delivered.count(id) == 0;
        }
        spurious += m.delivered.count(id) != 0 && touched.count(id) == 0;
      }
      if (missed != 0 || spurious != 0) {
        std::fprintf(stderr, "reader: of %zu changed keys %zu never delivered; %zu delivered unchanged\n",
                     differ, missed, spurious);
        return 32;
      }
      auto& behind = Memtab::detail::Counters::counter("memtab." + name.value, "fellBehind");
      return behind.value() > 0 ? 0 : 33;  // else the test proved nothing
    });
  });
  EXPECT_EQ(exitStatus(reader), 0) << "30: copy differs, 31: hang, 32: keys lost, 33: never fell behind";
  EXPECT_EQ(exitStatus(writer), 0);
}

TEST(MemtabProcesses, ReadersFollowAWriterKilledAndRestartedWithoutLosingAChange) {
  TableName name("restart");
  SharedProgress progress;
  constexpr std::uint64_t kKeys = 2000;
  {
    Memtab::Writer<Record> first(name);
    for (std::uint64_t id = 0; id < kKeys; id += 3) first.insert(Record(id, 0));
  }
  std::vector<pid_t> readers;
  for (int i = 0; i < 2; ++i) readers.push_back(spawn([&, i] { return follow(name.value, progress.p, i * 5); }));
  auto writer = [&](std::uint64_t seed, std::uint64_t ops) {
    return spawn([&, seed, ops] {
      Memtab::Options o;
      o.ringBytes = 8192;
      o.corruptionHandler = [](const std::string&) {};  // repairs are expected
      Memtab::Writer<Record> w(name.value, o);
      std::mt19937_64 rng(seed);
      for (std::uint64_t op = 0; op < ops; ++op) change(w, rng, kKeys, seed * 1000000000 + op + 1);
      if (ops != kForever) {
        w.insert(Record(kLast, seed));
        progress->done = true;
        return waitFor([&] { return progress->finished >= 2; }) ? 0 : 5;
      }
      return 0;
    });
  };
  std::string why;
  for (pid_t r : readers) {
    ASSERT_TRUE(await(r, [&] { return progress->mounted >= 2; }, &why)) << why << "; a reader exited " << ended(r);
  }
  std::mt19937 rng(3);
  for (std::uint64_t round = 1; round <= 8; ++round) {
    pid_t w = writer(round, kForever);
    std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 30000));
    kill(w, SIGKILL);
    ASSERT_EQ(exitStatus(w), 128 + SIGKILL);
  }
  pid_t last = writer(99, 5000);
  for (pid_t r : readers) {
    const int status = exitStatus(r);
    EXPECT_EQ(status, 0) << "30: copy differs, 31: hang";
  }
  EXPECT_EQ(exitStatus(last), 0);
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
