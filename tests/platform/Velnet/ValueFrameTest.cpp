// Properties every Velnet value type shares, swept over many random values
// of each type: text and attribute-log round trips, parsers that stop
// exactly where their text ends, a strict weak order consistent with ==,
// and hashes consistent with ==.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <vector>

#include "Cog/Exception.h"
#include "Cog/ValueTraits.h"
#include "Tunnel/TunnelId.h"
#include "Velnet/EthAddr.h"
#include "Velnet/Ip6Prefix.h"
#include "Velnet/IpGenPrefix.h"
#include "Velnet/IntfIdKinds.h"
#include "Velnet/MplsLabel.h"

namespace {

using namespace Velnet;
using Rng = std::mt19937_64;

// Addresses with many zero groups, so that "::" compression, single zero
// groups and IPv4-mapped forms all occur often.
Ip6Addr randomIp6(Rng& rng) {
  std::uint32_t w[4];
  for (auto& x : w) {
    std::uint32_t hi = rng() % 2 ? 0 : static_cast<std::uint32_t>(rng() & 0xFFFF);
    std::uint32_t lo = rng() % 2 ? 0 : static_cast<std::uint32_t>(rng() & 0xFFFF);
    x = hi << 16 | lo;
  }
  if (rng() % 8 == 0) {
    w[0] = w[1] = 0;
    w[2] = 0xFFFF;
  }
  return Ip6Addr(w[0], w[1], w[2], w[3]);
}

IpGenAddr randomGenAddr(Rng& rng) {
  switch (rng() % 5) {
    case 0: return IpGenAddr();
    case 1:
    case 2: return IpGenAddr::ipv4(static_cast<std::uint32_t>(rng()));
    default: return IpGenAddr(randomIp6(rng));
  }
}

IntfId randomIntfId(Rng& rng) {
  auto small = [&] { return static_cast<std::uint32_t>(rng() % 100); };
  switch (rng() % 12) {
    case 0: return IntfId();
    case 1: return IntfId::ethernet(small());
    case 2: return IntfId::ethernet(small(), small());
    case 3: return IntfId::ethernet(small(), small(), small());
    case 4: return IntfId::management(small(), small());
    case 5: return IntfId::portChannel(static_cast<std::uint32_t>(rng()));
    case 6: return IntfId::vlan(1 + static_cast<std::uint32_t>(rng() % 4094));
    case 7: return IntfId::loopback(small());
    case 8: return TunnelIntfId::portToIntfId(static_cast<std::uint16_t>(rng()));
    case 9: return NexthopGroupIntfId::nexthopGroupIdToIntfId(static_cast<std::uint32_t>(rng()));
    case 10: return DynamicTunnelIntfId::tunnelValueToIntfId(rng() & GenericIntfId::maxPayload);
    default: return IntfId(rng());  // any bits at all, mostly malformed names
  }
}

template <typename T>
T randomValue(Rng& rng);

template <>
Ip6Addr randomValue<Ip6Addr>(Rng& rng) {
  return randomIp6(rng);
}
template <>
IpGenAddr randomValue<IpGenAddr>(Rng& rng) {
  return randomGenAddr(rng);
}
template <>
Ip6Prefix randomValue<Ip6Prefix>(Rng& rng) {
  return Ip6Prefix(randomIp6(rng), static_cast<std::uint32_t>(rng() % 129));
}
template <>
IpGenPrefix randomValue<IpGenPrefix>(Rng& rng) {
  IpGenAddr a = randomGenAddr(rng);
  return IpGenPrefix(a, static_cast<std::uint32_t>(rng() % (a.maxPrefixLen() + 1)));
}
template <>
IntfId randomValue<IntfId>(Rng& rng) {
  return randomIntfId(rng);
}
template <>
EthAddr randomValue<EthAddr>(Rng& rng) {
  return EthAddr::fromValue(rng() >> 16);
}
template <>
MplsLabel randomValue<MplsLabel>(Rng& rng) {
  return MplsLabel(static_cast<std::uint32_t>(rng() % (MplsLabel::luWithdraw + 1)));
}
template <>
Tunnel::TunnelTable::TunnelId randomValue<Tunnel::TunnelTable::TunnelId>(Rng& rng) {
  return Tunnel::TunnelTable::TunnelId(rng() >> 16);
}

template <typename T>
class ValueFrame : public ::testing::Test {
 protected:
  std::vector<T> values() {
    Rng rng(20240601);
    std::vector<T> v{T()};
    for (int i = 0; i < 3000; ++i) v.push_back(randomValue<T>(rng));
    return v;
  }
};

using Types = ::testing::Types<Ip6Addr, IpGenAddr, Ip6Prefix, IpGenPrefix, IntfId, EthAddr, MplsLabel,
                               Tunnel::TunnelTable::TunnelId>;
TYPED_TEST_SUITE(ValueFrame, Types);

TYPED_TEST(ValueFrame, TextRoundTripStopsAtItsEnd) {
  static_assert(Cog::FrameValue<TypeParam>, "embeddable as an attribute of generated types");
  for (const TypeParam& v : this->values()) {
    Cog::String text = valueToStrep(v);
    std::ostringstream os;
    os << v;
    ASSERT_EQ(os.str(), text.str());
    EXPECT_EQ(TypeParam::fromString(text), v) << text;
    EXPECT_EQ(TypeParam(text), v) << text;

    // As an attribute inside a larger string form.
    Cog::String embedded(text.str() + ", 'next': 1})");
    auto it = embedded.begin();
    TypeParam parsed(it, embedded.end());
    EXPECT_EQ(parsed, v) << embedded;
    EXPECT_EQ(std::string(it, embedded.end()), ", 'next': 1})") << embedded;
  }
}

TYPED_TEST(ValueFrame, AttributeLogRoundTrip) {
  auto values = this->values();
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  for (const TypeParam& v : values) out << v;
  // Fixed widths: every value takes the same number of bytes.
  ASSERT_EQ(out->size() % values.size(), 0u);
  Cog::NboAttrLog::In in(out->bytes());
  for (const TypeParam& v : values) {
    TypeParam read(&in, Cog::StreamBogon{});
    EXPECT_EQ(read, v) << v;
  }
  EXPECT_TRUE(in.atEnd());

  // A truncated record is refused, whatever the cut.
  std::size_t width = out->size() / values.size();
  for (std::size_t len = 0; len < width; ++len) {
    Cog::NboAttrLog::In cut(std::vector<std::uint8_t>(out->bytes().begin(), out->bytes().begin() + len));
    EXPECT_THROW(TypeParam(&cut, Cog::StreamBogon{}), Cog::StreamException) << len;
  }
}

TYPED_TEST(ValueFrame, OrderIsStrictWeakAndAgreesWithEquality) {
  auto values = this->values();
  std::sort(values.begin(), values.end());
  for (std::size_t i = 0; i + 1 < values.size(); ++i) {
    const auto& a = values[i];
    const auto& b = values[i + 1];
    EXPECT_FALSE(b < a) << a << " / " << b;
    EXPECT_FALSE(a < a);
    // Equivalent under < means equal, and equal values hash alike.
    if (!(a < b)) {
      EXPECT_TRUE(a == b) << a << " / " << b;
      EXPECT_EQ(a.hash(), b.hash());
    } else {
      EXPECT_FALSE(a == b);
    }
  }
  // The sorted sequence is ordered transitively, not just pairwise.
  for (std::size_t i = 0; i + 50 < values.size(); i += 37) {
    if (values[i] == values[i + 50]) continue;
    EXPECT_TRUE(values[i] < values[i + 50]) << values[i] << " / " << values[i + 50];
  }
  // Distinct values should rarely collide in hash.
  std::vector<Cog::HashValue> hashes;
  auto last = std::unique(values.begin(), values.end());
  for (auto it = values.begin(); it != last; ++it) hashes.push_back(it->hash());
  std::sort(hashes.begin(), hashes.end());
  auto distinct = std::unique(hashes.begin(), hashes.end()) - hashes.begin();
  EXPECT_GE(distinct * 100, (last - values.begin()) * 99);
}

// Near misses of valid texts either parse to a value whose own text parses
// back to it, or are refused with the framework's parse or range error;
// never anything else (the sanitizer build watches for stray reads).
TYPED_TEST(ValueFrame, MutatedTextsParseOrAreRefused) {
  Rng rng(99);
  const std::string alphabet = "0123456789abcdefABCDEF:./ -xEthernetVlan";
  auto values = this->values();
  int parsed = 0, refused = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string t = valueToStrep(values[rng() % values.size()]).str();
    for (unsigned edits = 1 + rng() % 3; edits > 0; --edits) {
      std::size_t pos = t.empty() ? 0 : rng() % (t.size() + 1);
      char c = alphabet[rng() % alphabet.size()];
      switch (rng() % 3) {
        case 0: t.insert(pos, 1, c); break;
        case 1: if (pos < t.size()) t.erase(pos, 1); break;
        default: if (pos < t.size()) t[pos] = c; break;
      }
    }
    try {
      TypeParam v = TypeParam::fromString(t);
      ASSERT_EQ(TypeParam::fromString(valueToStrep(v)), v) << t;
      ++parsed;
    } catch (const Cog::ParseException&) {
      ++refused;
    } catch (const Cog::RangeException&) {
      ++refused;
    }
  }
  EXPECT_GT(parsed, 0);
  EXPECT_GT(refused, 0);
}

TYPED_TEST(ValueFrame, DefaultIsTheOnlyFalsyValue) {
  EXPECT_TRUE(!TypeParam());
  for (const TypeParam& v : this->values()) EXPECT_EQ(!v, v == TypeParam()) << v;
}

}  // namespace
