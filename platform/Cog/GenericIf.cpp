#include "Cog/GenericIf.h"

#include <limits>

#include "Cog/Entity.h"

namespace Cog {

// ---------------------------------------------------------------- handle API

void GenericIf::attributeOp(AttributeOp::Kind kind, unsigned index, void* argument,
                            void* result) const {
  AttributeOp op{kind, index};
  for (const CogType* t = type(); t != nullptr; t = t->base()) {
    if (t->glue().attributeOp == nullptr) continue;
    bool notHandled = false;
    t->glue().attributeOp(object(), isConst(), op, argument, result, &notHandled);
    if (!notHandled) return;
  }
  throw NotSupportedException(std::string(type()->name()) + " has no member with index " +
                              std::to_string(index));
}

namespace {

const MemberInfo& memberNamed(const GenericIf& g, std::string_view name) {
  const MemberInfo* m = g.type()->member(name);
  if (m == nullptr) {
    throw NotSupportedException(std::string(g.type()->name()) + " has no member " +
                                std::string(name));
  }
  return *m;
}

}  // namespace

Ptr<GenericIf> GenericIf::attribute(std::string_view name) const {
  if (name == "name" && type()->isEntity() && type()->member(name) == nullptr) {
    auto* e = dynamic_cast<const Entity*>(static_cast<const PtrInterface*>(object()));
    if (e != nullptr) return genericIfOf(e->name());
  }
  Ptr<GenericIf> result;
  attributeOp(AttributeOp::read, memberNamed(*this, name).index, nullptr, &result);
  return result;
}

Ptr<GenericIf> GenericIf::attribute(unsigned index) const {
  Ptr<GenericIf> result;
  attributeOp(AttributeOp::read, index, nullptr, &result);
  return result;
}

void GenericIf::attributeIs(std::string_view name, const Ptr<GenericIf>& value) const {
  attributeIs(memberNamed(*this, name).index, value);
}

void GenericIf::attributeIs(unsigned index, const Ptr<GenericIf>& value) const {
  attributeOp(AttributeOp::write, index, const_cast<Ptr<GenericIf>*>(&value), nullptr);
}

Ptr<GenericIf> GenericIf::call(std::string_view function, const ArgList& args) const {
  Ptr<GenericIf> result;
  attributeOp(AttributeOp::call, memberNamed(*this, function).index,
              const_cast<ArgList*>(&args), &result);
  return result;
}

Ptr<GenericIterator> GenericIf::iterator(std::string_view collection) const {
  Ptr<GenericIterator> result;
  attributeOp(AttributeOp::iterate, memberNamed(*this, collection).index, nullptr, &result);
  return result;
}

Ptr<GenericIf> GenericIf::lookup(std::string_view collection, const Ptr<GenericIf>& key) const {
  Ptr<GenericIf> result;
  Ptr<GenericIf> k = key;
  attributeOp(AttributeOp::lookup, memberNamed(*this, collection).index, &k, &result);
  return result;
}

bool GenericIf::isDefault() const {
  if (type()->isEntity()) return false;
  bool result = false;
  attributeOp(AttributeOp::operatorNot, 0, nullptr, &result);
  return result;
}

// ---------------------------------------------------------------- entities

GenericIfEntityBase::GenericIfEntityBase(const CogType* type, const PtrInterface* entity,
                                         bool isConst)
    : type_(type), entity_(entity), isConst_(isConst) {}

HashValue GenericIfEntityBase::hash() const {
  Hash h;
  h.mix(reinterpret_cast<std::uintptr_t>(entity_.ptr()));
  return h.result();
}

String GenericIfEntityBase::strRep() const {
  std::string text = std::string(type_->name()) + "(";
  if (auto* e = dynamic_cast<const Entity*>(entity_.ptr())) text += Parse::quote(e->name().str());
  return String(text + ")");
}

const void* GenericIfEntityBase::voidPtrIs(const CogType* t) const {
  return type_->isA(t) ? static_cast<const void*>(entity_.ptr()) : nullptr;
}

bool GenericIfEntityBase::equals(const GenericIf& other) const {
  auto* o = dynamic_cast<const GenericIfEntityBase*>(&other);
  return o != nullptr && o->entity_.ptr() == entity_.ptr();
}

bool GenericIfEntityBase::less(const GenericIf& other) const {
  auto* o = dynamic_cast<const GenericIfEntityBase*>(&other);
  if (o == nullptr) return false;
  return std::less<const void*>()(entity_.ptr(), o->entity_.ptr());
}

void GenericIfEntityBase::attrLogOut(const Ptr<NboAttrLog::Out>&) const {
  throw NotSupportedException(std::string(type_->name()) +
                              " is an entity: it travels through its attribute-log adapter");
}

// ---------------------------------------------------------------- primitives

namespace {

template <typename T>
struct PrimitiveGlue {
  static void attributeOp(void* object, bool, const AttributeOp& op, void*, void* result,
                          bool* notHandled) {
    if (op.index == 0 && op.kind == AttributeOp::operatorNot) {
      *static_cast<bool*>(result) = *static_cast<const T*>(object) == T();
      return;
    }
    *notHandled = true;
  }
  static Ptr<GenericIf> fromStrRep(const String& text) {
    auto it = text.begin();
    T v = ValueTraits<T>::parse(it, text.end());
    strepToValueEnd(it, text.end());
    return genericIfOf(v);
  }
  static Ptr<GenericIf> fromCtorArgs(const CogType* type, const ArgList& args) {
    if (args.empty()) return genericIfOf(T());
    if (args.size() != 1) {
      throw RangeException(std::string(type->name()) + " takes one constructor argument");
    }
    return genericIfOf(genericCast<T>(args[0]));
  }
  static Ptr<GenericIf> fromAttrLog(NboAttrLog::In* in) {
    return genericIfOf(ValueTraits<T>::next(in));
  }
  static std::vector<Ptr<GenericIf>> samples() {
    std::vector<Ptr<GenericIf>> out;
    if constexpr (std::is_same_v<T, bool>) {
      out = {genericIfOf(false), genericIfOf(true)};
    } else if constexpr (std::is_arithmetic_v<T>) {
      using L = std::numeric_limits<T>;
      out = {genericIfOf(T()), genericIfOf(T(1)), genericIfOf(L::max()),
             genericIfOf(static_cast<T>(L::max() / 3))};
      if constexpr (std::is_signed_v<T>) {
        out.push_back(genericIfOf(L::lowest()));
        out.push_back(genericIfOf(T(-1)));
      }
    } else {
      out = {genericIfOf(T()), genericIfOf(T("a")), genericIfOf(T("ab")),
             genericIfOf(T("quote ' and \\ back")), genericIfOf(T(std::string(200, 'x')))};
    }
    return out;
  }
  static TypeGlue glue() {
    return TypeGlue{&attributeOp, &fromStrRep, &fromCtorArgs, &samples, &fromAttrLog};
  }
};

struct PrimitiveRecords {
  CogType u8{"U8", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::uint8_t>::glue(), false};
  CogType u16{"U16", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::uint16_t>::glue(), false};
  CogType u32{"U32", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::uint32_t>::glue(), false};
  CogType u64{"U64", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::uint64_t>::glue(), false};
  CogType s8{"S8", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::int8_t>::glue(), false};
  CogType s16{"S16", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::int16_t>::glue(), false};
  CogType s32{"S32", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::int32_t>::glue(), false};
  CogType s64{"S64", TypeKind::primitive, nullptr, {}, PrimitiveGlue<std::int64_t>::glue(), false};
  CogType boolean{"bool", TypeKind::primitive, nullptr, {}, PrimitiveGlue<bool>::glue(), false};
  CogType f32{"float", TypeKind::primitive, nullptr, {}, PrimitiveGlue<float>::glue(), false};
  CogType f64{"double", TypeKind::primitive, nullptr, {}, PrimitiveGlue<double>::glue(), false};
  CogType string{"Cog::String", TypeKind::primitive, nullptr, {}, PrimitiveGlue<String>::glue(), false};
  CogType name{"Cog::Name", TypeKind::primitive, nullptr, {}, PrimitiveGlue<Name>::glue(), false};
};

PrimitiveRecords& primitives() {
  static PrimitiveRecords* r = new PrimitiveRecords;  // kept for the life of the process
  return *r;
}
// Registers the primitive records at load time, so that the registry lists them.
[[maybe_unused]] const PrimitiveRecords& primitivesAtLoad = primitives();

// A primitive integer (or bool) held by `g`, widened; false when it is none.
bool integerOf(const GenericIf& g, bool* negative, std::uint64_t* magnitude) {
  auto& p = primitives();
  auto get = [&](auto* dummy, const CogType& t) {
    using T = std::remove_pointer_t<decltype(dummy)>;
    if (auto* v = static_cast<const T*>(g.voidPtrIs(&t))) {
      if constexpr (std::is_signed_v<T>) {
        *negative = *v < 0;
        *magnitude = *negative ? std::uint64_t(0) - static_cast<std::uint64_t>(*v)
                               : static_cast<std::uint64_t>(*v);
      } else {
        *negative = false;
        *magnitude = static_cast<std::uint64_t>(*v);
      }
      return true;
    }
    return false;
  };
  return get((std::uint8_t*)nullptr, p.u8) || get((std::uint16_t*)nullptr, p.u16) ||
         get((std::uint32_t*)nullptr, p.u32) || get((std::uint64_t*)nullptr, p.u64) ||
         get((std::int8_t*)nullptr, p.s8) || get((std::int16_t*)nullptr, p.s16) ||
         get((std::int32_t*)nullptr, p.s32) || get((std::int64_t*)nullptr, p.s64) ||
         get((bool*)nullptr, p.boolean);
}

template <typename T>
Ptr<GenericIf> narrow(bool negative, std::uint64_t magnitude, const char* what) {
  using L = std::numeric_limits<T>;
  bool fits;
  T v;
  if (negative) {
    fits = L::is_signed && magnitude <= std::uint64_t(-(static_cast<std::int64_t>(L::min()) + 1)) + 1;
    v = static_cast<T>(-static_cast<std::int64_t>(magnitude - 1) - 1);
  } else {
    fits = magnitude <= static_cast<std::uint64_t>(L::max());
    v = static_cast<T>(magnitude);
  }
  if (!fits) {
    throw RangeException(std::string(what) + ": " + (negative ? "-" : "") +
                         std::to_string(magnitude) + " does not fit in " +
                         TypeOf<T>::type()->name());
  }
  return genericIfOf(v);
}

}  // namespace

const CogType* primitiveType(Primitive p) {
  auto& r = primitives();
  switch (p) {
    case Primitive::u8: return &r.u8;
    case Primitive::u16: return &r.u16;
    case Primitive::u32: return &r.u32;
    case Primitive::u64: return &r.u64;
    case Primitive::s8: return &r.s8;
    case Primitive::s16: return &r.s16;
    case Primitive::s32: return &r.s32;
    case Primitive::s64: return &r.s64;
    case Primitive::boolean: return &r.boolean;
    case Primitive::f32: return &r.f32;
    case Primitive::f64: return &r.f64;
    case Primitive::string: return &r.string;
    case Primitive::name: return &r.name;
  }
  return nullptr;
}

const void* genericConvert(const Ptr<GenericIf>& value, const CogType* to, Ptr<GenericIf>* keep,
                           const char* what) {
  if (!value) throw RangeException(std::string(what) + ": no value given");
  if (const void* p = value->voidPtrIs(to)) return p;
  auto& r = primitives();
  bool negative;
  std::uint64_t magnitude;
  if (to->kind() == TypeKind::primitive && integerOf(*value, &negative, &magnitude)) {
    if (to == &r.u8) *keep = narrow<std::uint8_t>(negative, magnitude, what);
    else if (to == &r.u16) *keep = narrow<std::uint16_t>(negative, magnitude, what);
    else if (to == &r.u32) *keep = narrow<std::uint32_t>(negative, magnitude, what);
    else if (to == &r.u64) *keep = narrow<std::uint64_t>(negative, magnitude, what);
    else if (to == &r.s8) *keep = narrow<std::int8_t>(negative, magnitude, what);
    else if (to == &r.s16) *keep = narrow<std::int16_t>(negative, magnitude, what);
    else if (to == &r.s32) *keep = narrow<std::int32_t>(negative, magnitude, what);
    else if (to == &r.s64) *keep = narrow<std::int64_t>(negative, magnitude, what);
    else if (to == &r.f64) *keep = genericIfOf(negative ? -double(magnitude) : double(magnitude));
    else if (to == &r.f32) *keep = genericIfOf(float(negative ? -double(magnitude) : double(magnitude)));
    if (*keep) return (*keep)->voidPtrIs(to);
  }
  if (to == &r.name || to == &r.string) {
    if (auto* s = static_cast<const String*>(value->voidPtrIs(to == &r.name ? &r.string : &r.name))) {
      *keep = to == &r.name ? genericIfOf(Name(*s)) : genericIfOf(String(*s));
      return (*keep)->voidPtrIs(to);
    }
  }
  auto* text = static_cast<const String*>(value->voidPtrIs(&r.string));
  if (text != nullptr && to->glue().fromStrRep != nullptr) {
    try {
      *keep = to->fromStrRep(*text);
    } catch (...) {
      rethrowFromDeserializeAttr(what);
    }
    return (*keep)->voidPtrIs(to);
  }
  throw RangeException(std::string(what) + " is a " + value->type()->name() + ", not a " +
                       to->name());
}

namespace Glue {

void notSupported(const CogType* type, const AttributeOp& op) {
  const MemberInfo* m = type->member(op.index);
  throw NotSupportedException("operation " + std::to_string(op.kind) + " is not supported by " +
                              type->name() + (m ? std::string("::") + m->name : std::string()));
}

void readOnly(const char* attribute) {
  throw ReadOnlyException(std::string(attribute) + " is read-only here");
}

const ArgList& args(const CogType* type, void* argument, std::size_t count, const char* function) {
  static const ArgList none;
  const ArgList& a = argument ? *static_cast<const ArgList*>(argument) : none;
  if (a.size() != count) {
    throw RangeException(std::string(type->name()) + "::" + function + " takes " +
                         std::to_string(count) + " argument" + (count == 1 ? "" : "s") + ", not " +
                         std::to_string(a.size()));
  }
  return a;
}

void noInstance(const CogType* type, const char* function) {
  throw NotSupportedException(std::string(type->name()) + "::" + function +
                              " needs an instance: it is not static");
}

}  // namespace Glue
}  // namespace Cog
