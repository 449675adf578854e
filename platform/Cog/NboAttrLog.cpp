#include "Cog/NboAttrLog.h"

#include "Cog/Exception.h"

namespace Cog::NboAttrLog {

void In::need(std::size_t n, const char* what) const {
  if (n > remaining()) {
    throw StreamException("attribute log truncated: " + std::string(what) + " needs " +
                          std::to_string(n) + " bytes at offset " + std::to_string(pos_) +
                          ", " + std::to_string(remaining()) + " left");
  }
}

bool In::nextbool() {
  need(1, "bool");
  std::uint8_t b = bytes_[pos_];
  if (b > 1) {
    throw StreamException("attribute log malformed: bool byte " + std::to_string(b) +
                          " at offset " + std::to_string(pos_));
  }
  ++pos_;
  return b != 0;
}

String In::nextString() {
  auto start = pos_;
  std::uint32_t len = nextU32();
  if (len > remaining()) {
    pos_ = start;
    throw StreamException("attribute log truncated: string of " + std::to_string(len) +
                          " bytes at offset " + std::to_string(start) + ", " +
                          std::to_string(remaining() - 4) + " left after its length");
  }
  String s(std::string(reinterpret_cast<const char*>(bytes_.data() + pos_), len));
  pos_ += len;
  return s;
}

void In::nextBytes(void* data, std::size_t size) {
  need(size, "bytes");
  std::memcpy(data, bytes_.data() + pos_, size);
  pos_ += size;
}

}  // namespace Cog::NboAttrLog
