// The framework's hash mixer. Generated value types feed their attributes in
// schema order and take the result:
//
//   Cog::Hash h;
//   h.mix(a); h.mix(b);
//   return h.result();
//
// Results are 32-bit on every architecture so that hashes agree between the
// 32-bit and 64-bit builds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Cog {

using HashValue = std::uint32_t;

class Hash {
 public:
  Hash() = default;

  // Any integer, bool or enumeration: widened to its unsigned value.
  template <typename T>
    requires std::is_integral_v<T> || std::is_enum_v<T>
  void mix(T v) {
    if constexpr (std::is_enum_v<T> || std::is_same_v<T, bool>) {
      mix32(static_cast<std::uint32_t>(v));
    } else if constexpr (sizeof(T) <= 4) {
      mix32(static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<T>>(v)));
    } else {
      auto u = static_cast<std::uint64_t>(v);
      mix32(static_cast<std::uint32_t>(u));
      mix32(static_cast<std::uint32_t>(u >> 32));
    }
  }
  void mix(float v) {
    if (v == 0.0f) v = 0.0f;  // +0 and -0 compare equal, so hash equal
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    mix32(bits);
  }
  void mix(double v) {
    if (v == 0.0) v = 0.0;
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    mix(bits);
  }
  // Bytes, as for strings.
  void mixBytes(const void* data, std::size_t size);

  HashValue result() const {
    // Murmur3 finaliser.
    HashValue h = h_ ^ (words_ * 4);
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    h ^= h >> 13;
    h *= 0xc2b2ae35u;
    h ^= h >> 16;
    return h;
  }

 private:
  void mix32(std::uint32_t v) {
    // Murmur3 body step.
    v *= 0xcc9e2d51u;
    v = (v << 15) | (v >> 17);
    v *= 0x1b873593u;
    h_ ^= v;
    h_ = (h_ << 13) | (h_ >> 19);
    h_ = h_ * 5 + 0xe6546b64u;
    ++words_;
  }

  std::uint32_t h_ = 0;
  std::uint32_t words_ = 0;
};

// The framework's string hash (used by Cog::String and Cog::Name).
HashValue stringHash(const char* data, std::size_t size);

// Jenkins one-at-a-time hash over `size` bytes, seed `seed`.
inline HashValue oneAtATimeHash(const void* data, std::size_t size, HashValue seed = 0) {
  auto* p = static_cast<const unsigned char*>(data);
  HashValue h = seed;
  for (std::size_t i = 0; i < size; ++i) {
    h += p[i];
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

}  // namespace Cog
