// A table segment's bytes as hostile input. Each input edits a segment that
// a real writer made (the same for every input), some edits before a reader
// maps it and some after (a writer changing things under the reader), then:
//  - the reader takes in its notifications, looks every key up and
//    iterates: every value it yields has the key it was asked for;
//  - a writer re-attaches, checking and repairing the segment: from then on
//    its own lookups meet no corruption, and every value it inserts is
//    there when it looks it up, for it and for a new reader;
//  - the writer clears the table and the readers take that in.
//
// Input: a list of edits, each
//   u8 op: bit 7 set = after the reader has mapped the segment; bits 0-2:
//     0 header, 1 change ring, 2 bucket array, 3 records (heap up to its
//     top), 4 anywhere: u16 offset within that region, u8 n (1-16), n bytes
//     5 (before mapping only): truncate the file to u16 * 64 bytes
//
// Segments are named after the process and removed after every input; a
// run removes those that runs ended by a finding left behind.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <sanitizer/common_interface_defs.h>

#include "FuzzSupport.h"
#include "Memtab/Table.h"

namespace {

namespace Shm = Memtab::Shm;

// A value with an image of 0 bytes (key 0, no payload) or a 2-byte key and up
// to 64 payload bytes. deserialize() always reads 66 bytes, so the table
// must zero-pad; keys share hashes 4 by 4 (of 64 keys in use).
struct Blob {
  static constexpr std::size_t kMax = 64;
  std::uint16_t id = 0;
  std::uint8_t length = 0;
  std::uint8_t payload[kMax] = {};

  Blob() = default;
  Blob(std::uint16_t i, std::uint8_t n) : id(i), length(n) {
    for (std::uint8_t k = 0; k < n; ++k) payload[k] = static_cast<std::uint8_t>(i * 13 + k);
  }
  struct Key {
    std::uint16_t id = 0;
    Cog::HashValue hash() const { return id % 16; }
    bool operator==(const Key&) const = default;
  };
  Key key() const { return Key{id}; }
  bool operator==(const Blob& o) const {
    return id == o.id && length == o.length && std::memcmp(payload, o.payload, length) == 0;
  }
  std::size_t serializeLen() const { return id == 0 && length == 0 ? 0 : 2 + length; }
  void serialize(std::uint8_t* out) const {
    if (serializeLen() == 0) return;
    out[0] = static_cast<std::uint8_t>(id >> 8);
    out[1] = static_cast<std::uint8_t>(id);
    std::memcpy(out + 2, payload, length);
  }
  static std::size_t deserializeLen(const std::uint8_t*, std::size_t avail) {
    return avail == 1 || avail > 2 + kMax ? 0 : 2 + kMax;
  }
  void deserialize(const std::uint8_t* in, std::size_t n) {
    if (n == 0) {
      *this = Blob();
      return;
    }
    id = static_cast<std::uint16_t>(in[0] << 8 | in[1]);
    length = static_cast<std::uint8_t>(n - 2);
    std::memcpy(payload, in + 2, kMax);
    std::memset(payload + length, 0, kMax - length);
  }
};

constexpr std::uint16_t kKeys = 64;

std::string tableName() { return "fuzz.segment." + std::to_string(getpid()); }

// Removes the segment when a sanitizer ends the process on a finding.
void unlinkOnDeath() { Memtab::unlinkTable(tableName()); }

// Removes the segments of earlier runs that ended on a finding some other
// way (an abort): those of processes that are gone.
void unlinkLeftovers() {
  const std::string prefix = "memtab.fuzz.segment.";
  DIR* dir = opendir("/dev/shm");
  if (dir == nullptr) return;
  while (dirent* e = readdir(dir)) {
    const std::string file = e->d_name;
    if (file.rfind(prefix, 0) != 0) continue;
    const long pid = std::strtol(file.c_str() + prefix.size(), nullptr, 10);
    if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
      Memtab::unlinkTable(file.substr(std::strlen("memtab.")));
    }
  }
  closedir(dir);
}

struct Template {
  std::vector<std::uint8_t> bytes;
  std::uint64_t indexOffset = 0, indexBytes = 0, heapStart = 0, heapTop = 0;
};

// The segment every input starts from: inserts, replacements and deletions
// enough to wrap the change ring and leave holes in the heap.
const Template& segmentTemplate() {
  static const Template t = [] {
    Template t;
    const std::string name = tableName();
    Memtab::unlinkTable(name);
    {
      Memtab::Options o;
      o.ringBytes = 4096;
      Memtab::Writer<Blob> w(name, o);
      for (std::uint16_t k = 0; k < 48; ++k) w.insert(Blob(k, static_cast<std::uint8_t>(k * 5 % 65)));
      for (std::uint16_t k = 0; k < 48; k += 7) w.del(Blob::Key{k});
      for (std::uint16_t k = 1; k < 48; k += 5) w.insert(Blob(k, static_cast<std::uint8_t>(k % 9)));
    }
    int fd = shm_open(Memtab::segmentName(name).c_str(), O_RDONLY, 0);
    struct stat st;
    fstat(fd, &st);
    t.bytes.resize(static_cast<std::size_t>(st.st_size));
    FUZZ_CHECK(pread(fd, t.bytes.data(), t.bytes.size(), 0) == static_cast<ssize_t>(t.bytes.size()));
    close(fd);
    Memtab::unlinkTable(name);
    auto* h = reinterpret_cast<const Shm::Header*>(t.bytes.data());
    const auto ix = Shm::IndexWord::decode(h->index.load());
    t.indexOffset = ix.offset;
    t.indexBytes = ix.bytes();
    t.heapStart = h->ringOffset + h->ringBytes;
    t.heapTop = h->heapTop.load();
    return t;
  }();
  return t;
}

struct Edit {
  bool after;
  std::uint8_t region;
  std::uint16_t offset;
  std::vector<std::uint8_t> bytes;
};

std::vector<Edit> parse(const std::uint8_t* data, std::size_t size) {
  Fuzz::Bytes in(data, size);
  std::vector<Edit> edits;
  while (!in.atEnd() && edits.size() < 64) {
    Edit e;
    const std::uint8_t op = in.u8();
    e.after = (op & 0x80) != 0;
    e.region = op & 7;
    e.offset = in.u16();
    if (e.region != 5) e.bytes = in.take(1 + in.u8() % 16);
    edits.push_back(std::move(e));
  }
  return edits;
}

// Applies the edits of one phase to `base` (of `size` bytes).
void apply(const std::vector<Edit>& edits, bool after, std::uint8_t* base, std::size_t size) {
  const Template& t = segmentTemplate();
  for (const Edit& e : edits) {
    if (e.after != after || e.region > 4) continue;
    std::uint64_t from = 0, span = size;
    switch (e.region) {
      case 0: span = Shm::kHeaderBytes; break;
      case 1: from = Shm::kHeaderBytes; span = t.heapStart - from; break;
      case 2: from = t.indexOffset; span = t.indexBytes; break;
      case 3: from = t.heapStart; span = t.heapTop - from; break;
      default: break;
    }
    if (span == 0) continue;
    const std::uint64_t at = from + e.offset % span;
    for (std::size_t i = 0; i < e.bytes.size() && at + i < size; ++i) base[at + i] = e.bytes[i];
  }
}

Memtab::Options counting(int* reports) {
  Memtab::Options o;
  o.corruptionHandler = [reports](const std::string&) { ++*reports; };
  return o;
}

struct Quiet : Memtab::Notifiee<Blob::Key> {};

// What a reader may answer: the value stored under the key, or the default.
void readEverything(Memtab::Reader<Blob>& r) {
  Quiet q;
  r.processNotifications(q);
  for (std::uint16_t k = 0; k < kKeys; ++k) {
    const Blob v = r.lookup(Blob::Key{k});
    FUZZ_CHECK(v == Blob() || v.id == k, "reader asked for " + std::to_string(k) + " got " +
                                              std::to_string(v.id));
  }
  std::size_t n = 0;
  for (auto it = r.begin(); it != r.end() && n < 100000; ++it) ++n;
}

Blob fresh(std::uint16_t k) { return Blob(k, static_cast<std::uint8_t>(k * 11 % 65)); }

void run(const std::vector<Edit>& edits) {
  const Template& t = segmentTemplate();
  const std::string name = tableName();
  std::size_t size = t.bytes.size();
  for (const Edit& e : edits) {
    if (e.region == 5 && !e.after) size = std::min<std::size_t>(size, std::size_t{e.offset} * 64);
  }
  std::vector<std::uint8_t> image(t.bytes.begin(), t.bytes.begin() + static_cast<std::ptrdiff_t>(size));
  apply(edits, false, image.data(), image.size());
  int fd = shm_open(Memtab::segmentName(name).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  FUZZ_CHECK(fd >= 0, "cannot create " + name);
  FUZZ_CHECK(ftruncate(fd, static_cast<off_t>(size)) == 0);
  FUZZ_CHECK(size == 0 || pwrite(fd, image.data(), size, 0) == static_cast<ssize_t>(size));
  void* mapped = size == 0 ? nullptr : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  FUZZ_CHECK(mapped != MAP_FAILED);

  // Reports of the first reader, which may still map a segment the writer
  // has replaced, do not count; those of the writer and later readers do.
  int early = 0, reports = 0;
  {
    Memtab::Reader<Blob> r(name, counting(&early));
    Quiet q;
    r.processNotifications(q);
    if (mapped != nullptr) apply(edits, true, static_cast<std::uint8_t*>(mapped), size);
    readEverything(r);

    std::unique_ptr<Memtab::Writer<Blob>> w;
    try {
      w = std::make_unique<Memtab::Writer<Blob>>(name, counting(&reports));
    } catch (const Cog::Exception&) {
      // Another value type's table, or one this process cannot map: refused.
    }
    if (w) {
      reports = 0;
      for (std::uint16_t k = 0; k < kKeys; ++k) {
        const Blob v = w->lookup(Blob::Key{k});
        FUZZ_CHECK(v == Blob() || v.id == k, "writer asked for " + std::to_string(k));
      }
      for (std::uint16_t k = 0; k < kKeys; ++k) w->insert(fresh(k));
      for (std::uint16_t k = 0; k < kKeys; ++k) {
        FUZZ_CHECK(w->lookup(Blob::Key{k}) == fresh(k),
                   "the re-attached writer lost key " + std::to_string(k));
      }
      FUZZ_CHECK(reports == 0, "the re-attached writer met corruption after its repair");
      Memtab::Reader<Blob> after(name, counting(&reports));
      for (std::uint16_t k = 0; k < kKeys; ++k) {
        FUZZ_CHECK(after.lookup(Blob::Key{k}) == fresh(k), "a new reader lost key " + std::to_string(k));
      }
      readEverything(r);
      w->delAll();
      Quiet q2;
      after.processNotifications(q2);
      FUZZ_CHECK(after.size() == 0 && !after.contains(Blob::Key{0}));
      FUZZ_CHECK(reports == 0, "readers met corruption in a repaired table");
      readEverything(r);
    }
  }
  if (mapped != nullptr) munmap(mapped, size);
  Memtab::unlinkTable(name);
}

void writeSeeds() {
  const Template& t = segmentTemplate();
  auto edit = [](std::vector<std::uint8_t>& seed, std::uint8_t op, std::uint16_t offset,
                 const void* bytes, std::uint8_t n) {
    seed.push_back(op);
    seed.push_back(static_cast<std::uint8_t>(offset >> 8));
    seed.push_back(static_cast<std::uint8_t>(offset));
    seed.push_back(static_cast<std::uint8_t>(n - 1));
    auto* p = static_cast<const std::uint8_t*>(bytes);
    seed.insert(seed.end(), p, p + n);
  };
  auto* h = reinterpret_cast<const Shm::Header*>(t.bytes.data());
  auto field = [h](const void* f) {
    return static_cast<std::uint16_t>(static_cast<const std::uint8_t*>(f) -
                                      reinterpret_cast<const std::uint8_t*>(h));
  };
  Fuzz::writeSeed("untouched", {});
  {
    // A heap top off the 8-byte grid, for a re-attaching writer.
    std::vector<std::uint8_t> seed;
    const std::uint64_t top = (t.heapTop + 63) / 64 * 64 + 3;
    edit(seed, 0, field(&h->heapTop), &top, 8);
    Fuzz::writeSeed("heap-top-misaligned", seed);
  }
  {
    // After the reader has mapped the segment, one more change-ring entry:
    // a whole-table change, which has no image.
    std::vector<std::uint8_t> seed;
    const std::uint64_t head = h->ringHead.load();
    Shm::RingEntry e{Shm::kRingEntryHeader, static_cast<std::uint16_t>(Shm::RingKind::table), 0, 0, 0, 0};
    edit(seed, 0x81, static_cast<std::uint16_t>(head & (h->ringBytes - 1)), &e, sizeof e);
    const std::uint64_t next = head + Shm::kRingEntryHeader;
    edit(seed, 0x80, field(&h->ringReserve), &next, 8);
    edit(seed, 0x80, field(&h->ringHead), &next, 8);
    Fuzz::writeSeed("ring-table-entry-after-mapping", seed);
  }
  {
    // A record's version made odd and a bucket cleared.
    std::vector<std::uint8_t> seed;
    const std::uint8_t odd = 0x01, zero[8] = {};
    edit(seed, 3, 3 + 8 * 40, &odd, 1);
    edit(seed, 2, 8 + 64 * 2, zero, 8);
    Fuzz::writeSeed("odd-record-cleared-bucket", seed);
  }
  {
    std::vector<std::uint8_t> seed{5, 0, 100};
    Fuzz::writeSeed("truncated", seed);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  __sanitizer_set_death_callback(&unlinkOnDeath);
  unlinkLeftovers();
  return Fuzz::writeSeedsWhenAsked(&writeSeeds);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  run(parse(data, size));
  return 0;
}
