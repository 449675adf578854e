#include <gtest/gtest.h>

#include <sstream>

#include "Cog/Exception.h"
#include "Cog/GenericIf.h"
#include "Cog/Type.h"
#include "Cog/ValueTraits.h"
#include "Velnet/AddressFamily.h"
#include "Velnet/IanaCryptoSuite.h"
#include "Velnet/MplsLabelAction.h"
#include "Velnet/TunnelIntfMode.h"

namespace {

using namespace Velnet;

// Every enumerator survives name and number round trips, in text, stream and
// attribute-log form; unknown names and numbers are refused.
template <typename E>
class VelnetEnumTest : public ::testing::Test {};

using Enums = ::testing::Types<AddressFamily, MplsLabelAction, TunnelIntfMode, IanaCryptoSuite>;
TYPED_TEST_SUITE(VelnetEnumTest, Enums);

TYPED_TEST(VelnetEnumTest, RoundTripsAndRefusals) {
  using E = TypeParam;
  const auto& entries = EnumTraits<E>::entries;
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    E e = entries[i].value;
    EXPECT_EQ(static_cast<unsigned>(e), i) << "values are in declaration order";
    Cog::String name = valueToStrep(e);
    EXPECT_EQ(name, Cog::String(entries[i].name));
    EXPECT_EQ(enumInstance<E>(std::string_view(name)), e);
    EXPECT_EQ(enumInstance<E>(static_cast<unsigned>(e)), e);
    std::ostringstream os;
    os << e;
    EXPECT_EQ(os.str(), name.str());
    EXPECT_EQ(!e, i == 0);

    // Embedded in a larger text, the parser stops at the name's end.
    Cog::String text(name.str() + ", rest");
    auto it = text.begin();
    E parsed{};
    sequenceToValue(it, text.end(), &parsed);
    EXPECT_EQ(parsed, e);
    EXPECT_EQ(std::string(it, text.end()), ", rest");
    out << e;
  }
  Cog::NboAttrLog::In in(out->bytes());
  for (const auto& entry : entries) EXPECT_EQ(enumInstance<E>(&in), entry.value);
  EXPECT_TRUE(in.atEnd());

  EXPECT_THROW(enumInstance<E>(static_cast<unsigned>(entries.size())), Cog::RangeException);
  EXPECT_THROW(enumInstance<E>(0xFFFFFFFFu), Cog::RangeException);
  for (const char* bad : {"", "bogus", "IPV4x", " none"}) {
    EXPECT_THROW(enumInstance<E>(std::string_view(bad)), Cog::ParseException) << bad;
  }
  Cog::String empty(", x");
  auto it = empty.begin();
  E parsed{};
  EXPECT_THROW(sequenceToValue(it, empty.end(), &parsed), Cog::ParseException);
  EXPECT_EQ(it, empty.begin());
}

// Generated types embed these enumerations through the framework's records:
// the record, the framework's text and log forms and ours must agree.
TYPED_TEST(VelnetEnumTest, FrameworkRecordAgrees) {
  using E = TypeParam;
  static_assert(Cog::CogEnum<E>);
  const Cog::CogType* type = Cog::typeByName(EnumTraits<E>::typeName);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type, cogEnumType(E()));
  EXPECT_EQ(type->kind(), Cog::TypeKind::enumeration);
  for (const auto& entry : EnumTraits<E>::entries) {
    std::string text;
    Cog::ValueTraits<E>::strep(text, entry.value);
    EXPECT_EQ(text, entry.name);
    auto it = text.cbegin();
    EXPECT_EQ(Cog::ValueTraits<E>::parse(it, text.cend()), entry.value);
    auto out = Cog::allocate<Cog::NboAttrLog::Out>();
    Cog::ValueTraits<E>::put(out, entry.value);
    Cog::NboAttrLog::In in(out->bytes());
    EXPECT_EQ(enumInstance<E>(&in), entry.value);
    EXPECT_EQ(Cog::genericCast<E>(type->fromStrRep(Cog::String(entry.name))), entry.value);
  }
  EXPECT_EQ(type->samples().size(), EnumTraits<E>::entries.size());
}

TEST(VelnetEnum, ConventionalSpellings) {
  EXPECT_EQ(AddressFamilyInstance(Cog::String("ipv6")), AddressFamily::ipv6);
  EXPECT_EQ(AddressFamilyInstance(2u), AddressFamily::ipv6);
  EXPECT_THROW(AddressFamilyInstance(Cog::String("IPv6")), Cog::ParseException);
  EXPECT_EQ(MplsLabelActionInstance(Cog::String("swap")), MplsLabelAction::swap);
  EXPECT_EQ(TunnelIntfModeInstance(Cog::String("gre")), TunnelIntfMode::gre);
  EXPECT_EQ(IanaCryptoSuiteInstance(Cog::String("suiteBGcm256")), IanaCryptoSuite::suiteBGcm256);
  for (const auto& entry : EnumTraits<IanaCryptoSuite>::entries) {
    if (entry.value == IanaCryptoSuite::cryptoSuiteNone) continue;
    EXPECT_EQ(ianaCryptoSuiteFromIanaName(ianaName(entry.value)), entry.value);
  }
  EXPECT_THROW(ianaCryptoSuiteFromIanaName(""), Cog::ParseException);
  EXPECT_THROW(ianaCryptoSuiteFromIanaName("suite-b-gcm-128"), Cog::ParseException);
}

}  // namespace
