#include "Velnet/IpGenAddr.h"

#include <ostream>

#include "Cog/Assert.h"
#include "Cog/Exception.h"
#include "Velnet/Text.h"

namespace Velnet {

namespace IpText {

AddressFamily familyAt(Cog::String::IteratorConst it, const Cog::String::IteratorConst& end) {
  if (it == end || (Text::hexValue(*it) < 0 && *it != ':')) return AddressFamily::ipunknown;
  for (; it != end; ++it) {
    if (*it == ':') return AddressFamily::ipv6;
    if (Text::hexValue(*it) < 0) break;  // '.', '/', or the end of the address
  }
  return AddressFamily::ipv4;
}

void checkUnusedBytesZero(AddressFamily af, const std::uint8_t* bytes, const char* type) {
  unsigned used = IpGenAddr::maxPrefixLen(af) / 8;
  for (unsigned i = used; i < 16; ++i) {
    if (bytes[i] != 0) {
      throw Cog::RangeException(std::string(type) + " of family " + stringValue(af).str() +
                                " has a non-zero byte " + std::to_string(i) + " past its address");
    }
  }
}

}  // namespace IpText

IpGenAddr::IpGenAddr(const Ip6Addr& a) : af_(AddressFamily::ipv6) { std::memcpy(bytes_, a.bytes(), 16); }

IpGenAddr IpGenAddr::ipv4(std::uint32_t v) {
  IpGenAddr a;
  a.af_ = AddressFamily::ipv4;
  for (unsigned i = 0; i < 4; ++i) a.bytes_[i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
  return a;
}

IpGenAddr IpGenAddr::fromBytes(AddressFamily af, const std::uint8_t* bytes) {
  IpGenAddr a;
  a.af_ = af;
  std::memcpy(a.bytes_, bytes, maxPrefixLen(af) / 8);
  return a;
}

unsigned IpGenAddr::maxPrefixLen(AddressFamily af) {
  switch (af) {
    case AddressFamily::ipv4: return 32;
    case AddressFamily::ipv6: return 128;
    case AddressFamily::ipunknown: break;
  }
  return 0;
}

IpGenAddr::IpGenAddr(const Cog::String& text) {
  auto it = text.begin();
  *this = IpGenAddr(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

IpGenAddr::IpGenAddr(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  switch (IpText::familyAt(begin, end)) {
    case AddressFamily::ipv4:
      *this = ipv4(Text::ipv4(begin, end));
      break;
    case AddressFamily::ipv6: {
      std::uint8_t b[16];
      Text::ipv6(begin, end, b);
      *this = fromBytes(AddressFamily::ipv6, b);
      break;
    }
    case AddressFamily::ipunknown:
      break;
  }
}

IpGenAddr::IpGenAddr(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  AddressFamily af = AddressFamilyInstance(in, Cog::StreamBogon{});
  std::uint8_t b[16];
  in->nextBytes(b, 16);
  IpText::checkUnusedBytesZero(af, b, "IpGenAddr");
  af_ = af;
  std::memcpy(bytes_, b, 16);
}

std::uint32_t IpGenAddr::v4Addr() const {
  COG_ASSERT(isIpv4());
  return std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 |
         std::uint32_t{bytes_[2]} << 8 | bytes_[3];
}

Ip6Addr IpGenAddr::v6Addr() const {
  COG_ASSERT(isIpv6());
  return Ip6Addr::fromBytes(bytes_);
}

Cog::HashValue IpGenAddr::hash() const {
  Cog::Hash h;
  h.mix(af_);
  for (unsigned i = 0; i < 16; i += 4) {
    h.mix(std::uint32_t{bytes_[i]} << 24 | std::uint32_t{bytes_[i + 1]} << 16 |
          std::uint32_t{bytes_[i + 2]} << 8 | bytes_[i + 3]);
  }
  return h.result();
}

Cog::String valueToStrep(const IpGenAddr& a) {
  switch (a.af()) {
    case AddressFamily::ipv4: return Cog::String(Text::ipv4Text(a.v4Addr()));
    case AddressFamily::ipv6: return Cog::String(Text::ipv6Text(a.bytes()));
    case AddressFamily::ipunknown: break;
  }
  return Cog::String();
}

std::ostream& operator<<(std::ostream& os, const IpGenAddr& a) { return os << valueToStrep(a); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const IpGenAddr& a) {
  out << a.af();
  out->putBytes(a.bytes(), 16);
  return out;
}

}  // namespace Velnet
