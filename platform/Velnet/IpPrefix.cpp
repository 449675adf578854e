// Ip6Prefix and IpGenPrefix: construction with host bits masked, text and
// attribute-log forms.
#include <ostream>
#include <string>

#include "Cog/Exception.h"
#include "Velnet/IpGenPrefix.h"
#include "Velnet/Text.h"

namespace Velnet {

namespace {

void checkLen(std::uint32_t len, std::uint32_t max) {
  if (len > max) {
    throw Cog::RangeException("prefix length " + std::to_string(len) + " is out of range (max " +
                              std::to_string(max) + ")");
  }
}

// "/<length>" after an address; the length is checked against `max`.
std::uint32_t parseLen(Cog::String::IteratorConst& it, const Cog::String::IteratorConst& end,
                       std::uint32_t max) {
  if (!Text::consumeChar(it, end, '/')) Text::fail("expected '/' and a prefix length", it, end);
  return static_cast<std::uint32_t>(Text::decimal(it, end, max, "prefix length"));
}

}  // namespace

// ---- Ip6Prefix

Ip6Prefix::Ip6Prefix(const Ip6Addr& addr, std::uint32_t len) {
  checkLen(len, maxLen);
  std::uint8_t b[16];
  std::memcpy(b, addr.bytes(), 16);
  Text::maskBits(b, 16, len);
  addr_ = Ip6Addr::fromBytes(b);
  len_ = len;
}

Ip6Prefix::Ip6Prefix(const Cog::String& text) {
  auto it = text.begin();
  *this = Ip6Prefix(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

Ip6Prefix::Ip6Prefix(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  auto it = begin;
  Ip6Addr a(it, end);
  std::uint32_t len = parseLen(it, end, maxLen);
  *this = Ip6Prefix(a, len);
  begin = it;
}

Ip6Prefix::Ip6Prefix(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  Ip6Addr a(in, Cog::StreamBogon{});
  std::uint32_t len = in->nextU32();
  *this = Ip6Prefix(a, len);
}

bool Ip6Prefix::contains(const Ip6Addr& a) const { return Ip6Prefix(a, len_) == *this; }

Cog::HashValue Ip6Prefix::hash() const {
  Cog::Hash h;
  h.mix(addr_.hash());
  h.mix(len_);
  return h.result();
}

Cog::String valueToStrep(const Ip6Prefix& p) {
  return Cog::String(Text::ipv6Text(p.addr().bytes()) + "/" + std::to_string(p.len()));
}

std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p) { return os << valueToStrep(p); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const Ip6Prefix& p) {
  out << p.addr();
  out->putU32(p.len());
  return out;
}

// ---- IpGenPrefix

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, std::uint32_t len) {
  checkLen(len, addr.maxPrefixLen());
  af_ = addr.af();
  std::memcpy(addr_, addr.bytes(), 16);
  Text::maskBits(addr_, 16, len);
  len_ = len;
}

IpGenPrefix::IpGenPrefix(const Ip6Prefix& p) : IpGenPrefix(IpGenAddr(p.addr()), p.len()) {}

IpGenPrefix::IpGenPrefix(const Cog::String& text) {
  auto it = text.begin();
  *this = IpGenPrefix(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

IpGenPrefix::IpGenPrefix(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  auto it = begin;
  IpGenAddr a(it, end);
  if (a.af() == AddressFamily::ipunknown) return;  // nothing here: the default prefix
  std::uint32_t len = parseLen(it, end, a.maxPrefixLen());
  *this = IpGenPrefix(a, len);
  begin = it;
}

IpGenPrefix::IpGenPrefix(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  AddressFamily af = AddressFamilyInstance(in, Cog::StreamBogon{});
  std::uint8_t b[16];
  in->nextBytes(b, 16);
  std::uint32_t len = in->nextU32();
  IpText::checkUnusedBytesZero(af, b, "IpGenPrefix");
  *this = IpGenPrefix(IpGenAddr::fromBytes(af, b), len);
}

bool IpGenPrefix::contains(const IpGenAddr& a) const {
  return a.af() == af_ && IpGenPrefix(a, len_) == *this;
}

Cog::HashValue IpGenPrefix::hash() const {
  Cog::Hash h;
  h.mix(af_);
  for (unsigned i = 0; i < 16; i += 4) {
    h.mix(std::uint32_t{addr_[i]} << 24 | std::uint32_t{addr_[i + 1]} << 16 |
          std::uint32_t{addr_[i + 2]} << 8 | addr_[i + 3]);
  }
  h.mix(len_);
  return h.result();
}

Cog::String valueToStrep(const IpGenPrefix& p) {
  if (p.af() == AddressFamily::ipunknown) return Cog::String();
  return Cog::String(valueToStrep(p.addr()).str() + "/" + std::to_string(p.len()));
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefix& p) { return os << valueToStrep(p); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const IpGenPrefix& p) {
  out << p.af();
  out->putBytes(p.bytes(), 16);
  out->putU32(p.len());
  return out;
}

}  // namespace Velnet
