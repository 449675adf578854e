// Type records and the type registry.
//
// Every generated type (value type, enumeration, entity, holder, reactor),
// every external value type a schema uses and every primitive has one
// Cog::CogType record, registered under its full name ("Memtab::Fib::FecId",
// "U32", "Cog::String"). A record lists the type's own members in reflection
// order, each with its reflection index (value types count from 2; entities
// count each inheritance level's members from 258, 386, 514, and a member's
// index is also its attribute-log id), and carries the glue through which
// reflection reaches instances (GenericIf.h).
//
//   const Cog::CogType* t = Cog::typeByName("Memtab::Fib::FecId");
//   for (const Cog::CogType* each : Cog::registeredTypes()) ...
//
// Records are static objects of the library that defines the type; they
// register at load time and stay for the life of the process. Lookups are
// meant for the reactor thread and for start-up; registration is locked.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Cog/Ptr.h"
#include "Cog/String.h"

namespace Cog {

using AttributeId = std::uint32_t;

class CogType;
class GenericIf;
namespace NboAttrLog {
class In;
class Out;
}  // namespace NboAttrLog
struct AttributeOp;
using ArgList = std::vector<Ptr<GenericIf>>;

enum class TypeKind : std::uint8_t {
  primitive,    // numbers, bool, Cog::String, Cog::Name
  enumeration,  // a Cog::EnumType
  value,        // a generated value type
  external,     // a hand-written value type a schema uses (Velnet, Tunnel, ...)
  entity,       // a generated Cog::Entity
  holder,       // a generated reference-counted holder of collections
  reactor,      // a generated reactor state machine
};
const char* typeKindName(TypeKind kind);

enum class MemberKind : std::uint8_t {
  param,       // constructor parameter: read-only attribute
  attribute,   // stored scalar
  collection,  // keyed collection or dense array
  owned,       // owned child entity
  input,       // reactor input pointer (read-only entity)
  output,      // reactor output pointer
  constant,    // class constant: reflected, not stored
  function,    // callable through reflection
};
const char* memberKindName(MemberKind kind);

using TypeFn = const CogType* (*)();

struct ParamInfo {
  const char* name;
  TypeFn type;
};

struct MemberInfo {
  const char* name;
  unsigned index;
  MemberKind kind;
  TypeFn type;     // value, element or result type; nullptr for void results and sets
  TypeFn keyType;  // collections: the key type
  bool settable;   // reflection may write it (attributes of values and entities)
  bool resync;     // collections resynchronised per key over attribute logs
  bool isStatic;   // functions callable without an instance
  std::vector<ParamInfo> params;  // functions
  // The member's declaration as the schema states it, for documentation
  // (help texts, script docstrings); nullptr for hand-written records.
  const char* doc = nullptr;

  bool isStored() const {
    return kind != MemberKind::constant && kind != MemberKind::function;
  }
  const CogType* memberType() const { return type ? type() : nullptr; }
  const CogType* memberKeyType() const { return keyType ? keyType() : nullptr; }
};

// genericIfAttributeOp of a type: see GenericIf.h for the protocol.
using AttributeOpFn = void (*)(void* object, bool isConst, const AttributeOp& op, void* argument,
                               void* result, bool* notHandled);

struct TypeGlue {
  AttributeOpFn attributeOp = nullptr;
  // Parses the whole string form (strepToValueEnd included); nullptr when the
  // type has no string form.
  Ptr<GenericIf> (*fromStrRep)(const String& text) = nullptr;
  // Builds a value or entity from reflected constructor arguments.
  Ptr<GenericIf> (*fromCtorArgs)(const CogType* type, const ArgList& args) = nullptr;
  // Representative instances for property tests: the default first, then
  // values that differ from it in one attribute at a time.
  std::vector<Ptr<GenericIf>> (*samples)() = nullptr;
  // Reads one value in its attribute-log form; nullptr for entities.
  Ptr<GenericIf> (*fromAttrLog)(NboAttrLog::In* in) = nullptr;
  // Entities: a notifiee (T::GenericIfNotifiee_) on `entity` that reports
  // every change by attribute id; it stays registered while the returned
  // handle lives.
  Ptr<PtrInterface> (*genericIfNotifiee)(const PtrInterface* entity,
                                         std::function<void(AttributeId)> onAttribute) = nullptr;
  // Entities: the attribute-log adapter (T::CogNboAttrLogSa) of `entity`.
  Ptr<PtrInterface> (*attrLogSa)(PtrInterface* entity, std::uint32_t flags,
                                 const Ptr<NboAttrLog::Out>& out) = nullptr;
  // Entities: an instance made from the constructor parameters of an
  // instantiation header (after its type name).
  Ptr<PtrInterface> (*newEntityForAttrLog)(const Ptr<NboAttrLog::In>& in, std::uint32_t flags,
                                           unsigned version) = nullptr;
};

class CogType {
 public:
  CogType(const char* name, TypeKind kind, TypeFn base, std::vector<MemberInfo> members,
          TypeGlue glue, bool inSection = true);
  CogType(const CogType&) = delete;
  CogType& operator=(const CogType&) = delete;
  virtual ~CogType();

  const char* name() const { return name_; }
  TypeKind kind() const { return kind_; }
  const CogType* base() const { return base_ ? base_() : nullptr; }
  bool isEntity() const {
    return kind_ == TypeKind::entity || kind_ == TypeKind::holder || kind_ == TypeKind::reactor;
  }
  // True when this type is `other` or derives from it.
  bool isA(const CogType* other) const;
  // Whether the name goes into the library's .cog.type table.
  bool inSection() const { return inSection_; }

  // Own members, in index order.
  const std::vector<MemberInfo>& ownMembers() const { return members_; }
  // Every member, base types' first.
  std::vector<const MemberInfo*> members() const;
  // A member of this type or a base by name or index; nullptr when absent.
  const MemberInfo* member(std::string_view name) const;
  const MemberInfo* member(unsigned index) const;
  // The type in the chain whose own members hold `index`.
  const CogType* ownerOf(unsigned index) const;

  const TypeGlue& glue() const { return glue_; }

  // Reflection entry points that need no instance: parse, construct, call a
  // static function.
  Ptr<GenericIf> fromStrRep(const String& text) const;
  Ptr<GenericIf> fromCtorArgs(const ArgList& args) const;
  Ptr<GenericIf> callStatic(std::string_view function, const ArgList& args) const;
  std::vector<Ptr<GenericIf>> samples() const;

 private:
  const char* name_;
  TypeKind kind_;
  TypeFn base_;
  std::vector<MemberInfo> members_;
  TypeGlue glue_;
  bool inSection_;
};

// An enumeration: its (name, value) records in declaration order.
class EnumType : public CogType {
 public:
  struct Enumerator {
    const char* name;
    std::uint32_t value;
  };
  EnumType(const char* name, std::vector<Enumerator> enumerators, unsigned storageBits,
           TypeGlue glue);

  const std::vector<Enumerator>& enumerators() const { return enumerators_; }
  unsigned storageBits() const { return storageBits_; }
  // The enumerator's name, or nullptr for a value that is none.
  const char* nameOf(std::uint32_t value) const;
  // The value named `name`, if any.
  bool valueOf(std::string_view name, std::uint32_t* value) const;
  bool isEnumerator(std::uint32_t value) const { return nameOf(value) != nullptr; }

  // Checked conversions: RangeException "<n> is not a value of <Type>",
  // ParseException "'<text>' is not an enumerator of <Type>".
  std::uint32_t checkedValue(std::uint32_t value) const;
  std::uint32_t checkedValue(std::string_view name) const;
  // The name, or the number in decimal for a value that is no enumerator.
  std::string text(std::uint32_t value) const;
  // Parses an enumerator name (or a number that is an enumerator).
  std::uint32_t parse(String::IteratorConst& it, const String::IteratorConst& end) const;

 private:
  std::vector<Enumerator> enumerators_;
  unsigned storageBits_;
};

// Registry. Registration of a second record under a taken name aborts: two
// definitions of one type in a process are a build error.
void registerType(const CogType* type);
void unregisterType(const CogType* type);
const CogType* typeByName(std::string_view name);
// Every registered type, in registration order.
std::vector<const CogType*> registeredTypes();

}  // namespace Cog
