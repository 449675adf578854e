// Hand-written parts of the unprogrammed-route types
// (schema/KernelUnprogrammedRoute.cog): the images of Error and Error6, their
// dump lines, the error lookups of ErrorKeySet and errorKeySetIs.
#include "RoutingLib/KernelUnprogrammedRoute.h"

#include <cstring>
#include <sstream>

#include "Cog/Trace.h"
#include "Memtab/Registry.h"

COG_TRACE_HANDLE("KernelUnprogrammedRoute");

namespace Memtab::KernelUnprogrammedRoute {

namespace {

// The name count sits at `countOffset`; an image too short to hold it is
// not one.
std::size_t imageLen(const std::uint8_t* in, std::size_t size, std::size_t countOffset,
                     std::size_t full) {
  if (size < countOffset + 4) return 0;
  std::uint32_t count;
  std::memcpy(&count, in + countOffset, 4);
  return count < ErrorKey::nameCapacity + 1 ? full : 0;
}

// Error: errorCode, then the key.
constexpr std::size_t kErrorKeyAt = 4;
// Error6: errorCode, interface, then the key.
constexpr std::size_t kError6IntfAt = 4;
constexpr std::size_t kError6KeyAt = 12;
// The image keeps the three bytes after the used name (the in-memory tail
// less the unused part of the name array); they are written as zeros.
constexpr std::size_t kTail = 3;

const Memtab::ValueTypeRegistration<Error> errorRegistration;
const Memtab::ValueTypeRegistration<Error6> error6Registration;

}  // namespace

std::size_t Error::serializeLen() const {
  return kErrorKeyAt + ErrorKey::imageFixed + key_.nameCount() + kTail;
}

void Error::serialize(std::uint8_t* out) const {
  std::memcpy(out, &errorCode_, 4);
  key_.writeImage(out + kErrorKeyAt);
  std::memset(out + kErrorKeyAt + ErrorKey::imageFixed + key_.nameCount(), 0, kTail);
}

std::size_t Error::deserializeLen(const std::uint8_t* in, std::size_t size) {
  return imageLen(in, size, kErrorKeyAt + 24, imageSize);
}

void Error::deserialize(const std::uint8_t* in, std::size_t) {
  std::memcpy(&errorCode_, in, 4);
  key_.readImage(in + kErrorKeyAt);
}

std::string Error::memtabString() const {
  std::ostringstream os;
  os << "[" << key_ << "] " << errorCode_;
  return os.str();
}

std::size_t Error6::serializeLen() const {
  return kError6KeyAt + ErrorKey::imageFixed + key_.nameCount() + kTail;
}

void Error6::serialize(std::uint8_t* out) const {
  std::memcpy(out, &errorCode_, 4);
  std::memcpy(out + kError6IntfAt, &intf_, sizeof(intf_));
  key_.writeImage(out + kError6KeyAt);
  std::memset(out + kError6KeyAt + ErrorKey::imageFixed + key_.nameCount(), 0, kTail);
}

std::size_t Error6::deserializeLen(const std::uint8_t* in, std::size_t size) {
  return imageLen(in, size, kError6KeyAt + 24, imageSize);
}

void Error6::deserialize(const std::uint8_t* in, std::size_t) {
  std::memcpy(&errorCode_, in, 4);
  std::memcpy(&intf_, in + kError6IntfAt, sizeof(intf_));
  key_.readImage(in + kError6KeyAt);
}

std::string Error6::memtabString() const {
  std::ostringstream os;
  os << "[" << key_ << "] " << errorCode_ << " " << intf_;
  return os.str();
}

Error ErrorKeySet::getError(const ErrorKey& key) const {
  return unprogrammedRoute_ ? unprogrammedRoute_->error(key) : Error();
}

Error6 ErrorKeySet::getError6(const ErrorKey& key) const {
  return unprogrammedRoute_ ? unprogrammedRoute_->error6(key) : Error6();
}

Cog::Ptr<ErrorKeySet> errorKeySetFactory(const L3::VrfName& vrfName, Velnet::AddressFamily af,
                                         const Cog::Ptr<const UnprogrammedRoute>& unprogrammedRoute) {
  Cog::Ptr<ErrorKeySet> set = errorKeySetFactory(vrfName, af);
  set->unprogrammedRouteIs(unprogrammedRoute);
  return set;
}

Cog::Ptr<ErrorKeySet> UnprogrammedRouteByVrf::errorKeySetIs(
    const L3::VrfName& vrfName, Velnet::AddressFamily af,
    const Cog::Ptr<const UnprogrammedRoute>& unprogrammedRoute) {
  const bool v6 = af == Velnet::AddressFamily::ipv6;
  Cog::Ptr<ErrorKeySet> set = v6 ? error6KeySet(vrfName) : error4KeySet(vrfName);
  if (set) return set;
  COG_TRACE(8, "errorKeySetIs" << " Creating ErrorKeySet for VRF " << vrfName
                               << " and address family " << af);
  set = errorKeySetFactory(vrfName, af, unprogrammedRoute);
  return v6 ? error6KeySetIs(set) : error4KeySetIs(set);
}

}  // namespace Memtab::KernelUnprogrammedRoute
