#include "Velnet/IntfId.h"

#include <cctype>
#include <ostream>
#include <string>
#include <string_view>

#include "Cog/Exception.h"
#include "Velnet/Text.h"

namespace Velnet {

namespace {

using G = GenericIntfId;

// Ethernet and Management: up to three numbers of 18 bits and their count.
constexpr unsigned kLevelBits = 18;
constexpr std::uint32_t kMaxLevel = (1u << kLevelBits) - 1;
constexpr unsigned kLevelShift[3] = {38, 20, 2};

constexpr std::uint32_t kMaxVlan = 4094;

struct Kind {
  std::uint32_t typeId;
  const char* name;
};

// Parse order matters only for names that are prefixes of one another
// (none today); the first entry whose name matches wins.
constexpr Kind kKinds[] = {
    {G::ethernetType, "Ethernet"},         {G::portChannelType, "Port-Channel"},
    {G::vlanType, "Vlan"},                 {G::loopbackType, "Loopback"},
    {G::managementType, "Management"},     {G::tunnelType, "Tunnel"},
    {G::nexthopGroupType, "NexthopGroup"}, {G::dynamicTunnelType, "DynamicTunnel"},
};
constexpr const char* kGenericName = "GenericIntf";

bool isLevelled(std::uint32_t t) { return t == G::ethernetType || t == G::managementType; }

// Largest number a single-number kind admits.
std::uint64_t maxNumber(std::uint32_t t) {
  switch (t) {
    case G::vlanType: return kMaxVlan;
    case G::tunnelType: return 0xFFFF;
    case G::dynamicTunnelType: return G::maxPayload;
    default: return 0xFFFFFFFFu;
  }
}

const char* kindName(std::uint32_t t) {
  for (const auto& k : kKinds) {
    if (k.typeId == t) return k.name;
  }
  return nullptr;
}

IntfId levelled(std::uint32_t t, const std::uint32_t* numbers, unsigned count) {
  std::uint64_t payload = count;
  for (unsigned i = 0; i < count; ++i) {
    if (numbers[i] > kMaxLevel) {
      throw Cog::RangeException(std::string(kindName(t)) + " interface number " +
                                std::to_string(numbers[i]) + " is out of range (max " +
                                std::to_string(kMaxLevel) + ")");
    }
    payload |= std::uint64_t{numbers[i]} << kLevelShift[i];
  }
  return G::intfId(t, payload);
}

IntfId single(std::uint32_t t, std::uint64_t n) {
  std::uint64_t min = t == G::vlanType ? 1 : 0;
  if (n < min || n > maxNumber(t)) {
    throw Cog::RangeException(std::string(kindName(t)) + " interface number " + std::to_string(n) +
                              " is out of range (" + std::to_string(min) + ".." +
                              std::to_string(maxNumber(t)) + ")");
  }
  return G::intfId(t, n);
}

// The name of `i` when it is a well-formed named id, else empty.
std::string namedText(IntfId i) {
  std::uint32_t t = G::typeId(i);
  std::uint64_t payload = G::payload(i);
  const char* name = kindName(t);
  if (!name) return {};
  std::string s = name;
  if (isLevelled(t)) {
    unsigned count = payload & 3;
    if (count == 0) return {};
    for (unsigned level = 0; level < 3; ++level) {
      std::uint32_t n = static_cast<std::uint32_t>(payload >> kLevelShift[level]) & kMaxLevel;
      if (level >= count) {
        if (n != 0) return {};
        continue;
      }
      if (level > 0) s += '/';
      s += std::to_string(n);
    }
    return s;
  }
  std::uint64_t min = t == G::vlanType ? 1 : 0;
  if (payload < min || payload > maxNumber(t)) return {};
  return s + std::to_string(payload);
}

bool nameChar(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '-'; }

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

// True (and consumed) when '/' and a digit follow.
bool nextLevel(Text::It& it, const Text::It& end) {
  if (it != end && *it == '/' && it + 1 != end && Text::isDigit(it[1])) {
    ++it;
    return true;
  }
  return false;
}

}  // namespace

IntfId IntfId::ethernet(std::uint32_t n) { return levelled(G::ethernetType, &n, 1); }
IntfId IntfId::ethernet(std::uint32_t n, std::uint32_t m) {
  const std::uint32_t v[] = {n, m};
  return levelled(G::ethernetType, v, 2);
}
IntfId IntfId::ethernet(std::uint32_t n, std::uint32_t m, std::uint32_t k) {
  const std::uint32_t v[] = {n, m, k};
  return levelled(G::ethernetType, v, 3);
}
IntfId IntfId::management(std::uint32_t n) { return levelled(G::managementType, &n, 1); }
IntfId IntfId::management(std::uint32_t n, std::uint32_t m) {
  const std::uint32_t v[] = {n, m};
  return levelled(G::managementType, v, 2);
}
IntfId IntfId::portChannel(std::uint32_t n) { return single(G::portChannelType, n); }
IntfId IntfId::vlan(std::uint32_t vlanId) { return single(G::vlanType, vlanId); }
IntfId IntfId::loopback(std::uint32_t n) { return single(G::loopbackType, n); }
IntfId IntfId::tunnel(std::uint32_t port) { return single(G::tunnelType, port); }

IntfId::IntfId(const Cog::String& name) {
  auto it = name.begin();
  *this = IntfId(it, name.end());
  Cog::strepToValueEnd(it, name.end());
}

IntfId::IntfId(Cog::String::IteratorConst& begin, const Cog::String::IteratorConst& end) {
  auto it = begin;
  auto nameEnd = it;
  while (nameEnd != end && nameChar(*nameEnd)) ++nameEnd;
  if (nameEnd == it) return;  // no name here: the empty id
  std::string_view word(&*it, static_cast<std::size_t>(nameEnd - it));
  std::uint32_t t = 0;
  bool generic = equalsIgnoreCase(word, kGenericName);
  bool known = generic;
  for (const auto& k : kKinds) {
    if (!known && equalsIgnoreCase(word, k.name)) {
      t = k.typeId;
      known = true;
    }
  }
  if (!known) Text::fail("unknown interface name '" + std::string(word) + "'", it, end);
  it = nameEnd;
  if (it == end || !Text::isDigit(*it)) {
    Text::fail("expected an interface number after '" + std::string(word) + "'", it, end);
  }
  if (generic) {
    auto typeId = static_cast<std::uint32_t>(Text::decimal(it, end, G::maxTypeId, "interface type id"));
    std::uint32_t parts[2];
    for (unsigned n = 0; n < 2; ++n) {
      if (!Text::consumeChar(it, end, '/')) Text::fail("expected '/' and an interface id part", it, end);
      parts[n] = static_cast<std::uint32_t>(Text::decimal(it, end, G::maxPart(n), "interface id part"));
    }
    *this = G::intfId(typeId, parts[0], parts[1]);
  } else if (isLevelled(t)) {
    std::uint32_t numbers[3];
    unsigned count = 0;
    do {
      if (count == 3) Text::fail("more than three numbers in interface name", it - 1, end);
      numbers[count++] =
          static_cast<std::uint32_t>(Text::decimal(it, end, kMaxLevel, "interface number"));
    } while (nextLevel(it, end));
    *this = levelled(t, numbers, count);
  } else {
    *this = single(t, Text::decimal(it, end, maxNumber(t), "interface number"));
  }
  begin = it;
}

IntfId::IntfId(Cog::NboAttrLog::In* in, Cog::StreamBogon) {
  std::uint32_t high = in->nextU32();
  std::uint32_t low = in->nextU32();
  *this = IntfId(high, low);
}

Cog::String IntfId::name() const {
  if (!*this) return Cog::String();
  std::string named = namedText(*this);
  if (!named.empty()) return Cog::String(std::move(named));
  return Cog::String(std::string(kGenericName) + std::to_string(G::typeId(*this)) + "/" +
                     std::to_string(G::part(*this, 0)) + "/" + std::to_string(G::part(*this, 1)));
}

Cog::HashValue IntfId::hash() const {
  Cog::Hash h;
  h.mix(high());
  h.mix(low());
  return h.result();
}

Cog::String valueToStrep(const IntfId& i) { return i.name(); }

std::ostream& operator<<(std::ostream& os, const IntfId& i) { return os << i.name(); }

const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                 const IntfId& i) {
  out->putU32(i.high());
  out->putU32(i.low());
  return out;
}

}  // namespace Velnet
