// The runtime that cogc-generated code is written against: one include for
// every generated header, plus the small helpers that keep generated code
// short (shared templates instead of per-type expansions).
//
// Nothing here is meant for hand-written code except through the generated
// types; hand-written code uses Type.h, GenericIf.h and Entity.h directly.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>
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

}  // namespace Cog::Glue

namespace Cog {

// Per-key dirty marks of a collection with keys K: a HashSet2018 for keys
// that hash, else an ordered set. The marks are the keys themselves; a key's
// attribute-log form is made only when the marks are sent, to send them in
// the order of that form (the order the log has always had, so that a
// burst of marks reads the same whatever the key type).
template <typename K>
class Entity::CogNboAttrLogSa::DirtyKeySet final : public Entity::CogNboAttrLogSa::DirtyKeys {
 public:
  explicit DirtyKeySet(KeyWriter<K> write) : write_(write) {}
  std::size_t size() const override { return keys_.size(); }
  bool has(const K& key) const {
    if constexpr (hashed) return keys_.contains(key);
    else return keys_.count(key) != 0;
  }
  void insert(const K& key) { keys_.insert(key); }

  bool flowOut(CogNboAttrLogSa& sa, AttributeId id) override {
    std::vector<K> keys(keys_.begin(), keys_.end());
    if (keys.size() > 1) keys = inLogOrder(std::move(keys));
    for (const K& key : keys) {
      if (!sa.prepareImmediateTransmission()) return false;
      write_(sa, id, key, sa.out());
      keys_.erase(key);
    }
    return true;
  }

 private:
  static constexpr bool hashed =
      HasMemberHash<K> || std::is_integral_v<K> || std::is_enum_v<K>;

  // `keys` sorted bytewise by their attribute-log form (a shorter form that
  // is a prefix of a longer one first).
  static std::vector<K> inLogOrder(std::vector<K> keys) {
    auto forms = allocate<NboAttrLog::Out>();
    std::vector<std::size_t> start;
    start.reserve(keys.size() + 1);
    for (const K& key : keys) {
      start.push_back(forms->size());
      ValueTraits<K>::put(forms, key);
    }
    start.push_back(forms->size());
    const std::uint8_t* bytes = forms->bytes().data();
    std::vector<std::size_t> order(keys.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      return std::lexicographical_compare(bytes + start[a], bytes + start[a + 1], bytes + start[b],
                                          bytes + start[b + 1]);
    });
    std::vector<K> out;
    out.reserve(keys.size());
    for (std::size_t i : order) out.push_back(std::move(keys[i]));
    return out;
  }

  std::conditional_t<hashed, HashSet2018<K>, std::set<K>> keys_;
  KeyWriter<K> write_;
};

template <typename K>
void Entity::CogNboAttrLogSa::keyChanged(AttributeId id, const char* name, const K& key,
                                         KeyWriter<K> write) {
  if (!changeToSend(id, name)) return;
  auto* marks = static_cast<DirtyKeySet<K>*>(dirtyKeysOf(id));
  // An earlier mark of the same key keeps its place in the flow.
  if ((marks == nullptr || !marks->has(key)) && prepareImmediateTransmission()) {
    write(*this, id, key, out());
    return;
  }
  markedKeys(id, write).insert(key);
}

template <typename K>
void Entity::CogNboAttrLogSa::keysMarked(AttributeId id, const std::vector<K>& keys,
                                         KeyWriter<K> write) {
  if (keys.empty()) return;
  DirtyKeySet<K>& marks = markedKeys(id, write);
  for (const K& key : keys) marks.insert(key);
}

template <typename K>
Entity::CogNboAttrLogSa::DirtyKeySet<K>& Entity::CogNboAttrLogSa::markedKeys(AttributeId id,
                                                                            KeyWriter<K> write) {
  auto* marks = static_cast<DirtyKeySet<K>*>(dirtyKeysOf(id));
  if (marks == nullptr) {
    marks = static_cast<DirtyKeySet<K>*>(dirtyKeysIs(id, std::make_unique<DirtyKeySet<K>>(write)));
  }
  return *marks;
}

}  // namespace Cog

namespace Cog::Glue {

// A collection member of an entity that takes one pointer until something is
// stored in it: most entities leave most of their collections empty. Reads
// see an empty collection until then; writes go through made(), which makes
// it. Once made, it stays (emptying keeps the storage, as the collection
// itself would, so iterators into it stay as valid as the collection's own
// rules say).
template <typename C>
class LazyCollection {
 public:
  const C& operator*() const { return c_ ? *c_ : empty(); }
  const C* operator->() const { return &**this; }
  C& made() {
    if (!c_) c_ = std::make_unique<C>();
    return *c_;
  }
  // The collection, or null when nothing was ever stored.
  C* ifMade() { return c_.get(); }

 private:
  static const C& empty() {
    static const C e;
    return e;
  }
  std::unique_ptr<C> c_;
};

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
