#include "Cog/String.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ostream>

#include "Cog/Exception.h"

namespace Cog {

std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.str(); }

namespace {

std::string context(String::IteratorConst it, const String::IteratorConst& end) {
  if (it == end) return "end of input";
  std::string rest(it, end);
  if (rest.size() > 24) rest = rest.substr(0, 24) + "...";
  return "'" + rest + "'";
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

void strepToValueEnd(const String::IteratorConst& begin, const String::IteratorConst& end) {
  if (begin != end) throw ParseException("unexpected text after value: " + context(begin, end));
}

namespace Parse {

void expect(String::IteratorConst& it, const String::IteratorConst& end, std::string_view expected) {
  if (!consumeIf(it, end, expected)) {
    throw ParseException("expected \"" + std::string(expected) + "\" at " + context(it, end));
  }
}

bool consumeIf(String::IteratorConst& it, const String::IteratorConst& end, std::string_view text) {
  auto p = it;
  for (char c : text) {
    if (p == end || *p != c) return false;
    ++p;
  }
  it = p;
  return true;
}

std::uint64_t unsignedNumber(String::IteratorConst& it, const String::IteratorConst& end,
                             std::uint64_t max, const char* what) {
  auto start = it;
  unsigned base = 10;
  if (end - it >= 3 && it[0] == '0' && (it[1] == 'x' || it[1] == 'X')) {
    base = 16;
    it += 2;
  }
  std::uint64_t v = 0;
  bool any = false, overflow = false;
  for (; it != end; ++it) {
    unsigned d;
    char c = *it;
    if (isDigit(c)) d = c - '0';
    else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
    else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
    else break;
    if (v > (UINT64_MAX - d) / base) overflow = true;
    v = v * base + d;
    any = true;
  }
  if (!any) {
    it = start;
    throw ParseException(std::string("expected ") + what + " at " + context(it, end));
  }
  if (overflow || v > max) {
    throw RangeException(std::string(what) + " " + std::string(start, it) + " is out of range (max " +
                         std::to_string(max) + ")");
  }
  return v;
}

std::int64_t signedNumber(String::IteratorConst& it, const String::IteratorConst& end,
                          std::int64_t min, std::int64_t max, const char* what) {
  bool negative = consumeIf(it, end, "-");
  std::uint64_t limit = negative ? std::uint64_t(-(min + 1)) + 1 : std::uint64_t(max);
  std::uint64_t magnitude = unsignedNumber(it, end, limit, what);
  if (!negative) return std::int64_t(magnitude);
  return magnitude == 0 ? 0 : -std::int64_t(magnitude - 1) - 1;
}

double floatingNumber(String::IteratorConst& it, const String::IteratorConst& end) {
  std::string text;
  auto p = it;
  while (p != end && (isDigit(*p) || *p == '.' || *p == '-' || *p == '+' || *p == 'e' ||
                      *p == 'E' || *p == 'n' || *p == 'a' || *p == 'i' || *p == 'f' ||
                      *p == 'N' || *p == 'I')) {
    text += *p++;
  }
  if (text.empty()) throw ParseException("expected a number at " + context(it, end));
  char* stop = nullptr;
  errno = 0;
  double v = std::strtod(text.c_str(), &stop);
  if (stop == text.c_str()) throw ParseException("expected a number at " + context(it, end));
  it += stop - text.c_str();
  return v;
}

bool boolean(String::IteratorConst& it, const String::IteratorConst& end) {
  if (consumeIf(it, end, "True") || consumeIf(it, end, "true")) return true;
  if (consumeIf(it, end, "False") || consumeIf(it, end, "false")) return false;
  throw ParseException("expected True or False at " + context(it, end));
}

String quoted(String::IteratorConst& it, const String::IteratorConst& end) {
  if (it == end || (*it != '\'' && *it != '"')) {
    throw ParseException("expected a quoted string at " + context(it, end));
  }
  char q = *it;
  auto p = it + 1;
  std::string out;
  for (;;) {
    if (p == end) throw ParseException("unterminated string at " + context(it, end));
    char c = *p++;
    if (c == q) break;
    if (c == '\\') {
      if (p == end) throw ParseException("unterminated string at " + context(it, end));
      c = *p++;
      if (c == 'n') c = '\n';
      else if (c == 't') c = '\t';
      else if (c == '0') c = '\0';
    }
    out += c;
  }
  it = p;
  return String(std::move(out));
}

String identifier(String::IteratorConst& it, const String::IteratorConst& end) {
  auto p = it;
  auto isStart = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
  if (p == end || !isStart(*p)) throw ParseException("expected a name at " + context(it, end));
  while (p != end && (isStart(*p) || isDigit(*p))) ++p;
  String s(it, p);
  it = p;
  return s;
}

std::string quote(std::string_view s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    if (c == '\n') { out += "\\n"; continue; }
    if (c == '\t') { out += "\\t"; continue; }
    if (c == '\0') { out += "\\0"; continue; }
    out += c;
  }
  return out + "'";
}

}  // namespace Parse
}  // namespace Cog
