#include "Memtab/Segment.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Cog/Assert.h"
#include "Cog/Exception.h"

namespace Memtab {

void validateTableName(std::string_view name) {
  if (name.empty() || name.size() > kMaxTableNameLength) {
    throw Cog::RangeException("memtab table name must have 1 to " +
                              std::to_string(kMaxTableNameLength) + " bytes");
  }
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-';
    if (!ok) {
      throw Cog::RangeException(
          "memtab table name may only contain letters, digits, '.', '_' and '-'");
    }
  }
  if (name.front() == '.' || name.find("..") != std::string_view::npos) {
    throw Cog::RangeException("memtab table name may not start with '.' or contain '..'");
  }
}

std::string segmentName(std::string_view tableName) {
  validateTableName(tableName);
  return "/memtab." + std::string(tableName);
}

std::string lobbyName(std::string_view tableName) {
  validateTableName(tableName);
  return "/memtab-lobby." + std::string(tableName);
}

bool unlinkTable(std::string_view name) {
  shm_unlink(lobbyName(name).c_str());
  return shm_unlink(segmentName(name).c_str()) == 0;
}

}  // namespace Memtab

namespace Memtab::Shm {

namespace {

constexpr unsigned kLivenessAttempt = 8;
constexpr std::size_t kSmallFreeUnits = 512;  // runs below 4 KiB kept by exact size
constexpr std::uint64_t kCommitChunk = 4u << 20;
constexpr std::uint64_t kVersionMask = (std::uint64_t{1} << 40) - 1;
constexpr std::uint32_t kMinHomeBlocks = 16;

std::atomic<std::uint64_t>& word(std::uint8_t* base, std::uint64_t offset) {
  return *reinterpret_cast<std::atomic<std::uint64_t>*>(base + offset);
}

std::uint64_t alignUp(std::uint64_t v, std::uint64_t a) { return (v + a - 1) & ~(a - 1); }

std::string errnoText() { return std::strerror(errno); }

// Raises the failure of a system call on table `name`: "memtab table
// <name>: <what>: <strerror>", carrying errno.
[[noreturn]] void systemFailure(const std::string& name, const std::string& what, int error = errno) {
  throw SystemException("memtab table " + name + ": " + what + ": " + std::strerror(error), error);
}

// Whether this process can map and size a segment of `bytes` (a 32-bit
// process cannot map a table a 64-bit writer has grown past 2 GiB).
bool mappable(std::uint64_t bytes) {
  if constexpr (sizeof(std::size_t) < 8 || sizeof(off_t) < 8) {
    return bytes <= 0x7fffffffu;
  } else {
    return true;
  }
}

void cpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
  __builtin_ia32_pause();
#endif
}

}  // namespace

// ---------------------------------------------------------------- View

View::~View() {
  if (base_ != nullptr) munmap(base_, mapped_);
  if (fd_ >= 0) close(fd_);
}

std::unique_ptr<View> View::open(std::string_view name, std::uint32_t typeTag, uid_t writerUid,
                                 std::string* why) {
  return openAs(name, &typeTag, writerUid, why);
}

std::unique_ptr<View> View::inspect(std::string_view name, std::string* why) {
  auto v = openAs(name, nullptr, static_cast<uid_t>(-1), why);
  if (!v && why->empty()) {
    // Tell a table still being made, or a file that never became one, from
    // no table at all.
    struct stat st;
    if (stat(("/dev/shm" + segmentName(name)).c_str(), &st) == 0) {
      *why = "segment has no valid header (" + std::to_string(st.st_size) + " bytes)";
    }
  }
  return v;
}

std::unique_ptr<View> View::openAs(std::string_view name, const std::uint32_t* typeTag,
                                   uid_t writerUid, std::string* why) {
  std::string path = segmentName(name);
  int fd = shm_open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    if (errno != ENOENT) *why = "cannot open " + path + ": " + errnoText();
    return nullptr;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    *why = "cannot stat " + path + ": " + errnoText();
    close(fd);
    return nullptr;
  }
  if (typeTag != nullptr && st.st_uid != geteuid() && st.st_uid != 0 && st.st_uid != writerUid) {
    *why = path + " belongs to uid " + std::to_string(st.st_uid) + ", which this reader does not trust";
    close(fd);
    return nullptr;
  }
  auto size = static_cast<std::uint64_t>(st.st_size);
  if (size < kHeaderBytes) {  // the writer is still making it
    close(fd);
    return nullptr;
  }
  if (!mappable(size)) {
    *why = path + " is too large for this process to map";
    close(fd);
    return nullptr;
  }
  void* mem = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (mem == MAP_FAILED) {
    *why = "cannot map " + path + ": " + errnoText();
    close(fd);
    return nullptr;
  }
  std::unique_ptr<View> v(new View());
  v->fd_ = fd;
  v->inode_ = st.st_ino;
  v->base_ = static_cast<std::uint8_t*>(mem);
  v->mapped_ = size;
  if (v->header()->magic.load(std::memory_order_acquire) != kMagic) return nullptr;
  if (!v->checkHeader(typeTag, size, why)) return nullptr;
  return v;
}

bool View::checkHeader(const std::uint32_t* typeTag, std::uint64_t fileBytes, std::string* why) {
  const Header* h = header();
  if (h->layoutVersion != kLayoutVersion || h->headerBytes != kHeaderBytes) {
    *why = "segment has layout version " + std::to_string(h->layoutVersion) + ", expected " +
           std::to_string(kLayoutVersion);
    return false;
  }
  if (typeTag != nullptr && h->typeTag != *typeTag) {
    *why = "segment holds another value type";
    return false;
  }
  std::uint64_t ring = h->ringBytes;
  if (h->ringOffset != kHeaderBytes || (ring != 0 && (ring < 4096 || (ring & (ring - 1)) != 0)) ||
      ring > (std::uint64_t{1} << 32) || kHeaderBytes + ring > fileBytes) {
    *why = "segment header has an invalid change ring";
    return false;
  }
  ringOffset_ = h->ringOffset;
  ringBytes_ = ring;
  heapStart_ = kHeaderBytes + ring;
  // A writer that grew the segment since we sized our map publishes its
  // bucket array past our end: publishedIndex maps the rest before judging.
  std::uint64_t iw = 0;
  std::string outside;
  if (!publishedIndex(&iw, &outside)) {
    *why = "segment header has an invalid bucket array";
    return false;
  }
  return true;
}

void View::remap(std::uint64_t bytes) {
  struct stat st;
  if (fstat(fd_, &st) != 0) return;
  // Never map past the end of the file: touching such pages would fault.
  std::uint64_t size = std::min<std::uint64_t>(bytes, static_cast<std::uint64_t>(st.st_size));
  if (size <= mapped_ || !mappable(size)) return;
  void* mem = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd_, 0);
  if (mem == MAP_FAILED) return;
  munmap(base_, mapped_);
  base_ = static_cast<std::uint8_t*>(mem);
  mapped_ = size;
}

std::uint64_t View::count() const { return header()->count.load(std::memory_order_relaxed); }
std::uint32_t View::writerEpoch() const {
  return header()->writerEpoch.load(std::memory_order_acquire);
}
std::uint32_t View::writerPid() const {
  return header()->writerPid.load(std::memory_order_relaxed);
}
std::uint32_t View::readers() const { return header()->readers.load(std::memory_order_relaxed); }
std::string View::typeName() const {
  const char* n = header()->typeName;
  return std::string(n, strnlen(n, kTypeNameBytes));
}
std::uint64_t View::ringHead() const {
  return header()->ringHead.load(std::memory_order_acquire);
}

bool View::writerAlive() const {
  if (fd_ < 0) return true;  // process-private: the owner is the writer
  struct flock fl {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  if (fcntl(fd_, F_OFD_GETLK, &fl) != 0) return true;
  return fl.l_type != F_UNLCK;
}

bool View::unlinked() const {
  if (fd_ < 0) return false;
  struct stat st;
  return fstat(fd_, &st) == 0 && st.st_nlink == 0;
}

bool View::backOff(unsigned attempt, bool* acceptOdd) {
  ++retries_;
  if (attempt < 4) {
    cpuRelax();
  } else {
    sched_yield();
  }
  // A block or record left odd by a writer that died stays odd until the
  // next writer repairs the table; what it holds is still a consistent
  // state, so read it as it is.
  if (attempt == kLivenessAttempt && !writerAlive()) *acceptOdd = true;
  return attempt + 1 < kMaxReadAttempts;
}

std::vector<std::uint8_t>& View::groupImage(std::size_t i) {
  COG_ASSERT(i < group_.size());
  return groupScratch_[i];
}

View::Step View::nextGroup(bool started, std::uint32_t after, std::uint32_t* groupHash,
                           std::string* why) {
  return readConsistently([&](const bool acceptOdd) -> std::optional<Step> {
    group_.clear();
    trustedWords_.clear();
    std::uint64_t iw;
    if (!publishedIndex(&iw, why)) return Step::corrupt;
    const IndexWord ix = IndexWord::decode(iw);
    const std::uint32_t total = ix.totalBuckets();
    const std::uint32_t first = started ? homeOf(after, ix.homeBuckets()) : 0;
    std::uint32_t pos = first;
    // Entries skipped or collected lie within a displacement of each other,
    // so a sane array never needs more than this many blocks remembered.
    constexpr unsigned kMaxBlocks = 2 * (kMaxDisplacement / kBucketsPerBlock) + 8;
    std::uint32_t blocks[kMaxBlocks];
    std::uint64_t seqs[kMaxBlocks];
    unsigned nb = 0;
    bool retry = false, found = false;
    std::uint32_t groupH = 0, seen = 0;
    // The sequence word of the block being scanned, read before any of its
    // buckets: a move completed between reading a bucket and reading the
    // sequence word would otherwise go unnoticed.
    std::uint32_t seqBlock = total;
    std::uint64_t seq = 0;
    for (; pos < total; ++pos) {
      const std::uint32_t blk = pos / kBucketsPerBlock;
      if (blk != seqBlock) {
        seqBlock = blk;
        seq = word(base_, ix.offset + blockOffset(blk)).load(std::memory_order_acquire);
      }
      std::uint64_t at = ix.offset + bucketOffset(pos);
      std::uint64_t w = word(base_, at).load(std::memory_order_acquire);
      if (acceptOdd) trustedWords_.push_back(w);
      if (w == 0) {
        if (found) break;
        continue;
      }
      std::uint32_t h = bucketHash(w);
      if (++seen > 2 * (kMaxDisplacement + 1)) {
        if (replaced(iw)) {
          retry = true;
          break;
        }
        *why = "run of buckets near " + std::to_string(pos) + " is longer than any table makes";
        return Step::corrupt;
      }
      if (nb == 0 || blocks[nb - 1] != blk) {
        if ((seq & 1) != 0 && !acceptOdd) {
          retry = true;
          break;
        }
        if (nb == kMaxBlocks) {
          if (replaced(iw)) {
            retry = true;
            break;
          }
          *why = "run of buckets near " + std::to_string(pos) + " is longer than any table makes";
          return Step::corrupt;
        }
        blocks[nb] = blk;
        seqs[nb] = seq;
        ++nb;
      }
      if (!found) {
        if (started && h <= after) continue;
        found = true;
        groupH = h;
      } else if (h != groupH) {
        break;
      }
      // A writer that died while moving buckets can leave one entry twice.
      std::uint64_t off = bucketRecord(w);
      bool duplicate = false;
      for (auto& g : group_) duplicate = duplicate || g.offset == off;
      if (duplicate) continue;
      std::size_t k = group_.size();
      if (groupScratch_.size() <= k) groupScratch_.resize(k + 1);
      std::uint32_t len = 0;
      Copy c = copyEntry(iw, pos, w, groupScratch_[k], &len, acceptOdd, why);
      if (c == Copy::unstable) {
        retry = true;
        break;
      }
      if (c == Copy::bad) return Step::corrupt;
      group_.push_back({off, len, copiedVersion_});
    }
    if (!retry) {
      retry = !unchanged(iw, blocks, seqs, nb, first, acceptOdd ? trustedWords_.data() : nullptr,
                         trustedWords_.size());
    }
    if (retry) return std::nullopt;
    if (!found) return Step::end;
    *groupHash = groupH;
    return Step::group;
  });
}

bool View::readRing(std::uint64_t& position, RingVisitor visit, void* context, std::string* why) {
  if (ringBytes_ == 0) return true;
  const Header* h = header();
  const std::uint64_t head = h->ringHead.load(std::memory_order_acquire);
  const std::uint64_t mask = ringBytes_ - 1;
  auto behind = [&] {
    position = head;
    return false;
  };
  if (head < position || head - position > ringBytes_) return behind();
  while (position < head) {
    const std::uint64_t at = position & mask;
    RingEntry e;
    std::memcpy(&e, base_ + ringOffset_ + at, sizeof e);
    const bool shapeOk = e.entryBytes >= kRingEntryHeader && e.entryBytes % 16 == 0 &&
                         e.entryBytes <= ringBytes_ - at && e.entryBytes <= head - position &&
                         e.imageBytes <= e.entryBytes - kRingEntryHeader;
    if (shapeOk && e.kind != static_cast<std::uint16_t>(RingKind::padding)) {
      scratch_.resize(e.imageBytes);
      // A whole-table entry has no image, and scratch_ may have no storage.
      if (e.imageBytes != 0) {
        std::memcpy(scratch_.data(), base_ + ringOffset_ + at + kRingEntryHeader, e.imageBytes);
      }
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (h->ringReserve.load(std::memory_order_relaxed) - position > ringBytes_) return behind();
    if (!shapeOk) {
      *why = "change ring entry at " + std::to_string(position) + " is malformed";
      return behind();
    }
    position += e.entryBytes;
    auto kind = static_cast<RingKind>(e.kind);
    if (kind == RingKind::padding) continue;
    if (kind != RingKind::key && kind != RingKind::table) {
      *why = "change ring entry at " + std::to_string(position - e.entryBytes) +
             " has unknown kind " + std::to_string(e.kind);
      return behind();
    }
    std::string detail;
    if (!visit(context, kind, scratch_, e.imageBytes, e.version(), (e.flags & kRingErased) != 0,
               &detail)) {
      *why = "change ring entry at " + std::to_string(position - e.entryBytes) + ": " + detail;
      return behind();
    }
  }
  return true;
}

// ---------------------------------------------------------------- Store

Store::~Store() = default;

std::atomic<std::uint64_t>& Store::bucket(const IndexWord& ix, std::uint32_t pos) const {
  return word(base_, ix.offset + bucketOffset(pos));
}
std::atomic<std::uint64_t>& Store::blockSeq(const IndexWord& ix, std::uint32_t block) const {
  return word(base_, ix.offset + blockOffset(block));
}

void Store::beginMove(const IndexWord& ix, std::uint32_t first, std::uint32_t last) {
  for (std::uint32_t b = first / kBucketsPerBlock; b <= last / kBucketsPerBlock; ++b) {
    auto& s = blockSeq(ix, b);
    s.store(s.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  // The odd sequence words are visible before any bucket moves.
  std::atomic_thread_fence(std::memory_order_release);
}

void Store::endMove(const IndexWord& ix, std::uint32_t first, std::uint32_t last) {
  for (std::uint32_t b = first / kBucketsPerBlock; b <= last / kBucketsPerBlock; ++b) {
    auto& s = blockSeq(ix, b);
    s.store(s.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }
}

bool Store::locate(const IndexWord& ix, std::uint32_t hash, Matcher match, void* context,
                   std::uint32_t* pos, std::uint32_t* length) {
  const std::uint32_t total = ix.totalBuckets();
  std::uint32_t p = homeOf(hash, ix.homeBuckets());
  for (; p < total; ++p) {
    const std::uint64_t w = bucket(ix, p).load(std::memory_order_relaxed);
    if (w == 0 || bucketHash(w) > hash) break;
    if (bucketHash(w) < hash) continue;
    const std::uint64_t off = bucketRecord(w);
    const std::uint32_t len = recordLength(word(base_, off).load(std::memory_order_relaxed));
    scratch_.assign(base_ + off + kRecordHeader, base_ + off + kRecordHeader + len);
    std::string why;
    if (match(context, scratch_, len, &why) == Verdict::match) {
      *pos = p;
      *length = len;
      return true;
    }
  }
  *pos = p;
  return false;
}

std::uint32_t Store::blocksFor(std::uint64_t entries) const {
  // Grow at a load of 0.8 of the home buckets.
  std::uint64_t blocks = (entries * 5 / 4 + kBucketsPerBlock - 1) / kBucketsPerBlock;
  if (blocks > kMaxHomeBlocks) {
    throw Cog::RangeException("memtab table " + name_ + " cannot hold " + std::to_string(entries) +
                              " entries");
  }
  return std::max<std::uint32_t>(kMinHomeBlocks, static_cast<std::uint32_t>(blocks));
}

std::unique_ptr<Store> Store::local(const StoreConfig& config) {
  std::unique_ptr<Store> s(new Store());
  s->name_ = "(local)";
  s->initialise(config);
  return s;
}

std::unique_ptr<Store> Store::open(const StoreConfig& config, const Codec& codec,
                                   const CorruptionReport& report) {
  const std::string path = segmentName(config.name);
  for (int round = 0; round < 4; ++round) {
    bool created = true;
    int fd = shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, config.mode);
    if (fd < 0 && errno == EEXIST) {
      created = false;
      fd = shm_open(path.c_str(), O_RDWR | O_CLOEXEC, 0);
    }
    if (fd < 0) {
      if (errno == ENOENT) continue;  // removed under our feet
      systemFailure(config.name, "cannot open " + path);
    }
    auto closeFd = [&] { close(fd); };
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (fcntl(fd, F_OFD_SETLK, &fl) != 0) {
      closeFd();
      throw Cog::NameInUseException("memtab table " + config.name + " already has a writer");
    }
    struct stat st, named;
    std::string devPath = "/dev/shm" + path;
    if (fstat(fd, &st) != 0 || stat(devPath.c_str(), &named) != 0 || named.st_ino != st.st_ino) {
      closeFd();  // replaced while we were locking it
      continue;
    }
    if (!created && st.st_uid != geteuid()) {
      closeFd();
      throw Cog::NameInUseException("memtab table " + config.name + " belongs to uid " +
                                    std::to_string(st.st_uid));
    }
    // shm_open applies the umask; the table's mode is the caller's choice.
    if (fchmod(fd, config.mode) != 0 ||
        (config.group != static_cast<gid_t>(-1) && fchown(fd, static_cast<uid_t>(-1), config.group) != 0)) {
      const int err = errno;
      closeFd();
      if (created) shm_unlink(path.c_str());
      systemFailure(config.name, "cannot set owner or mode", err);
    }
    std::unique_ptr<Store> s(new Store());
    s->name_ = config.name;
    s->shared_ = true;
    s->fd_ = fd;
    s->inode_ = st.st_ino;
    auto size = static_cast<std::uint64_t>(st.st_size);
    if (!mappable(size)) {
      throw Cog::RangeException("memtab table " + config.name +
                                " is too large for this process to map");
    }
    if (size >= kHeaderBytes) {
      void* mem = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (mem == MAP_FAILED) {
        systemFailure(config.name, "cannot map");
      }
      s->base_ = static_cast<std::uint8_t*>(mem);
      s->mapped_ = size;
      std::string why;
      if (s->header()->magic.load(std::memory_order_acquire) == kMagic &&
          s->checkHeader(&config.typeTag, size, &why)) {
        s->reservedEnd_ = size;
        s->repair(codec, report);
        s->recordTypeName(config.typeName);
        return s;
      }
      if (s->header()->magic.load(std::memory_order_acquire) == kMagic &&
          s->header()->typeTag != config.typeTag) {
        throw Cog::NameInUseException("memtab table " + config.name +
                                      " holds another value type");
      }
      // Unusable: start a new segment under the name. Readers of the old
      // one see it unlinked and move over.
      report("memtab table " + config.name + ": " +
             (why.empty() ? std::string("segment header is invalid") : why) +
             "; the table starts empty");
      shm_unlink(path.c_str());
      continue;
    }
    s->initialise(config);
    return s;
  }
  throw Cog::RangeException("memtab table " + config.name + ": " + path +
                            " keeps changing while it is opened");
}

void Store::initialise(const StoreConfig& config) {
  std::uint64_t ring = config.ringBytes;
  if (ring != 0) {
    ring = std::max<std::uint64_t>(ring, 4096);
    if (ring > (std::uint64_t{1} << 30)) throw Cog::RangeException("memtab change ring too large");
    while ((ring & (ring - 1)) != 0) ring += ring & (~ring + 1);  // next power of two
  }
  heapStart_ = kHeaderBytes + ring;
  ringOffset_ = kHeaderBytes;
  ringBytes_ = ring;
  const std::uint32_t homeBlocks = blocksFor(config.initialCapacity);
  const std::uint64_t indexBytes = static_cast<std::uint64_t>(homeBlocks + kTailBlocks) * kBlockBytes;
  const std::uint64_t size = alignUp(heapStart_ + indexBytes + (64u << 10), 4096);
  if (shared_) {
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
      systemFailure(name_, "cannot size segment");
    }
    if (int err = posix_fallocate(fd_, 0, static_cast<off_t>(size)); err != 0) {
      systemFailure(name_, "no memory for segment", err);
    }
    void* mem = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (mem == MAP_FAILED) {
      systemFailure(name_, "cannot map");
    }
    base_ = static_cast<std::uint8_t*>(mem);
  } else {
    void* mem = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) throw std::bad_alloc();
    base_ = static_cast<std::uint8_t*>(mem);
  }
  mapped_ = size;
  reservedEnd_ = size;
  header()->layoutVersion = kLayoutVersion;
  header()->headerBytes = kHeaderBytes;
  header()->typeTag = config.typeTag;
  recordTypeName(config.typeName);
  header()->fileBytes.store(size, std::memory_order_relaxed);
  header()->index.store(IndexWord{heapStart_, homeBlocks, 0}.encode(), std::memory_order_relaxed);
  header()->count.store(0, std::memory_order_relaxed);
  header()->ringOffset = ringOffset_;
  header()->ringBytes = ringBytes_;
  header()->ringHead.store(0, std::memory_order_relaxed);
  header()->ringReserve.store(0, std::memory_order_relaxed);
  header()->heapTop.store(heapStart_ + indexBytes, std::memory_order_relaxed);
  header()->version.store(0, std::memory_order_relaxed);
  header()->writerPid.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
  header()->writerEpoch.store(1, std::memory_order_relaxed);
  smallFree_.assign(kSmallFreeUnits, {});
  header()->magic.store(kMagic, std::memory_order_release);
}

// Re-attaching after another writer, which may have died at any step (see
// Segment.h), in phases: read every entry the bucket array leads to and
// keep those that check out; drop second entries of a key and records that
// overlap; rebuild the heap's bookkeeping around what is kept; publish a
// fresh bucket array; take the table over.
void Store::repair(const Codec& codec, const CorruptionReport& report) {
  smallFree_.assign(kSmallFreeUnits, {});
  header()->fileBytes.store(mapped_, std::memory_order_release);
  const IndexWord old = IndexWord::decode(header()->index.load(std::memory_order_acquire));
  std::uint64_t maxVersion = header()->version.load(std::memory_order_relaxed);
  std::vector<RepairEntry> entries = readEntries(old, codec, report, &maxVersion);
  dropSecondEntries(entries, codec, report);
  dropOverlaps(entries, old, report);
  std::erase_if(entries, [](const RepairEntry& e) { return !e.keep; });
  rebuildHeap(entries, old, maxVersion, report);
  publishFreshIndex(entries, old);
  takeOver();
}

std::vector<Store::RepairEntry> Store::readEntries(const IndexWord& old, const Codec& codec,
                                                   const CorruptionReport& report,
                                                   std::uint64_t* maxVersion) {
  std::vector<RepairEntry> entries;
  std::vector<std::uint8_t> image;
  auto drop = [&](std::uint32_t pos, const std::string& why) {
    report("memtab table " + name_ + ": dropped the entry in bucket " + std::to_string(pos) + ": " +
           why);
  };
  for (std::uint32_t pos = 0; pos < old.totalBuckets(); ++pos) {
    std::uint64_t w = bucket(old, pos).load(std::memory_order_relaxed);
    if (w == 0) continue;
    std::uint64_t off = bucketRecord(w);
    if (!entries.empty() && entries.back().record == off) continue;  // interrupted move
    if (off < heapStart_ || off > mapped_ - kRecordHeader) {
      drop(pos, "record offset outside the segment");
      continue;
    }
    std::uint64_t rw = word(base_, off).load(std::memory_order_relaxed);
    std::uint32_t len = recordLength(rw);
    if (len > mapped_ - off - kRecordHeader) {
      drop(pos, "record length past the end of the segment");
      continue;
    }
    if ((recordVersion(rw) & 1) != 0) {
      drop(pos, "record was never completed");
      continue;
    }
    image.assign(base_ + off + kRecordHeader, base_ + off + kRecordHeader + len);
    std::uint32_t hash = 0;
    std::string why;
    if (!codec.check(image, len, &hash, &why)) {
      drop(pos, why);
      continue;
    }
    if (hash != bucketHash(w)) {
      drop(pos, "key hash differs from the bucket's");
      continue;
    }
    *maxVersion = std::max(*maxVersion, recordVersion(rw));
    entries.push_back({hash, off, len, true});
  }
  // In order of hash, as the bucket array wants them.
  std::stable_sort(entries.begin(), entries.end(),
                   [](const RepairEntry& a, const RepairEntry& b) { return a.hash < b.hash; });
  return entries;
}

void Store::dropSecondEntries(std::vector<RepairEntry>& entries, const Codec& codec,
                              const CorruptionReport& report) {
  std::vector<std::uint8_t> image, other;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    for (std::size_t j = i + 1; j < entries.size() && entries[j].hash == entries[i].hash; ++j) {
      if (!entries[i].keep || !entries[j].keep) continue;
      image.assign(base_ + entries[i].record + kRecordHeader,
                   base_ + entries[i].record + kRecordHeader + entries[i].length);
      other.assign(base_ + entries[j].record + kRecordHeader,
                   base_ + entries[j].record + kRecordHeader + entries[j].length);
      if (codec.sameKey(image, entries[i].length, other, entries[j].length)) {
        entries[j].keep = false;
        report("memtab table " + name_ + ": dropped a second entry for one key");
      }
    }
  }
}

void Store::dropOverlaps(std::vector<RepairEntry>& entries, const IndexWord& old,
                         const CorruptionReport& report) {
  std::vector<std::size_t> byOffset;
  for (std::size_t i = 0; i < entries.size(); ++i)
    if (entries[i].keep) byOffset.push_back(i);
  std::sort(byOffset.begin(), byOffset.end(),
            [&](std::size_t a, std::size_t b) { return entries[a].record < entries[b].record; });
  std::uint64_t end = 0;
  for (std::size_t i : byOffset) {
    const std::uint64_t recordEnd = entries[i].record + recordBytes(entries[i].length);
    if (entries[i].record < old.offset + old.bytes() && recordEnd > old.offset) {
      entries[i].keep = false;
      report("memtab table " + name_ + ": dropped an entry whose record overlaps the bucket array");
      continue;
    }
    if (entries[i].record < end) {
      entries[i].keep = false;
      report("memtab table " + name_ + ": dropped an entry whose record overlaps another");
      continue;
    }
    end = recordEnd;
  }
}

void Store::rebuildHeap(const std::vector<RepairEntry>& kept, const IndexWord& old,
                        std::uint64_t maxVersion, const CorruptionReport& report) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> live;
  liveRecordBytes_ = 0;
  for (const RepairEntry& e : kept) {
    live.emplace_back(e.record, recordBytes(e.length));
    liveRecordBytes_ += recordBytes(e.length);
  }
  live.emplace_back(old.offset, old.bytes());
  std::uint64_t top = std::min<std::uint64_t>(header()->heapTop.load(std::memory_order_relaxed), mapped_);
  top = std::max(top, heapStart_);
  // Records sit on 8-byte boundaries (buckets hold offset / 8): a heap top
  // off that grid would place every later record where no bucket can name it.
  if (top % 8 != 0) {
    report("memtab table " + name_ + ": heap top " + std::to_string(top) +
           " is not 8-byte aligned; rounded up");
    top = alignUp(top, 8);
  }
  for (auto& [off, bytes] : live) top = std::max(top, off + bytes);
  // Never past the mapping, and still on the 8-byte grid.
  top = std::min(top, mapped_ & ~std::uint64_t{7});
  header()->heapTop.store(top, std::memory_order_relaxed);
  reservedEnd_ = top;
  // Versions go on from the highest seen: a record's version is never
  // handed out twice, whatever the last writer recorded.
  header()->version.store((maxVersion + 2) & ~std::uint64_t{1} & kVersionMask, std::memory_order_relaxed);
  rebuildFreeSpace(live);
}

void Store::publishFreshIndex(const std::vector<RepairEntry>& kept, const IndexWord& old) {
  // A fresh bucket array: clears blocks left odd and moves left half done.
  for (std::uint32_t blocks = blocksFor(kept.size());; blocks *= 2) {
    const std::uint64_t bytes = static_cast<std::uint64_t>(blocks + kTailBlocks) * kBlockBytes;
    const std::uint64_t off = allocate(bytes, kBlockBytes);
    std::memset(base_ + off, 0, bytes);
    IndexWord ix{off, blocks, old.generation + 1};
    bool fits = true;
    std::uint32_t last = 0;
    for (std::size_t i = 0; i < kept.size() && fits; ++i) {
      std::uint32_t home = homeOf(kept[i].hash, ix.homeBuckets());
      std::uint32_t p = i == 0 ? home : std::max(home, last + 1);
      fits = p < ix.totalBuckets() && p - home <= kMaxDisplacement;
      if (fits) bucket(ix, p).store(bucketWord(kept[i].hash, kept[i].record), std::memory_order_relaxed);
      last = p;
    }
    if (!fits) {
      release(off, bytes);
      continue;
    }
    header()->count.store(kept.size(), std::memory_order_relaxed);
    header()->index.store(ix.encode(), std::memory_order_release);
    release(old.offset, old.bytes());
    return;
  }
}

void Store::takeOver() {
  // A change the last writer was publishing is dropped: readers compare the
  // table with what they delivered instead (the table entry below).
  header()->ringReserve.store(header()->ringHead.load(std::memory_order_relaxed), std::memory_order_relaxed);
  header()->writerPid.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
  header()->writerEpoch.fetch_add(1, std::memory_order_release);
  publish(RingKind::table, nullptr, 0);
}

void Store::rebuildFreeSpace(std::vector<std::pair<std::uint64_t, std::uint64_t>> live) {
  smallFree_.assign(kSmallFreeUnits, {});
  largeFree_.clear();
  carveAt_ = carveEnd_ = 0;
  std::sort(live.begin(), live.end());
  std::uint64_t at = heapStart_;
  const std::uint64_t top = header()->heapTop.load(std::memory_order_relaxed);
  for (auto& [off, bytes] : live) {
    if (off > at) release(at, off - at);
    at = std::max(at, off + bytes);
  }
  if (top > at) release(at, top - at);
}

void Store::release(std::uint64_t offset, std::uint64_t bytes) {
  std::uint64_t units = bytes / 8;
  if (units < 2) return;  // too small for any record; recovered at the next attach
  if (units < kSmallFreeUnits) {
    smallFree_[units].push_back(offset);
  } else {
    largeFree_.emplace(bytes, offset);
  }
}

void Store::growFile(std::uint64_t atLeast) {
  std::uint64_t size = std::max(atLeast, mapped_ + mapped_ / 2);
  size = alignUp(size, size > (64u << 20) ? (4u << 20) : 65536);
  if (!mappable(size)) {
    throw Cog::RangeException("memtab table " + name_ + ": cannot grow past " +
                              std::to_string(mapped_) + " bytes in this process");
  }
  if (shared_ && ftruncate(fd_, static_cast<off_t>(size)) != 0) {
    systemFailure(name_, "cannot grow segment");
  }
  void* mem = mremap(base_, mapped_, size, MREMAP_MAYMOVE);
  if (mem == MAP_FAILED) {
    systemFailure(name_, "cannot grow mapping");
  }
  base_ = static_cast<std::uint8_t*>(mem);
  mapped_ = size;
  header()->fileBytes.store(size, std::memory_order_release);
}

std::uint64_t Store::allocate(std::uint64_t bytes, std::uint64_t align) {
  COG_ASSERT(bytes % 8 == 0 && bytes >= 16);
  if (align == 8) {
    std::uint64_t units = bytes / 8;
    if (units < kSmallFreeUnits && !smallFree_[units].empty()) {
      std::uint64_t off = smallFree_[units].back();
      smallFree_[units].pop_back();
      return off;
    }
    if (carveEnd_ - carveAt_ < bytes && !largeFree_.empty() &&
        std::prev(largeFree_.end())->first >= bytes) {
      // Carve records out of the largest free run (an old bucket array).
      release(carveAt_, carveEnd_ - carveAt_);
      auto it = std::prev(largeFree_.end());
      carveAt_ = it->second;
      carveEnd_ = it->second + it->first;
      largeFree_.erase(it);
    }
    if (carveEnd_ - carveAt_ >= bytes) {
      std::uint64_t off = carveAt_;
      carveAt_ += bytes;
      return off;
    }
  } else {
    auto it = largeFree_.lower_bound(bytes + align - 8);
    if (it != largeFree_.end()) {
      std::uint64_t runAt = it->second, runBytes = it->first;
      largeFree_.erase(it);
      std::uint64_t off = alignUp(runAt, align);
      release(runAt, off - runAt);
      release(off + bytes, runAt + runBytes - off - bytes);
      return off;
    }
  }
  std::uint64_t top = header()->heapTop.load(std::memory_order_relaxed);
  std::uint64_t off = alignUp(top, align);
  std::uint64_t end = off + bytes;
  if (end > kMaxSegmentBytes) {
    throw Cog::RangeException("memtab table " + name_ + " cannot grow past " +
                              std::to_string(kMaxSegmentBytes) + " bytes");
  }
  if (end > mapped_) growFile(end);
  if (shared_ && end > reservedEnd_) {
    // Take the memory now, so that a full /dev/shm is an error here rather
    // than a fault when the page is first written.
    std::uint64_t upTo = std::min(mapped_, std::max(end, reservedEnd_ + kCommitChunk));
    if (int err = posix_fallocate(fd_, static_cast<off_t>(reservedEnd_),
                                  static_cast<off_t>(upTo - reservedEnd_));
        err != 0) {
      systemFailure(name_, "no memory for segment", err);
    }
    reservedEnd_ = upTo;
  }
  header()->heapTop.store(end, std::memory_order_relaxed);
  release(top, off - top);
  return off;
}

std::uint64_t Store::writeRecord(const std::uint8_t* image, std::uint32_t length) {
  const std::uint64_t bytes = recordBytes(length);
  const std::uint64_t off = allocate(bytes);
  // The version is recorded before it is used, so that a writer restarted
  // after a crash never hands the same version out twice.
  std::uint64_t v = (header()->version.load(std::memory_order_relaxed) + 2) & kVersionMask;
  header()->version.store(v, std::memory_order_relaxed);
  auto& rw = word(base_, off);
  rw.store(recordWord(v - 1, length), std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  // An empty image may come without storage (null).
  if (length != 0) std::memcpy(base_ + off + kRecordHeader, image, length);
  std::memset(base_ + off + kRecordHeader + length, 0, bytes - kRecordHeader - length);
  rw.store(recordWord(v, length), std::memory_order_release);
  liveRecordBytes_ += bytes;
  changedVersion_ = v;
  return off;
}

Store::Upsert Store::upsert(std::uint32_t hash, const std::uint8_t* image, std::uint32_t length,
                            bool force, Matcher match, void* context) {
  if (length > kMaxImageBytes) {
    throw Cog::RangeException("memtab table " + name_ + ": image of " + std::to_string(length) +
                              " bytes is larger than " + std::to_string(kMaxImageBytes));
  }
  for (unsigned growth = 0;; ++growth) {
    if (growth > 4) {
      throw Cog::RangeException("memtab table " + name_ +
                                ": too many keys share a hash to place another");
    }
    const IndexWord ix = IndexWord::decode(header()->index.load(std::memory_order_relaxed));
    const std::uint32_t home = homeOf(hash, ix.homeBuckets());
    const std::uint32_t total = ix.totalBuckets();
    std::uint32_t pos = 0, oldLen = 0;
    if (locate(ix, hash, match, context, &pos, &oldLen)) {
      const std::uint64_t oldOff = bucketRecord(bucket(ix, pos).load(std::memory_order_relaxed));
      if (!force && oldLen == length &&
          (length == 0 || std::memcmp(base_ + oldOff + kRecordHeader, image, length) == 0)) {
        return Upsert::unchanged;
      }
      const std::uint64_t off = writeRecord(image, length);
      bucket(ix, pos).store(bucketWord(hash, off), std::memory_order_release);
      release(oldOff, recordBytes(oldLen));
      liveRecordBytes_ -= recordBytes(oldLen);
      return Upsert::replaced;
    }
    const std::uint64_t n = header()->count.load(std::memory_order_relaxed);
    if ((n + 1) * 5 > static_cast<std::uint64_t>(ix.homeBuckets()) * 4) {
      growIndex(n + 1);
      continue;
    }
    // The entries from pos up to the next empty bucket move one to the right.
    std::uint32_t empty = pos;
    bool fits = pos - home <= kMaxDisplacement;
    while (fits && empty < total) {
      std::uint64_t e = bucket(ix, empty).load(std::memory_order_relaxed);
      if (e == 0) break;
      fits = empty + 1 - homeOf(bucketHash(e), ix.homeBuckets()) <= kMaxDisplacement;
      ++empty;
    }
    if (!fits || empty >= total) {
      if (!rebuildIndex(ix.homeBlocks * 2)) growIndex(static_cast<std::uint64_t>(ix.homeBuckets()) * 2);
      continue;
    }
    const std::uint64_t off = writeRecord(image, length);
    const std::uint64_t nw = bucketWord(hash, off);
    if (empty == pos) {
      bucket(ix, pos).store(nw, std::memory_order_release);
    } else {
      beginMove(ix, pos, empty);
      for (std::uint32_t q = empty; q > pos; --q) {
        bucket(ix, q).store(bucket(ix, q - 1).load(std::memory_order_relaxed),
                            std::memory_order_relaxed);
      }
      bucket(ix, pos).store(nw, std::memory_order_relaxed);
      endMove(ix, pos, empty);
    }
    header()->count.store(n + 1, std::memory_order_relaxed);
    return Upsert::inserted;
  }
}

bool Store::erase(std::uint32_t hash, Matcher match, void* context, std::vector<std::uint8_t>* old,
                  std::uint32_t* oldLength) {
  const IndexWord ix = IndexWord::decode(header()->index.load(std::memory_order_relaxed));
  const std::uint32_t total = ix.totalBuckets();
  std::uint32_t pos = 0;
  if (!locate(ix, hash, match, context, &pos, oldLength)) return false;
  *old = scratch_;
  const std::uint64_t w = bucket(ix, pos).load(std::memory_order_relaxed);
  // Displaced entries after pos move one to the left, towards their homes.
  std::uint32_t end = pos + 1;
  while (end < total) {
    std::uint64_t e = bucket(ix, end).load(std::memory_order_relaxed);
    if (e == 0 || homeOf(bucketHash(e), ix.homeBuckets()) >= end) break;
    ++end;
  }
  if (end == pos + 1) {
    bucket(ix, pos).store(0, std::memory_order_release);
  } else {
    beginMove(ix, pos, end - 1);
    for (std::uint32_t q = pos; q + 1 < end; ++q) {
      bucket(ix, q).store(bucket(ix, q + 1).load(std::memory_order_relaxed),
                          std::memory_order_relaxed);
    }
    bucket(ix, end - 1).store(0, std::memory_order_relaxed);
    endMove(ix, pos, end - 1);
  }
  const std::uint64_t oldOff = bucketRecord(w);
  changedVersion_ = recordVersion(word(base_, oldOff).load(std::memory_order_relaxed));
  release(oldOff, recordBytes(*oldLength));
  liveRecordBytes_ -= recordBytes(*oldLength);
  header()->count.store(header()->count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
  return true;
}

void Store::clear() {
  const IndexWord old = IndexWord::decode(header()->index.load(std::memory_order_relaxed));
  const std::uint32_t blocks = kMinHomeBlocks;
  const std::uint64_t bytes = static_cast<std::uint64_t>(blocks + kTailBlocks) * kBlockBytes;
  const std::uint64_t off = allocate(bytes, kBlockBytes);
  std::memset(base_ + off, 0, bytes);
  header()->count.store(0, std::memory_order_relaxed);
  header()->index.store(IndexWord{off, blocks, old.generation + 1}.encode(), std::memory_order_release);
  liveRecordBytes_ = 0;
  rebuildFreeSpace({{off, bytes}});
}

void Store::reserve(std::uint64_t entries) {
  const IndexWord ix = IndexWord::decode(header()->index.load(std::memory_order_relaxed));
  if (entries * 5 > static_cast<std::uint64_t>(ix.homeBuckets()) * 4) growIndex(entries);
}

void Store::growIndex(std::uint64_t entries) {
  std::uint32_t blocks = blocksFor(entries * 3 / 2);
  for (int doubling = 0; doubling < 4; ++doubling, blocks *= 2) {
    if (rebuildIndex(blocks)) return;
  }
  // More room does not spread them: the keys' hashes collide.
  throw Cog::RangeException("memtab table " + name_ +
                            ": too many keys share a hash to place another");
}

bool Store::rebuildIndex(std::uint32_t homeBlocks) {
  if (homeBlocks > kMaxHomeBlocks) {
    throw Cog::RangeException("memtab table " + name_ + " cannot grow further");
  }
  const IndexWord old = IndexWord::decode(header()->index.load(std::memory_order_relaxed));
  const std::uint64_t bytes = static_cast<std::uint64_t>(homeBlocks + kTailBlocks) * kBlockBytes;
  const std::uint64_t off = allocate(bytes, kBlockBytes);
  std::memset(base_ + off, 0, bytes);
  const IndexWord ix{off, homeBlocks, old.generation + 1};
  // The old array is in hash order; placing in that order keeps it.
  bool any = false;
  std::uint32_t last = 0;
  for (std::uint32_t pos = 0; pos < old.totalBuckets(); ++pos) {
    std::uint64_t w = bucket(old, pos).load(std::memory_order_relaxed);
    if (w == 0) continue;
    std::uint32_t home = homeOf(bucketHash(w), ix.homeBuckets());
    std::uint32_t p = any ? std::max(home, last + 1) : home;
    if (p >= ix.totalBuckets() || p - home > kMaxDisplacement) {
      release(off, bytes);
      return false;
    }
    bucket(ix, p).store(w, std::memory_order_relaxed);
    last = p;
    any = true;
  }
  header()->index.store(ix.encode(), std::memory_order_release);
  release(old.offset, old.bytes());
  ++resizes_;
  return true;
}

void Store::publish(RingKind kind, const std::uint8_t* image, std::uint32_t length,
                    std::uint64_t version, bool erased) {
  if (ringBytes_ == 0) return;
  std::uint64_t entry = kRingEntryHeader + alignUp(length, 16);
  if (entry > ringBytes_ / 4) {
    // Too large for the ring: readers resynchronise instead.
    kind = RingKind::table;
    length = 0;
    entry = kRingEntryHeader;
  }
  const std::uint64_t mask = ringBytes_ - 1;
  std::uint64_t head = header()->ringHead.load(std::memory_order_relaxed);
  std::uint64_t at = head & mask;
  std::uint64_t pad = at + entry > ringBytes_ ? ringBytes_ - at : 0;
  header()->ringReserve.store(head + pad + entry, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  if (pad != 0) {
    RingEntry p{static_cast<std::uint32_t>(pad), static_cast<std::uint16_t>(RingKind::padding), 0, 0, 0,
                0};
    std::memcpy(base_ + ringOffset_ + at, &p, sizeof p);
    at = 0;
  }
  RingEntry e{static_cast<std::uint32_t>(entry), static_cast<std::uint16_t>(kind),
              erased ? kRingErased : std::uint8_t{0}, static_cast<std::uint8_t>(version >> 32), length,
              static_cast<std::uint32_t>(version)};
  std::memcpy(base_ + ringOffset_ + at, &e, sizeof e);
  if (length != 0) std::memcpy(base_ + ringOffset_ + at + kRingEntryHeader, image, length);
  header()->ringHead.store(head + pad + entry, std::memory_order_release);
}

void Store::readersAre(std::uint32_t n) { header()->readers.store(n, std::memory_order_relaxed); }

void Store::recordTypeName(const std::string& typeName) {
  char* out = header()->typeName;
  const std::size_t n = std::min(typeName.size(), kTypeNameBytes - 1);
  std::memcpy(out, typeName.data(), n);
  std::memset(out + n, 0, kTypeNameBytes - n);
}

void Store::touch() {
  if (fd_ >= 0) futimens(fd_, nullptr);
}

std::uint64_t Store::usedBytes() const {
  const IndexWord ix = IndexWord::decode(header()->index.load(std::memory_order_relaxed));
  return heapStart_ + ix.bytes() + liveRecordBytes_;
}

}  // namespace Memtab::Shm
