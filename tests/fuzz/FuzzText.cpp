// Text forms of every registered type that has one: generated values and
// enumerations, and the external network types (addresses, prefixes,
// interface ids, labels, ...) whose parsers the network-basics library
// provides.
//
// Input: u16 type index (into those types, by name), then the text.
// Properties beyond "no crash, only Cog exceptions": a parsed value's text
// parses back to an equal value with the same hash, and that text is
// stable (printing the reparsed value gives it again).
#include "FuzzSupport.h"

namespace {

using Cog::CogType;
using Cog::GenericIf;
using Cog::Ptr;

const std::vector<const CogType*>& types() {
  static const auto all =
      Fuzz::typesWhere([](const CogType* t) { return !t->isEntity() && t->glue().fromStrRep; });
  return all;
}

void writeSeeds() {
  const auto& all = types();
  for (std::size_t i = 0; i < all.size(); ++i) {
    const std::string text = all[i]->samples().back()->strRep().str();
    std::vector<std::uint8_t> seed{static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
    seed.insert(seed.end(), text.begin(), text.end());
    Fuzz::writeSeed(Fuzz::fileName(all[i]->name()), seed);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return Fuzz::writeSeedsWhenAsked(&writeSeeds);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Bytes input(data, size);
  const auto& all = types();
  const CogType* t = all[input.u16() % all.size()];
  const std::vector<std::uint8_t> bytes = input.rest();
  const Cog::String text(std::string(bytes.begin(), bytes.end()));
  Ptr<GenericIf> v;
  try {
    v = t->fromStrRep(text);
  } catch (const Cog::Exception&) {
    return 0;
  }
  FUZZ_CHECK(v && v->type() == t, t->name());
  const Cog::String printed = v->strRep();
  Ptr<GenericIf> back;
  try {
    back = t->fromStrRep(printed);
  } catch (const Cog::Exception& e) {
    FUZZ_CHECK(false, std::string(t->name()) + " '" + text.str() + "' prints as '" + printed.str() +
                          "', which does not parse: " + e.what());
  }
  // A value holding a NaN equals no other value.
  const bool comparable = t->fromStrRep(printed)->equals(*back);
  FUZZ_CHECK(!comparable || (back->equals(*v) && back->hash() == v->hash()),
             std::string(t->name()) + " '" + text.str() + "' prints as '" + printed.str() + "'");
  FUZZ_CHECK(back->strRep() == printed,
             std::string(t->name()) + " '" + printed.str() + "' reprints as '" + back->strRep().str() + "'");
  return 0;
}
