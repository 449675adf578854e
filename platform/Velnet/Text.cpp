#include "Velnet/Text.h"

#include "Cog/Exception.h"

namespace Velnet::Text {

std::string context(It it, const It& end) {
  if (it == end) return "end of input";
  std::string rest(it, end);
  if (rest.size() > 24) rest = rest.substr(0, 24) + "...";
  return "'" + rest + "'";
}

void fail(const std::string& what, It it, const It& end) {
  throw Cog::ParseException(what + " at " + context(it, end));
}

namespace {

// Digits at `it` (advanced past them); `overflow` when they exceed `max`.
std::uint64_t scanDigits(It& it, const It& end, std::uint64_t max, const char* what,
                         bool& overflow) {
  if (it == end || !isDigit(*it)) fail(std::string("expected ") + what, it, end);
  std::uint64_t v = 0;
  overflow = false;
  for (; it != end && isDigit(*it); ++it) {
    unsigned d = static_cast<unsigned>(*it - '0');
    if (overflow || v > max / 10 || d > max - v * 10) {
      overflow = true;
      continue;
    }
    v = v * 10 + d;
  }
  return v;
}

}  // namespace

std::uint64_t decimal(It& it, const It& end, std::uint64_t max, const char* what) {
  auto start = it;
  bool overflow;
  std::uint64_t v = scanDigits(it, end, max, what, overflow);
  if (overflow) {
    throw Cog::RangeException(std::string(what) + " " + std::string(start, it) +
                              " is out of range (max " + std::to_string(max) + ")");
  }
  return v;
}

std::uint64_t decimalBounded(It& it, const It& end, std::uint64_t max, const char* what,
                             const char* rangeMessage) {
  bool overflow;
  std::uint64_t v = scanDigits(it, end, max, what, overflow);
  if (overflow) throw Cog::RangeException(rangeMessage);
  return v;
}

}  // namespace Velnet::Text

namespace Velnet::Text {

std::uint32_t ipv4(It& it, const It& end) {
  auto start = it;
  std::uint32_t v = 0;
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && !consumeChar(it, end, '.')) {
      auto at = it;
      it = start;
      fail("expected '.' in IPv4 address", at, end);
    }
    if (it == end || !isDigit(*it)) {
      auto at = it;
      it = start;
      fail("expected an IPv4 address octet", at, end);
    }
    if (*it == '0' && it + 1 != end && isDigit(it[1])) {
      auto at = it;
      it = start;
      fail("leading zero in IPv4 address octet", at, end);
    }
    auto octetStart = it;
    unsigned octet = 0;
    int digits = 0;
    while (it != end && isDigit(*it) && digits < 4) {
      octet = octet * 10 + static_cast<unsigned>(*it - '0');
      ++it;
      ++digits;
    }
    if (octet > 255) {
      std::string text(octetStart, it);
      it = start;
      throw Cog::RangeException("IPv4 address octet " + text + " is out of range (max 255)");
    }
    v = (v << 8) | octet;
  }
  return v;
}

std::string ipv4Text(std::uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 0xFF) + "." +
         std::to_string((a >> 8) & 0xFF) + "." + std::to_string(a & 0xFF);
}

void ipv6(It& it, const It& end, std::uint8_t bytes[16]) {
  auto start = it;
  auto error = [&](const char* what) {
    auto at = it;
    it = start;
    fail(what, at, end);
  };
  std::uint16_t head[8] = {}, tail[8] = {};
  int nHead = 0, nTail = 0;
  bool compressed = false;
  bool v4Tail = false;
  std::uint32_t v4 = 0;
  if (consumeChar(it, end, ':')) {
    if (!consumeChar(it, end, ':')) error("expected \"::\" in IPv6 address");
    compressed = true;
  }
  // After a single ':' a group must follow; after "::" (or at the start) one may.
  bool needGroup = !compressed;
  for (;;) {
    if (it == end || hexValue(*it) < 0) {
      if (needGroup) error("expected a group of hex digits in IPv6 address");
      break;
    }
    auto groupStart = it;
    unsigned value = 0;
    int digits = 0;
    while (it != end && hexValue(*it) >= 0) {
      if (++digits > 4) error("IPv6 address group longer than four hex digits");
      value = value * 16 + static_cast<unsigned>(hexValue(*it));
      ++it;
    }
    if (it != end && *it == '.') {
      // The last 32 bits as a dotted quad.
      it = groupStart;
      try {
        v4 = ipv4(it, end);
      } catch (const Cog::Exception&) {
        it = start;
        throw;
      }
      v4Tail = true;
      break;
    }
    if (nHead + nTail + (compressed ? 1 : 0) >= 8) error("too many groups in IPv6 address");
    (compressed ? tail[nTail++] : head[nHead++]) = static_cast<std::uint16_t>(value);
    if (it == end || *it != ':') break;
    ++it;
    if (consumeChar(it, end, ':')) {
      if (compressed) error("more than one \"::\" in IPv6 address");
      compressed = true;
      needGroup = false;
    } else {
      needGroup = true;
    }
  }
  int groups = nHead + nTail + (v4Tail ? 2 : 0);
  if (compressed ? groups > 7 : groups != 8) {
    auto at = it;
    it = start;
    fail(compressed ? "too many groups in IPv6 address" : "too few groups in IPv6 address", at, end);
  }
  std::uint16_t all[8] = {};
  for (int i = 0; i < nHead; ++i) all[i] = head[i];
  int tailStart = 8 - nTail - (v4Tail ? 2 : 0);
  for (int i = 0; i < nTail; ++i) all[tailStart + i] = tail[i];
  if (v4Tail) {
    all[6] = static_cast<std::uint16_t>(v4 >> 16);
    all[7] = static_cast<std::uint16_t>(v4);
  }
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<std::uint8_t>(all[i] >> 8);
    bytes[2 * i + 1] = static_cast<std::uint8_t>(all[i]);
  }
}

std::string ipv6Text(const std::uint8_t b[16]) {
  static const char digits[] = "0123456789abcdef";
  std::uint16_t g[8];
  for (int i = 0; i < 8; ++i) g[i] = static_cast<std::uint16_t>(b[2 * i] << 8 | b[2 * i + 1]);
  bool mapped = g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] == 0 && g[4] == 0 && g[5] == 0xFFFF;
  if (mapped) {
    return "::ffff:" + ipv4Text(std::uint32_t{g[6]} << 16 | g[7]);
  }
  int bestStart = -1, bestLen = 1;  // runs of one group are never compressed
  for (int i = 0; i < 8;) {
    if (g[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && g[j] == 0) ++j;
    if (j - i > bestLen) {
      bestStart = i;
      bestLen = j - i;
    }
    i = j;
  }
  std::string out;
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    bool any = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
      unsigned d = (g[i] >> shift) & 0xF;
      if (d || any || shift == 0) {
        out += digits[d];
        any = true;
      }
    }
  }
  return out;
}

void maskBits(std::uint8_t* bytes, unsigned size, unsigned len) {
  for (unsigned i = 0; i < size; ++i) {
    unsigned bitsHere = len > 8 * i ? len - 8 * i : 0;
    if (bitsHere >= 8) continue;
    bytes[i] &= static_cast<std::uint8_t>(0xFF00u >> bitsHere);
  }
}

}  // namespace Velnet::Text
