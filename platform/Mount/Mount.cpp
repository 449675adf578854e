#include "Mount/Mount.h"

#include <cxxabi.h>
#include <errno.h>
#include <grp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "Cog/Exception.h"
#include "Cog/GenericIf.h"

namespace Mount {
namespace {

constexpr std::uint32_t kRootId = 1;
constexpr Cog::AttributeId kDirEntries = 0;
constexpr const char* kDirType = "Cog::Dir";
constexpr std::size_t kReadChunk = 64 * 1024;
// epoll data of the publisher's own descriptors; peers are their fd (>= 0).
constexpr std::uint64_t kListenTag = ~std::uint64_t(0);
constexpr std::uint64_t kBellTag = ~std::uint64_t(0) - 1;

void putU32(std::vector<std::uint8_t>& v, std::uint32_t x) {
  v.push_back(static_cast<std::uint8_t>(x >> 24));
  v.push_back(static_cast<std::uint8_t>(x >> 16));
  v.push_back(static_cast<std::uint8_t>(x >> 8));
  v.push_back(static_cast<std::uint8_t>(x));
}

std::uint32_t getU32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
         std::uint32_t(p[3]);
}

// Appends one frame: length, kind, then what `body` writes.
template <typename F>
void frameTo(std::vector<std::uint8_t>& to, FrameKind kind, F&& body) {
  const std::size_t start = to.size();
  putU32(to, 0);
  to.push_back(static_cast<std::uint8_t>(kind));
  body(to);
  const auto length = static_cast<std::uint32_t>(to.size() - start - 4);
  to[start] = static_cast<std::uint8_t>(length >> 24);
  to[start + 1] = static_cast<std::uint8_t>(length >> 16);
  to[start + 2] = static_cast<std::uint8_t>(length >> 8);
  to[start + 3] = static_cast<std::uint8_t>(length);
}

void putBytes(std::vector<std::uint8_t>& to, const std::vector<std::uint8_t>& bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

std::vector<std::uint8_t> stringForm(const std::string& s) {
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out->putString(s);
  return out->bytes();
}

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof a.sun_path) {
    throw Cog::RangeException("mount path '" + path + "' is empty or longer than " +
                              std::to_string(sizeof a.sun_path - 1) + " bytes");
  }
  std::memcpy(a.sun_path, path.data(), path.size());
  return a;
}

bool peerCredentials(int fd, ucred* cred) {
  socklen_t len = sizeof *cred;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, cred, &len) == 0;
}

void defaultLog(const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); }

Cog::Entity* entityOf(const Cog::Ptr<Cog::GenericIf>& g) {
  if (!g) return nullptr;
  return const_cast<Cog::Entity*>(static_cast<const Cog::Entity*>(g->entityPtr()));
}

bool hasAdapter(const Cog::CogType* type) { return type->glue().attrLogSa != nullptr; }

bool isEntityMember(const Cog::MemberInfo& m) {
  if (m.kind != Cog::MemberKind::owned && m.kind != Cog::MemberKind::collection) return false;
  const Cog::CogType* t = m.memberType();
  return t != nullptr && t->isEntity();
}

}  // namespace

const Cog::CogType* typeOfEntity(const Cog::Entity& entity) {
  int status = 0;
  char* name = abi::__cxa_demangle(typeid(entity).name(), nullptr, nullptr, &status);
  if (name == nullptr) return nullptr;
  const Cog::CogType* t = Cog::typeByName(name);
  std::free(name);
  return t != nullptr && t->isEntity() ? t : nullptr;
}

const char* toString(Subscriber::Status status) {
  switch (status) {
    case Subscriber::Status::disconnected: return "disconnected";
    case Subscriber::Status::connecting: return "connecting";
    case Subscriber::Status::resyncing: return "resyncing";
    case Subscriber::Status::synced: return "synced";
  }
  return "?";
}

// ======================================================================
// Publisher

struct Publisher::Node {
  std::uint32_t id = 0;
  std::uint32_t parent = 0;
  Cog::AttributeId attr = 0;
  std::vector<std::uint8_t> key;  // attribute-log form; a directory entry's name
  Cog::Ptr<Cog::Entity> entity;
  const Cog::CogType* type = nullptr;  // null: a Cog::Dir
  Cog::Ptr<Cog::Entity::CogNboAttrLogSa> sa;
  Cog::Ptr<Cog::NboAttrLog::Out> out;
  Cog::Ptr<Cog::PtrInterface> watcher;
  std::vector<std::uint8_t> header;  // directory entries: instantiation header
  std::map<std::pair<Cog::AttributeId, std::vector<std::uint8_t>>, std::uint32_t> children;

  Cog::Dir* dir() const { return type == nullptr ? static_cast<Cog::Dir*>(entity.ptr()) : nullptr; }
};

struct Publisher::Peer {
  int fd = -1;
  pid_t pid = 0;
  std::vector<std::uint8_t> in;
  std::vector<std::uint8_t> out;
  std::size_t sent = 0;
  std::deque<std::size_t> ends;  // where the frames in `out` end
  std::size_t resyncEnd = 0;     // end of a resynchronisation still queued
  bool ready = false;            // past its hello
  bool resyncPending = false;
  bool wantWrite = false;

  std::size_t queuedChanges() const { return out.size() - std::max(sent, resyncEnd); }
};

namespace {

class DirWatcher : public Cog::Dir::NotifieeConst {
 public:
  explicit DirWatcher(std::function<void(const Cog::Name&)> f) : f_(std::move(f)) {}
  void onEntityPtr(const Cog::Name& name) override { f_(name); }

 private:
  std::function<void(const Cog::Name&)> f_;
};

}  // namespace

Publisher::Publisher(std::string path, const Cog::Ptr<Cog::Entity>& root, Options options)
    : path_(std::move(path)), root_(root), options_(std::move(options)) {
  if (!root_) throw Cog::RangeException("mount " + path_ + ": no root entity");
  const Cog::CogType* rootType = typeOfEntity(*root_);
  if (rootType == nullptr && dynamic_cast<Cog::Dir*>(root_.ptr()) == nullptr) {
    throw Cog::NotSupportedException("mount " + path_ + ": the root is not a registered entity type");
  }
  if (!options_.group.empty()) {
    group* g = getgrnam(options_.group.c_str());
    if (g == nullptr) throw Cog::RangeException("mount " + path_ + ": no group " + options_.group);
    group_ = g->gr_gid;
  }
  const sockaddr_un addr = addressOf(path_);
  // A live publisher answers; a file left by one that died does not.
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe >= 0) {
    // Non-blocking: a live publisher with a full backlog answers EAGAIN.
    const bool live = ::connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ||
                      errno == EAGAIN;
    close(probe);
    if (live) throw Cog::NameInUseException("mount " + path_ + " is served by another process");
  }
  unlink(path_.c_str());
  listen_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_ < 0) throw Cog::RangeException("mount " + path_ + ": " + errnoText("socket"));
  if (bind(listen_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    const std::string e = errnoText("bind");
    close(listen_);
    throw Cog::RangeException("mount " + path_ + ": " + e);
  }
  // Peers are checked on accept as well, so a connection made before the
  // mode is set gains nothing.
  if (group_ != static_cast<gid_t>(-1)) {
    if (chown(path_.c_str(), static_cast<uid_t>(-1), group_) != 0 || chmod(path_.c_str(), 0660) != 0) {
      const std::string e = errnoText("chown/chmod");
      close(listen_);
      unlink(path_.c_str());
      throw Cog::RangeException("mount " + path_ + ": " + e);
    }
  } else {
    chmod(path_.c_str(), 0600);
  }
  listen(listen_, 64);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  bell_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kListenTag;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, listen_, &ev);
  ev.data.u64 = kBellTag;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, bell_, &ev);
  nodeNew(nullptr, 0, {}, root_, rootType);
}

Publisher::~Publisher() {
  for (auto& [fd, peer] : peers_) close(fd);
  peers_.clear();
  nodes_.clear();
  close(listen_);
  close(bell_);
  close(epoll_);
  unlink(path_.c_str());
}

std::size_t Publisher::subscribers() const {
  std::size_t n = 0;
  for (const auto& [fd, peer] : peers_) n += peer->ready ? 1 : 0;
  return n;
}

void Publisher::log(const std::string& text) const {
  if (options_.log) options_.log(text);
  else defaultLog(text);
}

Publisher::Node& Publisher::nodeNew(Node* parent, Cog::AttributeId attr, std::vector<std::uint8_t> key,
                                    const Cog::Ptr<Cog::Entity>& entity, const Cog::CogType* type) {
  auto owned = std::make_unique<Node>();
  Node& node = *owned;
  node.id = nextId_++;
  node.parent = parent ? parent->id : 0;
  node.attr = attr;
  node.key = std::move(key);
  node.entity = entity;
  node.type = type;
  if (type == nullptr) {
    auto* dir = static_cast<Cog::Dir*>(entity.ptr());
    if (parent != nullptr) {
      auto h = Cog::allocate<Cog::NboAttrLog::Out>();
      h->putString(kDirType);
      h->putString(dir->name().str());
      node.header = h->bytes();
    }
    auto w = Cog::allocate<DirWatcher>([this, &node](const Cog::Name& name) { dirEntry(node, name, true); });
    w->notifierIs(Cog::Ptr<const Cog::Dir>(dir));
    node.watcher = Cog::Ptr<Cog::PtrInterface>(w.ptr());
  } else {
    node.out = Cog::allocate<Cog::NboAttrLog::Out>();
    auto sa = type->glue().attrLogSa(entity.ptr(), 0, node.out);
    node.sa = Cog::Ptr<Cog::Entity::CogNboAttrLogSa>(static_cast<Cog::Entity::CogNboAttrLogSa*>(sa.ptr()));
    if (parent != nullptr && attr == kDirEntries) {
      auto h = Cog::allocate<Cog::NboAttrLog::Out>();
      node.sa->cogInstantiateSerialize(h);
      node.header = h->bytes();
    }
    // Registered after the adapter, so it runs once the adapter has written
    // the change's records.
    node.watcher = type->glue().genericIfNotifiee(entity.ptr(),
                                                  [this, &node](Cog::AttributeId id) { changed(node, id); });
  }
  if (parent != nullptr) parent->children[{attr, node.key}] = node.id;
  nodes_.emplace(node.id, std::move(owned));
  childrenScan(node);
  return node;
}

void Publisher::nodeDel(std::uint32_t id, bool announce) {
  auto it = nodes_.find(id);
  if (it == nodes_.end()) return;
  std::unique_ptr<Node> node = std::move(it->second);
  nodes_.erase(it);
  if (auto p = nodes_.find(node->parent); p != nodes_.end()) {
    auto c = p->second->children.find({node->attr, node->key});
    if (c != p->second->children.end() && c->second == id) p->second->children.erase(c);
  }
  for (const auto& [k, child] : node->children) nodeDel(child, false);
  node->children.clear();
  if (announce) {
    std::vector<std::uint8_t> f;
    frameTo(f, FrameKind::gone, [&](auto& b) { putU32(b, id); });
    broadcast(f);
  }
}

void Publisher::childrenScan(Node& node) {
  if (Cog::Dir* dir = node.dir()) {
    std::vector<Cog::Name> names;
    for (const auto& [name, entry] : *dir) names.push_back(name);
    for (const auto& name : names) dirEntry(node, name, false);
    return;
  }
  for (const Cog::MemberInfo* m : node.type->members()) {
    if (isEntityMember(*m)) scanMember(node, *m, false);
  }
}

// Compares one member (owned child or instantiating collection) with the
// nodes under it: new members become nodes, departed ones are dropped.
void Publisher::scanMember(Node& node, const Cog::MemberInfo& member, bool announce) {
  auto self = Cog::genericIfOfEntity(node.type, node.entity.ptr(), false);
  std::map<std::vector<std::uint8_t>, Cog::Ptr<Cog::Entity>> now;
  if (member.kind == Cog::MemberKind::owned) {
    if (Cog::Entity* e = entityOf(self->attribute(member.index))) now[{}] = Cog::Ptr<Cog::Entity>(e);
  } else {
    auto keyForm = Cog::allocate<Cog::NboAttrLog::Out>();
    for (auto it = self->iterator(member.name); it->iterNonnull(); it->iterInc()) {
      keyForm->clear();
      it->iterKey()->attrLogOut(keyForm);
      if (Cog::Entity* e = entityOf(it->iterObj())) now[keyForm->bytes()] = Cog::Ptr<Cog::Entity>(e);
    }
  }
  std::vector<std::uint32_t> gone;
  for (const auto& [k, id] : node.children) {
    if (k.first != member.index) continue;
    auto n = now.find(k.second);
    if (n == now.end() || n->second != nodes_.at(id)->entity) gone.push_back(id);
  }
  for (std::uint32_t id : gone) nodeDel(id, announce);
  for (auto& [key, entity] : now) {
    if (node.children.count({member.index, key}) != 0) continue;
    const Cog::CogType* type = typeOfEntity(*entity);
    if (type == nullptr) type = member.memberType();
    if (!hasAdapter(type)) continue;
    Node& child = nodeNew(&node, member.index, key, entity, type);
    if (announce && !peers_.empty()) {
      std::vector<std::uint8_t> f;
      writeNodeFrames(child, f, true);
      broadcast(f);
    }
  }
}

void Publisher::dirEntry(Node& node, const Cog::Name& name, bool announce) {
  Cog::Dir* dir = node.dir();
  std::vector<std::uint8_t> key = stringForm(name.str());
  const Cog::Dir::Entry* entry = dir->entry(name);
  auto c = node.children.find({kDirEntries, key});
  if (c != node.children.end()) {
    if (entry != nullptr && nodes_.at(c->second)->entity == entry->entity) return;
    nodeDel(c->second, announce);
  }
  if (entry == nullptr) return;
  const Cog::CogType* type = typeOfEntity(*entry->entity);
  if (type == nullptr && !entry->typeName.str().empty()) type = Cog::typeByName(entry->typeName.str());
  const bool isDir = dynamic_cast<Cog::Dir*>(entry->entity.ptr()) != nullptr;
  if (type == nullptr && !isDir) {
    log("mount " + path_ + ": entry " + name.str() + " is not of a registered type; not served");
    return;
  }
  if (type != nullptr && !hasAdapter(type)) return;
  Node& child = nodeNew(&node, kDirEntries, key, entry->entity, isDir ? nullptr : type);
  if (!announce || peers_.empty()) return;
  std::vector<std::uint8_t> f;
  writeNodeFrames(child, f, true);
  broadcast(f);
}

void Publisher::changed(Node& node, Cog::AttributeId id) {
  const Cog::MemberInfo* m = node.type->member(id);
  if (m == nullptr || !isEntityMember(*m)) {
    flushRecords(node);
    return;
  }
  // The record the adapter just wrote names the key that changed.
  const std::vector<std::uint8_t> record = node.out ? node.out->bytes() : std::vector<std::uint8_t>();
  flushRecords(node);
  if (m->kind == Cog::MemberKind::collection && memberChanged(node, *m, record)) return;
  // Compared with the tree in service(): a burst of such changes is one scan.
  pending_[{node.id, id}] = true;
  ring();
}

// Follows one key of an instantiating collection from the adapter's record
// of it (keySet: the member under the key joins or replaces its node;
// keyDel: its node leaves). False when the record does not say.
bool Publisher::memberChanged(Node& node, const Cog::MemberInfo& member, const std::vector<std::uint8_t>& record) {
  const Cog::CogType* keyType = member.memberKeyType();
  if (record.empty() || keyType == nullptr || keyType->glue().fromAttrLog == nullptr) return false;
  try {
    auto in = Cog::allocate<Cog::NboAttrLog::In>(record);
    if (in->nextU32() != member.index) return false;
    const std::uint8_t op = in->nextU8();
    if (op != static_cast<std::uint8_t>(Cog::AttrLogOp::keySet) &&
        op != static_cast<std::uint8_t>(Cog::AttrLogOp::keyDel)) {
      return false;
    }
    const std::size_t start = in->position();
    Cog::Ptr<Cog::GenericIf> key = keyType->glue().fromAttrLog(in.ptr());
    std::vector<std::uint8_t> keyForm(record.begin() + static_cast<std::ptrdiff_t>(start),
                                      record.begin() + static_cast<std::ptrdiff_t>(in->position()));
    Cog::Ptr<Cog::Entity> entity;
    if (op == static_cast<std::uint8_t>(Cog::AttrLogOp::keySet)) {
      auto self = Cog::genericIfOfEntity(node.type, node.entity.ptr(), false);
      entity = Cog::Ptr<Cog::Entity>(entityOf(self->element(member.name, key)));
    }
    auto c = node.children.find({member.index, keyForm});
    if (c != node.children.end()) {
      if (entity && nodes_.at(c->second)->entity == entity) return true;
      nodeDel(c->second, !peers_.empty());
    }
    if (!entity) return true;
    const Cog::CogType* type = typeOfEntity(*entity);
    if (type == nullptr) type = member.memberType();
    if (!hasAdapter(type)) return true;
    Node& child = nodeNew(&node, member.index, std::move(keyForm), entity, type);
    if (!peers_.empty()) {
      std::vector<std::uint8_t> f;
      writeNodeFrames(child, f, true);
      broadcast(f);
    }
    return true;
  } catch (const Cog::Exception&) {
    return false;  // generated code without keyed lookup: compare the whole collection
  }
}

void Publisher::flushRecords(Node& node) {
  if (!node.out || node.out->size() == 0) return;
  std::vector<std::uint8_t> f;
  frameTo(f, FrameKind::records, [&](auto& b) {
    putU32(b, node.id);
    putBytes(b, node.out->bytes());
  });
  node.out->clear();
  broadcast(f);
}

void Publisher::ring() {
  if (rung_) return;
  rung_ = true;
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t n = write(bell_, &one, sizeof one);
}

void Publisher::reconcile() {
  while (!pending_.empty()) {
    auto [nodeId, attr] = pending_.begin()->first;
    pending_.erase(pending_.begin());
    auto it = nodes_.find(nodeId);
    if (it == nodes_.end()) continue;
    Node& node = *it->second;
    if (const Cog::MemberInfo* m = node.type->member(attr)) scanMember(node, *m, true);
  }
}

void Publisher::broadcast(const std::vector<std::uint8_t>& frame) {
  bool any = false;
  std::vector<int> fds;
  for (const auto& [fd, peer] : peers_) fds.push_back(fd);
  for (int fd : fds) {
    auto it = peers_.find(fd);
    if (it == peers_.end()) continue;
    Peer& p = *it->second;
    if (!p.ready || p.resyncPending) continue;
    if (p.queuedChanges() + frame.size() > options_.outputBound) {
      // Hand what is queued to the socket first: only a subscriber whose
      // socket is full as well is slow.
      writePeer(p);
      it = peers_.find(fd);
      if (it == peers_.end() || p.resyncPending) continue;
    }
    if (p.queuedChanges() + frame.size() > options_.outputBound) {
      // Keep the frame being written (the peer has part of it), drop the rest.
      std::size_t cut = p.sent;
      for (std::size_t end : p.ends) {
        if (end > p.sent) {
          cut = end;
          break;
        }
      }
      p.out.resize(cut);
      while (!p.ends.empty() && p.ends.back() > cut) p.ends.pop_back();
      p.resyncEnd = std::min(p.resyncEnd, cut);
      p.resyncPending = true;
      ++overflows_;
    } else {
      p.out.insert(p.out.end(), frame.begin(), frame.end());
      p.ends.push_back(p.out.size());
    }
    any = true;
  }
  if (any) ring();
}

void Publisher::writeNodeFrames(Node& node, std::vector<std::uint8_t>& to, bool recurse) {
  if (node.id != kRootId) {
    frameTo(to, FrameKind::node, [&](auto& b) {
      putU32(b, node.id);
      putU32(b, node.parent);
      putU32(b, node.attr);
      putU32(b, static_cast<std::uint32_t>(node.key.size()));
      putBytes(b, node.key);
      putBytes(b, node.header);
    });
  }
  if (node.sa) {
    auto state = Cog::allocate<Cog::NboAttrLog::Out>();
    node.sa->doSerializeOrphan(state);
    frameTo(to, FrameKind::records, [&](auto& b) {
      putU32(b, node.id);
      putBytes(b, state->bytes());
    });
  }
  if (!recurse) return;
  for (const auto& [k, child] : node.children) writeNodeFrames(*nodes_.at(child), to, true);
}

void Publisher::service() {
  epoll_event events[64];
  const int n = epoll_wait(epoll_, events, 64, 0);
  for (int i = 0; i < n; ++i) {
    const std::uint64_t tag = events[i].data.u64;
    if (tag == kListenTag) {
      accept();
    } else if (tag == kBellTag) {
      std::uint64_t v;
      [[maybe_unused]] ssize_t r = read(bell_, &v, sizeof v);
      rung_ = false;
    } else {
      auto it = peers_.find(static_cast<int>(tag));
      if (it == peers_.end()) continue;
      if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) readPeer(*it->second);
    }
  }
  reconcile();
  std::vector<int> fds;
  for (auto& [fd, peer] : peers_) fds.push_back(fd);
  for (int fd : fds) {
    auto it = peers_.find(fd);
    if (it != peers_.end()) writePeer(*it->second);
  }
}

void Publisher::accept() {
  for (;;) {
    const int fd = accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    ucred cred{};
    if (!peerCredentials(fd, &cred)) {
      log("mount " + path_ + ": refused a subscriber: " + errnoText("SO_PEERCRED"));
      ++dropped_;
      close(fd);
      continue;
    }
    const bool admitted = cred.uid == geteuid() || cred.uid == 0 ||
                          (group_ != static_cast<gid_t>(-1) && cred.gid == group_);
    if (!admitted) {
      log("mount " + path_ + ": refused a subscriber (pid " + std::to_string(cred.pid) + ", uid " +
          std::to_string(cred.uid) + "): not an admitted user");
      ++dropped_;
      close(fd);
      continue;
    }
    if (options_.socketBuffer != 0) {
      const int size = static_cast<int>(options_.socketBuffer);
      setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    }
    auto peer = std::make_unique<Peer>();
    peer->fd = fd;
    peer->pid = cred.pid;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = static_cast<std::uint64_t>(fd);
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
    peers_.emplace(fd, std::move(peer));
  }
}

void Publisher::dropPeer(int fd, const std::string& reason) {
  auto it = peers_.find(fd);
  if (it == peers_.end()) return;
  if (!reason.empty()) {
    log("mount " + path_ + ": dropped subscriber (pid " + std::to_string(it->second->pid) + "): " + reason);
    ++dropped_;
  }
  epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
  close(fd);
  peers_.erase(it);
}

void Publisher::readPeer(Peer& peer) {
  const int fd = peer.fd;
  std::uint8_t buf[4096];
  const ssize_t got = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
  if (got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
    dropPeer(fd, peer.in.empty() ? "" : "truncated frame (" + std::to_string(peer.in.size()) + " bytes) at end of stream");
    return;
  }
  if (got < 0) return;
  peer.in.insert(peer.in.end(), buf, buf + got);
  while (peer.in.size() >= 5) {
    const std::uint32_t length = getU32(peer.in.data());
    // A subscriber sends its hello and nothing else; anything long is not one.
    if (length == 0 || length > std::min<std::size_t>(options_.maxFrame, 4096)) {
      dropPeer(fd, "frame length " + std::to_string(length) + " out of bounds (garbage?)");
      return;
    }
    if (peer.in.size() < 4 + length) return;
    const auto kind = static_cast<FrameKind>(peer.in[4]);
    auto in = Cog::allocate<Cog::NboAttrLog::In>(
        std::vector<std::uint8_t>(peer.in.begin() + 5, peer.in.begin() + 4 + length));
    peer.in.erase(peer.in.begin(), peer.in.begin() + 4 + length);
    if (peer.ready || kind != FrameKind::hello) {
      dropPeer(fd, "unexpected frame kind " + std::to_string(static_cast<unsigned>(kind)));
      return;
    }
    std::string wanted;
    try {
      if (in->nextU32() != kMagic) {
        dropPeer(fd, "not a mount hello (bad magic)");
        return;
      }
      const std::uint32_t version = in->nextU32();
      wanted = in->nextString().str();
      std::string refusal;
      const Cog::CogType* rt = typeOfEntity(*root_);
      const std::string served = rt ? rt->name() : kDirType;
      if (version != kVersion) {
        refusal = "protocol version " + std::to_string(version) + " not supported; " + path_ +
                  " speaks version " + std::to_string(kVersion);
      } else if (wanted != served) {
        refusal = "root type mismatch: subscriber expects " + wanted + ", " + path_ + " serves " + served;
      }
      if (!refusal.empty()) {
        std::vector<std::uint8_t> f;
        frameTo(f, FrameKind::refuse, [&](auto& b) { putBytes(b, stringForm(refusal)); });
        [[maybe_unused]] ssize_t w = send(fd, f.data(), f.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        dropPeer(fd, "refused: " + refusal);
        return;
      }
      std::vector<std::uint8_t> f;
      frameTo(f, FrameKind::hello, [&](auto& b) {
        putU32(b, kMagic);
        putU32(b, kVersion);
        putBytes(b, stringForm(served));
        const Node& root = *nodes_.at(kRootId);
        if (root.sa) {
          auto h = Cog::allocate<Cog::NboAttrLog::Out>();
          root.sa->cogInstantiateSerialize(h);
          putBytes(b, h->bytes());
        } else {
          putBytes(b, stringForm(kDirType));
          putBytes(b, stringForm(root_->name().str()));
        }
      });
      peer.out.insert(peer.out.end(), f.begin(), f.end());
      peer.ends.push_back(peer.out.size());
      peer.ready = true;
      peer.resyncPending = true;
      ring();
    } catch (const Cog::Exception& e) {
      dropPeer(fd, std::string("bad hello: ") + e.what());
      return;
    }
  }
}

void Publisher::resyncPeer(Peer& peer) {
  reconcile();
  std::vector<std::uint8_t> f;
  frameTo(f, FrameKind::begin, [](auto&) {});
  writeNodeFrames(*nodes_.at(kRootId), f, true);
  frameTo(f, FrameKind::end, [](auto&) {});
  peer.out.insert(peer.out.end(), f.begin(), f.end());
  peer.ends.push_back(peer.out.size());
  peer.resyncEnd = peer.out.size();
  peer.resyncPending = false;
  ++resyncs_;
}

void Publisher::writePeer(Peer& peer) {
  const int fd = peer.fd;
  for (;;) {
    while (peer.sent < peer.out.size()) {
      const ssize_t n = send(fd, peer.out.data() + peer.sent, peer.out.size() - peer.sent,
                             MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n > 0) {
        peer.sent += static_cast<std::size_t>(n);
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n < 0 && errno == EINTR) continue;
      dropPeer(fd, "");  // gone: nothing to report
      return;
    }
    while (!peer.ends.empty() && peer.ends.front() <= peer.sent) peer.ends.pop_front();
    if (peer.sent == peer.out.size()) {
      peer.out.clear();
      peer.sent = 0;
      peer.resyncEnd = 0;
      peer.ends.clear();
      if (peer.resyncPending && peer.ready) {
        resyncPeer(peer);
        continue;
      }
    } else if (peer.sent > (std::size_t(1) << 20) && peer.sent * 2 > peer.out.size()) {
      peer.out.erase(peer.out.begin(), peer.out.begin() + static_cast<std::ptrdiff_t>(peer.sent));
      for (auto& e : peer.ends) e -= peer.sent;
      peer.resyncEnd = peer.resyncEnd > peer.sent ? peer.resyncEnd - peer.sent : 0;
      peer.sent = 0;
    }
    break;
  }
  const bool want = peer.sent < peer.out.size();
  if (want != peer.wantWrite) {
    peer.wantWrite = want;
    epoll_event ev{};
    ev.events = EPOLLIN | (want ? EPOLLOUT : 0u);
    ev.data.u64 = static_cast<std::uint64_t>(fd);
    epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &ev);
  }
}

// ======================================================================
// Subscriber

struct Subscriber::Node {
  std::uint32_t id = 0;
  std::uint32_t parent = 0;
  Cog::AttributeId attr = 0;
  std::vector<std::uint8_t> key;
  Cog::Ptr<Cog::Entity> entity;
  Cog::Ptr<Cog::Entity::CogNboAttrLogSa> sa;  // null: a Cog::Dir
  std::set<std::uint32_t> children;

  Cog::Dir* dir() const { return sa ? nullptr : static_cast<Cog::Dir*>(entity.ptr()); }
};

namespace {

Cog::Ptr<Cog::Entity::CogNboAttrLogSa> mirrorAdapter(Cog::Entity* entity, const Cog::CogType* type) {
  if (type == nullptr || type->glue().attrLogSa == nullptr) return nullptr;
  auto sa = type->glue().attrLogSa(entity, Cog::NboAttrLogSaFlag::readOnly,
                                   Cog::allocate<Cog::NboAttrLog::Out>());
  return Cog::Ptr<Cog::Entity::CogNboAttrLogSa>(static_cast<Cog::Entity::CogNboAttrLogSa*>(sa.ptr()));
}

}  // namespace

Subscriber::Subscriber(std::string path, std::string rootType, Options options)
    : path_(std::move(path)), rootType_(std::move(rootType)), options_(std::move(options)) {
  addressOf(path_);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kBellTag;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, timer_, &ev);
  connect();
}

Subscriber::Subscriber(std::string path, const Cog::Ptr<Cog::Entity>& root, Options options)
    : Subscriber(std::move(path),
                 [&] {
                   if (!root) throw Cog::RangeException("mount: no root entity");
                   const Cog::CogType* t = typeOfEntity(*root);
                   if (t == nullptr && dynamic_cast<Cog::Dir*>(root.ptr()) == nullptr) {
                     throw Cog::NotSupportedException("mount: the root is not a registered entity type");
                   }
                   return std::string(t ? t->name() : kDirType);
                 }(),
                 std::move(options)) {
  root_ = root;
}

Subscriber::~Subscriber() {
  if (socket_ >= 0) close(socket_);
  close(timer_);
  close(epoll_);
}

void Subscriber::log(const std::string& text) const {
  if (options_.log) options_.log(text);
  else defaultLog(text);
}

void Subscriber::retryArm() {
  itimerspec t{};
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(options_.retry).count();
  t.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
  t.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
  if (t.it_value.tv_sec == 0 && t.it_value.tv_nsec == 0) t.it_value.tv_nsec = 1;
  timerfd_settime(timer_, 0, &t, nullptr);
}

void Subscriber::connect() {
  const sockaddr_un addr = addressOf(path_);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    if (fd >= 0) close(fd);
    retryArm();
    return;
  }
  ucred cred{};
  if (!peerCredentials(fd, &cred) || (cred.uid != geteuid() && cred.uid != 0)) {
    close(fd);
    lastError_ = "publisher at " + path_ + " runs as uid " + std::to_string(cred.uid) + ", not an admitted user";
    log("mount " + path_ + ": " + lastError_);
    retryArm();
    return;
  }
  std::vector<std::uint8_t> f;
  frameTo(f, FrameKind::hello, [&](auto& b) {
    putU32(b, kMagic);
    putU32(b, kVersion);
    putBytes(b, stringForm(rootType_));
  });
  if (send(fd, f.data(), f.size(), MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(f.size())) {
    close(fd);
    retryArm();
    return;
  }
  socket_ = fd;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = 0;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
  status_ = Status::connecting;
  helloSeen_ = false;
  in_.clear();
  inPos_ = 0;
  ++connects_;
  applied_ = true;
}

void Subscriber::disconnect(const std::string& reason) {
  if (socket_ >= 0) {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, socket_, nullptr);
    close(socket_);
    socket_ = -1;
  }
  if (!reason.empty()) {
    lastError_ = reason;
    log("mount " + path_ + ": disconnected: " + reason);
  }
  status_ = Status::disconnected;
  helloSeen_ = false;
  in_.clear();
  inPos_ = 0;
  applied_ = true;
  retryArm();
}

void Subscriber::service() {
  epoll_event events[4];
  const int n = epoll_wait(epoll_, events, 4, 0);
  for (int i = 0; i < n; ++i) {
    if (events[i].data.u64 == kBellTag) {
      std::uint64_t v;
      [[maybe_unused]] ssize_t r = read(timer_, &v, sizeof v);
      if (socket_ < 0) connect();
    } else if (socket_ >= 0) {
      readSocket();
    }
  }
  if (applied_) {
    applied_ = false;
    if (onUpdate_) onUpdate_();
  }
}

void Subscriber::readSocket() {
  // Bounded per call, so one busy mount does not starve the agent's loop.
  for (int round = 0; round < 64 && socket_ >= 0; ++round) {
    const std::size_t have = in_.size();
    in_.resize(have + kReadChunk);
    const ssize_t got = recv(socket_, in_.data() + have, kReadChunk, MSG_DONTWAIT);
    in_.resize(have + (got > 0 ? static_cast<std::size_t>(got) : 0));
    if (got == 0) {
      disconnect(in_.size() > inPos_ ? "truncated frame at end of stream"
                                     : "the publisher closed the connection");
      return;
    }
    if (got < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
      disconnect(errnoText("recv"));
      return;
    }
    while (socket_ >= 0 && in_.size() - inPos_ >= 5) {
      const std::uint32_t length = getU32(in_.data() + inPos_);
      if (length == 0 || length > options_.maxFrame) {
        disconnect("frame length " + std::to_string(length) + " out of bounds (limit " +
                   std::to_string(options_.maxFrame) + ")");
        return;
      }
      if (in_.size() - inPos_ < 4 + std::size_t(length)) break;
      const std::uint8_t kind = in_[inPos_ + 4];
      const std::uint8_t* data = in_.data() + inPos_ + 5;
      inPos_ += 4 + length;
      try {
        frame(kind, data, length - 1);
        applied_ = true;
      } catch (const std::exception& e) {
        disconnect(std::string("bad frame: ") + e.what());
        return;
      }
    }
    if (inPos_ == in_.size()) {
      in_.clear();
      inPos_ = 0;
    } else if (inPos_ > (std::size_t(1) << 20)) {
      in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(inPos_));
      inPos_ = 0;
    }
  }
}

void Subscriber::frame(std::uint8_t kindByte, const std::uint8_t* data, std::size_t size) {
  const auto kind = static_cast<FrameKind>(kindByte);
  auto in = Cog::allocate<Cog::NboAttrLog::In>(std::vector<std::uint8_t>(data, data + size));
  if (!helloSeen_) {
    if (kind == FrameKind::refuse) {
      const std::string why = in->nextString().str();
      throw Cog::NotSupportedException("refused: " + why);
    }
    if (kind != FrameKind::hello) throw Cog::StreamException("expected a hello");
    if (in->nextU32() != kMagic) throw Cog::StreamException("not a mount hello (bad magic)");
    const std::uint32_t version = in->nextU32();
    if (version != kVersion) {
      throw Cog::NotSupportedException("publisher speaks protocol version " + std::to_string(version) +
                                       ", this subscriber " + std::to_string(kVersion));
    }
    const std::string served = in->nextString().str();
    if (served != rootType_) {
      throw Cog::NotSupportedException("root type mismatch: expected " + rootType_ + ", publisher serves " +
                                       served);
    }
    if (!root_) {
      const std::size_t at = in->position();
      if (in->nextString().str() == kDirType) {
        root_ = Cog::Ptr<Cog::Entity>(Cog::allocate<Cog::Dir>(Cog::Name(in->nextString())).ptr());
      } else {
        auto again = Cog::allocate<Cog::NboAttrLog::In>(std::vector<std::uint8_t>(data + at, data + size));
        auto made = Cog::entityFromAttrLog(again, Cog::NboAttrLogSaFlag::readOnly);
        root_ = Cog::Ptr<Cog::Entity>(static_cast<Cog::Entity*>(made.ptr()));
      }
    }
    if (nodes_.count(kRootId) == 0) {
      auto node = std::make_unique<Node>();
      node->id = kRootId;
      node->entity = root_;
      node->sa = mirrorAdapter(root_.ptr(), typeOfEntity(*root_));
      nodes_.emplace(kRootId, std::move(node));
    }
    helloSeen_ = true;
    return;
  }
  switch (kind) {
    case FrameKind::begin: {
      status_ = Status::resyncing;
      for (auto it = nodes_.begin(); it != nodes_.end();) {
        if (it->first == kRootId) ++it;
        else it = nodes_.erase(it);
      }
      nodes_.at(kRootId)->children.clear();
      return;
    }
    case FrameKind::end: {
      if (status_ != Status::resyncing) throw Cog::StreamException("end of a resynchronisation never begun");
      // Directory entries nobody named during the resynchronisation are gone.
      for (auto& [id, node] : nodes_) {
        Cog::Dir* dir = node->dir();
        if (dir == nullptr) continue;
        std::set<Cog::Name> named;
        for (std::uint32_t c : node->children) {
          auto k = Cog::allocate<Cog::NboAttrLog::In>(nodes_.at(c)->key);
          named.insert(Cog::Name(k->nextString()));
        }
        std::vector<Cog::Name> stale;
        for (const auto& [name, entry] : *dir)
          if (named.count(name) == 0) stale.push_back(name);
        for (const auto& name : stale) dir->entityDel(name);
      }
      status_ = Status::synced;
      ++resyncs_;
      return;
    }
    case FrameKind::node: {
      const std::uint32_t id = in->nextU32();
      const std::uint32_t parent = in->nextU32();
      const Cog::AttributeId attr = in->nextU32();
      const std::uint32_t keyLength = in->nextU32();
      if (keyLength > in->remaining()) throw Cog::StreamException("node key longer than its frame");
      std::vector<std::uint8_t> key(keyLength);
      in->nextBytes(key.data(), keyLength);
      bindNode(in, id, parent, attr, std::move(key));
      return;
    }
    case FrameKind::records: {
      const std::uint32_t id = in->nextU32();
      auto it = nodes_.find(id);
      if (it == nodes_.end()) throw Cog::StreamException("records for unknown node " + std::to_string(id));
      if (!it->second->sa) throw Cog::StreamException("records for directory node " + std::to_string(id));
      it->second->sa->deserialize(in);
      return;
    }
    case FrameKind::gone: {
      const std::uint32_t id = in->nextU32();
      if (id == kRootId) throw Cog::StreamException("the root cannot go");
      auto it = nodes_.find(id);
      if (it == nodes_.end()) return;
      auto p = nodes_.find(it->second->parent);
      if (p != nodes_.end()) {
        if (Cog::Dir* dir = p->second->dir()) {
          auto k = Cog::allocate<Cog::NboAttrLog::In>(it->second->key);
          const Cog::Name name(k->nextString());
          if (dir->entity(name) == it->second->entity) dir->entityDel(name);
        }
      }
      forget(id);
      return;
    }
    default:
      throw Cog::StreamException("unknown frame kind " + std::to_string(kindByte));
  }
}

void Subscriber::forget(std::uint32_t id) {
  auto it = nodes_.find(id);
  if (it == nodes_.end()) return;
  std::unique_ptr<Node> node = std::move(it->second);
  nodes_.erase(it);
  if (auto p = nodes_.find(node->parent); p != nodes_.end()) p->second->children.erase(id);
  for (std::uint32_t c : node->children) forget(c);
}

void Subscriber::bindNode(const Cog::Ptr<Cog::NboAttrLog::In>& in, std::uint32_t id, std::uint32_t parentId,
                          Cog::AttributeId attr, std::vector<std::uint8_t> key) {
  if (id == kRootId) throw Cog::StreamException("node id 1 is the root's");
  auto p = nodes_.find(parentId);
  if (p == nodes_.end()) throw Cog::StreamException("node " + std::to_string(id) + " under unknown node " +
                                                    std::to_string(parentId));
  Node& parent = *p->second;
  Cog::Ptr<Cog::Entity> child;
  const Cog::CogType* type = nullptr;
  if (Cog::Dir* dir = parent.dir()) {
    if (attr != kDirEntries) throw Cog::StreamException("directory member with attribute id " + std::to_string(attr));
    auto k = Cog::allocate<Cog::NboAttrLog::In>(key);
    const Cog::Name name(k->nextString());
    const std::string typeName = in->nextString().str();
    Cog::Ptr<Cog::Entity> existing = dir->entity(name);
    if (typeName == kDirType) {
      const Cog::Name dirName(in->nextString());
      if (existing && dynamic_cast<Cog::Dir*>(existing.ptr()) != nullptr) {
        child = existing;
      } else {
        child = Cog::Ptr<Cog::Entity>(Cog::allocate<Cog::Dir>(dirName).ptr());
      }
    } else {
      type = Cog::typeByName(typeName);
      if (type == nullptr || !type->isEntity()) {
        throw Cog::NotSupportedException("directory entry of unknown type " + typeName);
      }
      if (existing && typeOfEntity(*existing) == type) {
        child = existing;  // its state follows in full
      } else {
        auto made = type->glue().newEntityForAttrLog(in, Cog::NboAttrLogSaFlag::readOnly, 0);
        child = Cog::Ptr<Cog::Entity>(static_cast<Cog::Entity*>(made.ptr()));
      }
    }
    if (dir->entity(name) != child) dir->entityIs(name, child);
  } else {
    const Cog::CogType* parentType = typeOfEntity(*parent.entity);
    const Cog::MemberInfo* m = parentType ? parentType->member(attr) : nullptr;
    if (m == nullptr || !isEntityMember(*m)) {
      throw Cog::StreamException("node " + std::to_string(id) + " names attribute id " + std::to_string(attr) +
                                 ", which " + (parentType ? parentType->name() : "its parent") +
                                 " has no entity member of");
    }
    auto self = Cog::genericIfOfEntity(parentType, parent.entity.ptr(), false);
    if (m->kind == Cog::MemberKind::owned) {
      child = Cog::Ptr<Cog::Entity>(entityOf(self->attribute(m->index)));
    } else {
      // One lookup by the key; a walk only for types without one.
      const Cog::CogType* keyType = m->memberKeyType();
      if (keyType != nullptr && keyType->glue().fromAttrLog != nullptr) {
        try {
          auto k = Cog::allocate<Cog::NboAttrLog::In>(key);
          Cog::Ptr<Cog::GenericIf> keyValue = keyType->glue().fromAttrLog(k.ptr());
          if (k->atEnd()) child = Cog::Ptr<Cog::Entity>(entityOf(self->element(m->name, keyValue)));
        } catch (const Cog::NotSupportedException&) {
        }
      }
      auto form = Cog::allocate<Cog::NboAttrLog::Out>();
      for (auto it = self->iterator(m->name); !child && it->iterNonnull(); it->iterInc()) {
        form->clear();
        it->iterKey()->attrLogOut(form);
        if (form->bytes() == key) {
          child = Cog::Ptr<Cog::Entity>(entityOf(it->iterObj()));
          break;
        }
      }
    }
    if (!child) {
      throw Cog::StreamException("node " + std::to_string(id) + ": no member under its key in " +
                                 parentType->name() + "::" + m->name);
    }
    type = typeOfEntity(*child);
  }
  forget(id);
  auto node = std::make_unique<Node>();
  node->id = id;
  node->parent = parentId;
  node->attr = attr;
  node->key = std::move(key);
  node->entity = child;
  if (dynamic_cast<Cog::Dir*>(child.ptr()) == nullptr) {
    node->sa = mirrorAdapter(child.ptr(), type);
    if (!node->sa) throw Cog::NotSupportedException("node " + std::to_string(id) + " has no attribute-log adapter");
  }
  parent.children.insert(id);
  nodes_.emplace(id, std::move(node));
}

}  // namespace Mount
