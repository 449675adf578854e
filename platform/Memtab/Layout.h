// The layout of a table segment. Everything is addressed by byte offsets from
// the start of the segment and uses fixed-width fields with explicit
// alignment, so 32-bit and 64-bit processes share a segment.
//
//   [Header 512][change ring][heap: bucket array, records, free space ...]
//
// Bucket array ("index"): blocks of one cache line, each an 8-byte sequence
// word followed by kBucketsPerBlock 8-byte buckets. A bucket is empty (0) or
// holds (key hash << 32 | record offset / 8). Buckets are kept in order of
// hash: an entry sits at or after its home position (hash * homeBuckets >>
// 32), never more than kMaxDisplacement past it, and the array has a tail of
// kTailBlocks blocks after the home positions instead of wrapping around.
// The writer makes a block's sequence word odd while it moves buckets within
// it, so a reader that found nothing can tell whether a move hid its key.
//
// Record: an 8-byte word (version << 24 | image length) followed by the
// value's image, padded to 8 bytes. The version is odd while the writer
// fills the record and different from any earlier record at that place
// afterwards. Records are written out of place and published by one atomic
// bucket store, so a reader sees the old or the new image and never a mix.
//
// Change ring: entries of kRingEntryHeader bytes plus an image, published by
// advancing ringHead; ringReserve is how far the writer may be writing. A
// key's entry carries the version of the record it wrote (or, for a
// removal, of the record it removed), so that a reader can tell later
// whether what it delivered is still what the table holds.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Memtab::Shm {

inline constexpr std::uint32_t kMagic = 0x3142544d;  // "MTB1"
inline constexpr std::uint32_t kLayoutVersion = 2;
inline constexpr std::size_t kHeaderBytes = 512;
inline constexpr std::size_t kTypeNameBytes = 256;  // NUL-terminated
inline constexpr std::size_t kBlockBytes = 64;
inline constexpr std::uint32_t kBucketsPerBlock = 7;
inline constexpr std::uint32_t kTailBlocks = 32;
inline constexpr std::uint32_t kMaxDisplacement = kTailBlocks * kBucketsPerBlock - 1;
inline constexpr std::uint32_t kMaxHomeBlocks = (1u << 24) - 1;
inline constexpr std::uint32_t kMaxImageBytes = (1u << 24) - 1;
inline constexpr std::size_t kRecordHeader = 8;
// Buckets hold record offsets in 8-byte units in 32 bits.
inline constexpr std::uint64_t kMaxSegmentBytes = std::uint64_t{1} << 35;
inline constexpr std::size_t kRingEntryHeader = 16;

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

struct alignas(64) Header {
  // Read by every lookup; changes rarely (growth, resize).
  std::atomic<std::uint32_t> magic;  // stored last when the segment is made
  std::uint32_t layoutVersion;
  std::uint32_t headerBytes;
  std::uint32_t typeTag;  // hash of the value type's name
  std::atomic<std::uint64_t> fileBytes;  // the segment only grows
  std::atomic<std::uint64_t> index;      // IndexWord
  std::uint64_t ringOffset;
  std::uint64_t ringBytes;  // a power of two, or 0 for no ring
  std::atomic<std::uint32_t> writerPid;
  std::atomic<std::uint32_t> writerEpoch;  // one more at every writer attach
  std::atomic<std::uint32_t> readers;      // linked readers, as the writer last counted
  std::uint32_t reserved0;
  // Written at every change: kept off the line above so that lookups in
  // other processes do not fight the writer for it.
  alignas(64) std::atomic<std::uint64_t> ringHead;
  std::atomic<std::uint64_t> ringReserve;
  alignas(64) std::atomic<std::uint64_t> count;  // entries
  // Kept by the writer for itself; readers do not rely on them.
  std::atomic<std::uint64_t> heapTop;
  std::atomic<std::uint64_t> version;  // last record version handed out
  alignas(64) std::uint8_t reserved1[64];
  // The value type's name, so that tools can find its registration.
  char typeName[kTypeNameBytes];
};
static_assert(sizeof(Header) == kHeaderBytes);

// Where the bucket array is: offset / 64 (32 bits), home blocks (24 bits) and
// a generation (8 bits) so that a reader notices a replaced array even when
// a new one lands at the same place with the same size.
struct IndexWord {
  std::uint64_t offset;  // bytes
  std::uint32_t homeBlocks;
  std::uint32_t generation;

  static IndexWord decode(std::uint64_t w) {
    return {(w & 0xffffffffu) * kBlockBytes, static_cast<std::uint32_t>((w >> 32) & 0xffffffu),
            static_cast<std::uint32_t>(w >> 56)};
  }
  std::uint64_t encode() const {
    return (offset / kBlockBytes) | (static_cast<std::uint64_t>(homeBlocks) << 32) |
           (static_cast<std::uint64_t>(generation & 0xff) << 56);
  }
  std::uint32_t homeBuckets() const { return homeBlocks * kBucketsPerBlock; }
  std::uint32_t totalBuckets() const { return (homeBlocks + kTailBlocks) * kBucketsPerBlock; }
  std::uint64_t bytes() const {
    return static_cast<std::uint64_t>(homeBlocks + kTailBlocks) * kBlockBytes;
  }
};

inline std::uint32_t homeOf(std::uint32_t hash, std::uint32_t homeBuckets) {
  return static_cast<std::uint32_t>((static_cast<std::uint64_t>(hash) * homeBuckets) >> 32);
}
// Byte offset, within the bucket array, of bucket `pos` and of its block's
// sequence word.
inline std::uint64_t bucketOffset(std::uint32_t pos) {
  return static_cast<std::uint64_t>(pos / kBucketsPerBlock) * kBlockBytes + 8 +
         (pos % kBucketsPerBlock) * 8;
}
inline std::uint64_t blockOffset(std::uint32_t block) {
  return static_cast<std::uint64_t>(block) * kBlockBytes;
}

inline std::uint64_t bucketWord(std::uint32_t hash, std::uint64_t recordOffset) {
  return (static_cast<std::uint64_t>(hash) << 32) | (recordOffset / 8);
}
inline std::uint32_t bucketHash(std::uint64_t w) { return static_cast<std::uint32_t>(w >> 32); }
inline std::uint64_t bucketRecord(std::uint64_t w) { return (w & 0xffffffffu) * 8; }

inline std::uint64_t recordWord(std::uint64_t version, std::uint32_t length) {
  return (version << 24) | length;
}
inline std::uint64_t recordVersion(std::uint64_t w) { return w >> 24; }
inline std::uint32_t recordLength(std::uint64_t w) { return static_cast<std::uint32_t>(w & 0xffffff); }
inline std::uint64_t recordBytes(std::uint32_t imageLength) {
  return kRecordHeader + ((static_cast<std::uint64_t>(imageLength) + 7) & ~std::uint64_t{7});
}

enum class RingKind : std::uint16_t { padding = 0, key = 1, table = 2 };

inline constexpr std::uint8_t kRingErased = 1;  // RingEntry::flags: the key was removed

struct RingEntry {
  std::uint32_t entryBytes;  // header and image, a multiple of 8
  std::uint16_t kind;        // RingKind
  std::uint8_t flags;
  std::uint8_t versionHigh;  // record version: bits 32..39
  std::uint32_t imageBytes;
  std::uint32_t versionLow;  // record version: bits 0..31

  std::uint64_t version() const {
    return (static_cast<std::uint64_t>(versionHigh) << 32) | versionLow;
  }
};
static_assert(sizeof(RingEntry) == kRingEntryHeader);

inline std::uint32_t mixHash(std::uint32_t h) {
  // Murmur3's finaliser: a bijection, so it adds no collisions, and it
  // spreads weak key hashes over the whole table.
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

}  // namespace Memtab::Shm
