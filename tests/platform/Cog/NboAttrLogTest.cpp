#include "Cog/NboAttrLog.h"

#include <gtest/gtest.h>

#include "Cog/Exception.h"

namespace {

using Cog::NboAttrLog::In;
using Cog::NboAttrLog::Out;

TEST(NboAttrLog, WritesNetworkByteOrderAndReadsItBack) {
  auto out = Cog::allocate<Out>();
  out->putU8(0xab);
  out->putU16(0x1234);
  out->putU32(0xdeadbeef);
  out->putU64(0x0102030405060708ull);
  out->putbool(true);
  out->putString("Ethernet1");
  const std::vector<std::uint8_t> head{0xab, 0x12, 0x34, 0xde, 0xad, 0xbe, 0xef, 1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_GE(out->size(), head.size());
  EXPECT_TRUE(std::equal(head.begin(), head.end(), out->bytes().begin()));

  In in(out->bytes());
  EXPECT_EQ(in.nextU8(), 0xab);
  EXPECT_EQ(in.nextU16(), 0x1234);
  EXPECT_EQ(in.nextU32(), 0xdeadbeefu);
  EXPECT_EQ(in.nextU64(), 0x0102030405060708ull);
  EXPECT_TRUE(in.nextbool());
  EXPECT_EQ(in.nextString(), Cog::String("Ethernet1"));
  EXPECT_TRUE(in.atEnd());
}

// Every prefix of a valid stream is a truncated stream: reading it must throw
// and never touch bytes past its end (the sanitizer build checks the latter).
TEST(NboAttrLog, EveryTruncationThrowsAndLeavesPositionAlone) {
  auto out = Cog::allocate<Out>();
  out->putU16(7);
  out->putU64(9);
  out->putString("abcdef");
  const auto& full = out->bytes();
  for (std::size_t len = 0; len < full.size(); ++len) {
    In in(std::vector<std::uint8_t>(full.begin(), full.begin() + len));
    auto readAll = [&] {
      in.nextU16();
      in.nextU64();
      in.nextString();
    };
    EXPECT_THROW(readAll(), Cog::StreamException) << "length " << len;
    EXPECT_LE(in.position(), len);
  }
}

TEST(NboAttrLog, MalformedInputIsRefused) {
  In badBool(std::vector<std::uint8_t>{2});
  EXPECT_THROW(badBool.nextbool(), Cog::StreamException);
  // A string length that claims more bytes than remain.
  In longString(std::vector<std::uint8_t>{0xff, 0xff, 0xff, 0xff, 'a'});
  EXPECT_THROW(longString.nextString(), Cog::StreamException);
  EXPECT_EQ(longString.position(), 0u);
}

}  // namespace
