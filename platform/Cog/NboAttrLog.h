// Attribute-log streams: the byte form in which values and entity attributes
// travel between processes. All numbers are in network byte order.
//
//   auto out = Cog::allocate<Cog::NboAttrLog::Out>();
//   out->putU32(7); out->putString("eth1");
//   Cog::NboAttrLog::In in(out->bytes());
//   in.nextU32(); in.nextString();
//
// In never reads past the end of its bytes: a truncated or malformed stream
// raises Cog::StreamException and leaves the stream where it was.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "Cog/Ptr.h"
#include "Cog/String.h"

namespace Cog {

// Tag for the stream constructors of value types: T(In*, StreamBogon).
struct StreamBogon {};

namespace NboAttrLog {

class Out : public PtrInterface {
 public:
  Out() = default;

  void putU8(std::uint8_t v) { bytes_.push_back(v); }
  void putU16(std::uint16_t v) { putBig(v, 2); }
  void putU32(std::uint32_t v) { putBig(v, 4); }
  void putU64(std::uint64_t v) { putBig(v, 8); }
  void putbool(bool v) { putU8(v ? 1 : 0); }
  void putFloat(float v) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    putU32(bits);
  }
  void putDouble(double v) {
    std::uint64_t bits;
    std::memcpy(&bits, &v, 8);
    putU64(bits);
  }
  // A string: 32-bit length, then the bytes.
  void putString(std::string_view s) {
    putU32(static_cast<std::uint32_t>(s.size()));
    bytes_.insert(bytes_.end(), s.begin(), s.end());
  }
  void putBytes(const void* data, std::size_t size) {
    auto* p = static_cast<const std::uint8_t*>(data);
    bytes_.insert(bytes_.end(), p, p + size);
  }

  const std::vector<std::uint8_t>& bytes() const { return bytes_; }
  std::size_t size() const { return bytes_.size(); }
  void clear() { bytes_.clear(); }

 private:
  void putBig(std::uint64_t v, unsigned width) {
    for (unsigned i = width; i-- > 0;) bytes_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  std::vector<std::uint8_t> bytes_;
};

class In : public PtrInterface {
 public:
  // Reads from a copy of `bytes`.
  explicit In(std::span<const std::uint8_t> bytes) : bytes_(bytes.begin(), bytes.end()) {}
  explicit In(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

  std::uint8_t nextU8() { return static_cast<std::uint8_t>(nextBig(1)); }
  std::uint16_t nextU16() { return static_cast<std::uint16_t>(nextBig(2)); }
  std::uint32_t nextU32() { return static_cast<std::uint32_t>(nextBig(4)); }
  std::uint64_t nextU64() { return nextBig(8); }
  bool nextbool();
  float nextFloat() {
    std::uint32_t bits = nextU32();
    float v;
    std::memcpy(&v, &bits, 4);
    return v;
  }
  double nextDouble() {
    std::uint64_t bits = nextU64();
    double v;
    std::memcpy(&v, &bits, 8);
    return v;
  }
  String nextString();
  void nextBytes(void* data, std::size_t size);

  std::size_t remaining() const { return bytes_.size() - pos_; }
  bool atEnd() const { return pos_ == bytes_.size(); }
  std::size_t position() const { return pos_; }

 private:
  void need(std::size_t n, const char* what) const;
  std::uint64_t nextBig(unsigned width) {
    need(width, "number");
    std::uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v = (v << 8) | bytes_[pos_ + i];
    pos_ += width;
    return v;
  }
  std::vector<std::uint8_t> bytes_;
  std::size_t pos_ = 0;
};

}  // namespace NboAttrLog
}  // namespace Cog
