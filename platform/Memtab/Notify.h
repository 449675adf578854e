// How a table's writer wakes its readers, and how a reader follows the
// table's mount status.
//
// Rendezvous: the writer listens on the abstract Unix socket
// "\0memtab.<name>" (abstract, so a crash leaves nothing to clean up). A
// reader connects and passes two descriptors: an eventfd, the doorbell the
// writer rings, and a small sealed memfd, its mailbox, where the reader sets
// an "armed" flag when it has caught up. The writer rings only armed readers
// and disarms them, so an idle reader costs one eventfd write per burst of
// changes and a busy one costs nothing; the writer never blocks on a reader.
// A reader that goes away just closes its end; the writer drops it the next
// time it services its connections.
//
// Lobby: the writer must take in a new reader's hello without anyone polling
// its listening socket, for an agent may publish from a loop that polls
// nothing. So the writer also keeps a small segment "/memtab-lobby.<name>"
// holding a join counter; a reader bumps it once its hello is sent, and the
// writer, at every change, compares it with the count it has served (one
// load) and services its connections when it moved. The lobby is writable
// by the readers the table admits (owner, and the table's group when it
// has one); a reader that cannot open it is served at the writer's next
// periodic service instead.
//
// Mount status comes from three sources: the connection (end of stream:
// the writer went away), and one inotify watch on /dev/shm shared by every
// reader of the process (a table created, removed, or touched by a writer
// that has just started).
//
// What the agent's event loop polls is one epoll descriptor per reader (and
// one per writer, for the writer's connection handling).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Memtab/Segment.h"

namespace Memtab {

enum class MountStatus : std::uint8_t {
  unmounted,   // no such table (not created yet, or removed)
  mounted,     // mapped, and its writer is running
  writerGone,  // mapped, but no writer: the contents stand still
};
const char* toString(MountStatus status);

}  // namespace Memtab

namespace Memtab::Shm {

// The writer's end: the listening socket and one link per reader.
class ReaderLinks {
 public:
  // Throws Cog::NameInUseException when another process holds the socket.
  // Readers whose uid is neither ours nor root are refused, unless their
  // primary group is `group`.
  ReaderLinks(const std::string& tableName, gid_t group, mode_t mode);
  ~ReaderLinks();
  ReaderLinks(const ReaderLinks&) = delete;
  ReaderLinks& operator=(const ReaderLinks&) = delete;

  // Readable when a reader connects, introduces itself or goes away.
  int fd() const { return epoll_; }
  // Accepts readers and drops those that went away; never blocks.
  void service();
  // A reader has joined since the last service().
  bool joined() const {
    return lobby_ != nullptr && lobby_->load(std::memory_order_relaxed) != servedJoins_;
  }
  // Rings every armed reader.
  void ring() {
    if (links_.empty()) return;
    // Pairs with the reader's arm-then-check: either it sees our change or
    // we see it armed.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    for (auto& l : links_) {
      if (l.armed != nullptr && l.armed->load(std::memory_order_relaxed) != 0 &&
          l.armed->exchange(0, std::memory_order_acq_rel) != 0) {
        doorbell(l);
      }
    }
  }
  std::size_t readers() const;

 private:
  struct Link {
    int socket = -1;
    int eventFd = -1;
    void* mailbox = nullptr;
    std::atomic<std::uint32_t>* armed = nullptr;
  };
  void openLobby(const std::string& tableName, mode_t mode);
  void accept();
  bool hello(Link& link);
  void drop(std::size_t i);
  static void doorbell(const Link& link);

  int listen_ = -1;
  int epoll_ = -1;
  void* lobbyMap_ = nullptr;
  std::atomic<std::uint32_t>* lobby_ = nullptr;
  std::uint32_t servedJoins_ = 0;
  gid_t group_;
  std::vector<Link> links_;
};

// The reader's end: the table's segment when there is one, and the link to
// its writer.
class Mount {
 public:
  Mount(std::string tableName, std::uint32_t typeTag, uid_t writerUid, CorruptionReport report);
  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  int fd() const;
  MountStatus status() const { return status_; }
  View* view() const { return view_.get(); }

  struct Update {
    bool statusChanged = false;
    bool contentsNew = false;  // a different segment, or the first one
  };
  // Takes in what happened since the last call: doorbell, end of the
  // connection, changes in /dev/shm. `check` forces a full re-evaluation.
  Update update(bool check);
  // Where this reader is in the change ring.
  std::uint64_t& ringPosition() { return ringPosition_; }
  // Asks to be woken by the next change; if one slipped in meanwhile, makes
  // fd() readable at once.
  void arm();
  // Makes fd() readable.
  void wake();

  struct Link;

 private:
  std::string name_;
  std::uint32_t typeTag_;
  uid_t writerUid_;
  CorruptionReport report_;
  std::unique_ptr<View> view_;
  std::unique_ptr<Link> link_;
  MountStatus status_ = MountStatus::unmounted;
  std::uint64_t ringPosition_ = 0;
};

}  // namespace Memtab::Shm
