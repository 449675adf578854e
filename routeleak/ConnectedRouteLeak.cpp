// Hand-written parts of the leaked-route types (schema/ConnectedRouteLeak.cog).
#include "RoutingLib/ConnectedRouteLeak.h"

#include <cstring>

namespace Routing {
namespace {

std::uint32_t wangHash(std::uint32_t x) {
  x = ~x + (x << 15);
  x ^= x >> 12;
  x += x << 2;
  x ^= x >> 4;
  x *= 2057;
  x ^= x >> 16;
  return x;
}

// One word for a prefix, so that a key hashes as two words.
std::uint32_t prefixWord(const Velnet::IpGenPrefix& p) {
  if (p.isIpv4()) return wangHash(p.v4Addr() ^ p.len());
  if (p.isIpv6()) return wangHash(p.addr().v6Addr().hash() ^ p.len());
  return 0;
}

Cog::HashValue vrfPrefixHash(const Vrf::VrfIdMap::VrfId& vrf, const Velnet::IpGenPrefix& p) {
  Cog::Hash h;
  h.mix(vrf.value());
  h.mix(prefixWord(p));
  return h.result();
}

void putWord(std::uint8_t* out, std::uint32_t v) {
  out[0] = static_cast<std::uint8_t>(v >> 24);
  out[1] = static_cast<std::uint8_t>(v >> 16);
  out[2] = static_cast<std::uint8_t>(v >> 8);
  out[3] = static_cast<std::uint8_t>(v);
}

std::uint32_t word(const std::uint8_t* in) {
  return std::uint32_t{in[0]} << 24 | std::uint32_t{in[1]} << 16 | std::uint32_t{in[2]} << 8 | in[3];
}

constexpr std::size_t kAfAt = 4, kAddrAt = 8, kLenAt = 24, kSourceAt = 28;

std::uint32_t maxLen(std::uint32_t af) {
  switch (static_cast<Velnet::AddressFamily>(af)) {
    case Velnet::AddressFamily::ipv4: return 32;
    case Velnet::AddressFamily::ipv6: return 128;
    default: return 0;
  }
}

}  // namespace

std::uint32_t DestVrfPrefix::hash() const { return vrfPrefixHash(destVrfId(), prefix()); }

std::uint32_t SourceVrfPrefix::hash() const { return vrfPrefixHash(sourceVrfId(), prefix()); }

std::uint32_t RouteLeakedToVrf::hash() const {
  Cog::Hash h;
  h.mix(destVrfPrefix().hash());
  h.mix(sourceVrfId().value());
  return h.result();
}

void RouteLeakedToVrf::serialize(std::uint8_t* out) const {
  const Velnet::IpGenPrefix& p = destVrfPrefix().prefix();
  putWord(out, destVrfPrefix().destVrfId().value());
  putWord(out + kAfAt, static_cast<std::uint32_t>(p.af()));
  std::memcpy(out + kAddrAt, p.bytes(), 16);
  putWord(out + kLenAt, p.len());
  putWord(out + kSourceAt, sourceVrfId().value());
}

std::size_t RouteLeakedToVrf::deserializeLen(const std::uint8_t* in, std::size_t size) {
  if (size != imageBytes) return 0;
  const std::uint32_t af = word(in + kAfAt);
  if (af > static_cast<std::uint32_t>(Velnet::AddressFamily::ipv6)) return 0;
  if (word(in + kLenAt) > maxLen(af)) return 0;
  return imageBytes;
}

void RouteLeakedToVrf::deserialize(const std::uint8_t* in, std::size_t size) {
  if (deserializeLen(in, size) == 0) {
    *this = RouteLeakedToVrf();
    return;
  }
  const auto af = static_cast<Velnet::AddressFamily>(word(in + kAfAt));
  Velnet::IpGenPrefix prefix;
  if (af != Velnet::AddressFamily::ipunknown) {
    prefix = Velnet::IpGenPrefix(Velnet::IpGenAddr::fromBytes(af, in + kAddrAt), word(in + kLenAt));
  }
  destVrfPrefixIs(DestVrfPrefix(Vrf::VrfIdMap::VrfId(word(in)), prefix));
  sourceVrfIdIs(Vrf::VrfIdMap::VrfId(word(in + kSourceAt)));
}

Memtab::MountStatus ConnectedRouteLeakStatus::leakedRouteControl() const {
  return leakedRouteReader_ != nullptr ? leakedRouteReader_->mountStatus() : Memtab::MountStatus::mounted;
}

}  // namespace Routing
