// Velnet::IanaCryptoSuite: the cryptographic suites of IANA's "Cryptographic
// Suites" registry for IKE and IPsec (RFC 4308 and RFC 6379), which name a
// whole set of IKE and ESP algorithms at once.
//
//   value  enumerator       registry identifier (ianaName())
//   0      cryptoSuiteNone  (none: no protection; the default)
//   1      vpnA             "VPN-A"
//   2      vpnB             "VPN-B"
//   3      suiteBGcm128     "Suite-B-GCM-128"
//   4      suiteBGcm256     "Suite-B-GCM-256"
//   5      suiteBGmac128    "Suite-B-GMAC-128"
//   6      suiteBGmac256    "Suite-B-GMAC-256"
//
// The registry names suites by text only; the numbers are ours, in registry
// order, and are what attribute logs carry (unsigned 32-bit). Text form: the
// enumerator's name; the registry's own spelling is also accepted by
// ianaCryptoSuiteFromIanaName(). The rest of the enumeration frame is in
// Velnet/Enum.h.
#pragma once

#include <cstdint>

#include "Velnet/Enum.h"

namespace Velnet {

enum class IanaCryptoSuite : std::uint32_t {
  cryptoSuiteNone = 0,
  vpnA = 1,
  vpnB = 2,
  suiteBGcm128 = 3,
  suiteBGcm256 = 4,
  suiteBGmac128 = 5,
  suiteBGmac256 = 6,
};

template <>
struct EnumTraits<IanaCryptoSuite> {
  static constexpr const char* typeName = "Velnet::IanaCryptoSuite";
  static constexpr std::array<EnumEntry<IanaCryptoSuite>, 7> entries{{
      {IanaCryptoSuite::cryptoSuiteNone, "cryptoSuiteNone"},
      {IanaCryptoSuite::vpnA, "vpnA"},
      {IanaCryptoSuite::vpnB, "vpnB"},
      {IanaCryptoSuite::suiteBGcm128, "suiteBGcm128"},
      {IanaCryptoSuite::suiteBGcm256, "suiteBGcm256"},
      {IanaCryptoSuite::suiteBGmac128, "suiteBGmac128"},
      {IanaCryptoSuite::suiteBGmac256, "suiteBGmac256"},
  }};
};

// The enumeration's Cog type record (registered when the library loads);
// also the hook by which generated code and reflection find it.
const Cog::EnumType* cogEnumType(IanaCryptoSuite);

inline IanaCryptoSuite IanaCryptoSuiteInstance(unsigned v) { return enumInstance<IanaCryptoSuite>(v); }
inline IanaCryptoSuite IanaCryptoSuiteInstance(const Cog::String& name) {
  return enumInstance<IanaCryptoSuite>(std::string_view(name));
}
inline IanaCryptoSuite IanaCryptoSuiteInstance(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  return enumInstance<IanaCryptoSuite>(in);
}

// The registry's identifier of `suite` ("" for cryptoSuiteNone).
inline const char* ianaName(IanaCryptoSuite suite) {
  switch (suite) {
    case IanaCryptoSuite::vpnA: return "VPN-A";
    case IanaCryptoSuite::vpnB: return "VPN-B";
    case IanaCryptoSuite::suiteBGcm128: return "Suite-B-GCM-128";
    case IanaCryptoSuite::suiteBGcm256: return "Suite-B-GCM-256";
    case IanaCryptoSuite::suiteBGmac128: return "Suite-B-GMAC-128";
    case IanaCryptoSuite::suiteBGmac256: return "Suite-B-GMAC-256";
    case IanaCryptoSuite::cryptoSuiteNone: break;
  }
  return "";
}

// The suite whose registry identifier is `name`; ParseException otherwise.
inline IanaCryptoSuite ianaCryptoSuiteFromIanaName(std::string_view name) {
  for (const auto& entry : EnumTraits<IanaCryptoSuite>::entries) {
    if (entry.value != IanaCryptoSuite::cryptoSuiteNone && name == ianaName(entry.value)) {
      return entry.value;
    }
  }
  throw Cog::ParseException("'" + std::string(name) + "' is not an IANA cryptographic suite");
}

}  // namespace Velnet
