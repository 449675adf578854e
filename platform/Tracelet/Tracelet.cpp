#include "Tracelet/Tracelet.h"

#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <ostream>
#include <sstream>

namespace Tracelet {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<const Descriptor*> sites;  // index id - 1
};

Registry& registry() {
  static Registry* r = new Registry;  // call sites outlive static destructors
  return *r;
}

bool isPowerOfTwo(std::size_t n) { return n != 0 && (n & (n - 1)) == 0; }

std::size_t argBytes(ArgType t, std::size_t maxString) {
  switch (t) {
    case ArgType::U8: case ArgType::I8: case ArgType::Bool: return 1;
    case ArgType::U16: case ArgType::I16: return 2;
    case ArgType::U32: case ArgType::I32: return 4;
    case ArgType::String: return 1 + maxString;
    default: return 8;
  }
}

// Reads the arguments of one record and writes the formatted text. Returns
// false when the record is shorter than its descriptor says.
class ArgReader {
 public:
  ArgReader(const unsigned char* p, std::size_t n) : p_(p), end_(p + n) {}

  template <typename T>
  bool fixed(T* out) {
    if (static_cast<std::size_t>(end_ - p_) < sizeof(T)) return false;
    std::memcpy(out, p_, sizeof(T));
    p_ += sizeof(T);
    return true;
  }
  bool string(std::string_view* out) {
    if (p_ == end_) return false;
    std::size_t n = *p_++;
    if (static_cast<std::size_t>(end_ - p_) < n) return false;
    *out = std::string_view(reinterpret_cast<const char*>(p_), n);
    p_ += n;
    return true;
  }

 private:
  const unsigned char* p_;
  const unsigned char* end_;
};

struct Value {
  ArgType type;
  std::uint64_t u = 0;
  std::int64_t i = 0;
  double d = 0;
  std::string_view s;
};

bool readValue(ArgReader& in, ArgType type, Value* v) {
  v->type = type;
  switch (type) {
    case ArgType::U8: { std::uint8_t x; if (!in.fixed(&x)) return false; v->u = x; return true; }
    case ArgType::U16: { std::uint16_t x; if (!in.fixed(&x)) return false; v->u = x; return true; }
    case ArgType::U32: { std::uint32_t x; if (!in.fixed(&x)) return false; v->u = x; return true; }
    case ArgType::U64: return in.fixed(&v->u);
    case ArgType::I8: { std::int8_t x; if (!in.fixed(&x)) return false; v->i = x; return true; }
    case ArgType::I16: { std::int16_t x; if (!in.fixed(&x)) return false; v->i = x; return true; }
    case ArgType::I32: { std::int32_t x; if (!in.fixed(&x)) return false; v->i = x; return true; }
    case ArgType::I64: return in.fixed(&v->i);
    case ArgType::Bool: { std::uint8_t x; if (!in.fixed(&x)) return false; v->u = x != 0; return true; }
    case ArgType::Double: return in.fixed(&v->d);
    case ArgType::String: return in.string(&v->s);
  }
  return false;
}

bool isSigned(ArgType t) {
  return t == ArgType::I8 || t == ArgType::I16 || t == ArgType::I32 || t == ArgType::I64;
}

void appendValue(std::string& out, const Value& v, char conversion) {
  char buf[64];
  switch (v.type) {
    case ArgType::String: out += v.s; return;
    case ArgType::Double:
      std::snprintf(buf, sizeof buf, conversion == 'f' ? "%f" : "%g", v.d);
      out += buf;
      return;
    case ArgType::Bool:
      if (conversion == 's') {
        out += v.u ? "true" : "false";
        return;
      }
      break;
    default: break;
  }
  if (conversion == 'x') {
    // A negative number shows its two's complement at its own width.
    std::uint64_t bits = v.u;
    if (isSigned(v.type)) {
      bits = static_cast<std::uint64_t>(v.i);
      const std::size_t width = argBytes(v.type, 0) * 8;
      if (width < 64) bits &= (std::uint64_t(1) << width) - 1;
    }
    std::snprintf(buf, sizeof buf, "%" PRIx64, bits);
  } else if (isSigned(v.type)) {
    std::snprintf(buf, sizeof buf, "%" PRId64, v.i);
  } else {
    std::snprintf(buf, sizeof buf, "%" PRIu64, v.u);
  }
  out += buf;
}

std::string formatRecord(const Descriptor& site, const unsigned char* args, std::size_t length) {
  ArgReader in(args, length);
  std::string out;
  std::size_t arg = 0;
  for (const char* p = site.format; *p; ++p) {
    if (*p != '%') {
      out += *p;
      continue;
    }
    ++p;
    if (*p == '\0') break;
    if (*p == '%') {
      out += '%';
      continue;
    }
    Value v;
    if (arg >= site.argCount || !readValue(in, site.argTypes[arg++], &v)) {
      out += "<truncated record>";
      return out;
    }
    appendValue(out, v, *p);
  }
  return out;
}

}  // namespace

void Descriptor::registerSelf() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.sites.push_back(this);
  id = static_cast<std::uint32_t>(r.sites.size());
}

const Descriptor* descriptor(std::uint32_t id) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return id == 0 || id > r.sites.size() ? nullptr : r.sites[id - 1];
}

Ring::Ring(std::size_t bytes, std::size_t maxStringBytes)
    : mask_(bytes - 1), maxString_(maxStringBytes) {
  COG_ASSERT(isPowerOfTwo(bytes));
  COG_ASSERT(maxStringBytes <= kMaxStringBytes);
  std::size_t longest = kHeaderBytes;
  for (ArgType t : {ArgType::U64, ArgType::String}) {
    longest = std::max(longest, kHeaderBytes + kMaxArgs * argBytes(t, maxStringBytes));
  }
  COG_ASSERT(bytes >= 2 * longest);
  buffer_ = std::make_unique<unsigned char[]>(bytes);
}

void Ring::clear() {
  head_ = tail_ = 0;
  written_ = overwritten_ = 0;
}

void Ring::copyOut(std::uint64_t from, void* to, std::size_t length) const {
  const std::size_t at = static_cast<std::size_t>(from) & mask_;
  const std::size_t first = std::min(length, capacity() - at);
  std::memcpy(to, &buffer_[at], first);
  if (first < length) std::memcpy(static_cast<unsigned char*>(to) + first, &buffer_[0], length - first);
}

void Ring::evictOldest() {
  std::uint16_t length;
  copyOut(tail_ + 4, &length, 2);
  tail_ += length;
  ++overwritten_;
}

std::vector<Ring::Entry> Ring::entries() const {
  std::vector<Entry> out;
  std::vector<unsigned char> record(kMaxRecordBytes);
  for (std::uint64_t at = tail_; at < head_;) {
    std::uint32_t id;
    std::uint16_t length;
    std::uint64_t timestamp;
    copyOut(at, &id, 4);
    copyOut(at + 4, &length, 2);
    copyOut(at + 8, &timestamp, 8);
    if (length < kHeaderBytes || length > kMaxRecordBytes || at + length > head_) break;
    copyOut(at, record.data(), length);
    const Descriptor* site = descriptor(id);
    std::string text = site ? formatRecord(*site, record.data() + kHeaderBytes, length - kHeaderBytes)
                            : "<unknown trace site " + std::to_string(id) + ">";
    out.push_back(Entry{timestamp, site, std::move(text)});
    at += length;
  }
  return out;
}

void Ring::dump(std::ostream& out) const {
  if (overwritten_ != 0) out << "(" << overwritten_ << " older records overwritten)\n";
  for (const Entry& e : entries()) {
    char stamp[48];
    std::snprintf(stamp, sizeof stamp, "%" PRIu64 ".%06" PRIu64, e.timestampNs / 1000000000u,
                  (e.timestampNs % 1000000000u) / 1000u);
    out << stamp << ' ';
    if (e.site) out << e.site->file << ':' << e.site->line << ' ';
    out << e.text << '\n';
  }
}

std::string Ring::dump() const {
  std::ostringstream out;
  dump(out);
  return out.str();
}

Ring& processRing() {
  static Ring* ring = new Ring(std::size_t(1) << 20, 64);  // alive for late tracers
  return *ring;
}

}  // namespace Tracelet
