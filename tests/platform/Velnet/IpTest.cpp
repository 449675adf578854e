#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "Cog/Exception.h"
#include "Velnet/IpGenPrefix.h"

namespace {

using namespace Velnet;

enum class Kind { parse, range };

struct Bad {
  const char* text;
  Kind kind;
};

template <typename T>
void expectRefused(const std::vector<Bad>& table) {
  for (const auto& bad : table) {
    if (bad.kind == Kind::parse) {
      EXPECT_THROW(T::fromString(bad.text), Cog::ParseException) << "'" << bad.text << "'";
    } else {
      EXPECT_THROW(T::fromString(bad.text), Cog::RangeException) << "'" << bad.text << "'";
    }
  }
}

TEST(Ip6Addr, CanonicalTextIsRfc5952) {
  const std::pair<const char*, const char*> cases[] = {
      {"0:0:0:0:0:0:0:0", "::"},
      {"0:0:0:0:0:0:0:1", "::1"},
      {"1:0:0:0:0:0:0:0", "1::"},
      {"2001:0DB8:0000:0000:0000:0000:0002:0001", "2001:db8::2:1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},      // first of two equal runs
      {"2001:db8:0:0:1:0:0:0", "2001:db8:0:0:1::"},       // the longer run wins
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},   // one zero group stays
      {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"::ffff:c000:0201", "::ffff:192.0.2.1"},           // IPv4-mapped
      {"::FFFF:192.0.2.1", "::ffff:192.0.2.1"},
      {"::ffff:0.0.0.0", "::ffff:0.0.0.0"},
      {"::1.2.3.4", "::102:304"},                         // compatible form is not special
      {"fe80::1:2.3.4.5", "fe80::1:203:405"},
      {"abcd:ef01:2345:6789:abcd:ef01:2345:6789", "abcd:ef01:2345:6789:abcd:ef01:2345:6789"},
  };
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(valueToStrep(Ip6Addr::fromString(in)), Cog::String(out)) << in;
  }
  EXPECT_EQ(Ip6Addr::fromString("2001:db8::1").word(0), 0x20010db8u);
  EXPECT_TRUE(Ip6Addr::fromString("::ffff:1.2.3.4").isV4Mapped());
}

// The C library's converters implement the same RFC 5952 text, except that
// they also print IPv4-compatible addresses (::a.b.c.d) in dotted form.
TEST(Ip6Addr, AgreesWithTheCLibrary) {
  std::mt19937_64 rng(13);
  for (int i = 0; i < 20000; ++i) {
    std::uint32_t w[4];
    for (auto& x : w) {
      std::uint32_t hi = rng() % 2 ? 0 : static_cast<std::uint32_t>(rng() & 0xFFFF);
      std::uint32_t lo = rng() % 2 ? 0 : static_cast<std::uint32_t>(rng() & 0xFFFF);
      x = hi << 16 | lo;
    }
    if (i % 10 == 0) w[0] = w[1] = 0, w[2] = 0xFFFF;
    Ip6Addr a(w[0], w[1], w[2], w[3]);
    bool compatible = w[0] == 0 && w[1] == 0 && w[2] == 0 && (w[3] >> 16) != 0;
    char buf[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, a.bytes(), buf, sizeof buf), nullptr);
    std::string text = valueToStrep(a).str();
    if (!compatible) {
      ASSERT_EQ(text, buf);
    }
    // Both read either text back to the same bytes.
    for (const std::string& t : {text, std::string(buf)}) {
      unsigned char bytes[16];
      ASSERT_EQ(inet_pton(AF_INET6, t.c_str(), bytes), 1) << t;
      ASSERT_EQ(std::memcmp(bytes, a.bytes(), 16), 0) << t;
      ASSERT_EQ(Ip6Addr::fromString(t), a) << t;
    }
  }
}

// Random edits of valid texts, so that most results are near misses.
std::vector<std::string> mutations(std::vector<const char*> seeds, int count, unsigned seed) {
  std::mt19937 rng(seed);
  const std::string alphabet = "0123456789abcdefABCDEF:.:.g/ ";
  std::vector<std::string> out;
  for (int i = 0; i < count; ++i) {
    std::string t = seeds[rng() % seeds.size()];
    for (unsigned edits = 1 + rng() % 3; edits > 0; --edits) {
      std::size_t pos = t.empty() ? 0 : rng() % (t.size() + 1);
      char c = alphabet[rng() % alphabet.size()];
      switch (rng() % 3) {
        case 0: t.insert(pos, 1, c); break;
        case 1: if (pos < t.size()) t.erase(pos, 1); break;
        default: if (pos < t.size()) t[pos] = c; break;
      }
    }
    out.push_back(t);
  }
  return out;
}

// Ip6Addr accepts exactly what inet_pton accepts, reads it to the same
// bytes, and refuses the rest with an exception of the framework's kinds.
TEST(Ip6Addr, MutatedTextsAreJudgedLikeTheCLibrary) {
  int accepted = 0;
  for (const std::string& t : mutations({"2001:db8::1", "::ffff:192.0.2.1", "1:2:3:4:5:6:7:8", "::",
                                         "fe80::1:2.3.4.5", "1::", "0:0:0:0:0:0:0:0", "abcd:ef01::2345:6789"},
                                        30000, 17)) {
    unsigned char bytes[16];
    bool libc = inet_pton(AF_INET6, t.c_str(), bytes) == 1;
    try {
      Ip6Addr a = Ip6Addr::fromString(t);
      ASSERT_TRUE(libc) << "accepted '" << t << "'";
      ASSERT_EQ(std::memcmp(bytes, a.bytes(), 16), 0) << t;
      ++accepted;
    } catch (const Cog::ParseException&) {
      ASSERT_FALSE(libc) << "refused '" << t << "'";
    } catch (const Cog::RangeException&) {
      ASSERT_FALSE(libc) << "refused '" << t << "'";
    }
  }
  EXPECT_GT(accepted, 1000);  // the mutations reach both sides
}

// IpGenAddr picks the family from the text: an IPv4 text where inet_pton
// reads IPv4, IPv6 where it reads IPv6, no address for the empty text.
TEST(IpGenAddr, MutatedTextsGetTheFamilyTheCLibraryReads) {
  int v4 = 0, v6 = 0;
  for (const std::string& t : mutations({"10.1.2.3", "0.0.0.0", "255.255.255.255", "192.168.100.1", "::1.2.3.4",
                                         "1:2::3", ""},
                                        30000, 19)) {
    unsigned char b4[4], b6[16];
    bool is4 = inet_pton(AF_INET, t.c_str(), b4) == 1;
    bool is6 = inet_pton(AF_INET6, t.c_str(), b6) == 1;
    try {
      IpGenAddr a = IpGenAddr::fromString(t);
      if (is4) {
        ASSERT_EQ(a.af(), AddressFamily::ipv4) << t;
        ASSERT_EQ(std::memcmp(a.bytes(), b4, 4), 0) << t;
        ++v4;
      } else if (is6) {
        ASSERT_EQ(a.af(), AddressFamily::ipv6) << t;
        ASSERT_EQ(std::memcmp(a.bytes(), b6, 16), 0) << t;
        ++v6;
      } else {
        ASSERT_TRUE(t.empty() && !a) << "accepted '" << t << "'";
      }
    } catch (const Cog::ParseException&) {
      ASSERT_FALSE(is4 || is6) << "refused '" << t << "'";
    } catch (const Cog::RangeException&) {
      ASSERT_FALSE(is4 || is6) << "refused '" << t << "'";
    }
  }
  EXPECT_GT(v4, 500);
  EXPECT_GT(v6, 500);
}

TEST(Ip6Addr, MalformedTextIsRefused) {
  expectRefused<Ip6Addr>({
      {"", Kind::parse},
      {":", Kind::parse},
      {":::", Kind::parse},
      {":1", Kind::parse},
      {"1:", Kind::parse},
      {"1::2::3", Kind::parse},
      {"1:::2", Kind::parse},
      {"12345::", Kind::parse},
      {"1:2:3:4:5:6:7", Kind::parse},
      {"1:2:3:4:5:6:7:8:9", Kind::parse},
      {"1:2:3:4:5:6:7::8", Kind::parse},
      {"1:2:3:4:5:6:7:1.2.3.4", Kind::parse},
      {"::1.2.3", Kind::parse},
      {"::01.2.3.4", Kind::parse},
      {"::a.2.3.4", Kind::parse},
      {"::1.2.3.256", Kind::range},
      {"g::", Kind::parse},
      {"::g", Kind::parse},
      {"1.2.3.4", Kind::parse},
      {" ::1", Kind::parse},
      {"::1 ", Kind::parse},
      {"::1/64", Kind::parse},
  });
}

TEST(IpGenAddr, TextFormsAndFamilies) {
  EXPECT_EQ(IpGenAddr::fromString("10.1.2.3"), IpGenAddr::ipv4(0x0A010203));
  EXPECT_EQ(IpGenAddr::fromString("10.1.2.3").v4Addr(), 0x0A010203u);
  EXPECT_EQ(IpGenAddr::fromString("::a01:203").af(), AddressFamily::ipv6);
  EXPECT_EQ(IpGenAddr::fromString(""), IpGenAddr());
  EXPECT_EQ(valueToStrep(IpGenAddr()), Cog::String(""));
  EXPECT_EQ(valueToStrep(IpGenAddr::ipv4(0)), Cog::String("0.0.0.0"));
  EXPECT_EQ(valueToStrep(IpGenAddr::ipv4(0xFFFFFFFF)), Cog::String("255.255.255.255"));
  // The same bits in different families are different addresses.
  EXPECT_FALSE(IpGenAddr::ipv4(0) == IpGenAddr(Ip6Addr()));
  EXPECT_FALSE(IpGenAddr() == IpGenAddr::ipv4(0));

  expectRefused<IpGenAddr>({
      {"1.2.3", Kind::parse},
      {"1.2.3.", Kind::parse},
      {"1..2.3", Kind::parse},
      {"1.2.3.4.5", Kind::parse},
      {"01.2.3.4", Kind::parse},
      {"1.2.3.00", Kind::parse},
      {"256.1.1.1", Kind::range},
      {"1.2.3.1000", Kind::range},
      {"1.2.3.4/8", Kind::parse},
      {"-1.2.3.4", Kind::parse},
      {"abc", Kind::parse},
      {"x", Kind::parse},
      {"1:2", Kind::parse},
  });
}

TEST(IpGenAddr, AttributeLogRefusesImpossibleImages) {
  auto image = [](std::uint32_t af, unsigned nonZeroByte) {
    auto out = Cog::allocate<Cog::NboAttrLog::Out>();
    out->putU32(af);
    std::uint8_t bytes[16] = {};
    if (nonZeroByte < 16) bytes[nonZeroByte] = 1;
    out->putBytes(bytes, 16);
    return out->bytes();
  };
  auto read = [](std::vector<std::uint8_t> bytes) {
    Cog::NboAttrLog::In in(std::move(bytes));
    return IpGenAddr(&in, Cog::StreamBogon{});
  };
  EXPECT_EQ(read(image(1, 3)), IpGenAddr::ipv4(1));
  EXPECT_EQ(read(image(2, 15)).af(), AddressFamily::ipv6);
  EXPECT_THROW(read(image(3, 99)), Cog::RangeException);
  EXPECT_THROW(read(image(1, 4)), Cog::RangeException);   // IPv4 uses 4 bytes only
  EXPECT_THROW(read(image(0, 0)), Cog::RangeException);   // no address, no bytes
}

TEST(IpGenPrefix, HostBitsAreMaskedOnEveryPath) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < 2000; ++i) {
    IpGenAddr a = i % 2 ? IpGenAddr::ipv4(static_cast<std::uint32_t>(rng()))
                        : IpGenAddr(Ip6Addr(static_cast<std::uint32_t>(rng()), static_cast<std::uint32_t>(rng()),
                                            static_cast<std::uint32_t>(rng()), static_cast<std::uint32_t>(rng())));
    std::uint32_t len = static_cast<std::uint32_t>(rng() % (a.maxPrefixLen() + 1));
    IpGenPrefix p(a, len);
    // No bit past the length survives, and every bit before it does.
    for (unsigned bit = 0; bit < 128; ++bit) {
      bool set = p.bytes()[bit / 8] >> (7 - bit % 8) & 1;
      bool orig = a.bytes()[bit / 8] >> (7 - bit % 8) & 1;
      ASSERT_EQ(set, bit < len && orig) << p << " bit " << bit;
    }
    EXPECT_TRUE(p.contains(a));
    EXPECT_EQ(IpGenPrefix(p.addr(), len), p);
    EXPECT_EQ(IpGenPrefix::fromString(valueToStrep(a).str() + "/" + std::to_string(len)), p);
    if (a.isIpv6()) {
      EXPECT_EQ(IpGenPrefix(Ip6Prefix(a.v6Addr(), len)), p);
    }
  }
  EXPECT_EQ(valueToStrep(IpGenPrefix::fromString("10.1.2.3/8")), Cog::String("10.0.0.0/8"));
  EXPECT_EQ(valueToStrep(IpGenPrefix::fromString("2001:db8:ffff::1/33")), Cog::String("2001:db8:8000::/33"));
  EXPECT_EQ(valueToStrep(Ip6Prefix::fromString("::1/0")), Cog::String("::/0"));
  EXPECT_FALSE(IpGenPrefix::fromString("10.0.0.0/8").contains(IpGenAddr::ipv4(0x0B000000)));
  EXPECT_FALSE(IpGenPrefix::fromString("::/0").contains(IpGenAddr::ipv4(0)));
}

TEST(IpGenPrefix, SpellingsOfOnePrefixAreEqualAndHashAlike) {
  const std::vector<std::vector<const char*>> groups = {
      {"10.0.0.0/8", "10.1.2.3/8", "10.255.255.255/8"},
      {"2001:db8::/32", "2001:DB8:0:0::/32", "2001:db8:1::1/32", "2001:0db8::ffff/32"},
      {"::ffff:1.2.3.4/128", "::ffff:102:304/128", "0:0:0:0:0:ffff:0102:0304/128"},
      {"0.0.0.0/0", "255.1.1.1/0"},
  };
  for (const auto& g : groups) {
    IpGenPrefix first = IpGenPrefix::fromString(g[0]);
    for (const char* text : g) {
      IpGenPrefix p = IpGenPrefix::fromString(text);
      EXPECT_EQ(p, first) << text;
      EXPECT_EQ(p.hash(), first.hash()) << text;
    }
  }
  // Equal length, different family: distinct.
  EXPECT_FALSE(IpGenPrefix::fromString("0.0.0.0/0") == IpGenPrefix::fromString("::/0"));
}

TEST(IpGenPrefix, MixedFamiliesSortByFamilyThenAddressThenLength) {
  std::mt19937_64 rng(11);
  std::vector<IpGenPrefix> v{IpGenPrefix()};
  for (int i = 0; i < 3000; ++i) {
    // Few distinct addresses, so many prefixes share an address.
    std::uint32_t w = static_cast<std::uint32_t>(rng() % 4) << 30;
    IpGenAddr a = rng() % 2 ? IpGenAddr::ipv4(w) : IpGenAddr(Ip6Addr(w, 0, 0, static_cast<std::uint32_t>(rng() % 3)));
    v.emplace_back(a, static_cast<std::uint32_t>(rng() % (a.maxPrefixLen() + 1)));
  }
  std::sort(v.begin(), v.end());
  for (std::size_t i = 0; i + 1 < v.size(); ++i) {
    const auto& a = v[i];
    const auto& b = v[i + 1];
    ASSERT_LE(a.af(), b.af());
    if (a.af() != b.af()) continue;
    int c = std::memcmp(a.bytes(), b.bytes(), 16);
    ASSERT_LE(c, 0) << a << " before " << b;
    if (c == 0) {
      ASSERT_LE(a.len(), b.len()) << a << " before " << b;
    }
  }
  EXPECT_EQ(v.front(), IpGenPrefix());
  EXPECT_TRUE(IpGenPrefix::fromString("10.0.0.0/8") < IpGenPrefix::fromString("10.0.0.0/16"));
  EXPECT_TRUE(IpGenPrefix::fromString("10.0.0.0/16") < IpGenPrefix::fromString("10.1.0.0/16"));
  EXPECT_TRUE(IpGenPrefix::fromString("255.255.255.255/32") < IpGenPrefix::fromString("::/0"));
  EXPECT_TRUE(IpGenPrefix::fromString("9.0.0.0/8") < IpGenPrefix::fromString("10.0.0.0/8"));  // numeric, not text
}

TEST(IpGenPrefix, MalformedTextIsRefused) {
  expectRefused<IpGenPrefix>({
      {"10.0.0.0", Kind::parse},
      {"10.0.0.0/", Kind::parse},
      {"10.0.0.0/33", Kind::range},
      {"10.0.0.0/99999999999999999999999", Kind::range},
      {"10.0.0.0/-1", Kind::parse},
      {"10.0.0.0/8/8", Kind::parse},
      {"10.0.0.0 /8", Kind::parse},
      {"/8", Kind::parse},
      {"::/129", Kind::range},
      {"::", Kind::parse},
      {"2001:db8::/3x", Kind::parse},
      {"300.0.0.0/8", Kind::range},
  });
  expectRefused<Ip6Prefix>({
      {"", Kind::parse},
      {"10.0.0.0/8", Kind::parse},
      {"::1", Kind::parse},
      {"::/129", Kind::range},
      {"::/12a", Kind::parse},
  });
  EXPECT_THROW(IpGenPrefix(IpGenAddr::ipv4(0), 33), Cog::RangeException);
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Cog::RangeException);
  EXPECT_THROW(Ip6Prefix(Ip6Addr(), 129), Cog::RangeException);
}

TEST(IpGenPrefix, MemoryAndWireLayout) {
  IpGenPrefix p = IpGenPrefix::fromString("10.1.0.0/16");
  unsigned char image[24];
  std::memcpy(image, &p, sizeof image);
  std::uint32_t af, len;
  std::memcpy(&af, image, 4);
  std::memcpy(&len, image + 20, 4);
  EXPECT_EQ(af, 1u);
  EXPECT_EQ(len, 16u);
  const unsigned char addr[16] = {10, 1};
  EXPECT_EQ(std::memcmp(image + 4, addr, 16), 0);

  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << p;
  std::vector<std::uint8_t> wire{0, 0, 0, 1, 10, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 16};
  EXPECT_EQ(out->bytes(), wire);

  // Reading masks host bits and refuses what no prefix can be.
  auto read = [](std::vector<std::uint8_t> bytes) {
    Cog::NboAttrLog::In in(std::move(bytes));
    return IpGenPrefix(&in, Cog::StreamBogon{});
  };
  auto hostBits = wire;
  hostBits[6] = 0xFF;
  EXPECT_EQ(read(hostBits), p);
  auto longLen = wire;
  longLen[23] = 33;
  EXPECT_THROW(read(longLen), Cog::RangeException);
  auto badFamily = wire;
  badFamily[3] = 9;
  EXPECT_THROW(read(badFamily), Cog::RangeException);
  auto strayByte = wire;
  strayByte[10] = 1;
  EXPECT_THROW(read(strayByte), Cog::RangeException);
}

}  // namespace
