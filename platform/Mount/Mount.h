// Mounts: an entity tree published by one process and mirrored, read-only,
// by any number of others over a Unix-domain stream socket.
//
//   // publishing agent
//   Mount::Publisher pub("/run/routing/status.sock", counts);   // counts: Ptr<T>
//   loop.sourceIs(pub);
//
//   // subscribing agent
//   Mount::Subscriber sub("/run/routing/status.sock",
//                         "Memtab::KernelUnprogrammedRoute::UnprogrammedRouteCountByVrf");
//   loop.sourceIs(sub);
//   ... sub.rootAs<UnprogrammedRouteCountByVrf>() ...
//
// The tree: the root entity, the entities it owns and the members of its
// instantiating collections (collections whose values are entities),
// recursively; for a Cog::Dir, its entries. Each entity of the tree is a
// node with an id; what travels is the attribute log of each node (the
// entities' generated CogNboAttrLogSa adapters write it) in frames:
//
//   frame   = u32 length (of what follows), u8 kind, payload
//   hello   (1) u32 magic "RLMT", u32 version, string root type; from the
//               publisher also the root's instantiation header
//   refuse  (2) string reason; the connection then ends
//   begin   (3) a full resynchronisation starts
//   end     (4) it ended: the mirror equals the tree
//   node    (5) u32 id, u32 parent id, u32 attribute id (0: a directory
//               entry), u32 key length, key (its attribute-log form; a
//               directory entry's name), then for a directory entry the
//               entity's instantiation header. The entity itself was made
//               by the parent's own records (collections) or is the
//               parent's (owned); a directory entry is made from the header.
//   records (6) u32 node id, then attribute-log records for that node
//   gone    (7) u32 node id: the node and everything under it left the tree
//
// The subscriber speaks first (hello naming the root type it expects); the
// publisher answers hello, or refuse when the version or the root type
// differ, then sends a full resynchronisation (begin, every node with the
// whole of its state, end) and from then on each change as it is made: a
// changed attribute or key of a node as that node's records, a node that
// joins as node and its whole state, one that leaves as gone. After a
// disconnect the subscriber connects again every Options::retry and is
// resynchronised.
//
// The publisher never blocks. Changes are queued per subscriber and written
// when the socket takes them; a subscriber whose queue would grow past
// Options::outputBound bytes gets no more changes: its queue is cut after
// the frame being written, and once the socket has taken that, it is
// resynchronised instead.
//
// A member that joins an instantiating collection is found by its key (one
// reflected lookup) as the collection's change is published, and its node
// follows at once with its whole state; an owned child that is replaced, or
// a change the adapter's record does not name, makes service() compare that
// member with the tree. Entities are known by their registered type, found
// from their C++ class: a class derived by hand from a generated one is not
// served (a directory entry made by entityNew is, by its type name).
//
// The publisher owns fd() (an epoll set: its listening socket, its
// subscribers and a doorbell rung by changes); an agent polls it and calls
// service(), which accepts subscribers, reads their hellos, sends joining
// nodes and writes queued output. Changes are only written by service(), so
// that a burst of changes travels in few writes.
//
// Security: the socket file is created with mode 0600, or 0660 and the
// named group (Options::group). A connecting peer is admitted when its user
// (SO_PEERCRED) is ours or root, or its primary group is that group; a
// subscriber accepts a publisher running as our user or root only.
//
// Bad input (garbage, a truncated or oversized frame, an unknown frame kind,
// node or attribute id) ends that connection with a logged reason
// (Options::log); the publisher and its other subscribers carry on, and a
// subscriber connects again and resynchronises.
//
// The mirror is a read-only proxy: the subscriber's adapters are read-only,
// so a local change to a mirrored entity throws Cog::ReadOnlyException.
//
// Threads: a publisher or subscriber and its tree belong to one reactor
// thread (the loop that services it).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Cog/Dir.h"
#include "Cog/Entity.h"
#include "Cog/NboAttrLogSa.h"
#include "Cog/Ptr.h"
#include "Cog/Type.h"

namespace Mount {

constexpr std::uint32_t kMagic = 0x524c4d54;  // "RLMT"
constexpr std::uint32_t kVersion = 1;

enum class FrameKind : std::uint8_t { hello = 1, refuse = 2, begin = 3, end = 4, node = 5, records = 6, gone = 7 };

struct Options {
  // Bytes of changes queued for one subscriber before it is resynchronised
  // instead.
  std::size_t outputBound = std::size_t(4) << 20;
  // Longest frame a peer may send.
  std::size_t maxFrame = std::size_t(64) << 20;
  // Publisher: the kernel's send buffer per subscriber in bytes (SO_SNDBUF);
  // 0 keeps the system's default.
  std::size_t socketBuffer = 0;
  // Group of the socket file and of admitted peers; empty: owner only.
  std::string group;
  // Subscribers: time between connection attempts.
  std::chrono::milliseconds retry{100};
  // Where reasons for dropped connections go; stderr when empty.
  std::function<void(const std::string&)> log;
};

// The registered type of an entity (its most derived generated type), or
// null: Cog::Dir and types that are not registered.
const Cog::CogType* typeOfEntity(const Cog::Entity& entity);

class Publisher {
 public:
  // Serves `root` and its tree at `path`. Throws Cog::NameInUseException when
  // another publisher is serving there, Cog::RangeException when the socket
  // cannot be made.
  Publisher(std::string path, const Cog::Ptr<Cog::Entity>& root, Options options = {});
  template <typename T>
  Publisher(std::string path, const Cog::Ptr<T>& root, Options options = {})
      : Publisher(std::move(path), Cog::Ptr<Cog::Entity>(root.ptr()), std::move(options)) {}
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  int fd() const { return epoll_; }
  // Accepts, reads, sends what changed; never blocks.
  void service();

  const std::string& path() const { return path_; }
  const Cog::Ptr<Cog::Entity>& root() const { return root_; }
  // Subscribers that are connected and past their hello.
  std::size_t subscribers() const;
  // Nodes in the tree.
  std::size_t nodes() const { return nodes_.size(); }
  // Full resynchronisations sent, and those that replaced an overflowing queue.
  std::uint64_t resyncs() const { return resyncs_; }
  std::uint64_t overflows() const { return overflows_; }
  // Connections dropped for bad input or refused.
  std::uint64_t dropped() const { return dropped_; }

  struct Node;
  struct Peer;

 private:
  friend struct Node;
  Node& nodeNew(Node* parent, Cog::AttributeId attr, std::vector<std::uint8_t> key,
                const Cog::Ptr<Cog::Entity>& entity, const Cog::CogType* type);
  void nodeDel(std::uint32_t id, bool announce);
  void childrenScan(Node& node);
  void scanMember(Node& node, const Cog::MemberInfo& member, bool announce);
  void dirEntry(Node& node, const Cog::Name& name, bool announce);
  void changed(Node& node, Cog::AttributeId id);
  bool memberChanged(Node& node, const Cog::MemberInfo& member, const std::vector<std::uint8_t>& record);
  void flushRecords(Node& node);
  void ring();
  void reconcile();
  void broadcast(const std::vector<std::uint8_t>& frame);
  void writeNodeFrames(Node& node, std::vector<std::uint8_t>& to, bool recurse);
  void accept();
  void readPeer(Peer& peer);
  void writePeer(Peer& peer);
  void resyncPeer(Peer& peer);
  void dropPeer(int fd, const std::string& reason);
  void log(const std::string& text) const;

  std::string path_;
  Cog::Ptr<Cog::Entity> root_;
  Options options_;
  int listen_ = -1;
  int epoll_ = -1;
  int bell_ = -1;
  bool rung_ = false;
  gid_t group_ = static_cast<gid_t>(-1);
  std::uint32_t nextId_ = 1;
  std::unordered_map<std::uint32_t, std::unique_ptr<Node>> nodes_;
  // (node id, attribute id) whose members are to be compared with the tree.
  std::map<std::pair<std::uint32_t, Cog::AttributeId>, bool> pending_;
  std::map<int, std::unique_ptr<Peer>> peers_;
  std::uint64_t resyncs_ = 0;
  std::uint64_t overflows_ = 0;
  std::uint64_t dropped_ = 0;
};

class Subscriber {
 public:
  enum class Status : std::uint8_t { disconnected, connecting, resyncing, synced };

  // Mirrors the tree served at `path`, whose root is a `rootType` ("Cog::Dir"
  // for a directory). The root is made from the publisher's hello on the
  // first connection and kept across reconnections.
  Subscriber(std::string path, std::string rootType, Options options = {});
  // Mirrors into `root`, which the caller made (of the publisher's root type).
  Subscriber(std::string path, const Cog::Ptr<Cog::Entity>& root, Options options = {});
  ~Subscriber();
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;

  int fd() const { return epoll_; }
  // Connects when due, reads and applies what arrived; never blocks.
  void service();

  Status status() const { return status_; }
  // Null until the first hello (when made by type name).
  Cog::Ptr<const Cog::Entity> root() const { return root_; }
  template <typename T>
  Cog::Ptr<const T> rootAs() const {
    return Cog::Ptr<const T>(dynamic_cast<const T*>(root_.ptr()));
  }
  // Called after service() applied something (status changes included).
  void onUpdateIs(std::function<void()> f) { onUpdate_ = std::move(f); }
  std::uint64_t connects() const { return connects_; }
  std::uint64_t resyncs() const { return resyncs_; }
  // Why the last connection ended, or was refused.
  const std::string& lastError() const { return lastError_; }
  const std::string& path() const { return path_; }

  struct Node;

 private:
  void connect();
  void disconnect(const std::string& reason);
  void readSocket();
  void frame(std::uint8_t kind, const std::uint8_t* data, std::size_t size);
  void bindNode(const Cog::Ptr<Cog::NboAttrLog::In>& in, std::uint32_t id, std::uint32_t parent,
                Cog::AttributeId attr, std::vector<std::uint8_t> key);
  void forget(std::uint32_t id);
  void retryArm();
  void log(const std::string& text) const;

  std::string path_;
  std::string rootType_;
  Options options_;
  Cog::Ptr<Cog::Entity> root_;
  int epoll_ = -1;
  int timer_ = -1;
  int socket_ = -1;
  Status status_ = Status::disconnected;
  bool helloSeen_ = false;
  bool applied_ = false;
  std::vector<std::uint8_t> in_;
  std::size_t inPos_ = 0;
  std::unordered_map<std::uint32_t, std::unique_ptr<Node>> nodes_;
  std::function<void()> onUpdate_;
  std::uint64_t connects_ = 0;
  std::uint64_t resyncs_ = 0;
  std::string lastError_;
};

const char* toString(Subscriber::Status status);

}  // namespace Mount
