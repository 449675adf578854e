// Type records of Velnet's enumerations, registered at load time like those
// of generated enumerations.
#include "Cog/Generated.h"
#include "Velnet/AddressFamily.h"
#include "Velnet/IanaCryptoSuite.h"
#include "Velnet/MplsLabelAction.h"
#include "Velnet/TunnelIntfMode.h"

namespace Velnet {

namespace {

template <VelnetEnum E>
Cog::Ptr<Cog::GenericIf> fromCtorArgs(const Cog::CogType* type, const Cog::ArgList& args) {
  if (args.empty()) return Cog::genericIfOf(E());
  if (args.size() == 1) {
    if (auto* n = args[0]->as<std::uint32_t>()) return Cog::genericIfOf(enumInstance<E>(*n));
    return Cog::genericIfOf(Cog::genericCast<E>(args[0], type->name()));
  }
  throw Cog::RangeException(std::string(type->name()) + " takes at most one constructor argument");
}

template <VelnetEnum E>
std::vector<Cog::Ptr<Cog::GenericIf>> samples() {
  std::vector<Cog::Ptr<Cog::GenericIf>> out;
  for (const auto& entry : EnumTraits<E>::entries) out.push_back(Cog::genericIfOf(entry.value));
  return out;
}

template <VelnetEnum E>
std::vector<Cog::EnumType::Enumerator> enumerators() {
  std::vector<Cog::EnumType::Enumerator> out;
  for (const auto& entry : EnumTraits<E>::entries) {
    out.push_back({entry.name, static_cast<std::uint32_t>(entry.value)});
  }
  return out;
}

template <VelnetEnum E>
const Cog::EnumType* record() {
  using Glue = Cog::Glue::ValueGlue<E>;
  static const Cog::EnumType type(EnumTraits<E>::typeName, enumerators<E>(), 32,
                                  Cog::TypeGlue{&Glue::attributeOp, &Glue::fromStrRep, &fromCtorArgs<E>,
                                                &samples<E>, &Glue::fromAttrLog});
  return &type;
}

}  // namespace

const Cog::EnumType* cogEnumType(AddressFamily) { return record<AddressFamily>(); }
const Cog::EnumType* cogEnumType(MplsLabelAction) { return record<MplsLabelAction>(); }
const Cog::EnumType* cogEnumType(TunnelIntfMode) { return record<TunnelIntfMode>(); }
const Cog::EnumType* cogEnumType(IanaCryptoSuite) { return record<IanaCryptoSuite>(); }

namespace {
[[maybe_unused]] const Cog::EnumType* const loadRecords[] = {
    cogEnumType(AddressFamily()),
    cogEnumType(MplsLabelAction()),
    cogEnumType(TunnelIntfMode()),
    cogEnumType(IanaCryptoSuite()),
};
}  // namespace

}  // namespace Velnet
