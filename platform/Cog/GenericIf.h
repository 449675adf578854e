// Reflection: Cog::GenericIf, a handle on one value or entity of any
// registered type, through which code (and scripts) read attributes by name
// or index, write settable ones, call functions with reflected arguments,
// iterate collections and get the string form, without knowing the C++
// type.
//
//   Ptr<GenericIf> f = Cog::genericIfOf(Memtab::Fib::FecId(0x0300000000000005));
//   f->attribute("value")->strRep();                     // "216172782113783813"
//   f->call("adjType")->strRep();                        // "nextHopGroupAdj"
//   auto t = Cog::typeByName("Memtab::Fib::FecId");
//   t->callStatic("nexthopGroupIdToFecId", {Cog::genericIfOf(5u)});
//
// Protocol with the generated glue. Each type's record carries
// genericIfAttributeOp(object, isConst, op, argument, result, notHandled):
//   - op.index is a member index of that type's own block (0: no member);
//   - op.kind read (0): *(Ptr<GenericIf>*)result = the member's value;
//     write (1): the member's setter with *(const Ptr<GenericIf>*)argument;
//     iterate (2): *(Ptr<GenericIterator>*)result = an iterator over a
//     collection; lookup (3): *(Ptr<GenericIf>*)result = the value of a
//     keyed collection under the key *(const Ptr<GenericIf>*)argument (null
//     when absent); call (8): *(const ArgList*)argument are the arguments,
//     *(Ptr<GenericIf>*)result the result (null for void); with index 0,
//     kind 9 is operator!: *(bool*)result;
//   - a kind the member does not support throws NotSupportedException; an
//     index the type does not know sets *notHandled, and the handle tries the
//     base type's glue.
// Writing through a read-only handle (an entity held as Ptr<const T>)
// throws ReadOnlyException. Arguments are converted to the parameter's type:
// exact type, or any integer within range, or a string parsed by the
// parameter type's string form; anything else is a RangeException.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Cog/Exception.h"
#include "Cog/NboAttrLog.h"
#include "Cog/Ptr.h"
#include "Cog/String.h"
#include "Cog/Type.h"
#include "Cog/ValueTraits.h"

namespace Cog {

struct AttributeOp {
  enum Kind : unsigned { read = 0, write = 1, iterate = 2, lookup = 3, call = 8, operatorNot = 9 };
  Kind kind;
  unsigned index;
};

// Iteration over one collection of one instance, in the collection's order
// as it was when the iterator was made; elements deleted meanwhile are
// skipped.
class GenericIterator : public PtrInterface {
 public:
  virtual bool iterNonnull() const = 0;
  virtual Ptr<GenericIf> iterKey() const = 0;
  // The element's value (the key itself for sets).
  virtual Ptr<GenericIf> iterObj() const = 0;
  virtual void iterInc() = 0;
  // Deletes the current element through the owner's deleter, then moves on.
  virtual void iterDel() = 0;
};

class GenericIf : public PtrInterface {
 public:
  virtual const CogType* type() const = 0;
  virtual HashValue hash() const = 0;
  // The string form: a value's own; an entity's type and name.
  virtual String strRep() const = 0;
  // The held object when it is a `type` (or derives from it), else nullptr.
  virtual const void* voidPtrIs(const CogType* type) const = 0;
  virtual bool isConst() const = 0;
  // Same type and equal values (entities: the same object).
  virtual bool equals(const GenericIf& other) const = 0;
  // Order between values of one type (entities: by address).
  virtual bool less(const GenericIf& other) const = 0;
  // The attribute-log form of a value; NotSupportedException for entities.
  virtual void attrLogOut(const Ptr<NboAttrLog::Out>& out) const = 0;

  Ptr<GenericIf> attribute(std::string_view name) const;
  Ptr<GenericIf> attribute(unsigned index) const;
  void attributeIs(std::string_view name, const Ptr<GenericIf>& value) const;
  void attributeIs(unsigned index, const Ptr<GenericIf>& value) const;
  Ptr<GenericIf> call(std::string_view function, const ArgList& args = {}) const;
  Ptr<GenericIterator> iterator(std::string_view collection) const;
  // The value under `key` in a keyed collection (maps, not sets or arrays),
  // or null; one lookup, not a walk.
  Ptr<GenericIf> lookup(std::string_view collection, const Ptr<GenericIf>& key) const;
  // operator! of the held value (an entity: false).
  bool isDefault() const;

  template <typename T>
  const T* as() const;

  // The held entity (values: nullptr), for the entity hooks of its type's
  // glue (genericIfNotifiee, attrLogSa).
  const PtrInterface* entityPtr() const {
    return type()->isEntity() ? static_cast<const PtrInterface*>(object()) : nullptr;
  }

  // Runs one attribute operation through the glue of the type that owns
  // `index`, falling back to the base types.
  void attributeOp(AttributeOp::Kind kind, unsigned index, void* argument, void* result) const;

 protected:
  // The object the glue works on.
  virtual void* object() const = 0;
};

// ---------------------------------------------------------------- TypeOf
template <typename T>
struct TypeOf;

template <typename T>
concept HasCogType = requires {
  { T::cogType() } -> std::convertible_to<const CogType*>;
};

template <HasCogType T>
struct TypeOf<T> {
  static const CogType* type() { return T::cogType(); }
};
// Defined in the class: clang does not match an out-of-line member to a
// constrained partial specialisation.
template <CogEnum E>
struct TypeOf<E> {
  static const CogType* type() { return cogEnumType(E{}); }
};
template <typename T>
struct TypeOf<Ptr<T>> : TypeOf<std::remove_const_t<T>> {};

// Records of the primitive types.
enum class Primitive : std::uint8_t { u8, u16, u32, u64, s8, s16, s32, s64, boolean, f32, f64, string, name };
const CogType* primitiveType(Primitive p);

template <typename T>
  requires std::is_arithmetic_v<T>
struct TypeOf<T> {
  static const CogType* type() {
    if constexpr (std::is_same_v<T, bool>) return primitiveType(Primitive::boolean);
    else if constexpr (std::is_same_v<T, float>) return primitiveType(Primitive::f32);
    else if constexpr (std::is_same_v<T, double>) return primitiveType(Primitive::f64);
    else if constexpr (std::is_signed_v<T>) {
      if constexpr (sizeof(T) == 1) return primitiveType(Primitive::s8);
      else if constexpr (sizeof(T) == 2) return primitiveType(Primitive::s16);
      else if constexpr (sizeof(T) == 4) return primitiveType(Primitive::s32);
      else return primitiveType(Primitive::s64);
    } else {
      if constexpr (sizeof(T) == 1) return primitiveType(Primitive::u8);
      else if constexpr (sizeof(T) == 2) return primitiveType(Primitive::u16);
      else if constexpr (sizeof(T) == 4) return primitiveType(Primitive::u32);
      else return primitiveType(Primitive::u64);
    }
  }
};
template <>
struct TypeOf<String> {
  static const CogType* type() { return primitiveType(Primitive::string); }
};
template <>
struct TypeOf<Name> {
  static const CogType* type() { return primitiveType(Primitive::name); }
};

// ---------------------------------------------------------------- values
template <typename T>
class GenericIfValue : public GenericIf {
 public:
  explicit GenericIfValue(T value) : value_(std::move(value)) {}
  const CogType* type() const override { return TypeOf<T>::type(); }
  HashValue hash() const override {
    Hash h;
    ValueTraits<T>::hash(h, value_);
    return h.result();
  }
  String strRep() const override { return String(strepOf(value_)); }
  const void* voidPtrIs(const CogType* t) const override {
    return t == type() ? &value_ : nullptr;
  }
  bool isConst() const override { return false; }
  bool equals(const GenericIf& other) const override {
    auto* o = other.voidPtrIs(type());
    return o != nullptr && *static_cast<const T*>(o) == value_;
  }
  bool less(const GenericIf& other) const override {
    auto* o = other.voidPtrIs(type());
    if (o == nullptr) return type() < other.type();
    return ValueTraits<T>::less(value_, *static_cast<const T*>(o));
  }
  void attrLogOut(const Ptr<NboAttrLog::Out>& out) const override {
    ValueTraits<T>::put(out, value_);
  }
  const T& value() const { return value_; }

 protected:
  void* object() const override { return const_cast<T*>(&value_); }

 private:
  T value_;
};

// ---------------------------------------------------------------- entities
// Entities are held by pointer; a handle made from Ptr<const T> is read-only.
class GenericIfEntityBase : public GenericIf {
 public:
  GenericIfEntityBase(const CogType* type, const PtrInterface* entity, bool isConst);
  const CogType* type() const override { return type_; }
  HashValue hash() const override;
  String strRep() const override;
  const void* voidPtrIs(const CogType* t) const override;
  bool isConst() const override { return isConst_; }
  bool equals(const GenericIf& other) const override;
  bool less(const GenericIf& other) const override;
  void attrLogOut(const Ptr<NboAttrLog::Out>& out) const override;

 protected:
  void* object() const override { return const_cast<PtrInterface*>(entity_.ptr()); }

 private:
  const CogType* type_;
  Ptr<const PtrInterface> entity_;
  bool isConst_;
};

template <typename T>
class GenericIfEntity : public GenericIfEntityBase {
 public:
  explicit GenericIfEntity(const Ptr<T>& entity)
      : GenericIfEntityBase(entity ? entity->fwkType() : TypeOf<std::remove_const_t<T>>::type(),
                            static_cast<const PtrInterface*>(entity.ptr()), std::is_const_v<T>),
        typed_(entity) {}

 private:
  Ptr<T> typed_;
};

// ---------------------------------------------------------------- wrapping
template <typename T>
Ptr<GenericIf> genericIfOf(const T& value) {
  return Ptr<GenericIf>(new GenericIfValue<T>(value));
}
template <typename T>
Ptr<GenericIf> genericIfOf(const Ptr<T>& entity) {
  if (!entity) return nullptr;
  return Ptr<GenericIf>(new GenericIfEntity<T>(entity));
}
inline Ptr<GenericIf> genericIfOf(const char* text) { return genericIfOf(String(text)); }
// A handle on an entity known only by its type record.
inline Ptr<GenericIf> genericIfOfEntity(const CogType* type, const PtrInterface* entity,
                                        bool isConst = false) {
  return Ptr<GenericIf>(new GenericIfEntityBase(type, entity, isConst));
}

// Converts a reflected argument to T (see the header comment for the rules).
const void* genericConvert(const Ptr<GenericIf>& value, const CogType* to, Ptr<GenericIf>* keep,
                           const char* what);

template <typename T>
T genericCast(const Ptr<GenericIf>& value, const char* what = "value") {
  if constexpr (requires { typename T::element_type; }) {
    static_assert(sizeof(T) == 0, "use genericEntityCast for entities");
  }
  Ptr<GenericIf> keep;
  return *static_cast<const T*>(genericConvert(value, TypeOf<T>::type(), &keep, what));
}

template <typename T>
const T* GenericIf::as() const {
  using U = std::remove_const_t<T>;
  const void* p = voidPtrIs(TypeOf<U>::type());
  if constexpr (std::is_base_of_v<PtrInterface, U>) {
    // entities are held as PtrInterface: adjust to the derived object
    return p ? static_cast<const T*>(static_cast<const PtrInterface*>(p)) : nullptr;
  } else {
    return static_cast<const T*>(p);
  }
}

// ---------------------------------------------------------------- glue helpers
namespace Glue {

[[noreturn]] void notSupported(const CogType* type, const AttributeOp& op);
[[noreturn]] void readOnly(const char* attribute);
// The argument list of a call, checked for its length.
const ArgList& args(const CogType* type, void* argument, std::size_t count, const char* function);
[[noreturn]] void noInstance(const CogType* type, const char* function);

template <typename T>
void resultIs(void* result, const T& value) {
  *static_cast<Ptr<GenericIf>*>(result) = genericIfOf(value);
}
inline const Ptr<GenericIf>& writeArg(void* argument) {
  return *static_cast<const Ptr<GenericIf>*>(argument);
}

// An iterator over a snapshot of a collection's keys.
template <typename K>
class KeyIterator : public GenericIterator {
 public:
  using Lookup = std::function<Ptr<GenericIf>(const K&)>;  // null when gone
  using Delete = std::function<void(const K&)>;            // null: read-only
  KeyIterator(Ptr<const PtrInterface> owner, std::vector<K> keys, Lookup lookup, Delete del)
      : owner_(std::move(owner)), keys_(std::move(keys)), lookup_(std::move(lookup)),
        del_(std::move(del)) {
    skip();
  }
  bool iterNonnull() const override { return pos_ < keys_.size(); }
  Ptr<GenericIf> iterKey() const override {
    return iterNonnull() ? genericIfOf(keys_[pos_]) : nullptr;
  }
  Ptr<GenericIf> iterObj() const override {
    return iterNonnull() ? lookup_(keys_[pos_]) : nullptr;
  }
  void iterInc() override {
    if (iterNonnull()) {
      ++pos_;
      skip();
    }
  }
  void iterDel() override {
    if (!iterNonnull()) return;
    if (!del_) readOnly("collection");
    del_(keys_[pos_]);
    iterInc();
  }

 private:
  void skip() {
    while (pos_ < keys_.size() && !lookup_(keys_[pos_])) ++pos_;
  }
  Ptr<const PtrInterface> owner_;
  std::vector<K> keys_;
  Lookup lookup_;
  Delete del_;
  std::size_t pos_ = 0;
};

template <typename K, typename C>
std::vector<K> keysOf(const C& c) {
  std::vector<K> keys;
  keys.reserve(c.size());
  if constexpr (std::is_same_v<C, DynArray<typename C::value_type>>) {
    for (std::uint64_t i = 0; i < c.size(); ++i) keys.push_back(i);
  } else {
    for (const auto& e : c) {
      if constexpr (requires { e.first; }) keys.push_back(e.first);
      else keys.push_back(e);
    }
  }
  return keys;
}

// Builds a value from reflected constructor arguments.
template <typename T, typename... A, std::size_t... I>
T construct(const ArgList& args, std::index_sequence<I...>) {
  return T(genericCast<std::remove_cvref_t<A>>(args[I])...);
}

}  // namespace Glue
}  // namespace Cog
