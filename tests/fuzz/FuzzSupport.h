// Helpers shared by the fuzz targets: the registered types in a fixed order
// (a type is chosen by the input, so new schema types are fuzzed without a
// line here), sample entities, and what counts as a finding.
//
// A finding is a crash, a sanitizer report, or a broken property, which the
// targets turn into abort() through FUZZ_CHECK so that libFuzzer keeps the
// input. The framework's exceptions are expected outcomes of bad input.
//
// Every target also answers ROUTINGLIB_FUZZ_SEEDS=<dir>: it writes its seed
// inputs there and exits (how tests/fuzz/corpus was made).
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Cog/Exception.h"
#include "support/SampleEntities.h"
#include "Cog/GenericIf.h"
#include "Cog/Type.h"

#define FUZZ_CHECK(cond, ...)                                                   \
  do {                                                                          \
    if (!(cond)) {                                                              \
      std::fprintf(stderr, "fuzz property failed: %s (%s:%d)\n", #cond, __FILE__, \
                   __LINE__);                                                   \
      Fuzz::detail(__VA_ARGS__);                                                \
      std::abort();                                                             \
    }                                                                           \
  } while (0)

namespace Fuzz {

inline void detail() {}
inline void detail(const std::string& text) { std::fprintf(stderr, "  %s\n", text.c_str()); }

// The input as a stream of bytes; reads past the end yield zeros.
class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  std::uint8_t u8() { return at_ < size_ ? data_[at_++] : 0; }
  std::uint16_t u16() { return static_cast<std::uint16_t>(u8() << 8 | u8()); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(u16()) << 16 | u16(); }
  std::vector<std::uint8_t> take(std::size_t n) {
    n = std::min(n, size_ - at_);
    std::vector<std::uint8_t> out(data_ + at_, data_ + at_ + n);
    at_ += n;
    return out;
  }
  std::vector<std::uint8_t> rest() { return take(size_ - at_); }
  bool atEnd() const { return at_ >= size_; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// Registered types of one kind, ordered by name: an input picks one by index.
template <typename Pred>
std::vector<const Cog::CogType*> typesWhere(Pred pred) {
  std::vector<const Cog::CogType*> out;
  for (const Cog::CogType* t : Cog::registeredTypes()) {
    if (t->kind() != Cog::TypeKind::primitive && pred(t)) out.push_back(t);
  }
  std::sort(out.begin(), out.end(), [](const Cog::CogType* a, const Cog::CogType* b) {
    return std::strcmp(a->name(), b->name()) < 0;
  });
  return out;
}

inline Cog::Ptr<Cog::GenericIf> makeEntity(const Cog::CogType* t) {
  return testsupport::makeSampleEntity(t, "fuzz");
}
using testsupport::contents;

inline std::string describe(const std::map<std::string, std::string>& c) {
  std::string s;
  for (auto& [k, v] : c) s += k + "=" + v + " ";
  return s;
}

// Seed writing: ROUTINGLIB_FUZZ_SEEDS names a directory.
inline const char* seedDir() { return std::getenv("ROUTINGLIB_FUZZ_SEEDS"); }
inline void writeSeed(const std::string& name, const std::vector<std::uint8_t>& bytes) {
  std::ofstream f(std::string(seedDir()) + "/" + name, std::ios::binary);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
// What a target's LLVMFuzzerInitialize does: with ROUTINGLIB_FUZZ_SEEDS set,
// write the target's seeds and end the process instead of fuzzing.
inline int writeSeedsWhenAsked(void (*writeSeeds)()) {
  if (seedDir() != nullptr) {
    writeSeeds();
    std::exit(0);
  }
  return 0;
}
// A file name from a type name: "Routing::Via" -> "Routing_Via".
inline std::string fileName(std::string s) {
  for (char& c : s)
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-')) c = '_';
  return s;
}

}  // namespace Fuzz
