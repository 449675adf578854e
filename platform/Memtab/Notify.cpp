#include "Memtab/Notify.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>

#include "Cog/Exception.h"

namespace Memtab {

const char* toString(MountStatus status) {
  switch (status) {
    case MountStatus::unmounted: return "unmounted";
    case MountStatus::mounted: return "mounted";
    case MountStatus::writerGone: return "writerGone";
  }
  return "unknown";
}

}  // namespace Memtab

namespace Memtab::Shm {

namespace {

constexpr std::uint32_t kHelloMagic = 0x4c4c4548;  // "HELL"
constexpr std::uint32_t kProtocol = 1;
constexpr std::size_t kMailboxBytes = 4096;
constexpr std::size_t kMaxReaders = 1024;
constexpr std::size_t kLobbyBytes = 64;

struct Hello {
  std::uint32_t magic;
  std::uint32_t protocol;
};

// Fills `addr` with the table's abstract socket address; returns its length.
socklen_t socketAddress(const std::string& tableName, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  std::string name = "memtab." + tableName;  // validated: fits in sun_path
  std::memcpy(addr->sun_path + 1, name.data(), name.size());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// One inotify watch on /dev/shm for every reader of the process: inotify
// instances are a scarce per-user resource.
class Hub {
 public:
  static Hub& get() {
    static Hub* hub = [] {
      auto* h = new Hub();
      pthread_atfork(nullptr, nullptr, [] { Hub::get().resetInChild(); });
      return h;
    }();
    return *hub;
  }

  int fd() {
    std::lock_guard lock(mutex_);
    open();
    return fd_;
  }
  void subscribe(const std::string& file, Mount::Link* link) {
    std::lock_guard lock(mutex_);
    open();
    subscribers_.emplace(file, link);
  }
  void unsubscribe(Mount::Link* link) {
    std::lock_guard lock(mutex_);
    for (auto it = subscribers_.begin(); it != subscribers_.end();) {
      it = it->second == link ? subscribers_.erase(it) : std::next(it);
    }
  }
  void drain();

 private:
  void open() {
    if (fd_ >= 0 || failed_) return;
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ >= 0 &&
        inotify_add_watch(fd_, "/dev/shm",
                          IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVED_TO | IN_MOVED_FROM) < 0) {
      closeFd(fd_);
    }
    // Without it readers still learn of their writer's end from the
    // connection; only tables appearing go unnoticed until asked.
    failed_ = fd_ < 0;
  }
  void resetInChild() {
    // The parent's readers are not the child's; neither is its watch.
    new (&mutex_) std::mutex();
    closeFd(fd_);
    failed_ = false;
    subscribers_.clear();
  }

  std::mutex mutex_;
  int fd_ = -1;
  bool failed_ = false;
  std::multimap<std::string, Mount::Link*> subscribers_;
};

}  // namespace

// ---------------------------------------------------------------- writer side

ReaderLinks::ReaderLinks(const std::string& tableName, gid_t group, mode_t mode) : group_(group) {
  listen_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (listen_ < 0 || epoll_ < 0) {
    std::string err = std::strerror(errno);
    closeFd(listen_);
    closeFd(epoll_);
    throw Cog::RangeException("memtab table " + tableName + ": cannot make its socket: " + err);
  }
  sockaddr_un addr;
  socklen_t len = socketAddress(tableName, &addr);
  if (bind(listen_, reinterpret_cast<sockaddr*>(&addr), len) != 0 || ::listen(listen_, 64) != 0) {
    std::string err = std::strerror(errno);
    closeFd(listen_);
    closeFd(epoll_);
    throw Cog::NameInUseException("memtab table " + tableName +
                                  ": cannot listen for readers: " + err);
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listen_;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, listen_, &ev);
  openLobby(tableName, mode);
}

void ReaderLinks::openLobby(const std::string& tableName, mode_t mode) {
  // Without a lobby readers are still served, at the periodic service.
  const std::string path = lobbyName(tableName);
  const mode_t lobbyMode = S_IRUSR | S_IWUSR | ((mode & S_IRGRP) != 0 ? S_IRGRP | S_IWGRP : 0);
  int fd = shm_open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, lobbyMode);
  if (fd < 0) return;
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && st.st_uid == geteuid() && fchmod(fd, lobbyMode) == 0 &&
            (group_ == static_cast<gid_t>(-1) || fchown(fd, static_cast<uid_t>(-1), group_) == 0) &&
            (st.st_size >= static_cast<off_t>(kLobbyBytes) ||
             ftruncate(fd, static_cast<off_t>(kLobbyBytes)) == 0);
  if (ok) {
    void* mem = mmap(nullptr, kLobbyBytes, PROT_READ, MAP_SHARED, fd, 0);
    if (mem != MAP_FAILED) {
      lobbyMap_ = mem;
      lobby_ = static_cast<std::atomic<std::uint32_t>*>(mem);
      servedJoins_ = lobby_->load(std::memory_order_acquire);
    }
  }
  close(fd);
}

ReaderLinks::~ReaderLinks() {
  while (!links_.empty()) drop(links_.size() - 1);
  if (lobbyMap_ != nullptr) munmap(lobbyMap_, kLobbyBytes);
  closeFd(listen_);
  closeFd(epoll_);
}

std::size_t ReaderLinks::readers() const {
  std::size_t n = 0;
  for (auto& l : links_) n += l.armed != nullptr;
  return n;
}

void ReaderLinks::doorbell(const Link& link) {
  std::uint64_t one = 1;
  // Non-blocking: a full counter means the reader has a wake-up pending.
  [[maybe_unused]] ssize_t n = write(link.eventFd, &one, sizeof one);
}

void ReaderLinks::service() {
  // Joins counted from here on are served by this call or the next one.
  if (lobby_ != nullptr) servedJoins_ = lobby_->load(std::memory_order_acquire);
  epoll_event events[32];
  int n = epoll_wait(epoll_, events, 32, 0);
  for (int i = 0; i < n; ++i) {
    int fd = events[i].data.fd;
    if (fd == listen_) {
      accept();
      continue;
    }
    for (std::size_t k = 0; k < links_.size(); ++k) {
      if (links_[k].socket != fd) continue;
      Link& l = links_[k];
      if (l.armed == nullptr) {
        if (!hello(l)) drop(k);
      } else {
        // Readers say nothing after their hello: anything readable is the
        // end of the connection (or a reader misbehaving).
        drop(k);
      }
      break;
    }
  }
}

void ReaderLinks::accept() {
  for (;;) {
    int s = accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (s < 0) return;
    ucred cred{};
    socklen_t len = sizeof cred;
    bool allowed = getsockopt(s, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 &&
                   (cred.uid == geteuid() || cred.uid == 0 ||
                    (group_ != static_cast<gid_t>(-1) && cred.gid == group_));
    if (!allowed || links_.size() >= kMaxReaders) {
      close(s);
      continue;
    }
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = s;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, s, &ev) != 0) {
      close(s);
      continue;
    }
    links_.push_back(Link{s});
    // The hello may already be there.
    if (!hello(links_.back())) drop(links_.size() - 1);
  }
}

// Reads the reader's hello if it has arrived. False when the link is bad.
bool ReaderLinks::hello(Link& link) {
  Hello h{};
  iovec iov{&h, sizeof h};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))];
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ssize_t n = recvmsg(link.socket, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  int fds[2] = {-1, -1};
  int received = 0;
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
      if (received < 2) {
        fds[received] = fd;
      } else {
        close(fd);
      }
      ++received;
    }
  }
  auto refuse = [&] {
    closeFd(fds[0]);
    closeFd(fds[1]);
    return false;
  };
  if (n != sizeof h || h.magic != kHelloMagic || h.protocol != kProtocol || received != 2 ||
      (msg.msg_flags & MSG_CTRUNC) != 0) {
    return refuse();
  }
  // The mailbox must be sealed against shrinking: a reader that could
  // truncate it would make our stores to it fault.
  struct stat st;
  int seals = fcntl(fds[1], F_GET_SEALS);
  if (fstat(fds[1], &st) != 0 || st.st_size < static_cast<off_t>(kMailboxBytes) || seals < 0 ||
      (seals & F_SEAL_SHRINK) == 0) {
    return refuse();
  }
  void* mem = mmap(nullptr, kMailboxBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fds[1], 0);
  if (mem == MAP_FAILED) return refuse();
  closeFd(fds[1]);
  int flags = fcntl(fds[0], F_GETFL);
  if (flags < 0 || fcntl(fds[0], F_SETFL, flags | O_NONBLOCK) != 0) {
    munmap(mem, kMailboxBytes);
    return refuse();
  }
  link.eventFd = fds[0];
  link.mailbox = mem;
  link.armed = static_cast<std::atomic<std::uint32_t>*>(mem);
  // Whatever changed before we knew of it: let the reader look.
  link.armed->store(0, std::memory_order_relaxed);
  doorbell(link);
  return true;
}

void ReaderLinks::drop(std::size_t i) {
  Link& l = links_[i];
  epoll_ctl(epoll_, EPOLL_CTL_DEL, l.socket, nullptr);
  closeFd(l.socket);
  closeFd(l.eventFd);
  if (l.mailbox != nullptr) munmap(l.mailbox, kMailboxBytes);
  links_[i] = links_.back();
  links_.pop_back();
}

// ---------------------------------------------------------------- reader side

struct Mount::Link {
  std::string tableName;
  int epoll = -1;
  int eventFd = -1;
  int socket = -1;
  void* mailbox = nullptr;
  int mailboxFd = -1;
  int hubFd = -1;  // shared, not ours to close
  std::atomic<bool> hint{true};

  std::atomic<std::uint32_t>* armed() const {
    return static_cast<std::atomic<std::uint32_t>*>(mailbox);
  }

  explicit Link(std::string name) : tableName(std::move(name)) {
    epoll = epoll_create1(EPOLL_CLOEXEC);
    eventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    mailboxFd = memfd_create("memtab-mailbox", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (epoll < 0 || eventFd < 0 || mailboxFd < 0 ||
        ftruncate(mailboxFd, kMailboxBytes) != 0 ||
        fcntl(mailboxFd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
      std::string err = std::strerror(errno);
      cleanup();
      throw Cog::RangeException("memtab table " + tableName + ": cannot make reader link: " + err);
    }
    mailbox = mmap(nullptr, kMailboxBytes, PROT_READ | PROT_WRITE, MAP_SHARED, mailboxFd, 0);
    if (mailbox == MAP_FAILED) {
      mailbox = nullptr;
      std::string err = std::strerror(errno);
      cleanup();
      throw Cog::RangeException("memtab table " + tableName + ": cannot map reader link: " + err);
    }
    add(eventFd);
    Hub& hub = Hub::get();
    hubFd = hub.fd();
    if (hubFd >= 0) add(hubFd);
    hub.subscribe("memtab." + tableName, this);
  }
  ~Link() {
    Hub::get().unsubscribe(this);
    cleanup();
  }
  void cleanup() {
    disconnect();
    closeFd(epoll);
    closeFd(eventFd);
    closeFd(mailboxFd);
    if (mailbox != nullptr) munmap(mailbox, kMailboxBytes);
    mailbox = nullptr;
  }
  void add(int fd) const {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &ev);
  }

  bool connected() const { return socket >= 0; }
  bool connect() {
    disconnect();
    int s = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (s < 0) return false;
    sockaddr_un addr;
    socklen_t len = socketAddress(tableName, &addr);
    if (::connect(s, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
      close(s);
      return false;
    }
    Hello h{kHelloMagic, kProtocol};
    iovec iov{&h, sizeof h};
    alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(2 * sizeof(int));
    int fds[2] = {eventFd, mailboxFd};
    std::memcpy(CMSG_DATA(c), fds, sizeof fds);
    armed()->store(0, std::memory_order_relaxed);
    if (sendmsg(s, &msg, MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof h)) {
      close(s);
      return false;
    }
    socket = s;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = socket;
    epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &ev);
    knock();
    return true;
  }
  // Tells the writer, through its lobby, that a hello waits for it.
  void knock() const {
    int fd = shm_open(lobbyName(tableName).c_str(), O_RDWR | O_CLOEXEC, 0);
    if (fd < 0) return;
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(kLobbyBytes)) {
      void* mem = mmap(nullptr, kLobbyBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (mem != MAP_FAILED) {
        static_cast<std::atomic<std::uint32_t>*>(mem)->fetch_add(1, std::memory_order_release);
        munmap(mem, kLobbyBytes);
      }
    }
    close(fd);
  }
  void disconnect() {
    if (socket < 0) return;
    epoll_ctl(epoll, EPOLL_CTL_DEL, socket, nullptr);
    closeFd(socket);
  }
  // The writer never sends: a readable connection has ended.
  bool hungUp() const {
    char c;
    ssize_t n = recv(socket, &c, 1, MSG_DONTWAIT | MSG_PEEK);
    return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) || n > 0;
  }
  void drainDoorbell() const {
    std::uint64_t v;
    [[maybe_unused]] ssize_t n = read(eventFd, &v, sizeof v);
  }
  void wake() const {
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(eventFd, &one, sizeof one);
  }
};

namespace {

void Hub::drain() {
  std::lock_guard lock(mutex_);
  if (fd_ < 0) return;
  alignas(inotify_event) char buf[8192];
  for (;;) {
    ssize_t n = read(fd_, buf, sizeof buf);
    if (n <= 0) break;
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      auto* e = reinterpret_cast<inotify_event*>(buf + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      if ((e->mask & IN_Q_OVERFLOW) != 0) {
        // Events were lost: everyone looks again.
        for (auto& [name, link] : subscribers_) {
          link->hint.store(true, std::memory_order_relaxed);
          link->wake();
        }
        continue;
      }
      if (e->len == 0) continue;
      auto range = subscribers_.equal_range(std::string(e->name));
      for (auto it = range.first; it != range.second; ++it) {
        it->second->hint.store(true, std::memory_order_relaxed);
        it->second->wake();
      }
    }
  }
}

}  // namespace

Mount::Mount(std::string tableName, std::uint32_t typeTag, uid_t writerUid,
             CorruptionReport report)
    : name_(std::move(tableName)), typeTag_(typeTag), writerUid_(writerUid),
      report_(std::move(report)) {
  validateTableName(name_);
  link_ = std::make_unique<Link>(name_);
}

Mount::~Mount() = default;

int Mount::fd() const { return link_->epoll; }

Mount::Update Mount::update(bool check) {
  Update u;
  const MountStatus before = status_;
  // One look at what is ready, so that an idle source costs no system call.
  epoll_event events[4];
  bool doorbell = check, hub = check, ended = check;
  int n = epoll_wait(link_->epoll, events, 4, 0);
  for (int i = 0; i < n; ++i) {
    doorbell = doorbell || events[i].data.fd == link_->eventFd;
    hub = hub || events[i].data.fd == link_->hubFd;
    ended = ended || (link_->socket >= 0 && events[i].data.fd == link_->socket);
  }
  if (doorbell) link_->drainDoorbell();
  if (hub) Hub::get().drain();
  const bool hint = link_->hint.exchange(false, std::memory_order_relaxed) || check;
  if (view_ && hint && view_->unlinked()) {
    view_.reset();
    link_->disconnect();
  }
  if (!view_ && hint) {
    std::string why;
    view_ = View::open(name_, typeTag_, writerUid_, &why);
    if (!why.empty()) report_("memtab table " + name_ + ": " + why);
    if (view_) {
      ringPosition_ = view_->ringHead();
      u.contentsNew = true;
    }
  }
  if (view_) {
    if (link_->connected() && ended && link_->hungUp()) link_->disconnect();
    if (!link_->connected() && (hint || u.contentsNew)) link_->connect();
    status_ = link_->connected() ? MountStatus::mounted : MountStatus::writerGone;
  } else {
    status_ = MountStatus::unmounted;
  }
  u.statusChanged = status_ != before;
  return u;
}

void Mount::wake() { link_->wake(); }

void Mount::arm() {
  if (!link_->connected() || !view_) return;
  link_->armed()->store(1, std::memory_order_seq_cst);
  if (view_->ringHead() != ringPosition_) link_->wake();
}

}  // namespace Memtab::Shm
