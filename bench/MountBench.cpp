// Mounts against the state-database pattern of today's network operating
// systems: a Redis server (Debian redis-server, started here on a Unix
// socket and stopped at the end) with a writer doing HSET + PUBLISH per
// change and subscribers doing HGETALL on each message.
//
// The state: 1000 routes; a change is one route's tag (Mount: Route::tagIs
// on the publisher's RouteList; Redis: HSET route:<n> tag <v>, then PUBLISH
// of the hash's name). Subscribers are forked processes.
//
//   Throughput/<candidate>/<subscribers>
//                  changes per second from the first change until every
//                  subscriber has applied (Mount) or fetched (Redis) the
//                  last one; 1 and 8 subscribers. The Redis writer pipelines
//                  its commands 256 at a time; the mount publisher writes
//                  what 256 changes queued at once.
//   Latency/<candidate>
//                  one change at a time, from the writer's call to the
//                  moment the subscriber has it (median and 99th
//                  percentile, microseconds).
//
// Counter "vsRedis": the mount's rate over Redis's (throughput), or Redis's
// p99 over the mount's (latency), from the Redis run just before. Without
// redis-server the Redis runs are not registered (a line on stderr says so)
// and only the mount's figures are reported.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Loop/EventLoop.h"
#include "Mount/Mount.h"
#include "RoutingLib/Routing.h"

namespace {

constexpr unsigned kRoutes = 1000;
constexpr unsigned kBatch = 256;
constexpr std::uint32_t kLastTag = 0xFFFFFFFFu;

std::uint64_t nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return std::uint64_t(t.tv_sec) * 1000000000u + std::uint64_t(t.tv_nsec);
}

Routing::RouteKey routeKey(unsigned n) {
  const std::string p = "10." + std::to_string(n / 250) + "." + std::to_string(n % 250) + ".0/24";
  return Routing::RouteKey(Velnet::IpGenPrefix(Cog::String(p)), Routing::RoutePreference(0));
}

bool readAll(int fd, void* p, std::size_t n) {
  auto* b = static_cast<char*>(p);
  while (n > 0) {
    const ssize_t got = read(fd, b, n);
    if (got <= 0) return false;
    b += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

template <typename T>
void put(int fd, const T& v) {
  if (write(fd, &v, sizeof v) != sizeof v) _exit(3);
}

// A forked subscriber: `body` gets the pipe to write its reports on.
struct Child {
  pid_t pid = -1;
  int reports = -1;
};

template <typename F>
Child fork(F body) {
  int p[2];
  if (pipe(p) != 0) std::abort();
  Child c;
  c.pid = ::fork();
  if (c.pid == 0) {
    close(p[0]);
    body(p[1]);
    _exit(0);
  }
  close(p[1]);
  c.reports = p[0];
  return c;
}

void reap(std::vector<Child>& children) {
  for (auto& c : children) {
    kill(c.pid, SIGKILL);
    waitpid(c.pid, nullptr, 0);
    close(c.reports);
  }
  children.clear();
}

struct Result {
  double rate = 0;
  double p50Us = 0;
  double p99Us = 0;
};

double gRedisRate[9] = {};
double gRedisP99 = 0;

void percentiles(std::vector<std::uint64_t>& lat, Result* r) {
  std::sort(lat.begin(), lat.end());
  r->p50Us = lat[lat.size() / 2] / 1e3;
  r->p99Us = lat[lat.size() * 99 / 100] / 1e3;
}

// ---------------------------------------------------------------- mount

std::string mountPath() { return "/tmp/rl-mountbench-" + std::to_string(getpid()) + ".sock"; }

// Subscriber process: reports 0 once synced, then for each tag change of
// route 0 the time it saw it (latency), or the time it saw kLastTag.
void mountSubscriber(const std::string& path, int reports, bool latency) {
  Mount::Options o;
  o.log = [](const std::string&) {};
  o.retry = std::chrono::milliseconds(1);
  Mount::Subscriber sub(path, "Routing::RouteList", o);
  bool ready = false;
  std::uint32_t lastSeen = 0;
  for (;;) {
    pollfd p{sub.fd(), POLLIN, 0};
    poll(&p, 1, -1);
    sub.service();
    if (sub.status() != Mount::Subscriber::Status::synced) continue;
    auto list = sub.rootAs<Routing::RouteList>();
    if (!ready) {
      ready = true;
      put(reports, std::uint64_t(0));
      lastSeen = list->route(routeKey(0))->tag();
    }
    const std::uint32_t tag = list->route(routeKey(0))->tag();
    if (tag == lastSeen) continue;
    lastSeen = tag;
    if (latency || tag == kLastTag) put(reports, nowNs());
    if (tag == kLastTag) return;
  }
}

Result runMount(unsigned subscribers, bool latency, unsigned changes) {
  const std::string path = mountPath();
  auto list = Routing::routeListFactory(Cog::Name("rib"));
  for (unsigned i = 0; i < kRoutes; ++i) list->routeIs(routeKey(i), Routing::RouteType::forward)->tagIs(1);
  Mount::Options o;
  o.outputBound = std::size_t(1) << 30;  // measure throughput, not resynchronisation
  Mount::Publisher pub(path, list, o);
  std::vector<Child> children;
  for (unsigned s = 0; s < subscribers; ++s) {
    children.push_back(fork([&](int reports) { mountSubscriber(path, reports, latency); }));
  }
  // Serve until every subscriber is synced.
  unsigned ready = 0;
  while (ready < subscribers) {
    std::vector<pollfd> fds{{pub.fd(), POLLIN, 0}};
    for (auto& c : children) fds.push_back({c.reports, POLLIN, 0});
    poll(fds.data(), fds.size(), -1);
    pub.service();
    for (std::size_t i = 1; i < fds.size(); ++i) {
      if (fds[i].revents & POLLIN) {
        std::uint64_t v;
        readAll(fds[i].fd, &v, sizeof v);
        ++ready;
      }
    }
  }
  std::vector<Cog::Ptr<Routing::Route>> routes;
  for (unsigned i = 0; i < kRoutes; ++i) routes.push_back(list->route(routeKey(i)));
  Result r;
  if (latency) {
    std::vector<std::uint64_t> lat;
    for (unsigned i = 0; i < changes; ++i) {
      const std::uint64_t t0 = nowNs();
      routes[0]->tagIs(i + 2 == kLastTag ? 3 : i + 2);
      pub.service();
      std::uint64_t seen = 0;
      readAll(children[0].reports, &seen, sizeof seen);
      lat.push_back(seen - t0);
    }
    percentiles(lat, &r);
  } else {
    const std::uint64_t t0 = nowNs();
    for (unsigned i = 0; i < changes; ++i) {
      routes[(i * 7919u) % kRoutes]->tagIs(i + 2);
      if (i % kBatch == kBatch - 1) pub.service();
    }
    routes[0]->tagIs(kLastTag);
    std::uint64_t last = 0;
    for (auto& c : children) {
      // Write what is queued while waiting for each one.
      for (;;) {
        pollfd fds[2] = {{pub.fd(), POLLIN, 0}, {c.reports, POLLIN, 0}};
        pub.service();
        poll(fds, 2, -1);
        if (fds[1].revents & POLLIN) break;
      }
      std::uint64_t seen = 0;
      readAll(c.reports, &seen, sizeof seen);
      last = std::max(last, seen);
    }
    r.rate = (changes + 1) / ((last - t0) / 1e9);
  }
  reap(children);
  return r;
}

// ---------------------------------------------------------------- redis

std::string redisBinary() {
  for (const char* p : {"/usr/bin/redis-server", "/usr/sbin/redis-server", "/usr/local/bin/redis-server"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return "";
}

// A connection speaking RESP over a Unix socket.
class Resp {
 public:
  explicit Resp(const std::string& path) {
    for (int tries = 0; tries < 500; ++tries) {
      fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
      if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return;
      close(fd_);
      fd_ = -1;
      usleep(10000);  // the server is starting
    }
  }
  ~Resp() {
    if (fd_ >= 0) close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  void append(std::initializer_list<std::string> args) {
    out_ += "*" + std::to_string(args.size()) + "\r\n";
    for (const auto& a : args) out_ += "$" + std::to_string(a.size()) + "\r\n" + a + "\r\n";
  }
  void flush() {
    std::size_t off = 0;
    while (off < out_.size()) {
      const ssize_t n = write(fd_, out_.data() + off, out_.size() - off);
      if (n <= 0) std::abort();
      off += static_cast<std::size_t>(n);
    }
    out_.clear();
  }
  // One reply; arrays flattened into `items` (bulk strings and integers).
  void reply(std::vector<std::string>* items = nullptr) {
    const std::string line = readLine();
    switch (line[0]) {
      case '+':
      case '-':
      case ':':
        if (items) items->push_back(line.substr(1));
        return;
      case '$': {
        const long n = std::stol(line.substr(1));
        if (n < 0) return;
        std::string s = readBytes(static_cast<std::size_t>(n) + 2);
        if (items) items->push_back(s.substr(0, static_cast<std::size_t>(n)));
        return;
      }
      case '*': {
        const long n = std::stol(line.substr(1));
        for (long i = 0; i < n; ++i) reply(items);
        return;
      }
    }
    std::abort();
  }
  bool buffered() const { return pos_ < in_.size(); }

 private:
  void fill() {
    if (pos_ > 0 && pos_ == in_.size()) {
      in_.clear();
      pos_ = 0;
    }
    char buf[65536];
    const ssize_t n = read(fd_, buf, sizeof buf);
    if (n <= 0) std::abort();
    in_.append(buf, static_cast<std::size_t>(n));
  }
  std::string readLine() {
    for (;;) {
      const auto e = in_.find("\r\n", pos_);
      if (e != std::string::npos) {
        std::string l = in_.substr(pos_, e - pos_);
        pos_ = e + 2;
        return l;
      }
      fill();
    }
  }
  std::string readBytes(std::size_t n) {
    while (in_.size() - pos_ < n) fill();
    std::string s = in_.substr(pos_, n);
    pos_ += n;
    return s;
  }
  int fd_ = -1;
  std::string out_;
  std::string in_;
  std::size_t pos_ = 0;
};

struct RedisServer {
  std::string dir;
  std::string sock;
  pid_t pid = -1;
  RedisServer() {
    char tmpl[] = "/tmp/rl-redisbench.XXXXXX";
    dir = mkdtemp(tmpl);
    sock = dir + "/redis.sock";
    pid = ::fork();
    if (pid == 0) {
      const int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, 1);
      dup2(devnull, 2);
      const std::string bin = redisBinary();
      execl(bin.c_str(), bin.c_str(), "--port", "0", "--unixsocket", sock.c_str(), "--unixsocketperm", "700",
            "--save", "", "--appendonly", "no", "--dir", dir.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
  }
  ~RedisServer() {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    unlink(sock.c_str());
    rmdir(dir.c_str());
  }
};

// Subscriber process: SUBSCRIBE on one connection, HGETALL of each
// published hash on another; reports as mountSubscriber does.
void redisSubscriber(const std::string& sock, int reports, bool latency) {
  Resp events(sock), fetch(sock);
  events.append({"SUBSCRIBE", "routes"});
  events.flush();
  events.reply();  // subscribe confirmation
  put(reports, std::uint64_t(0));
  std::vector<std::string> msg, hash;
  for (;;) {
    msg.clear();
    events.reply(&msg);  // message, channel, payload
    if (msg.size() != 3) continue;
    // The last change is announced as such: a subscriber that lags fetches
    // current values, so the value alone cannot tell it has seen them all.
    const bool last = msg[2].rfind("last:", 0) == 0;
    hash.clear();
    fetch.append({"HGETALL", last ? msg[2].substr(5) : msg[2]});
    fetch.flush();
    fetch.reply(&hash);
    if (latency || last) put(reports, nowNs());
    if (last) return;
  }
}

Result runRedis(unsigned subscribers, bool latency, unsigned changes) {
  RedisServer server;
  Resp writer(server.sock);
  if (!writer.ok()) std::abort();
  for (unsigned i = 0; i < kRoutes; ++i) writer.append({"HSET", "route:" + std::to_string(i), "tag", "1"});
  writer.flush();
  for (unsigned i = 0; i < kRoutes; ++i) writer.reply();
  std::vector<Child> children;
  for (unsigned s = 0; s < subscribers; ++s) {
    children.push_back(fork([&](int reports) { redisSubscriber(server.sock, reports, latency); }));
  }
  for (auto& c : children) {
    std::uint64_t v;
    readAll(c.reports, &v, sizeof v);
  }
  Result r;
  auto change = [&](unsigned route, std::uint32_t tag) {
    const std::string key = "route:" + std::to_string(route);
    writer.append({"HSET", key, "tag", std::to_string(tag)});
    writer.append({"PUBLISH", "routes", (tag == kLastTag ? "last:" : "") + key});
  };
  if (latency) {
    std::vector<std::uint64_t> lat;
    for (unsigned i = 0; i < changes; ++i) {
      const std::uint64_t t0 = nowNs();
      change(0, i + 2);
      writer.flush();
      std::uint64_t seen = 0;
      readAll(children[0].reports, &seen, sizeof seen);
      writer.reply();
      writer.reply();
      lat.push_back(seen - t0);
    }
    percentiles(lat, &r);
  } else {
    const std::uint64_t t0 = nowNs();
    for (unsigned i = 0; i < changes; i += kBatch) {
      const unsigned n = std::min(kBatch, changes - i);
      for (unsigned j = 0; j < n; ++j) change(((i + j) * 7919u) % kRoutes, i + j + 2);
      writer.flush();
      for (unsigned j = 0; j < 2 * n; ++j) writer.reply();
    }
    change(0, kLastTag);
    writer.flush();
    std::uint64_t last = 0;
    for (auto& c : children) {
      std::uint64_t seen = 0;
      readAll(c.reports, &seen, sizeof seen);
      last = std::max(last, seen);
    }
    r.rate = (changes + 1) / ((last - t0) / 1e9);
  }
  reap(children);
  return r;
}

// ---------------------------------------------------------------- benchmarks

void Throughput(benchmark::State& state, bool redis) {
  const auto subscribers = static_cast<unsigned>(state.range(0));
  Result r;
  for (auto _ : state) {
    r = redis ? runRedis(subscribers, false, 20000) : runMount(subscribers, false, 200000);
    state.SetIterationTime(1);
  }
  state.counters["changesPerS"] = r.rate;
  if (redis) gRedisRate[subscribers] = r.rate;
  else if (gRedisRate[subscribers] > 0) state.counters["vsRedis"] = r.rate / gRedisRate[subscribers];
}

void Latency(benchmark::State& state, bool redis) {
  Result r;
  for (auto _ : state) {
    r = redis ? runRedis(1, true, 5000) : runMount(1, true, 5000);
    state.SetIterationTime(1);
  }
  state.counters["p50us"] = r.p50Us;
  state.counters["p99us"] = r.p99Us;
  if (redis) gRedisP99 = r.p99Us;
  else if (gRedisP99 > 0) state.counters["vsRedis"] = gRedisP99 / r.p99Us;
}

// Redis first, so that the mount's runs can compare with it.
const bool registered = [] {
  signal(SIGPIPE, SIG_IGN);
  const bool redis = !redisBinary().empty();
  if (!redis) {
    std::fprintf(stderr, "MountBench: redis-server is not installed; reporting the mount's figures only\n");
  }
  for (bool r : {true, false}) {
    if (r && !redis) continue;
    const char* name = r ? "Redis" : "Mount";
    benchmark::RegisterBenchmark((std::string("Throughput/") + name).c_str(),
                                 [r](benchmark::State& s) { Throughput(s, r); })
        ->Arg(1)
        ->Arg(8)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  for (bool r : {true, false}) {
    if (r && !redis) continue;
    benchmark::RegisterBenchmark((std::string("Latency/") + (r ? "Redis" : "Mount")).c_str(),
                                 [r](benchmark::State& s) { Latency(s, r); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
