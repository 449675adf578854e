// The runtime that cogc-generated code is written against: one include for
// every generated header, plus the small helpers that keep generated code
// short (shared templates instead of per-type expansions).
//
// Nothing here is meant for hand-written code except through the generated
// types; hand-written code uses Type.h, GenericIf.h and Entity.h directly.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Cog/Assert.h"
#include "Cog/DynArray.h"
#include "Cog/Exception.h"
#include "Cog/GenericIf.h"
#include "Cog/Hash.h"
#include "Cog/HashMap2018.h"
#include "Cog/NboAttrLog.h"
#include "Cog/Ptr.h"
#include "Cog/RbTreeMap.h"
#include "Cog/String.h"
#include "Cog/Type.h"
#include "Cog/ValueTraits.h"

namespace Cog::Glue {

// Throws RangeException with a bound's fixed text.
[[noreturn]] void throwRange(const char* message);

// The "Value('<type>', ** {" ... "})" string form, written and read one
// attribute at a time.
class StrepWriter {
 public:
  StrepWriter(const char* typeName, bool single);
  template <typename T>
  void attr(const char* name, const T& value) {
    start(name);
    ValueTraits<T>::strep(text_, value);
  }
  String done();

 private:
  void start(const char* name);
  std::string text_;
  bool single_;
  bool first_ = true;
};

class StrepReader {
 public:
  StrepReader(String::IteratorConst& it, const String::IteratorConst& end, const char* typeName,
              bool single);
  // Reads one attribute; parse and range errors name the attribute.
  template <typename T>
  T attr(const char* name) {
    start(name);
    try {
      return ValueTraits<T>::parse(it_, end_);
    } catch (...) {
      rethrowFromDeserializeAttr(name);
    }
  }
  void done();

 private:
  void start(const char* name);
  String::IteratorConst& it_;
  const String::IteratorConst& end_;
  bool single_;
  bool first_ = true;
};

// Glue functions shared by every value-like type T (generated values,
// enumerations, external values).
template <typename T>
struct ValueGlue {
  static Ptr<GenericIf> fromStrRep(const String& text) {
    auto it = text.begin();
    T v = ValueTraits<T>::parse(it, text.end());
    strepToValueEnd(it, text.end());
    return genericIfOf(v);
  }
  static Ptr<GenericIf> fromAttrLog(NboAttrLog::In* in) { return genericIfOf(ValueTraits<T>::next(in)); }
  static std::vector<Ptr<GenericIf>> samples() {
    std::vector<Ptr<GenericIf>> out;
    if constexpr (requires { T::cogSampleValues(); }) {
      for (const T& v : T::cogSampleValues()) out.push_back(genericIfOf(v));
    } else {
      out.push_back(genericIfOf(T()));
    }
    return out;
  }
  // Only operator! is known of an external value.
  static void attributeOp(void* object, bool, const AttributeOp& op, void*, void* result,
                          bool* notHandled) {
    if (op.index == 0 && op.kind == AttributeOp::operatorNot) {
      *static_cast<bool*>(result) = !*static_cast<const T*>(object);
      return;
    }
    *notHandled = true;
  }
  static Ptr<GenericIf> fromDefaultOrString(const CogType* type, const ArgList& args) {
    if (args.empty()) return genericIfOf(T());
    if (args.size() == 1) return genericIfOf(genericCast<T>(args[0], type->name()));
    throw RangeException(std::string(type->name()) + " takes at most one constructor argument");
  }
  static TypeGlue externalGlue() {
    return TypeGlue{&attributeOp, &fromStrRep, &fromDefaultOrString, &samples, &fromAttrLog};
  }
};

// Samples of a value type: the default, then the default with one attribute
// changed to each of that attribute's samples (bounds permitting).
template <typename T>
void sampleEach(std::vector<T>* out, std::vector<Ptr<GenericIf>> (*values)(),
                void (*apply)(T*, const Ptr<GenericIf>&)) {
  for (const Ptr<GenericIf>& v : values()) {
    T t;
    try {
      apply(&t, v);
    } catch (const RangeException&) {
      continue;  // outside the attribute's bounds
    }
    if (!(t == T())) out->push_back(t);
  }
}

template <typename A>
std::vector<Ptr<GenericIf>> samplesOf() {
  return TypeOf<A>::type()->samples();
}

}  // namespace Cog::Glue
