#include "Cog/Type.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "Cog/Exception.h"
#include "Cog/GenericIf.h"

namespace Cog {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<const CogType*> types;
  std::map<std::string, const CogType*, std::less<>> byName;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: records outlive main
  return *r;
}

}  // namespace

const char* typeKindName(TypeKind kind) {
  switch (kind) {
    case TypeKind::primitive: return "primitive";
    case TypeKind::enumeration: return "enumeration";
    case TypeKind::value: return "value";
    case TypeKind::external: return "external";
    case TypeKind::entity: return "entity";
    case TypeKind::holder: return "holder";
    case TypeKind::reactor: return "reactor";
  }
  return "?";
}

const char* memberKindName(MemberKind kind) {
  switch (kind) {
    case MemberKind::param: return "param";
    case MemberKind::attribute: return "attribute";
    case MemberKind::collection: return "collection";
    case MemberKind::owned: return "owned";
    case MemberKind::input: return "input";
    case MemberKind::output: return "output";
    case MemberKind::constant: return "constant";
    case MemberKind::function: return "function";
  }
  return "?";
}

void registerType(const CogType* type) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  auto [it, inserted] = r.byName.emplace(type->name(), type);
  if (!inserted) {
    std::fprintf(stderr, "Cog: type %s is registered twice\n", type->name());
    std::abort();
  }
  r.types.push_back(type);
}

void unregisterType(const CogType* type) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(type->name());
  if (it != r.byName.end() && it->second == type) r.byName.erase(it);
  std::erase(r.types, type);
}

const CogType* typeByName(std::string_view name) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

std::vector<const CogType*> registeredTypes() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  return r.types;
}

CogType::CogType(const char* name, TypeKind kind, TypeFn base, std::vector<MemberInfo> members,
                 TypeGlue glue, bool inSection)
    : name_(name), kind_(kind), base_(base), members_(std::move(members)), glue_(glue),
      inSection_(inSection) {
  registerType(this);
}

CogType::~CogType() { unregisterType(this); }

bool CogType::isA(const CogType* other) const {
  for (const CogType* t = this; t != nullptr; t = t->base()) {
    if (t == other) return true;
  }
  return false;
}

std::vector<const MemberInfo*> CogType::members() const {
  std::vector<const CogType*> chain;
  for (const CogType* t = this; t != nullptr; t = t->base()) chain.push_back(t);
  std::vector<const MemberInfo*> out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    for (const MemberInfo& m : (*it)->members_) out.push_back(&m);
  }
  return out;
}

const MemberInfo* CogType::member(std::string_view name) const {
  for (const CogType* t = this; t != nullptr; t = t->base()) {
    for (const MemberInfo& m : t->members_) {
      if (name == m.name) return &m;
    }
  }
  return nullptr;
}

const MemberInfo* CogType::member(unsigned index) const {
  for (const CogType* t = this; t != nullptr; t = t->base()) {
    for (const MemberInfo& m : t->members_) {
      if (m.index == index) return &m;
    }
  }
  return nullptr;
}

const CogType* CogType::ownerOf(unsigned index) const {
  for (const CogType* t = this; t != nullptr; t = t->base()) {
    for (const MemberInfo& m : t->members_) {
      if (m.index == index) return t;
    }
  }
  return nullptr;
}

Ptr<GenericIf> CogType::fromStrRep(const String& text) const {
  if (glue_.fromStrRep == nullptr) {
    throw NotSupportedException(std::string(name_) + " has no string form to parse");
  }
  return glue_.fromStrRep(text);
}

Ptr<GenericIf> CogType::fromCtorArgs(const ArgList& args) const {
  if (glue_.fromCtorArgs == nullptr) {
    throw NotSupportedException(std::string(name_) + " cannot be built from arguments");
  }
  return glue_.fromCtorArgs(this, args);
}

Ptr<GenericIf> CogType::callStatic(std::string_view function, const ArgList& args) const {
  const MemberInfo* m = member(function);
  if (m == nullptr || m->kind != MemberKind::function) {
    throw NotSupportedException(std::string(name_) + " has no function " + std::string(function));
  }
  if (!m->isStatic) {
    throw NotSupportedException(std::string(name_) + "::" + m->name +
                                " needs an instance: it is not static");
  }
  const CogType* owner = ownerOf(m->index);
  Ptr<GenericIf> result;
  bool notHandled = false;
  AttributeOp op{AttributeOp::call, m->index};
  owner->glue_.attributeOp(nullptr, true, op, const_cast<ArgList*>(&args), &result, &notHandled);
  if (notHandled) {
    throw NotSupportedException(std::string(name_) + "::" + m->name + " is not handled");
  }
  return result;
}

std::vector<Ptr<GenericIf>> CogType::samples() const {
  if (glue_.samples == nullptr) return {};
  return glue_.samples();
}

EnumType::EnumType(const char* name, std::vector<Enumerator> enumerators, unsigned storageBits,
                   TypeGlue glue)
    : CogType(name, TypeKind::enumeration, nullptr, {}, glue),
      enumerators_(std::move(enumerators)), storageBits_(storageBits) {}

const char* EnumType::nameOf(std::uint32_t value) const {
  for (const Enumerator& e : enumerators_) {
    if (e.value == value) return e.name;
  }
  return nullptr;
}

bool EnumType::valueOf(std::string_view name, std::uint32_t* value) const {
  for (const Enumerator& e : enumerators_) {
    if (name == e.name) {
      *value = e.value;
      return true;
    }
  }
  return false;
}

std::uint32_t EnumType::checkedValue(std::uint32_t value) const {
  if (!isEnumerator(value)) {
    throw RangeException(std::to_string(value) + " is not a value of " + name());
  }
  return value;
}

std::uint32_t EnumType::checkedValue(std::string_view text) const {
  std::uint32_t v;
  if (!valueOf(text, &v)) {
    throw ParseException("'" + std::string(text) + "' is not an enumerator of " + name());
  }
  return v;
}

std::string EnumType::text(std::uint32_t value) const {
  const char* n = nameOf(value);
  return n ? std::string(n) : std::to_string(value);
}

std::uint32_t EnumType::parse(String::IteratorConst& it, const String::IteratorConst& end) const {
  if (it != end && *it >= '0' && *it <= '9') {
    auto start = it;
    auto v = static_cast<std::uint32_t>(Parse::unsignedNumber(it, end, UINT32_MAX, name()));
    if (!isEnumerator(v)) {
      it = start;
      checkedValue(v);
    }
    return v;
  }
  auto start = it;
  String word = Parse::identifier(it, end);
  std::uint32_t v;
  if (!valueOf(word.str(), &v)) {
    it = start;
    checkedValue(word.str());
  }
  return v;
}

namespace detail {

std::uint32_t enumChecked(const EnumType* type, std::uint32_t value) {
  return type->checkedValue(value);
}
void enumStrep(std::string& text, const EnumType* type, std::uint32_t value) {
  text += type->text(value);
}
std::uint32_t enumParse(const EnumType* type, String::IteratorConst& it,
                        const String::IteratorConst& end) {
  return type->parse(it, end);
}

void floatStrep(std::string& text, double v, bool single) {
  char buf[64];
  auto r = single ? std::to_chars(buf, buf + sizeof buf, static_cast<float>(v))
                  : std::to_chars(buf, buf + sizeof buf, v);
  text.append(buf, r.ptr);
}

void collectionHasNoStringForm() {
  throw NotSupportedException("a collection has no string form to parse");
}

}  // namespace detail
}  // namespace Cog
