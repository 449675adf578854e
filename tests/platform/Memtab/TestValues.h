// Value types the table tests store: a fixed 64-byte record whose checksum
// ties every byte to its key, and a variable-length one whose
// deserializeLen() is larger than its image (the table must zero-pad).
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <map>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "Cog/Hash.h"
#include "Memtab/Table.h"

namespace MemtabTest {

// Sanitizer builds run the largest cases at a quarter of their size.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr int kScale = 4;
#else
inline constexpr int kScale = 1;
#endif

struct Id {
  std::uint64_t v = 0;
  Cog::HashValue hash() const {
    Cog::Hash h;
    h.mix(v);
    return h.result();
  }
  bool operator==(const Id&) const = default;
};

// 64 bytes: id, sequence, 40 bytes derived from both, and a checksum.
struct Record {
  std::uint64_t id = 0;
  std::uint64_t seq = 0;
  std::uint8_t payload[40] = {};
  std::uint64_t checksum = 0;

  Record() = default;
  Record(std::uint64_t i, std::uint64_t s) : id(i), seq(s) {
    for (int k = 0; k < 40; ++k) payload[k] = static_cast<std::uint8_t>((i * 31 + s * 7 + k) & 0xff);
    checksum = sum();
  }
  std::uint64_t sum() const {
    std::uint64_t x = id * 0x9e3779b97f4a7c15ull ^ seq;
    for (auto b : payload) x = (x ^ b) * 0x100000001b3ull;
    return x;
  }
  // Every byte agrees with id and seq: no mix of two writes.
  bool intact() const { return checksum == sum() && *this == Record(id, seq); }

  Id key() const { return Id{id}; }
  bool operator==(const Record& o) const {
    return id == o.id && seq == o.seq && checksum == o.checksum &&
           std::memcmp(payload, o.payload, sizeof payload) == 0;
  }
  std::size_t serializeLen() const { return 64; }
  void serialize(std::uint8_t* out) const {
    std::memcpy(out, &id, 8);
    std::memcpy(out + 8, &seq, 8);
    std::memcpy(out + 16, payload, 40);
    std::memcpy(out + 56, &checksum, 8);
  }
  static std::size_t deserializeLen(const std::uint8_t*, std::size_t avail) {
    return avail == 64 ? 64 : 0;
  }
  void deserialize(const std::uint8_t* in, std::size_t) {
    std::memcpy(&id, in, 8);
    std::memcpy(&seq, in + 8, 8);
    std::memcpy(payload, in + 16, 40);
    std::memcpy(&checksum, in + 56, 8);
  }
};

// Image: id (4), code (4), name length (2), name bytes. In memory the name
// is a fixed array, and deserialize() reads all of it, as generated types
// with fixed arrays do.
struct Named {
  static constexpr std::size_t kMaxName = 200;
  std::uint32_t id = 0;
  std::uint32_t code = 0;
  std::uint16_t length = 0;
  char name[kMaxName] = {};

  Named() = default;
  Named(std::uint32_t i, std::uint32_t c, const std::string& n) : id(i), code(c) {
    length = static_cast<std::uint16_t>(n.size());
    std::memcpy(name, n.data(), n.size());
  }
  std::string text() const { return std::string(name, length); }

  struct Key {
    std::uint32_t id = 0;
    Cog::HashValue hash() const { return id * 2654435761u; }
    bool operator==(const Key&) const = default;
  };
  Key key() const { return Key{id}; }
  bool operator==(const Named& o) const {
    return id == o.id && code == o.code && text() == o.text();
  }
  std::size_t serializeLen() const { return 10 + length; }
  void serialize(std::uint8_t* out) const {
    std::memcpy(out, &id, 4);
    std::memcpy(out + 4, &code, 4);
    std::memcpy(out + 8, &length, 2);
    std::memcpy(out + 10, name, length);
  }
  static std::size_t deserializeLen(const std::uint8_t* in, std::size_t avail) {
    if (avail < 10) return 0;
    std::uint16_t n;
    std::memcpy(&n, in + 8, 2);
    return n <= kMaxName ? 10 + kMaxName : 0;
  }
  void deserialize(const std::uint8_t* in, std::size_t) {
    std::memcpy(&id, in, 4);
    std::memcpy(&code, in + 4, 4);
    std::memcpy(&length, in + 8, 2);
    std::memcpy(name, in + 10, kMaxName);
    std::memset(name + length, 0, kMaxName - length);
  }
};

// A table name no other test process uses; removed by ~TableName.
struct TableName {
  std::string value;
  explicit TableName(const char* what) {
    static std::atomic<int> n{0};
    value = std::string("t.") + what + "." + std::to_string(getpid()) + "." +
            std::to_string(n.fetch_add(1));
  }
  ~TableName() { Memtab::unlinkTable(value); }
  operator const std::string&() const { return value; }
};

// Collects what a table hands its corruption handler.
struct Messages {
  std::vector<std::string> all;
  Memtab::Options options() {
    Memtab::Options o;
    o.corruptionHandler = [this](const std::string& m) { all.push_back(m); };
    return o;
  }
  bool has(const std::string& part) const {
    for (auto& m : all)
      if (m.find(part) != std::string::npos) return true;
    return false;
  }
};

// A reader that keeps its own copy of the table from notifications alone,
// as the machines fed by a table do: the table as first mapped (onTable())
// fills it, then only onKey() changes it; later onTable()s are ignored.
struct Mirror : Memtab::Notifiee<Id> {
  Memtab::Reader<Record>* r = nullptr;
  std::map<std::uint64_t, Record> copy;
  std::set<std::uint64_t> delivered;
  bool filled = false;
  int slowUs = 0;  // time spent on each key, to fall behind
  void onTable() override {
    if (filled || r->mountStatus() == Memtab::MountStatus::unmounted) return;
    filled = true;
    for (const Record& v : *r) copy[v.id] = v;
  }
  void onKey(const Id& k) override {
    delivered.insert(k.v);
    if (auto v = r->find(k)) {
      copy[k.v] = *v;
    } else {
      copy.erase(k.v);
    }
    if (slowUs > 0) {
      const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(slowUs);
      while (std::chrono::steady_clock::now() < until) {
      }
    }
  }
};

}  // namespace MemtabTest
