#include "Velnet/EthAddr.h"

#include <ostream>

#include "Cog/Assert.h"
#include "Velnet/Text.h"

namespace Velnet {

namespace {

// Up to `maxDigits` hex digits (at least one) at `it`; the count read goes to
// `digits`.
unsigned hexGroup(Text::It& it, const Text::It& end, int maxDigits, int& digits) {
  unsigned v = 0;
  digits = 0;
  while (it != end && Text::hexValue(*it) >= 0 && digits <= maxDigits) {
    v = v * 16 + static_cast<unsigned>(Text::hexValue(*it));
    ++it;
    ++digits;
  }
  return v;
}

}  // namespace

EthAddr EthAddr::fromValue(std::uint64_t value) {
  COG_ASSERT(value >> 48 == 0);
  EthAddr a;
  for (unsigned i = 0; i < 6; ++i) a.bytes_[i] = static_cast<std::uint8_t>(value >> (40 - 8 * i));
  return a;
}

EthAddr::EthAddr(const Cog::String& text) {
  auto it = text.begin();
  *this = EthAddr(it, text.end());
  Cog::strepToValueEnd(it, text.end());
}

EthAddr::EthAddr(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  auto it = begin;
  int digits;
  auto groupStart = it;
  unsigned first = hexGroup(it, end, 4, digits);
  if (digits == 0) Text::fail("expected a MAC address", it, end);
  if (digits > 4) Text::fail("MAC address group longer than four hex digits", groupStart, end);
  std::uint64_t value = 0;
  if (digits <= 2 && it != end && *it == ':') {
    value = first;
    for (int i = 1; i < 6; ++i) {
      if (!Text::consumeChar(it, end, ':')) Text::fail("expected ':' in MAC address", it, end);
      groupStart = it;
      unsigned byte = hexGroup(it, end, 2, digits);
      if (digits == 0) Text::fail("expected a MAC address byte", it, end);
      if (digits > 2) Text::fail("MAC address byte longer than two hex digits", groupStart, end);
      value = value << 8 | byte;
    }
  } else if (it != end && *it == '.') {
    value = first;
    for (int i = 1; i < 3; ++i) {
      if (!Text::consumeChar(it, end, '.')) Text::fail("expected '.' in MAC address", it, end);
      groupStart = it;
      unsigned group = hexGroup(it, end, 4, digits);
      if (digits == 0) Text::fail("expected a MAC address group", it, end);
      if (digits > 4) Text::fail("MAC address group longer than four hex digits", groupStart, end);
      value = value << 16 | group;
    }
  } else if (it != end && *it == ':') {
    Text::fail("MAC address byte longer than two hex digits", groupStart, end);
  } else {
    Text::fail("expected ':' or '.' in MAC address", it, end);
  }
  *this = fromValue(value);
  begin = it;
}

EthAddr::EthAddr(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  std::uint64_t v = in->nextU16();
  v = v << 16 | in->nextU16();
  v = v << 16 | in->nextU16();
  *this = fromValue(v);
}

std::uint64_t EthAddr::value() const {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < 6; ++i) v = v << 8 | bytes_[i];
  return v;
}

Cog::HashValue EthAddr::hash() const {
  Cog::Hash h;
  for (unsigned i = 0; i < 6; i += 2) h.mix(static_cast<std::uint16_t>(bytes_[i] << 8 | bytes_[i + 1]));
  return h.result();
}

Cog::String valueToStrep(const EthAddr& a) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned i = 0; i < 6; ++i) {
    if (i) s += ':';
    s += digits[a.bytes()[i] >> 4];
    s += digits[a.bytes()[i] & 0xF];
  }
  return Cog::String(std::move(s));
}

std::ostream& operator<<(std::ostream& os, const EthAddr& a) { return os << valueToStrep(a); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const EthAddr& a) {
  const std::uint8_t* b = a.bytes();
  for (unsigned i = 0; i < 6; i += 2) out->putU16(static_cast<std::uint16_t>(b[i] << 8 | b[i + 1]));
  return out;
}

}  // namespace Velnet
