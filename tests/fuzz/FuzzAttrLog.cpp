// Attribute-log input of every registered type: a value read from the log,
// or records applied to an entity through its attribute-log adapter.
//
// Input: u8 mode, u16 type index (into the value and entity types, by
// name), then the log bytes.
//   mode bit 0: the entity's adapter is a read-only remote proxy
//   mode bit 1: the entity is made from an instantiation header at the
//               start of the log (type name, constructor parameters)
//
// Properties beyond "no crash, only Cog exceptions":
//  - a value read from the log writes a log form that reads back equal and
//    writes the same bytes again, and (when it has a text form) its text
//    parses back equal;
//  - whatever the log did to an entity, a full resynchronisation of it
//    rebuilds an entity with the same contents.
#include "FuzzSupport.h"

#include "Cog/NboAttrLogSa.h"

namespace {

using Cog::CogType;
using Cog::GenericIf;
using Cog::Ptr;

bool isValue(const CogType* t) { return !t->isEntity() && t->glue().fromAttrLog != nullptr; }
bool isMirrored(const CogType* t) {
  return t->isEntity() && t->kind() != Cog::TypeKind::reactor && t->glue().attrLogSa != nullptr;
}

const std::vector<const CogType*>& types() {
  static const auto all = Fuzz::typesWhere([](const CogType* t) { return isValue(t) || isMirrored(t); });
  return all;
}

Cog::Entity::CogNboAttrLogSa* adapter(const Ptr<Cog::PtrInterface>& sa) {
  return static_cast<Cog::Entity::CogNboAttrLogSa*>(sa.ptr());
}

void value(const CogType* t, const std::vector<std::uint8_t>& bytes) {
  Cog::NboAttrLog::In in(bytes);
  Ptr<GenericIf> v;
  try {
    v = t->glue().fromAttrLog(&in);
  } catch (const Cog::Exception&) {
    return;
  }
  FUZZ_CHECK(v && v->type() == t, t->name());
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  v->attrLogOut(out);
  // What a value writes it reads back as an equal value that writes the
  // same bytes again (the first read may canonicalise, as a prefix drops
  // its host bits).
  Cog::NboAttrLog::In again(out->bytes());
  Ptr<GenericIf> back;
  try {
    back = t->glue().fromAttrLog(&again);
  } catch (const Cog::Exception& e) {
    FUZZ_CHECK(false, std::string(t->name()) + " " + v->strRep().str() +
                          " refuses its own log form: " + e.what());
  }
  // A value holding a NaN equals no other value (a collection may still
  // find itself equal to itself): then only the bytes can be compared.
  Cog::NboAttrLog::In twice(out->bytes());
  const bool comparable = t->glue().fromAttrLog(&twice)->equals(*back);
  FUZZ_CHECK(again.atEnd(), std::string(t->name()) + " " + v->strRep().str());
  FUZZ_CHECK(!comparable || back->equals(*v), std::string(t->name()) + " " + v->strRep().str());
  FUZZ_CHECK(!comparable || back->hash() == v->hash(),
             std::string(t->name()) + " " + v->strRep().str());
  auto out2 = Cog::allocate<Cog::NboAttrLog::Out>();
  back->attrLogOut(out2);
  FUZZ_CHECK(out2->bytes() == out->bytes(), std::string(t->name()) + " " + v->strRep().str());
  if (t->glue().fromStrRep != nullptr) {
    const Cog::String text = v->strRep();
    Ptr<GenericIf> parsed;
    try {
      parsed = t->fromStrRep(text);
    } catch (const Cog::Exception& e) {
      FUZZ_CHECK(false, std::string(t->name()) + " '" + text.str() + "': " + e.what());
    }
    FUZZ_CHECK(!comparable || parsed->equals(*v), std::string(t->name()) + " '" + text.str() + "'");
  }
}

void entity(const CogType* t, std::uint8_t mode, const std::vector<std::uint8_t>& bytes) {
  auto in = Cog::allocate<Cog::NboAttrLog::In>(bytes);
  Ptr<GenericIf> a;
  if (mode & 2) {
    Ptr<Cog::PtrInterface> made;
    try {
      Cog::NboAttrLog::In peek(bytes);
      t = Cog::typeByName(peek.nextString().str());
      made = Cog::entityFromAttrLog(in);
    } catch (const Cog::Exception&) {
      return;
    }
    FUZZ_CHECK(made && t != nullptr);
    if (!isMirrored(t)) return;
    a = Cog::genericIfOfEntity(t, made.ptr());
  } else {
    a = Fuzz::makeEntity(t);
  }
  auto* entity = const_cast<Cog::PtrInterface*>(a->entityPtr());
  const Cog::NboAttrLogSaFlags flags = (mode & 1) ? Cog::NboAttrLogSaFlag::readOnlyRemoteProxy : 0;
  {
    auto sa = t->glue().attrLogSa(entity, flags, nullptr);
    try {
      adapter(sa)->deserialize(in);
    } catch (const Cog::Exception&) {
    }
  }
  // Resynchronise what the log left into a fresh entity of the same shape.
  auto header = Cog::allocate<Cog::NboAttrLog::Out>();
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto saA = t->glue().attrLogSa(entity, 0, nullptr);
  adapter(saA)->cogInstantiateSerialize(header);
  adapter(saA)->outIs(out);
  FUZZ_CHECK(adapter(saA)->resync(), t->name());
  Ptr<Cog::PtrInterface> made;
  try {
    made = Cog::entityFromAttrLog(Cog::allocate<Cog::NboAttrLog::In>(header->bytes()));
    auto saB = t->glue().attrLogSa(made.ptr(), 0, nullptr);
    auto resync = Cog::allocate<Cog::NboAttrLog::In>(out->bytes());
    // A setter that stores a value before checking its bounds (UcmpConfig's
    // thresholds) keeps an out-of-bounds value and throws: the value came
    // across, and the records after it still apply.
    while (!resync->atEnd()) {
      try {
        adapter(saB)->deserialize(resync);
      } catch (const Cog::RangeException&) {
      }
    }
  } catch (const Cog::Exception& e) {
    FUZZ_CHECK(false, std::string(t->name()) + " refuses its own resynchronisation: " + e.what());
  }
  auto b = Cog::genericIfOfEntity(t, made.ptr());
  const auto want = Fuzz::contents(*a), got = Fuzz::contents(*b);
  FUZZ_CHECK(want == got, std::string(t->name()) + "\n  sent " + Fuzz::describe(want) +
                              "\n  made " + Fuzz::describe(got));
}

void writeSeeds() {
  const auto& all = types();
  for (std::size_t i = 0; i < all.size(); ++i) {
    const CogType* t = all[i];
    std::vector<std::uint8_t> seed{0, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
    auto out = Cog::allocate<Cog::NboAttrLog::Out>();
    if (isValue(t)) {
      // The last sample differs from the default in its last attribute.
      auto samples = t->samples();
      samples.back()->attrLogOut(out);
    } else {
      Ptr<GenericIf> e = Fuzz::makeEntity(t);
      auto sa = t->glue().attrLogSa(const_cast<Cog::PtrInterface*>(e->entityPtr()), 0, out);
      adapter(sa)->resync();
    }
    seed.insert(seed.end(), out->bytes().begin(), out->bytes().end());
    Fuzz::writeSeed(Fuzz::fileName(t->name()), seed);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return Fuzz::writeSeedsWhenAsked(&writeSeeds);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Bytes input(data, size);
  const std::uint8_t mode = input.u8();
  const auto& all = types();
  const CogType* t = all[input.u16() % all.size()];
  const std::vector<std::uint8_t> log = input.rest();
  if (t->isEntity() || (mode & 2)) {
    entity(t, mode, log);
  } else {
    value(t, log);
  }
  return 0;
}
