#include "Cog/Hash.h"

namespace Cog {

void Hash::mixBytes(const void* data, std::size_t size) {
  auto* p = static_cast<const unsigned char*>(data);
  std::size_t i = 0;
  for (; i + 4 <= size; i += 4) {
    std::uint32_t w;
    std::memcpy(&w, p + i, 4);
    mix(w);
  }
  std::uint32_t tail = 0;
  for (std::size_t k = 0; i < size; ++i, ++k) tail |= std::uint32_t(p[i]) << (8 * k);
  mix(tail ^ static_cast<std::uint32_t>(size));
}

HashValue stringHash(const char* data, std::size_t size) {
  Hash h;
  h.mixBytes(data, size);
  return h.result();
}

}  // namespace Cog
