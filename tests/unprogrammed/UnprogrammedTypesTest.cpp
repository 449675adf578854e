// The unprogrammed-route records: the key's name array and its rules, and the
// shared-memory images of Error and Error6 byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <vector>

#include "Cog/Exception.h"
#include "Cog/Hash.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"

using namespace Memtab::KernelUnprogrammedRoute;
using Velnet::IpGenPrefix;

namespace {

IpGenPrefix pfx(const char* text) { return IpGenPrefix(Cog::String(text)); }

std::string name(std::size_t n, char c = 'v') { return std::string(n, c); }

template <class V>
std::vector<std::uint8_t> image(const V& v) {
  std::vector<std::uint8_t> out(v.serializeLen(), 0xEE);
  v.serialize(out.data());
  return out;
}

std::uint32_t u32At(const std::vector<std::uint8_t>& b, std::size_t at) {
  std::uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

// The hash as the key's contract states it, computed independently.
std::uint32_t referenceHash(const std::string& vrf, const IpGenPrefix& p) {
  std::uint32_t h = 0;
  auto step = [&h](unsigned char b) {
    h += b;
    h += h << 10;
    h ^= h >> 6;
  };
  std::uint32_t s = vrf.empty() ? 0 : Cog::stringHash(vrf.data(), vrf.size());
  for (int i = 0; i < 4; ++i) step(static_cast<unsigned char>(s >> (8 * i)));
  unsigned char raw[24];
  std::memcpy(raw, &p, 24);
  for (unsigned char b : raw) step(b);
  return h;
}

TEST(ErrorKey, NameLengthsAndCount) {
  ErrorKey k(L3::VrfName("default"), pfx("10.0.0.0/8"));
  EXPECT_EQ(k.nameCount(), 8u);
  EXPECT_EQ(k.vrfName(), L3::VrfName("default"));
  EXPECT_EQ(k.name(Vrf::VrfIdMap::VrfNameIndex(7)), 0);

  ErrorKey longest(L3::VrfName(Cog::String(name(100))), pfx("10.0.0.0/8"));
  EXPECT_EQ(longest.nameCount(), 101u);
  EXPECT_EQ(longest.vrfName().bytes(), 100u);

  ErrorKey k2;
  try {
    k2.vrfNameIs(Cog::String(name(101)));
    FAIL() << "a 101-byte name was stored";
  } catch (const Cog::RangeException& e) {
    EXPECT_STREQ(e.what(), "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed");
  }
  EXPECT_THROW(k2.vrfNameIs(Cog::String(name(500))), Cog::RangeException);

  // An empty name: count 1 on a fresh key; a used key keeps its count.
  ErrorKey e;
  e.vrfNameIs(Cog::String(""));
  EXPECT_EQ(e.nameCount(), 1u);
  ErrorKey used(L3::VrfName("blue"), pfx("10.0.0.0/8"));
  used.vrfNameIs(Cog::String(""));
  EXPECT_EQ(used.nameCount(), 5u);
  EXPECT_EQ(used.vrfName(), L3::VrfName(""));
}

TEST(ErrorKey, CountIsOnlyRaised) {
  ErrorKey k(L3::VrfName("abcdef"), pfx("10.0.0.0/8"));
  k.vrfNameIs(Cog::String("ab"));
  EXPECT_EQ(k.nameCount(), 7u);
  EXPECT_EQ(k.vrfName(), L3::VrfName("ab"));
  ErrorKey fresh(L3::VrfName("ab"), pfx("10.0.0.0/8"));
  EXPECT_FALSE(k == fresh);
  EXPECT_NE(k.hash() == fresh.hash() && !(k < fresh) && !(fresh < k), true);
}

TEST(ErrorKey, EqualityOrderAndHash) {
  const IpGenPrefix p = pfx("10.0.0.0/8");
  ErrorKey a(L3::VrfName("a"), p), ab(L3::VrfName("ab"), p), b(L3::VrfName("b"), p);
  EXPECT_TRUE(a < ab);
  EXPECT_FALSE(ab < a);
  EXPECT_TRUE(ab < b);
  EXPECT_FALSE(a < a);
  // Prefix first, whatever the names.
  ErrorKey z(L3::VrfName("zzz"), pfx("9.0.0.0/8"));
  EXPECT_TRUE(z < a);
  EXPECT_TRUE(ErrorKey(L3::VrfName("a"), pfx("10.0.0.0/8")) == a);
  EXPECT_FALSE(a == ErrorKey(L3::VrfName("a"), pfx("10.0.0.0/16")));
  // Unsigned bytes.
  ErrorKey hi(L3::VrfName("\xC0"), p);
  EXPECT_TRUE(a < hi);

  for (const char* vrf : {"", "default", "red", "a-much-longer-vrf-name"}) {
    for (const char* pt : {"10.0.0.0/8", "0.0.0.0/0", "2001:db8::/32"}) {
      ErrorKey k(L3::VrfName(vrf), pfx(pt));
      EXPECT_EQ(k.hash(), referenceHash(vrf, pfx(pt))) << vrf << " " << pt;
    }
  }
  EXPECT_NE(a.hash(), b.hash());
}

TEST(ErrorKey, TextForms) {
  ErrorKey k(L3::VrfName("red"), pfx("10.0.0.0/8"));
  std::ostringstream os;
  os << k;
  EXPECT_EQ(os.str(), "<prefix=10.0.0.0/8, vrfName=red>");
  EXPECT_EQ(valueToStrep(k).str().rfind("Value('Memtab::KernelUnprogrammedRoute::ErrorKey', ** {'prefix': ", 0), 0u);
}

TEST(ErrorKeyDeathTest, NoStringConstructor) {
  Cog::String text("x");
  auto it = text.begin();
  EXPECT_DEATH(ErrorKey(it, text.end()), "No String constructor for ErrorKey - has collection");
}

TEST(ErrorImage, LayoutByteForByte) {
  const IpGenPrefix p = pfx("10.1.0.0/16");
  Error e(7, ErrorKey(L3::VrfName("default"), p));
  EXPECT_EQ(e.serializeLen(), 43u);
  auto b = image(e);
  ASSERT_EQ(b.size(), 43u);
  EXPECT_EQ(u32At(b, 0), 7u);
  EXPECT_EQ(std::memcmp(b.data() + 4, &p, 24), 0);
  EXPECT_EQ(u32At(b, 28), 8u);
  EXPECT_EQ(std::memcmp(b.data() + 32, "default\0", 8), 0);
  EXPECT_EQ(std::vector<std::uint8_t>(b.begin() + 40, b.end()), (std::vector<std::uint8_t>{0, 0, 0}));
  EXPECT_EQ(Error::deserializeLen(b.data(), b.size()), 136u);

  std::vector<std::uint8_t> padded(b);
  padded.resize(136, 0);
  Error back;
  back.deserialize(padded.data(), b.size());
  EXPECT_EQ(back, e);
  EXPECT_EQ(image(back), b);
  EXPECT_EQ(e.memtabString(), "[<prefix=10.1.0.0/16, vrfName=default>] 7");
}

TEST(ErrorImage, Error6ByteForByte) {
  const IpGenPrefix p = pfx("2001:db8::/32");
  Velnet::IntfId intf(Cog::String("Ethernet1"));
  Error6 e(13, intf, ErrorKey(L3::VrfName("default"), p));
  EXPECT_EQ(e.serializeLen(), 51u);
  auto b = image(e);
  EXPECT_EQ(u32At(b, 0), 13u);
  EXPECT_EQ(std::memcmp(b.data() + 4, &intf, 8), 0);
  EXPECT_EQ(std::memcmp(b.data() + 12, &p, 24), 0);
  EXPECT_EQ(u32At(b, 36), 8u);
  EXPECT_EQ(std::memcmp(b.data() + 40, "default\0\0\0\0", 11), 0);
  EXPECT_EQ(Error6::deserializeLen(b.data(), b.size()), 144u);
  std::vector<std::uint8_t> padded(b);
  padded.resize(144, 0);
  Error6 back;
  back.deserialize(padded.data(), b.size());
  EXPECT_EQ(back, e);
  std::ostringstream is;
  is << intf;
  EXPECT_EQ(e.memtabString(), "[<prefix=2001:db8::/32, vrfName=default>] 13 " + is.str());
}

TEST(ErrorImage, LengthsOverEveryCount) {
  // Sizes of the in-memory records the images are cut from.
  EXPECT_EQ(sizeof(Error), 136u);
  EXPECT_EQ(sizeof(Error6), 144u);
  for (std::size_t n = 0; n <= 100; ++n) {
    Error e(1, ErrorKey(L3::VrfName(Cog::String(name(n, 'x'))), pfx("10.0.0.0/8")));
    Error6 e6(1, Velnet::IntfId(), ErrorKey(L3::VrfName(Cog::String(name(n, 'x'))), pfx("::/0")));
    EXPECT_EQ(e.serializeLen(), 35 + n + 1);
    EXPECT_EQ(e6.serializeLen(), 43 + n + 1);
    auto b = image(e);
    b.resize(136, 0);
    Error back;
    back.deserialize(b.data(), e.serializeLen());
    EXPECT_EQ(back, e);
  }
  // A bare default key: count 0.
  EXPECT_EQ(Error().serializeLen(), 35u);
  EXPECT_EQ(Error6().serializeLen(), 43u);
}

TEST(ErrorImage, InvalidCountsAndShortImages) {
  Error e(1, ErrorKey(L3::VrfName("red"), pfx("10.0.0.0/8")));
  auto b = image(e);
  b.resize(136, 0);
  for (std::uint32_t count : {101u, 102u, 200u, 0xFFFFFFFFu}) {
    std::memcpy(b.data() + 28, &count, 4);
    EXPECT_EQ(Error::deserializeLen(b.data(), 136), count < 102 ? 136u : 0u) << count;
  }
  Error6 e6(1, Velnet::IntfId(), ErrorKey(L3::VrfName("red"), pfx("::/0")));
  auto b6 = image(e6);
  b6.resize(144, 0);
  std::uint32_t bad = 102;
  std::memcpy(b6.data() + 36, &bad, 4);
  EXPECT_EQ(Error6::deserializeLen(b6.data(), 144), 0u);
  // Too short to hold the count at all.
  EXPECT_EQ(Error::deserializeLen(b.data(), 31), 0u);
  EXPECT_EQ(Error6::deserializeLen(b6.data(), 39), 0u);
}

TEST(ErrorValue, PrintedFormsAndAbsence) {
  Error e(7, ErrorKey(L3::VrfName("red"), pfx("10.0.0.0/8")));
  const std::string s = valueToStrep(e).str();
  EXPECT_EQ(s.rfind("Value('Memtab::KernelUnprogrammedRoute::Error', ** {'errorCode': 7, 'key': Value('Memtab::KernelUnprogrammedRoute::ErrorKey'", 0), 0u) << s;
  const std::string s6 = valueToStrep(Error6()).str();
  EXPECT_EQ(s6.rfind("Value('Memtab::KernelUnprogrammedRoute::Error6', ** {'errorCode': 0, 'intf': ", 0), 0u) << s6;
  EXPECT_TRUE(!Error());
  EXPECT_FALSE(!e);
  EXPECT_TRUE(!Error6());
}

}  // namespace
