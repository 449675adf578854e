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
#include "Cog/Dir.h"
#include "Cog/Entity.h"
#include "Cog/NboAttrLogSa.h"
#include "Cog/Trace.h"
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
  // Reads one attribute's text. Callers wrap it and the attribute's setter
  // in one handler that names the attribute (rethrowFromDeserializeAttr),
  // so that parse and bound errors alike carry the name.
  template <typename T>
  T attr(const char* name) {
    start(name);
    return ValueTraits<T>::parse(it_, end_);
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

// The attribute-log form of a key (per-key dirty marks) and back.
template <typename K>
AttrLogKey attrLogKeyOf(const K& key) {
  auto out = allocate<NboAttrLog::Out>();
  ValueTraits<K>::put(out, key);
  return AttrLogKey(out->bytes().begin(), out->bytes().end());
}
template <typename K>
K keyFromAttrLog(const AttrLogKey& bytes) {
  NboAttrLog::In in(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
  return ValueTraits<K>::next(&in);
}

// The entity held by a reflected value, as Ptr<E> (E may be const: a
// read-only handle converts only to Ptr<const E>). Null stays null.
template <typename E>
Ptr<E> genericEntityCast(const Ptr<GenericIf>& value, const char* what) {
  using U = std::remove_const_t<E>;
  if (!value) return nullptr;
  const U* p = value->as<U>();
  if (p == nullptr) {
    throw RangeException(std::string(what) + " is a " + value->type()->name() + ", not a " +
                         TypeOf<U>::type()->name());
  }
  if (!std::is_const_v<E> && value->isConst()) readOnly(what);
  return Ptr<E>(const_cast<U*>(p));
}

// RangeException of a collection whose values carry their own key, given a
// value under another key: "<Type>::<collection> key <key> is not the
// value's <attribute> <its value>".
[[noreturn]] void keyMismatch(const char* collection, const std::string& key, const char* attribute,
                              const std::string& value);

// NameInUseException of an instantiating collection asked for an existing
// member with a different constructor parameter.
[[noreturn]] void reinstantiating(const std::string& fullName, const char* param,
                                  const std::string& requested, const std::string& present);

template <typename E>
Ptr<GenericIf> entityIf(E* entity) {
  return genericIfOf(Ptr<E>(entity));
}

// A generic notifiee of entity type T: T::GenericIfNotifiee_ reports every
// onX() as onRawAttribute(id), which calls `onAttribute`.
template <typename N, typename T>
Ptr<PtrInterface> makeGenericIfNotifiee(const PtrInterface* entity,
                                        std::function<void(AttributeId)> onAttribute) {
  auto n = allocate<N>(std::move(onAttribute));
  n->notifierIs(Ptr<const PtrInterface>(static_cast<const T*>(entity)));
  return Ptr<PtrInterface>(n.ptr());
}

template <typename T>
Ptr<PtrInterface> makeAttrLogSa(PtrInterface* entity, std::uint32_t flags,
                                const Ptr<NboAttrLog::Out>& out) {
  return Ptr<PtrInterface>(static_cast<T*>(entity)->cogNboAttrLogSaIs(flags, 0, out).ptr());
}

template <typename T>
Ptr<PtrInterface> newEntityForAttrLog(const Ptr<NboAttrLog::In>& in, std::uint32_t flags,
                                      unsigned version) {
  return Ptr<PtrInterface>(T::newEntityForAttrLog(in, flags, version).ptr());
}

}  // namespace Cog::Glue
