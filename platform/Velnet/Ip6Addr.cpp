#include "Velnet/Ip6Addr.h"

#include <ostream>

#include "Cog/Assert.h"
#include "Velnet/Text.h"

namespace Velnet {

Ip6Addr::Ip6Addr(std::uint32_t w0, std::uint32_t w1, std::uint32_t w2, std::uint32_t w3) {
  const std::uint32_t w[4] = {w0, w1, w2, w3};
  for (unsigned i = 0; i < 16; ++i) bytes_[i] = static_cast<std::uint8_t>(w[i / 4] >> (24 - 8 * (i % 4)));
}

Ip6Addr::Ip6Addr(const Cog::String& text) {
  auto it = text.begin();
  Text::ipv6(it, text.end(), bytes_);
  Cog::strepToValueEnd(it, text.end());
}

Ip6Addr::Ip6Addr(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  Text::ipv6(begin, end, bytes_);
}

Ip6Addr::Ip6Addr(Cog::NboAttrLog::In* in, Cog::StreamBogon) { in->nextBytes(bytes_, 16); }

std::uint8_t Ip6Addr::byte(unsigned i) const {
  COG_ASSERT(i < 16);
  return bytes_[i];
}

std::uint32_t Ip6Addr::word(unsigned i) const {
  COG_ASSERT(i < 4);
  const std::uint8_t* p = bytes_ + 4 * i;
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

bool Ip6Addr::isV4Mapped() const { return word(0) == 0 && word(1) == 0 && word(2) == 0xFFFF; }

Cog::HashValue Ip6Addr::hash() const {
  Cog::Hash h;
  for (unsigned i = 0; i < 4; ++i) h.mix(word(i));
  return h.result();
}

Cog::String valueToStrep(const Ip6Addr& a) { return Cog::String(Text::ipv6Text(a.bytes())); }

std::ostream& operator<<(std::ostream& os, const Ip6Addr& a) { return os << Text::ipv6Text(a.bytes()); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const Ip6Addr& a) {
  out->putBytes(a.bytes(), 16);
  return out;
}

}  // namespace Velnet
