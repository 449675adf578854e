// Tracelet: a binary trace ring for the important changes of long-running
// reactors, cheap enough to stay on in production.
//
//   TRACELET(ring, "leaked %s into %s (vrf id %u)", prefix, vrf, vrfId);
//
// Each call site owns a static Descriptor: the format text, its file and
// line, and the types of its arguments, registered once on first use and
// identified by a small number. Writing a record stores the descriptor id, a
// timestamp and the arguments in binary form; nothing is formatted until the
// ring is dumped (Ring::dump), which turns the records into text, oldest
// first.
//
// Format text: each placeholder takes one argument, in order.
//   %s  any argument in its natural form (strings as they are, numbers in
//       decimal, bools as true/false)
//   %d %i %u  an integer or bool in decimal      %x  an integer in hex
//   %f  a floating-point number                  %%  a literal '%'
// The format must be a string literal; the number of placeholders and the
// argument types are checked at compile time.
//
// Argument types: integers of 8 to 64 bits (signed or not), enumerations (as
// their underlying integer), bool, float/double, and strings (const char*,
// std::string, std::string_view, Cog::String, Cog::Name). Strings are cut to
// the ring's string bound (Ring::maxStringBytes, at most 255 bytes). At most
// kMaxArgs arguments per site.
//
// The ring has a power-of-two size in bytes; when full, the oldest records
// are overwritten (counted by overwritten()).
//
// Threads: a ring has a single writer thread. dump() and entries() must run
// on that thread, or while nothing writes. Descriptor registration is thread
// safe, so different threads may write different rings through the same
// call sites.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Cog/Assert.h"

namespace Tracelet {

enum class ArgType : std::uint8_t { U8, U16, U32, U64, I8, I16, I32, I64, Bool, Double, String };

constexpr std::size_t kMaxArgs = 8;
constexpr std::size_t kMaxStringBytes = 255;

struct Descriptor {
  template <typename... Args>
  struct ArgList {};

  template <typename... Args>
  Descriptor(const char* format, const char* file, unsigned line, ArgList<Args...>);
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const char* format;
  const char* file;
  unsigned line;
  std::uint32_t id;  // from 1, in registration order
  std::uint8_t argCount;
  ArgType argTypes[kMaxArgs];

 private:
  void registerSelf();
};

// The descriptor registered under `id`, or nullptr.
const Descriptor* descriptor(std::uint32_t id);

namespace detail {

template <typename T>
constexpr bool kIsString = std::is_convertible_v<const T&, std::string_view> &&
                           !std::is_same_v<T, std::nullptr_t>;

template <typename T>
consteval ArgType argType() {
  if constexpr (std::is_same_v<T, bool>) {
    return ArgType::Bool;
  } else if constexpr (std::is_enum_v<T>) {
    return argType<std::underlying_type_t<T>>();
  } else if constexpr (std::is_integral_v<T>) {
    constexpr bool s = std::is_signed_v<T>;
    if constexpr (sizeof(T) == 1) return s ? ArgType::I8 : ArgType::U8;
    else if constexpr (sizeof(T) == 2) return s ? ArgType::I16 : ArgType::U16;
    else if constexpr (sizeof(T) == 4) return s ? ArgType::I32 : ArgType::U32;
    else return s ? ArgType::I64 : ArgType::U64;
  } else if constexpr (std::is_floating_point_v<T>) {
    return ArgType::Double;
  } else if constexpr (kIsString<T>) {
    return ArgType::String;
  } else {
    static_assert(sizeof(T) == 0, "this type cannot be a Tracelet argument");
    return ArgType::U8;
  }
}

consteval std::size_t fixedBytes(ArgType t) {
  switch (t) {
    case ArgType::U8: case ArgType::I8: case ArgType::Bool: return 1;
    case ArgType::U16: case ArgType::I16: return 2;
    case ArgType::U32: case ArgType::I32: return 4;
    default: return 8;
  }
}

// Called only when a format does not fit its arguments: not being constexpr,
// it turns the check into a compile error naming the problem.
void tracelet_format_has_more_placeholders_than_arguments();
void tracelet_format_has_fewer_placeholders_than_arguments();
void tracelet_format_has_an_unknown_placeholder();
void tracelet_placeholder_does_not_fit_its_argument_type();

template <typename... Args>
struct Site {
  using List = Descriptor::ArgList<std::decay_t<Args>...>;

  // Returns `format` once it is known to fit the argument types.
  static consteval const char* check(const char* format) {
    constexpr ArgType types[] = {argType<std::decay_t<Args>>()..., ArgType::U8};
    std::size_t arg = 0;
    for (const char* p = format; *p; ++p) {
      if (*p != '%') continue;
      ++p;
      if (*p == '%') continue;
      if (arg >= sizeof...(Args)) tracelet_format_has_more_placeholders_than_arguments();
      ArgType t = types[arg++];
      bool integer = t != ArgType::Double && t != ArgType::String;
      switch (*p) {
        case 's': break;
        case 'd': case 'i': case 'u': case 'x':
          if (!integer) tracelet_placeholder_does_not_fit_its_argument_type();
          break;
        case 'f':
          if (t != ArgType::Double) tracelet_placeholder_does_not_fit_its_argument_type();
          break;
        default: tracelet_format_has_an_unknown_placeholder();
      }
    }
    if (arg != sizeof...(Args)) tracelet_format_has_fewer_placeholders_than_arguments();
    return format;
  }
};

template <typename... Args>
Site<Args...> site(const Args&...);  // unevaluated: gives the argument types

}  // namespace detail

template <typename... Args>
Descriptor::Descriptor(const char* format, const char* file, unsigned line, ArgList<Args...>)
    : format(format), file(file), line(line), id(0), argCount(sizeof...(Args)),
      argTypes{detail::argType<Args>()...} {
  static_assert(sizeof...(Args) <= kMaxArgs, "too many Tracelet arguments");
  registerSelf();
}

class Ring {
 public:
  // Bytes of a record before its arguments: descriptor id (4), record length
  // (2), reserved (2), timestamp in nanoseconds since the epoch (8).
  static constexpr std::size_t kHeaderBytes = 16;
  static constexpr std::size_t kMaxRecordBytes = kHeaderBytes + kMaxArgs * (1 + kMaxStringBytes);

  // `bytes` must be a power of two large enough for two of the longest
  // records that `maxStringBytes` allows.
  explicit Ring(std::size_t bytes, std::size_t maxStringBytes = 64);
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;

  std::size_t capacity() const { return mask_ + 1; }
  std::size_t maxStringBytes() const { return maxString_; }
  // Records written since construction or clear(), and those of them
  // overwritten by newer ones.
  std::uint64_t written() const { return written_; }
  std::uint64_t overwritten() const { return overwritten_; }
  void clear();

  template <typename... Args>
  void write(const Descriptor& site, const Args&... args) {
    unsigned char record[kMaxRecordBytes];
    unsigned char* p = record + kHeaderBytes;
    (encode(p, args), ...);
    const auto length = static_cast<std::uint16_t>(p - record);
    const std::uint16_t reserved = 0;
    const std::uint64_t now = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::system_clock::now().time_since_epoch())
            .count());
    std::memcpy(record, &site.id, 4);
    std::memcpy(record + 4, &length, 2);
    std::memcpy(record + 6, &reserved, 2);
    std::memcpy(record + 8, &now, 8);
    commit(record, length);
  }

  struct Entry {
    std::uint64_t timestampNs;
    const Descriptor* site;  // nullptr when the id is unknown
    std::string text;        // the formatted message
  };
  // The records in the ring, oldest first.
  std::vector<Entry> entries() const;
  // One line per record, oldest first:
  //   <seconds>.<microseconds> <file>:<line> <text>
  // preceded by "(<n> older records overwritten)" when some were.
  void dump(std::ostream& out) const;
  std::string dump() const;

 private:
  template <typename T>
  void encode(unsigned char*& p, const T& v) {
    using D = std::decay_t<T>;
    if constexpr (std::is_same_v<D, bool>) {
      *p++ = v ? 1 : 0;
    } else if constexpr (std::is_enum_v<D>) {
      encode(p, static_cast<std::underlying_type_t<D>>(v));
    } else if constexpr (std::is_integral_v<D>) {
      std::memcpy(p, &v, sizeof v);
      p += sizeof v;
    } else if constexpr (std::is_floating_point_v<D>) {
      const double d = static_cast<double>(v);
      std::memcpy(p, &d, sizeof d);
      p += sizeof d;
    } else {
      std::string_view s;
      if constexpr (std::is_array_v<T>) {
        s = std::string_view(v);
      } else if constexpr (std::is_pointer_v<D>) {
        if (v != nullptr) s = v;
      } else {
        s = v;
      }
      const std::size_t n = std::min(s.size(), maxString_);
      *p++ = static_cast<unsigned char>(n);
      if (n != 0) std::memcpy(p, s.data(), n);  // an empty view may hold no pointer
      p += n;
    }
  }

  void commit(const unsigned char* record, std::size_t length) {
    while (head_ + length - tail_ > capacity()) evictOldest();
    const std::size_t at = static_cast<std::size_t>(head_) & mask_;
    const std::size_t first = std::min(length, capacity() - at);
    std::memcpy(&buffer_[at], record, first);
    if (first < length) std::memcpy(&buffer_[0], record + first, length - first);
    head_ += length;
    ++written_;
  }
  void evictOldest();
  void copyOut(std::uint64_t from, void* to, std::size_t length) const;

  std::unique_ptr<unsigned char[]> buffer_;
  std::size_t mask_;
  std::size_t maxString_;
  // Byte positions since the start; the ring holds [tail_, head_).
  std::uint64_t head_ = 0;
  std::uint64_t tail_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t overwritten_ = 0;
};

// The process's ring (1 MiB, strings up to 64 bytes), for code that has no
// ring of its own. It belongs to the process's reactor thread.
Ring& processRing();

}  // namespace Tracelet

#define TRACELET(ring, format, ...)                                                    \
  do {                                                                                 \
    using TraceletSite_ = decltype(::Tracelet::detail::site(__VA_ARGS__));             \
    static const ::Tracelet::Descriptor traceletDescriptor_(                           \
        TraceletSite_::check(format), __FILE_NAME__, __LINE__, TraceletSite_::List{}); \
    (ring).write(traceletDescriptor_ __VA_OPT__(, ) __VA_ARGS__);                      \
  } while (0)
