// Mounts between processes: a route list with its routes (tags, next hops)
// and a directory of such lists, mirrored by subscribers in this process and
// in forked ones. The mirror must equal the tree (the same tree text) after
// bursts of changes, after a subscriber is killed and another takes its
// place, after the publisher is restarted with a different tree, and for a
// fast subscriber while a slow one overflows its bound and is
// resynchronised. Hostile peers (garbage, truncated or oversized frames, a
// wrong version or root type) are dropped with a logged reason while the
// other subscribers carry on. Waits are on events; the deadlines only catch
// a hang.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Cog/Exception.h"
#include "Loop/EventLoop.h"
#include "Mount/Mount.h"
#include "RoutingLib/Routing.h"
#include "RoutingLib/VrfHelper.h"
#include "TreeText.h"
#include "support/ChildProcess.h"

namespace {

using namespace std::chrono_literals;
using Routing::RouteList;

std::string socketPath(const char* what) {
  return "/tmp/rl-mount-" + std::to_string(getpid()) + "-" + what + ".sock";
}

Routing::RouteKey routeKey(unsigned n) {
  const std::string p = "10." + std::to_string(n / 250) + "." + std::to_string(n % 250) + ".0/24";
  return Routing::RouteKey(Velnet::IpGenPrefix(Cog::String(p)), Routing::RoutePreference(n % 3));
}

Routing::Via via(unsigned n) {
  Routing::Via v;
  v.hopIs(Velnet::IpGenAddr(Cog::String("192.168." + std::to_string(n % 250) + ".1")));
  v.vniIs(n);
  return v;
}

// Burst k: adds, changes and deletes routes of a list of up to `span` keys.
void burst(RouteList& list, unsigned k, unsigned changes = 60, unsigned span = 80) {
  for (unsigned i = 0; i < changes; ++i) {
    const unsigned n = (k * 37 + i * 11) % span;
    if ((k + i) % 5 == 0) {
      list.routeDel(routeKey(n));
      continue;
    }
    auto r = list.routeIs(routeKey(n), Routing::RouteType::forward);
    r->tagIs(k * 1000 + i);
    r->viaIs(via(i), true);
    if (i % 7 == 0) r->viaDel(via(i));
    if (i % 4 == 0) r->dynamicIs(!r->dynamic());
  }
}

std::string text(const Cog::Ptr<const Cog::Entity>& e) { return testsupport::treeText(e.ptr()); }

// Runs `loop` until `done()`, waiting on its descriptors.
bool runUntil(Loop::EventLoop& loop, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    loop.runOnce(100ms);
  }
  return true;
}

// Messages of the mount's log.
struct LogCapture {
  std::vector<std::string> lines;
  Mount::Options options() {
    Mount::Options o;
    o.log = [this](const std::string& s) { lines.push_back(s); };
    o.retry = 5ms;
    return o;
  }
  bool has(const std::string& part) const {
    for (const auto& l : lines)
      if (l.find(part) != std::string::npos) return true;
    return false;
  }
};

int rawConnect(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// ---------------------------------------------------------------- one process

TEST(Mount, RouteListArrivesWithItsRoutesAndFollowsChanges) {
  LogCapture log;
  const std::string path = socketPath("routes");
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  auto r = list->routeIs(routeKey(1001), Routing::RouteType::drop);
  r->tagIs(7);
  r->viaIs(via(1), true);
  Mount::Publisher pub(path, list, log.options());
  struct stat st{};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  Mount::Subscriber sub(path, "Routing::RouteList", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(pub);
  loop.sourceIs(sub);
  ASSERT_TRUE(runUntil(loop, [&] { return sub.status() == Mount::Subscriber::Status::synced; }));
  auto mirror = sub.rootAs<RouteList>();
  ASSERT_TRUE(mirror);
  auto m = mirror->route(routeKey(1001));
  ASSERT_TRUE(m);
  EXPECT_EQ(m->tag(), 7u);
  EXPECT_EQ(m->routeType(), Routing::RouteType::drop);
  EXPECT_EQ(m->via().size(), 1u);
  EXPECT_EQ(text(mirror), text(list));

  for (unsigned k = 0; k < 5; ++k) {
    burst(*list, k);
    ASSERT_TRUE(runUntil(loop, [&] { return text(mirror) == text(list); })) << "burst " << k;
  }
  // A route replaced under the same key arrives with its own state.
  list->routeDel(routeKey(3));
  list->routeIs(routeKey(3), Routing::RouteType::nexthopGroup)->tagIs(99);
  ASSERT_TRUE(runUntil(loop, [&] { return text(mirror) == text(list); }));
  EXPECT_EQ(mirror->route(routeKey(3))->tag(), 99u);

  // The mirror is a read-only proxy.
  auto writable = Cog::Ptr<RouteList>(const_cast<RouteList*>(mirror.ptr()));
  EXPECT_THROW(writable->route(routeKey(3))->tagIs(5), Cog::ReadOnlyException);
  EXPECT_EQ(pub.subscribers(), 1u);
  EXPECT_EQ(pub.dropped(), 0u);
  EXPECT_TRUE(log.lines.empty()) << log.lines.front();
}

// The keyed lookup mounts find members with: one member by its key, null
// for an absent key, a range error for a key of another type.
TEST(Mount, ReflectionLooksMembersUpByKey) {
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  auto r = list->routeIs(routeKey(4), Routing::RouteType::forward);
  auto self = Cog::genericIfOf(list);
  EXPECT_EQ(self->element("route", Cog::genericIfOf(routeKey(4)))->entityPtr(), r.ptr());
  EXPECT_FALSE(self->element("route", Cog::genericIfOf(routeKey(5))));
  EXPECT_THROW(self->element("route", Cog::genericIfOf(7u)), Cog::RangeException);
}

TEST(Mount, DirectoryEntriesComeAndGo) {
  LogCapture log;
  const std::string path = socketPath("dir");
  auto dir = Cog::allocate<Cog::Dir>(Cog::Name("vrfs"));
  auto red = Routing::routeListFactory(Cog::Name("red"));
  red->routeIs(routeKey(5), Routing::RouteType::forward)->tagIs(5);
  dir->entityIs(Cog::Name("red"), red);
  Mount::Publisher pub(path, dir, log.options());
  Mount::Subscriber sub(path, "Cog::Dir", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(pub);
  loop.sourceIs(sub);
  auto same = [&] { return sub.root() && text(sub.root()) == text(dir); };
  ASSERT_TRUE(runUntil(loop, same));
  auto mirror = sub.rootAs<Cog::Dir>();
  ASSERT_TRUE(mirror->entity(Cog::Name("red")));

  auto blue = Routing::routeListFactory(Cog::Name("blue"));
  dir->entityIs(Cog::Name("blue"), blue);
  blue->routeIs(routeKey(6), Routing::RouteType::forward)->viaIs(via(6), true);
  ASSERT_TRUE(runUntil(loop, same));
  dir->entityDel(Cog::Name("red"));
  ASSERT_TRUE(runUntil(loop, same));
  EXPECT_FALSE(mirror->entity(Cog::Name("red")));
  EXPECT_TRUE(mirror->entity(Cog::Name("blue")));
}

TEST(Mount, HandshakeMismatchesAreRefusedWithAClearMessage) {
  LogCapture log;
  const std::string path = socketPath("refuse");
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  Mount::Publisher pub(path, list, log.options());
  Mount::Subscriber wrong(path, "Cog::Dir", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(pub);
  loop.sourceIs(wrong);
  ASSERT_TRUE(runUntil(loop, [&] { return !wrong.lastError().empty(); }));
  EXPECT_NE(wrong.lastError().find("root type mismatch: subscriber expects Cog::Dir, " + path +
                                   " serves Routing::RouteList"),
            std::string::npos)
      << wrong.lastError();
  EXPECT_NE(wrong.status(), Mount::Subscriber::Status::synced);

  // Another protocol version, by hand.
  const int fd = rawConnect(path);
  ASSERT_GE(fd, 0);
  auto hello = Cog::allocate<Cog::NboAttrLog::Out>();
  hello->putU32(0);
  hello->putU8(1);
  hello->putU32(Mount::kMagic);
  hello->putU32(99);
  hello->putString("Routing::RouteList");
  std::vector<std::uint8_t> b = hello->bytes();
  const auto len = static_cast<std::uint32_t>(b.size() - 4);
  b[0] = len >> 24, b[1] = len >> 16, b[2] = len >> 8, b[3] = len;
  ASSERT_EQ(write(fd, b.data(), b.size()), static_cast<ssize_t>(b.size()));
  ASSERT_TRUE(runUntil(loop, [&] { return log.has("protocol version 99 not supported"); }));
  std::uint8_t reply[512];
  const ssize_t got = read(fd, reply, sizeof reply);
  ASSERT_GT(got, 5);
  EXPECT_EQ(reply[4], static_cast<std::uint8_t>(Mount::FrameKind::refuse));
  close(fd);
}

TEST(Mount, HostilePeersAreDroppedAndOthersCarryOn) {
  LogCapture log;
  const std::string path = socketPath("hostile");
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  Mount::Publisher pub(path, list, log.options());
  Mount::Subscriber good(path, "Routing::RouteList", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(pub);
  loop.sourceIs(good);
  ASSERT_TRUE(runUntil(loop, [&] { return good.status() == Mount::Subscriber::Status::synced; }));

  struct Case {
    const char* what;
    std::vector<std::uint8_t> bytes;
    bool closeAfter;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"garbage", {'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P'}, false, "out of bounds"},
      {"oversized length", {0x7f, 0xff, 0xff, 0xff, 1}, false, "out of bounds"},
      {"bad magic", {0, 0, 0, 9, 1, 0, 0, 0, 0, 0, 0, 0, 1}, false, "bad magic"},
      {"truncated frame", {0, 0, 0, 40, 1, 0x52, 0x4c}, true, "truncated frame"},
      {"truncated hello", {0, 0, 0, 5, 1, 0x52, 0x4c, 0x4d, 0x54}, false, "bad hello"},
  };
  std::uint64_t dropped = 0;
  for (const Case& c : cases) {
    const int fd = rawConnect(path);
    ASSERT_GE(fd, 0) << c.what;
    ASSERT_EQ(write(fd, c.bytes.data(), c.bytes.size()), static_cast<ssize_t>(c.bytes.size()));
    if (c.closeAfter) close(fd);
    ASSERT_TRUE(runUntil(loop, [&] { return pub.dropped() > dropped; })) << c.what;
    dropped = pub.dropped();
    EXPECT_TRUE(log.has(c.reason)) << c.what;
    if (!c.closeAfter) close(fd);
    // The good subscriber still follows.
    burst(*list, static_cast<unsigned>(dropped));
    ASSERT_TRUE(runUntil(loop, [&] { return text(good.root()) == text(list); })) << c.what;
  }
  EXPECT_EQ(good.connects(), 1u);
}

// Peers are admitted by their credentials, whatever the socket file's mode:
// a process of another user is refused even when the file lets it connect.
TEST(Mount, PeersOfOtherUsersAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a peer as another user";
  LogCapture log;
  const std::string path = socketPath("creds");
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  Mount::Publisher pub(path, list, log.options());
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  const pid_t peer = testsupport::spawn([&]() -> int {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 3;
    const int fd = rawConnect(path);
    if (fd < 0) return 4;
    char c;
    // The publisher closes the connection: end of stream.
    const ssize_t got = read(fd, &c, 1);
    return got == 0 ? 0 : 5;
  });
  Loop::EventLoop loop;
  loop.sourceIs(pub);
  ASSERT_TRUE(runUntil(loop, [&] { return pub.dropped() > 0; }));
  EXPECT_TRUE(log.has("uid 65534): not an admitted user"));
  EXPECT_EQ(testsupport::exitStatus(peer), 0);
  EXPECT_EQ(pub.subscribers(), 0u);
}

// A publisher that sends garbage, truncated or unknown records: the
// subscriber drops it with a reason, connects again and resynchronises from
// a good one.
TEST(Mount, SubscriberDropsAPublisherThatSendsGarbage) {
  LogCapture log;
  const std::string path = socketPath("badpub");
  unlink(path.c_str());
  const int lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(listen(lfd, 4), 0);
  Mount::Subscriber sub(path, "Routing::RouteList", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(sub);
  // Frames of a publisher of a route list named "rib".
  auto frame = [](Mount::FrameKind kind, const std::function<void(const Cog::Ptr<Cog::NboAttrLog::Out>&)>& body) {
    auto out = Cog::allocate<Cog::NboAttrLog::Out>();
    out->putU32(0);
    out->putU8(static_cast<std::uint8_t>(kind));
    body(out);
    std::vector<std::uint8_t> b = out->bytes();
    const auto len = static_cast<std::uint32_t>(b.size() - 4);
    b[0] = static_cast<std::uint8_t>(len >> 24), b[1] = static_cast<std::uint8_t>(len >> 16);
    b[2] = static_cast<std::uint8_t>(len >> 8), b[3] = static_cast<std::uint8_t>(len);
    return b;
  };
  auto hello = frame(Mount::FrameKind::hello, [](const auto& o) {
    o->putU32(Mount::kMagic);
    o->putU32(Mount::kVersion);
    o->putString("Routing::RouteList");
    o->putString("Routing::RouteList");
    o->putString("rib");
  });
  auto begin = frame(Mount::FrameKind::begin, [](const auto&) {});
  auto then = [](std::vector<std::uint8_t> a, const std::vector<std::uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const std::vector<std::vector<std::uint8_t>> replies = {
      {0, 0, 0, 3, 9, 9, 9},        // not a hello
      {0xff, 0xff, 0xff, 0xff, 1},  // oversized
      // an attribute id the root's type does not have
      then(then(hello, begin), frame(Mount::FrameKind::records, [](const auto& o) {
             o->putU32(1);
             o->putU32(999);
             o->putU8(0);
           })),
      // records for a node never announced
      then(then(hello, begin), frame(Mount::FrameKind::records, [](const auto& o) {
             o->putU32(77);
             o->putU32(2);
           })),
      // a record cut short inside its frame
      then(then(hello, begin), frame(Mount::FrameKind::records, [](const auto& o) {
             o->putU32(1);
             o->putU32(258);
             o->putU8(1);
             o->putU8(0);
           })),
      // an unknown frame kind
      then(hello, frame(static_cast<Mount::FrameKind>(42), [](const auto&) {})),
  };
  for (std::size_t i = 0; i < replies.size(); ++i) {
    const auto& reply = replies[i];
    ASSERT_TRUE(runUntil(loop, [&] { return sub.connects() > i; }));
    const int c = accept(lfd, nullptr, nullptr);
    ASSERT_GE(c, 0);
    std::uint8_t hello[256];
    ASSERT_GT(read(c, hello, sizeof hello), 0);
    ASSERT_EQ(write(c, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    const auto before = log.lines.size();
    ASSERT_TRUE(runUntil(loop, [&] { return log.lines.size() > before; }));
    close(c);
  }
  EXPECT_TRUE(log.has("expected a hello"));
  EXPECT_TRUE(log.has("out of bounds"));
  EXPECT_TRUE(log.has("has no attribute id 999"));
  EXPECT_TRUE(log.has("records for unknown node 77"));
  EXPECT_TRUE(log.has("unknown frame kind 42"));
  EXPECT_EQ(log.lines.size(), replies.size()) << log.lines.back();
  close(lfd);
  unlink(path.c_str());
  // A real publisher now: the subscriber connects again and follows it.
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  burst(*list, 1);
  Mount::Publisher pub(path, list, log.options());
  loop.sourceIs(pub);
  ASSERT_TRUE(runUntil(loop, [&] { return sub.root() && text(sub.root()) == text(list); }));
}

// ---------------------------------------------------------------- processes

// Pipes to a forked process: the test sends commands, the child answers
// with a text.
struct Channel {
  int toChild[2]{-1, -1};
  int toParent[2]{-1, -1};
  Channel() {
    if (pipe(toChild) != 0 || pipe(toParent) != 0) std::abort();
  }
  ~Channel() {
    for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]})
      if (fd >= 0) close(fd);
  }
  static bool writeMsg(int fd, const std::string& s) {
    const std::uint32_t n = static_cast<std::uint32_t>(s.size());
    return write(fd, &n, 4) == 4 && (n == 0 || write(fd, s.data(), n) == static_cast<ssize_t>(n));
  }
  static bool readMsg(int fd, std::string* s) {
    std::uint32_t n = 0;
    if (!testsupport::readAll(fd, &n, 4)) return false;
    s->assign(n, '\0');
    return n == 0 || testsupport::readAll(fd, s->data(), n);
  }
  // Parent side.
  bool ask(const std::string& cmd, std::string* answer) {
    return writeMsg(toChild[1], cmd) && readMsg(toParent[0], answer);
  }
};

// A publisher process: "burst k" applies burst k and answers with the tree
// text once it is published; "quit" ends it. Starts from bursts 0..first-1
// and `extra` more routes when given.
pid_t publisherProcess(const std::string& path, Channel& ch, unsigned first, unsigned seedRoutes) {
  return testsupport::spawn([&]() -> int {
    auto list = Routing::routeListFactory(Cog::Name("rib"));
    for (unsigned k = 0; k < first; ++k) burst(*list, k);
    for (unsigned i = 0; i < seedRoutes; ++i) list->routeIs(routeKey(1000 + i), Routing::RouteType::drop)->tagIs(i);
    Mount::Options o;
    o.log = [](const std::string&) {};
    Mount::Publisher pub(path, list, o);
    Loop::EventLoop loop;
    loop.sourceIs(pub);
    loop.fdIs(ch.toChild[0], [&] {
      std::string cmd;
      if (!Channel::readMsg(ch.toChild[0], &cmd) || cmd == "quit") {
        loop.stop();
        return;
      }
      if (cmd.rfind("burst ", 0) == 0) burst(*list, static_cast<unsigned>(std::stoul(cmd.substr(6))));
      pub.service();
      Channel::writeMsg(ch.toParent[1], testsupport::treeText(list.ptr()));
    });
    Channel::writeMsg(ch.toParent[1], testsupport::treeText(list.ptr()));
    loop.run();
    return 0;
  });
}

// A subscriber process: "<text>" answers with that text once its mirror is
// synced and equal to it; "pause" stops reading the socket (answering
// "paused") until the next text; "quit" ends it.
pid_t subscriberProcess(const std::string& path, Channel& ch) {
  return testsupport::spawn([&]() -> int {
    Mount::Options o;
    o.log = [](const std::string&) {};
    o.retry = 5ms;
    Mount::Subscriber sub(path, "Routing::RouteList", o);
    Loop::EventLoop loop;
    Loop::EventLoop::Handle reading = loop.sourceIs(sub);
    std::string want;
    bool waiting = false;
    auto answer = [&] {
      if (waiting && sub.status() == Mount::Subscriber::Status::synced && text(sub.root()) == want) {
        waiting = false;
        Channel::writeMsg(ch.toParent[1], want);
      }
    };
    sub.onUpdateIs(answer);
    loop.fdIs(ch.toChild[0], [&] {
      std::string cmd;
      if (!Channel::readMsg(ch.toChild[0], &cmd) || cmd == "quit") {
        loop.stop();
        return;
      }
      if (cmd == "pause") {
        loop.del(reading);
        reading = 0;
        Channel::writeMsg(ch.toParent[1], "paused");
        return;
      }
      if (reading == 0) reading = loop.sourceIs(sub);
      want = cmd;
      waiting = true;
      answer();
    });
    loop.run();
    return 0;
  });
}

TEST(MountProcesses, MirrorsFollowBurstsKillsAndRestarts) {
  const std::string path = socketPath("procs");
  LogCapture log;
  Channel pubCh;
  pid_t pub = publisherProcess(path, pubCh, 0, 0);
  std::string tree;
  ASSERT_TRUE(Channel::readMsg(pubCh.toParent[0], &tree));

  // Subscribers: one here, one in a third process.
  Mount::Subscriber here(path, "Routing::RouteList", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(here);
  auto subCh = std::make_unique<Channel>();
  pid_t other = subscriberProcess(path, *subCh);
  auto bothEqual = [&](const std::string& want, const std::string& when) {
    ASSERT_TRUE(runUntil(loop, [&] { return here.root() && text(here.root()) == want; })) << when;
    std::string got;
    ASSERT_TRUE(subCh->ask(want, &got)) << when;
    EXPECT_EQ(got, want) << when;
  };
  bothEqual(tree, "at start");
  for (unsigned k = 0; k < 6; ++k) {
    ASSERT_TRUE(pubCh.ask("burst " + std::to_string(k), &tree));
    bothEqual(tree, "after burst " + std::to_string(k));
  }

  // The other subscriber is killed; a new one takes its place and catches up.
  kill(other, SIGKILL);
  EXPECT_EQ(testsupport::exitStatus(other), 128 + SIGKILL);
  subCh = std::make_unique<Channel>();
  other = subscriberProcess(path, *subCh);
  ASSERT_TRUE(pubCh.ask("burst 6", &tree));
  bothEqual(tree, "after a subscriber was replaced");

  // The publisher is killed and restarted with another tree: routes that
  // the new one lacks leave the mirrors, its extra routes arrive.
  kill(pub, SIGKILL);
  EXPECT_EQ(testsupport::exitStatus(pub), 128 + SIGKILL);
  Channel pubCh2;
  pub = publisherProcess(path, pubCh2, 3, 25);
  ASSERT_TRUE(Channel::readMsg(pubCh2.toParent[0], &tree));
  bothEqual(tree, "after the publisher restarted");
  EXPECT_GE(here.connects(), 2u);
  ASSERT_TRUE(pubCh2.ask("burst 9", &tree));
  bothEqual(tree, "after a burst of the new publisher");

  Channel::writeMsg(subCh->toChild[1], "quit");
  EXPECT_EQ(testsupport::exitStatus(other), 0);
  Channel::writeMsg(pubCh2.toChild[1], "quit");
  EXPECT_EQ(testsupport::exitStatus(pub), 0);
}

TEST(MountProcesses, SlowSubscriberIsResynchronisedWhileAFastOneKeepsUp) {
  const std::string path = socketPath("slow");
  LogCapture log;
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  Mount::Options po = log.options();
  po.outputBound = 16 * 1024;
  po.socketBuffer = 4096;  // the slow one's socket fills soon
  Mount::Publisher pub(path, list, po);
  Mount::Subscriber fast(path, "Routing::RouteList", log.options());
  Loop::EventLoop loop;
  loop.sourceIs(pub);
  loop.sourceIs(fast);
  Channel slowCh;
  pid_t slow = subscriberProcess(path, slowCh);
  ASSERT_TRUE(runUntil(loop, [&] { return pub.subscribers() == 2 && fast.status() == Mount::Subscriber::Status::synced; }));
  // The slow process stops reading: its socket fills, its queue passes the
  // bound.
  std::string got;
  ASSERT_TRUE(slowCh.ask(text(list), &got));
  ASSERT_TRUE(slowCh.ask("pause", &got));
  unsigned k = 0;
  while (pub.overflows() == 0 && k < 400) {
    burst(*list, k++, 50, 200);
    ASSERT_TRUE(runUntil(loop, [&] { return text(fast.root()) == text(list); })) << "burst " << k;
  }
  EXPECT_GT(pub.overflows(), 0u) << k << " bursts";
  const std::uint64_t resyncs = pub.resyncs();
  ASSERT_TRUE(slowCh.writeMsg(slowCh.toChild[1], text(list)));
  // Serve until the slow one answers (its mirror equals the list).
  ASSERT_TRUE(runUntil(loop, [&] {
    pollfd p{slowCh.toParent[0], POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }));
  ASSERT_TRUE(Channel::readMsg(slowCh.toParent[0], &got));
  EXPECT_EQ(got, text(list));
  EXPECT_GT(pub.resyncs(), resyncs);
  EXPECT_EQ(fast.resyncs(), 1u);
  Channel::writeMsg(slowCh.toChild[1], "quit");
  EXPECT_EQ(testsupport::exitStatus(slow), 0);
}

// A VRF helper over a directory mounted from another process: its
// entityPtr comes and goes with the remote entry, and its observers hear
// each change.
TEST(MountProcesses, VrfHelperFollowsAMountedDirectory) {
  const std::string path = socketPath("vrfdir");
  Channel ch;
  const pid_t pub = testsupport::spawn([&]() -> int {
    auto dir = Cog::allocate<Cog::Dir>(Cog::Name("vrfs"));
    dir->entityIs(Cog::Name("blue"), Routing::routeListFactory(Cog::Name("blue")));
    Mount::Options o;
    o.log = [](const std::string&) {};
    Mount::Publisher publisher(path, dir, o);
    Loop::EventLoop loop;
    loop.sourceIs(publisher);
    loop.fdIs(ch.toChild[0], [&] {
      std::string cmd;
      if (!Channel::readMsg(ch.toChild[0], &cmd) || cmd == "quit") {
        loop.stop();
        return;
      }
      const Cog::Name red("red");
      if (cmd == "add") {
        auto list = Routing::routeListFactory(red);
        list->routeIs(routeKey(1), Routing::RouteType::forward)->tagIs(7);
        dir->entityIs(red, list);
      } else {
        dir->entityDel(red);
      }
      publisher.service();
      Channel::writeMsg(ch.toParent[1], "ok");
    });
    Channel::writeMsg(ch.toParent[1], "ready");
    loop.run();
    return 0;
  });
  std::string got;
  ASSERT_TRUE(Channel::readMsg(ch.toParent[0], &got));

  LogCapture log;
  auto mirror = Cog::allocate<Cog::Dir>(Cog::Name("vrfs"));
  Mount::Subscriber sub(path, Cog::Ptr<Cog::Entity>(mirror.ptr()), log.options());
  auto helper = L3::vrfDirEntryHelperSmFactory(L3::VrfName(Cog::String("red")), mirror);
  struct Watch : L3::VrfDirEntryHelperSm::NotifieeConst {
    int changes = 0;
    void onEntityPtr() override { ++changes; }
  };
  auto watch = Cog::allocate<Watch>();
  watch->notifierIs(helper);
  Loop::EventLoop loop;
  loop.sourceIs(sub);
  ASSERT_TRUE(runUntil(loop, [&] { return sub.status() == Mount::Subscriber::Status::synced; }));
  EXPECT_TRUE(mirror->entity(Cog::Name("blue")));
  EXPECT_FALSE(helper->entityPtr());

  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(ch.ask("add", &got));
    ASSERT_TRUE(runUntil(loop, [&] { return helper->entityPtr() != nullptr; })) << round;
    auto list = Cog::Ptr<const RouteList>(dynamic_cast<const RouteList*>(helper->entityPtr().ptr()));
    ASSERT_TRUE(list);
    ASSERT_TRUE(runUntil(loop, [&] { return list->route(routeKey(1)) && list->route(routeKey(1))->tag() == 7; }));
    ASSERT_TRUE(ch.ask("del", &got));
    ASSERT_TRUE(runUntil(loop, [&] { return helper->entityPtr() == nullptr; })) << round;
  }
  EXPECT_EQ(watch->changes, 6);
  Channel::writeMsg(ch.toChild[1], "quit");
  EXPECT_EQ(testsupport::exitStatus(pub), 0);
}

}  // namespace
