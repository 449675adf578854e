// The untyped core of the shared-memory tables: one mapped segment (see
// Layout.h) seen by a reader (View) or owned by the writer (Store). The typed
// tables of Table.h sit on top; they hand the core images and key hashes and
// answer its questions about images through the callbacks below.
//
// Everything a View reads from the segment is checked before use: offsets and
// lengths against the mapping, sequence and version words for concurrent
// change, and bounded retries, so that no content of the segment can make a
// reader crash or loop forever.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <type_traits>
#include <string>
#include <string_view>
#include <vector>

#include "Cog/Exception.h"
#include "Memtab/Layout.h"

namespace Memtab {

// A system call on a table's segment or links failed (shm_open, mmap,
// ftruncate, ...): the message says what for, error() is the errno.
class SystemException : public Cog::Exception {
 public:
  SystemException(const std::string& message, int error) : Cog::Exception(message), error_(error) {}
  int error() const { return error_; }
  void rethrowWithMessage(const std::string& message) const override {
    throw SystemException(message, error_);
  }

 private:
  int error_;
};

// Throws Cog::RangeException unless `name` is 1 to kMaxTableNameLength bytes
// of letters, digits, '.', '_' and '-', not starting with '.' and without "..".
inline constexpr std::size_t kMaxTableNameLength = 100;
void validateTableName(std::string_view name);
// The POSIX shared-memory name of a table: "/memtab.<name>".
std::string segmentName(std::string_view tableName);
// The name of the table's lobby, where readers knock (Notify.h):
// "/memtab-lobby.<name>".
std::string lobbyName(std::string_view tableName);
// Removes table `name` (and its lobby) from /dev/shm. Processes that have it mapped keep their
// mapping until they let go; readers see the table as unmounted. Returns
// false when there was no such table.
bool unlinkTable(std::string_view name);

}  // namespace Memtab

namespace Memtab::Shm {

// Answers from the typed layer about one image, copied into `image` (which
// the callee may grow, for instance to zero-pad it).
// On Verdict::invalid the callee says why in `why`.
enum class Verdict { match, noMatch, invalid };
using Matcher = Verdict (*)(void* context, std::vector<std::uint8_t>& image, std::uint32_t length,
                            std::string* why);

// What the writer needs to know about images when it re-attaches to a
// segment and checks every entry.
class Codec {
 public:
  virtual ~Codec() = default;
  // Whether `image` is a valid image; if so sets `hash` to its key's mixed
  // hash, else sets `why`.
  virtual bool check(std::vector<std::uint8_t>& image, std::uint32_t length, std::uint32_t* hash,
                     std::string* why) const = 0;
  virtual bool sameKey(std::vector<std::uint8_t>& a, std::uint32_t aLength,
                       std::vector<std::uint8_t>& b, std::uint32_t bLength) const = 0;
};

using CorruptionReport = std::function<void(const std::string&)>;

// How often a reader reads again when the writer moved things under it
// before it accepts blocks and records that stay odd (a writer stopped or
// dead in the middle of a change). Such a read still counts only when
// nothing it looked at changed while it read.
inline constexpr unsigned kMaxReadAttempts = 256;

class View {
 public:
  // Opens table `name` read-only. Returns null when there is no such table or
  // it is not ready yet; sets `why` and returns null when it exists but is
  // unusable (wrong type, bad header, owned by a user other than this
  // process's, root or `writerUid`).
  static std::unique_ptr<View> open(std::string_view name, std::uint32_t typeTag,
                                    uid_t writerUid, std::string* why);
  // Opens table `name` read-only whatever its value type, for tools. Null
  // when there is no such table (`why` empty) or it is unusable (`why` set).
  static std::unique_ptr<View> inspect(std::string_view name, std::string* why);
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  enum class Found { yes, no, corrupt };
  // Looks for an entry with key hash `hash`; `match(image, length, why)`
  // decides on each candidate and returns a Verdict. Inline: it is the path
  // of every lookup.
  template <class Match>
  Found find(std::uint32_t hash, Match&& match, std::string* why);

  enum class Step { group, end, corrupt };
  // The next group of iteration: the entries with the smallest hash above
  // `after` (any hash when !started). On Step::group sets `groupHash` and
  // leaves the group's images in groupImages() / groupImage(i).
  Step nextGroup(bool started, std::uint32_t after, std::uint32_t* groupHash, std::string* why);
  struct Image {
    std::uint64_t offset;
    std::uint32_t length;
    std::uint64_t version;  // of the record: differs for every write of a key
  };
  const std::vector<Image>& groupImages() const { return group_; }
  // The bytes of group image i; the caller may grow the vector.
  std::vector<std::uint8_t>& groupImage(std::size_t i);

  // Change ring. readRing() calls `visit` for each entry published after
  // `position` and advances it; returns false (and moves `position` to the
  // head) when the writer has overwritten entries the reader had not read,
  // or when the ring is corrupt (then `why` is set). For a key's entry,
  // `version` is the version of the record written or, when `erased`, of
  // the record removed.
  using RingVisitor = bool (*)(void* context, RingKind kind, std::vector<std::uint8_t>& image,
                               std::uint32_t length, std::uint64_t version, bool erased,
                               std::string* why);
  bool readRing(std::uint64_t& position, RingVisitor visit, void* context, std::string* why);
  std::uint64_t ringHead() const;
  bool hasRing() const { return ringBytes_ != 0; }

  std::uint64_t count() const;
  std::uint32_t writerEpoch() const;
  std::uint32_t writerPid() const;
  std::uint32_t typeTag() const { return header()->typeTag; }
  // Readers linked to the writer, as it last counted them.
  std::uint32_t readers() const;
  // The value type's name as the writer recorded it.
  std::string typeName() const;
  // True while some process holds the table's writer lock.
  bool writerAlive() const;
  // The segment's file has been unlinked from /dev/shm.
  bool unlinked() const;
  ino_t inode() const { return inode_; }
  std::uint64_t mappedBytes() const { return mapped_; }
  const std::uint8_t* base() const { return base_; }

  // Test and tool aid: how many times lookups had to read again.
  std::uint64_t retries() const { return retries_; }
  // The version of the record the last successful find() matched.
  std::uint64_t foundVersion() const { return copiedVersion_; }

 protected:
  View() = default;
  Header* header() const { return reinterpret_cast<Header*>(base_); }
  // Maps more of the file when the writer has grown it.
  void refresh() {
    std::uint64_t fb = header()->fileBytes.load(std::memory_order_acquire);
    if (fb > mapped_ && fd_ >= 0) remap(fb);
  }
  bool validIndex(const IndexWord& ix) const {
    return ix.homeBlocks >= 1 && ix.homeBlocks <= kMaxHomeBlocks && ix.offset >= heapStart_ &&
           ix.offset <= mapped_ && ix.bytes() <= mapped_ - ix.offset;
  }
  // The published bucket array's word in `iw`; false, with `why` set, when
  // the array lies outside the segment even after mapping what the writer
  // has grown.
  bool publishedIndex(std::uint64_t* iw, std::string* why) {
    *iw = header()->index.load(std::memory_order_acquire);
    if (validIndex(IndexWord::decode(*iw))) return true;
    refresh();
    if (validIndex(IndexWord::decode(*iw))) return true;
    *why = "bucket array lies outside the segment";
    return false;
  }
  void remap(std::uint64_t bytes);
  // Checks the header; the value type too unless `typeTag` is null.
  bool checkHeader(const std::uint32_t* typeTag, std::uint64_t fileBytes, std::string* why);
  static std::unique_ptr<View> openAs(std::string_view name, const std::uint32_t* typeTag,
                                      uid_t writerUid, std::string* why);

  enum class Copy { ok, unstable, bad };
  // With `acceptOdd` a record whose version is odd is taken as it is, as
  // long as it and the bucket pointing at it stay put while it is copied.
  // On Copy::ok, copiedVersion_ is the record's version.
  Copy copyRecord(std::uint64_t bucketAt, std::uint64_t word, std::vector<std::uint8_t>& into,
                  std::uint32_t* length, bool acceptOdd);
  // copyRecord() for the entry in bucket `pos` of array `iw`, holding `w`:
  // a bad record counts only while the array is still the published one,
  // and then `why` says what is wrong.
  Copy copyEntry(std::uint64_t iw, std::uint32_t pos, std::uint64_t w, std::vector<std::uint8_t>& into,
                 std::uint32_t* length, bool acceptOdd, std::string* why);
  bool backOff(unsigned attempt, bool* acceptOdd);
  // Runs `pass(acceptOdd)`, a read of the segment, until it reads a state
  // that existed at one moment: it returns its answer then, or nothing when
  // something moved under it and it must read again. After a while, or
  // once the writer is known dead, odd blocks and records no longer mean
  // "read again" (acceptOdd): better an answer from a writer stuck
  // mid-move than none; the pass still checks that nothing it looked at
  // changed, for a writer that was only slow, or a new one, may go on.
  template <class Pass>
  auto readConsistently(Pass&& pass) -> typename std::invoke_result_t<Pass, bool>::value_type;
  // The writer has published another bucket array since `indexWord`.
  bool replaced(std::uint64_t indexWord) const;
  // Whether a pass over bucket array `iw` read a state that existed at one
  // moment: the index, the sequence words of the blocks it used and, when
  // `words` is given, the `n` bucket words from position `from` are as it
  // read them. A block whose sequence word stayed odd may have had buckets
  // stored under the reader meanwhile (the writer stores several buckets
  // under one odd value), hence the bucket words.
  bool unchanged(std::uint64_t iw, const std::uint32_t* blocks, const std::uint64_t* seqs,
                 unsigned nb, std::uint32_t from, const std::uint64_t* words, std::size_t n) const;

  int fd_ = -1;
  ino_t inode_ = 0;
  std::uint8_t* base_ = nullptr;
  std::uint64_t mapped_ = 0;
  std::uint64_t ringOffset_ = 0;
  std::uint64_t ringBytes_ = 0;
  std::uint64_t heapStart_ = 0;
  std::vector<std::uint8_t> scratch_;
  std::vector<Image> group_;
  std::vector<std::vector<std::uint8_t>> groupScratch_;
  std::vector<std::uint64_t> trustedWords_;  // bucket words of a pass that accepts odd ones
  std::uint64_t retries_ = 0;
  std::uint64_t copiedVersion_ = 0;
};

struct StoreConfig {
  std::string name;  // empty for a process-private table
  std::uint32_t typeTag = 0;
  std::string typeName;  // recorded in the segment for tools
  std::uint64_t ringBytes = 1u << 20;
  std::uint64_t initialCapacity = 0;  // entries
  mode_t mode = 0600;
  gid_t group = static_cast<gid_t>(-1);
};

// The writer's steps, and what a crash right after each leaves for the next
// writer (repair()) and for readers meanwhile:
//
//  upsert, replacing an entry:
//   1. allocate a record out of place       nothing: free space is rebuilt
//                                           from the entries at attach
//   2. record version made odd, in header   the version is skipped
//   3. image copied, version made even      an unreferenced record: freed
//   4. bucket stored (one atomic store)     the new value is the table's;
//                                           readers were never told: the
//                                           restart's table entry makes them
//                                           compare (5)
//   5. change appended to the ring          done
//  upsert, inserting: as above, but step 4 moves the buckets up to the next
//   empty one under odd block sequence words. A crash mid-move leaves a
//   block odd (readers take it as it is once the writer is dead) and
//   possibly one entry in two buckets: repair keeps it once.
//  erase: buckets moved down under odd sequence words, the last one
//   cleared, then the ring entry: the same as an insert's move.
//  clear, or a bucket array rebuilt for growth: a new array is filled aside
//   and published by one store of the header's index word; a crash before
//   it leaves the old array, after it the new one. Either is whole.
//  ring append: ringReserve raised, entry written, ringHead raised. A crash
//   before ringHead leaves the entry unpublished; readers learn of the change
//   by comparing the table when the restarted writer publishes its table
//   entry.
//  file growth: ftruncate, then the header's fileBytes; readers map only
//   what fileBytes says is there.
// At attach a writer re-reads every entry (repair()), rebuilds the bucket
// array and its free space from what is valid, carries the record versions
// on from the highest seen, and publishes a table entry to the ring.
class Store : public View {
 public:
  // Creates table `config.name`, or re-attaches to it after a previous
  // writer, checking and repairing it. Throws Cog::NameInUseException when
  // another live process is its writer, Cog::RangeException when it cannot be
  // created. Entries that fail the check are dropped and reported.
  static std::unique_ptr<Store> open(const StoreConfig& config, const Codec& codec,
                                     const CorruptionReport& report);
  // A table in process-private memory with the same behaviour.
  static std::unique_ptr<Store> local(const StoreConfig& config);
  ~Store() override;

  enum class Upsert { inserted, replaced, unchanged };
  // Stores `image` under the key that `match` recognises. With `force` an
  // identical image is written again (a direct commit).
  Upsert upsert(std::uint32_t hash, const std::uint8_t* image, std::uint32_t length, bool force,
                Matcher match, void* context);
  // Removes the entry `match` recognises; leaves its image in `old`.
  bool erase(std::uint32_t hash, Matcher match, void* context, std::vector<std::uint8_t>* old,
             std::uint32_t* oldLength);
  void clear();
  // Makes room for `entries` without further growth of the bucket array.
  void reserve(std::uint64_t entries);
  // Appends a change to the ring (no-op without ring). `version` is that of
  // the record written or, with `erased`, removed (changedVersion()).
  void publish(RingKind kind, const std::uint8_t* image, std::uint32_t length,
               std::uint64_t version = 0, bool erased = false);
  // The version of the record the last upsert() wrote or erase() removed.
  std::uint64_t changedVersion() const { return changedVersion_; }
  // Records how many readers are linked, for tools.
  void readersAre(std::uint32_t n);

  // Tells readers waiting on /dev/shm that the writer is ready.
  void touch();

  // Bytes of the segment in use: header, ring, bucket array, live records.
  std::uint64_t usedBytes() const;
  std::uint64_t resizes() const { return resizes_; }
  const std::string& name() const { return name_; }

 private:
  Store() = default;
  void initialise(const StoreConfig& config);
  void recordTypeName(const std::string& typeName);
  void repair(const Codec& codec, const CorruptionReport& report);
  struct RepairEntry {
    std::uint32_t hash;
    std::uint64_t record;
    std::uint32_t length;
    bool keep;
  };
  std::vector<RepairEntry> readEntries(const IndexWord& old, const Codec& codec,
                                       const CorruptionReport& report, std::uint64_t* maxVersion);
  void dropSecondEntries(std::vector<RepairEntry>& entries, const Codec& codec,
                         const CorruptionReport& report);
  void dropOverlaps(std::vector<RepairEntry>& entries, const IndexWord& old,
                    const CorruptionReport& report);
  void rebuildHeap(const std::vector<RepairEntry>& kept, const IndexWord& old,
                   std::uint64_t maxVersion);
  void publishFreshIndex(const std::vector<RepairEntry>& kept, const IndexWord& old);
  void takeOver();
  void growFile(std::uint64_t atLeast);
  std::uint64_t allocate(std::uint64_t bytes, std::uint64_t align = 8);
  void release(std::uint64_t offset, std::uint64_t bytes);
  void rebuildFreeSpace(std::vector<std::pair<std::uint64_t, std::uint64_t>> live);
  std::uint64_t writeRecord(const std::uint8_t* image, std::uint32_t length);
  std::atomic<std::uint64_t>& bucket(const IndexWord& ix, std::uint32_t pos) const;
  std::atomic<std::uint64_t>& blockSeq(const IndexWord& ix, std::uint32_t block) const;
  // Bracket a move of buckets `first` to `last`: their blocks' sequence
  // words are odd in between.
  void beginMove(const IndexWord& ix, std::uint32_t first, std::uint32_t last);
  void endMove(const IndexWord& ix, std::uint32_t first, std::uint32_t last);
  // Finds the entry `match` recognises: true with its bucket in `pos`, its
  // image in scratch_ and the image's length in `length`; else false with
  // `pos` where a new entry for `hash` goes.
  bool locate(const IndexWord& ix, std::uint32_t hash, Matcher match, void* context,
              std::uint32_t* pos, std::uint32_t* length);
  // Rebuilds the bucket array with `homeBlocks` home blocks and publishes it.
  bool rebuildIndex(std::uint32_t homeBlocks);
  // Grows the bucket array for `entries` entries, doubling until they fit.
  void growIndex(std::uint64_t entries);
  std::uint32_t blocksFor(std::uint64_t entries) const;

  std::string name_;
  bool shared_ = false;
  std::uint64_t liveRecordBytes_ = 0;
  std::uint64_t resizes_ = 0;
  std::uint64_t changedVersion_ = 0;
  std::uint64_t reservedEnd_ = 0;  // memory committed to the file up to here
  // Free space, kept by the writer only and rebuilt on attach: small runs by
  // size (in 8-byte units), larger ones by size, and one run being carved.
  std::vector<std::vector<std::uint64_t>> smallFree_;
  std::multimap<std::uint64_t, std::uint64_t> largeFree_;
  std::uint64_t carveAt_ = 0;
  std::uint64_t carveEnd_ = 0;
};

// ---------------------------------------------------------------- inline

inline std::atomic<std::uint64_t>& wordAt(std::uint8_t* base, std::uint64_t offset) {
  return *reinterpret_cast<std::atomic<std::uint64_t>*>(base + offset);
}

inline View::Copy View::copyRecord(std::uint64_t bucketAt, std::uint64_t w, std::vector<std::uint8_t>& into,
                            std::uint32_t* length, bool acceptOdd) {
  std::uint64_t off = bucketRecord(w);
  auto stillThere = [&] { return wordAt(base_, bucketAt).load(std::memory_order_acquire) == w; };
  if (off < heapStart_ || off > mapped_ - kRecordHeader) return stillThere() ? Copy::bad : Copy::unstable;
  // The image usually runs into the next cache line: fetch it alongside the
  // record word rather than after it.
  if (off + 2 * kBlockBytes <= mapped_) __builtin_prefetch(base_ + off + kBlockBytes);
  auto& rw = wordAt(base_, off);
  std::uint64_t w0 = rw.load(std::memory_order_acquire);
  if ((recordVersion(w0) & 1) != 0 && !acceptOdd) return Copy::unstable;
  std::uint32_t len = recordLength(w0);
  if (len > mapped_ - off - kRecordHeader) return stillThere() ? Copy::bad : Copy::unstable;
  into.resize(len);
  if (len != 0) std::memcpy(into.data(), base_ + off + kRecordHeader, len);
  std::atomic_thread_fence(std::memory_order_acquire);
  if (rw.load(std::memory_order_relaxed) != w0) return Copy::unstable;
  if (!stillThere()) return Copy::unstable;
  *length = len;
  copiedVersion_ = recordVersion(w0);
  return Copy::ok;
}

inline bool View::replaced(std::uint64_t indexWord) const {
  std::atomic_thread_fence(std::memory_order_acquire);
  return header()->index.load(std::memory_order_relaxed) != indexWord;
}

inline View::Copy View::copyEntry(std::uint64_t iw, std::uint32_t pos, std::uint64_t w,
                                  std::vector<std::uint8_t>& into, std::uint32_t* length,
                                  bool acceptOdd, std::string* why) {
  const std::uint64_t at = IndexWord::decode(iw).offset + bucketOffset(pos);
  Copy c = copyRecord(at, w, into, length, acceptOdd);
  if (c == Copy::bad) {
    if (replaced(iw)) return Copy::unstable;
    *why = "bucket " + std::to_string(pos) + " refers to a record outside the segment";
  }
  return c;
}

inline bool View::unchanged(std::uint64_t iw, const std::uint32_t* blocks, const std::uint64_t* seqs,
                            unsigned nb, std::uint32_t from, const std::uint64_t* words,
                            std::size_t n) const {
  std::atomic_thread_fence(std::memory_order_acquire);
  const IndexWord ix = IndexWord::decode(iw);
  for (unsigned i = 0; i < nb; ++i) {
    if (wordAt(base_, ix.offset + blockOffset(blocks[i])).load(std::memory_order_relaxed) != seqs[i]) {
      return false;
    }
  }
  for (std::size_t i = 0; words != nullptr && i < n; ++i) {
    const auto pos = static_cast<std::uint32_t>(from + i);
    if (wordAt(base_, ix.offset + bucketOffset(pos)).load(std::memory_order_relaxed) != words[i]) {
      return false;
    }
  }
  return header()->index.load(std::memory_order_relaxed) == iw;
}

template <class Pass>
auto View::readConsistently(Pass&& pass) -> typename std::invoke_result_t<Pass, bool>::value_type {
  refresh();
  bool deadWriter = false;
  for (unsigned attempt = 0;; ++attempt) {
    if (auto answer = pass(deadWriter || attempt >= kMaxReadAttempts)) return *answer;
    backOff(attempt, &deadWriter);
    refresh();
  }
}

template <class Match>
View::Found View::find(std::uint32_t hash, Match&& match, std::string* why) {
  return readConsistently([&](const bool acceptOdd) -> std::optional<Found> {
    std::uint64_t iw;
    if (!publishedIndex(&iw, why)) return Found::corrupt;
    const IndexWord ix = IndexWord::decode(iw);
    const std::uint32_t home = homeOf(hash, ix.homeBuckets());
    const std::uint32_t limit = std::min(ix.totalBuckets(), home + kMaxDisplacement + 1);
    constexpr unsigned kMaxBlocks = kMaxDisplacement / kBucketsPerBlock + 3;
    std::uint32_t blocks[kMaxBlocks];
    std::uint64_t seqs[kMaxBlocks];
    std::uint64_t words[kMaxDisplacement + 1];
    unsigned nb = 0;
    std::size_t nw = 0;
    bool retry = false;
    for (std::uint32_t pos = home; pos < limit; ++pos) {
      std::uint32_t blk = pos / kBucketsPerBlock;
      if (nb == 0 || blocks[nb - 1] != blk) {
        std::uint64_t s = wordAt(base_, ix.offset + blockOffset(blk)).load(std::memory_order_acquire);
        if ((s & 1) != 0 && !acceptOdd) {
          retry = true;
          break;
        }
        blocks[nb] = blk;
        seqs[nb] = s;
        ++nb;
      }
      std::uint64_t at = ix.offset + bucketOffset(pos);
      std::uint64_t w = wordAt(base_, at).load(std::memory_order_acquire);
      if (acceptOdd) words[nw++] = w;
      if (w == 0) break;
      std::uint32_t h = bucketHash(w);
      if (h < hash) continue;
      if (h > hash) break;
      std::uint32_t len = 0;
      Copy c = copyEntry(iw, pos, w, scratch_, &len, acceptOdd, why);
      if (c == Copy::unstable) {
        retry = true;
        break;
      }
      if (c == Copy::bad) return Found::corrupt;
      Verdict v = match(scratch_, len, why);
      // The record was in place while it was copied; that counts unless it
      // was read through an array the writer has replaced (and perhaps
      // reused).
      if (v != Verdict::noMatch && replaced(iw)) {
        retry = true;
        break;
      }
      if (v == Verdict::match) return Found::yes;
      if (v == Verdict::invalid) {
        why->insert(0, "record at offset " + std::to_string(bucketRecord(w)) + ": ");
        return Found::corrupt;
      }
    }
    if (!retry && unchanged(iw, blocks, seqs, nb, home, acceptOdd ? words : nullptr, nw)) {
      return Found::no;
    }
    return std::nullopt;
  });
}

}  // namespace Memtab::Shm
