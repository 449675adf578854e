#include "Tracelet/Tracelet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Cog/String.h"

namespace {

std::vector<std::string> texts(const Tracelet::Ring& ring) {
  std::vector<std::string> out;
  for (auto& e : ring.entries()) out.push_back(e.text);
  return out;
}

enum class Color : std::uint16_t { red = 3 };

TEST(Tracelet, FormatsEveryArgumentType) {
  Tracelet::Ring ring(4096, 8);
  std::uint8_t u8 = 255;
  std::int8_t i8 = -128;
  std::uint16_t u16 = 65535;
  std::int32_t i32 = std::numeric_limits<std::int32_t>::min();
  std::uint64_t u64 = std::numeric_limits<std::uint64_t>::max();
  std::int64_t i64 = -1;
  TRACELET(ring, "%u %d %u %d %u %d", u8, i8, u16, i32, u64, i64);
  TRACELET(ring, "%x %x %s/%d %s", 0xbeefu, std::int16_t(-1), true, false, Color::red);
  TRACELET(ring, "%f %s 100%%", 0.5, 2.25f);
  const char* nothing = nullptr;
  std::string longText = "0123456789abcdef";
  TRACELET(ring, "[%s][%s][%s][%s][%s]", "literal", longText, std::string_view("view"),
           Cog::Name("vrf-red"), nothing);
  TRACELET(ring, "no arguments");
  EXPECT_EQ(texts(ring), (std::vector<std::string>{
                             "255 -128 65535 -2147483648 18446744073709551615 -1",
                             "beef ffff true/0 3",
                             "0.500000 2.25 100%",
                             "[literal][01234567][view][vrf-red][]",
                             "no arguments",
                         }));
}

// Records of varying sizes straddle the end of a small ring many times; what
// is left must be exactly the newest records, whole and in order.
TEST(Tracelet, WrapAroundKeepsTheNewestRecordsIntact) {
  Tracelet::Ring ring(512, 16);
  std::mt19937 rng(7);
  const std::string letters = "abcdefghijklmnopqrstuvwxyz";
  std::vector<std::string> all;
  for (std::uint32_t seq = 0; seq < 3000; ++seq) {
    std::string tail = letters.substr(0, rng() % 27);
    TRACELET(ring, "%u:%s", seq, tail);
    all.push_back(std::to_string(seq) + ":" + tail.substr(0, 16));

    if (seq % 97 == 0 || seq == 2999) {
      auto left = texts(ring);
      ASSERT_FALSE(left.empty());
      ASSERT_EQ(left.size() + ring.overwritten(), ring.written());
      std::vector<std::string> expected(all.end() - static_cast<std::ptrdiff_t>(left.size()),
                                        all.end());
      ASSERT_EQ(left, expected) << "after record " << seq;
    }
  }
  EXPECT_GT(ring.overwritten(), 2500u);
  // The ring is used, not just its last record: at least a full ring's worth
  // minus one longest record stays.
  EXPECT_GT(ring.written() - ring.overwritten(), 512u / (16 + 4 + 17) - 1);
  ring.clear();
  EXPECT_TRUE(ring.entries().empty());
  EXPECT_EQ(ring.written(), 0u);
}

TEST(Tracelet, DumpIsOneLinePerRecordOldestFirst) {
  Tracelet::Ring ring(512, 16);
  std::string before = ring.dump();
  EXPECT_EQ(before, "");
  for (int i = 0; i < 40; ++i) TRACELET(ring, "leaked %s into %s #%d", "10.0.0.0/8", "red", i);
  std::string text = ring.dump();
  std::regex line(R"((\d+)\.(\d{6}) TraceletTest\.cpp:\d+ leaked 10\.0\.0\.0/8 into red #(\d+))");
  std::istringstream in(text);
  std::string first;
  std::getline(in, first);
  EXPECT_EQ(first, "(" + std::to_string(ring.overwritten()) + " older records overwritten)");
  int expected = static_cast<int>(ring.overwritten());
  std::string l;
  std::uint64_t lastSecond = 0;
  while (std::getline(in, l)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(l, m, line)) << l;
    EXPECT_EQ(std::stoi(m[3]), expected++);
    std::uint64_t second = std::stoull(m[1]);
    EXPECT_GE(second, lastSecond);
    lastSecond = second;
  }
  EXPECT_EQ(expected, 40);
  EXPECT_GT(lastSecond, 1600000000u);  // wall-clock seconds
}

TEST(Tracelet, EachCallSiteRegistersOneDescriptor) {
  Tracelet::Ring ring(1024, 8);
  for (int i = 0; i < 3; ++i) TRACELET(ring, "site a %d", i);
  TRACELET(ring, "site b");
  auto entries = ring.entries();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].site, entries[2].site);
  EXPECT_NE(entries[0].site, entries[3].site);
  const Tracelet::Descriptor* a = entries[0].site;
  EXPECT_EQ(Tracelet::descriptor(a->id), a);
  EXPECT_STREQ(a->format, "site a %d");
  EXPECT_STREQ(a->file, "TraceletTest.cpp");
  ASSERT_EQ(a->argCount, 1u);
  EXPECT_EQ(a->argTypes[0], Tracelet::ArgType::I32);
  EXPECT_EQ(Tracelet::descriptor(0), nullptr);
  EXPECT_EQ(Tracelet::descriptor(1u << 30), nullptr);
  EXPECT_LE(entries[0].timestampNs, entries[3].timestampNs);
}

TEST(TraceletDeathTest, RingSizeMustBeAPowerOfTwoAndFitRecords) {
  EXPECT_DEATH(Tracelet::Ring(3000), "isPowerOfTwo");
  EXPECT_DEATH(Tracelet::Ring(256, 64), "bytes >= 2 \\* longest");
  EXPECT_DEATH(Tracelet::Ring(4096, 256), "maxStringBytes <= kMaxStringBytes");
}

}  // namespace
