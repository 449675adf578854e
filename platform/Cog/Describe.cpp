#include "Cog/Describe.h"

#include <ostream>
#include <sstream>

namespace Cog {

namespace {

const char* typeName(const CogType* t) { return t ? t->name() : "void"; }

}  // namespace

void describeType(const CogType& t, std::ostream& out) {
  out << typeKindName(t.kind()) << " " << t.name() << "\n";
  if (const CogType* base = t.base()) out << "base: " << base->name() << "\n";
  if (t.kind() == TypeKind::enumeration) {
    for (const auto& e : static_cast<const EnumType&>(t).enumerators()) {
      out << "  " << e.name << " = " << e.value << "\n";
    }
    return;
  }
  for (const MemberInfo* m : t.members()) {
    out << "  " << m->index << " " << memberKindName(m->kind) << " " << m->name;
    if (m->kind == MemberKind::function) {
      out << "(";
      for (std::size_t i = 0; i < m->params.size(); ++i) {
        out << (i ? ", " : "") << m->params[i].name << ": " << typeName(m->params[i].type());
      }
      out << ") -> " << typeName(m->memberType());
    } else {
      out << ": " << typeName(m->memberType());
    }
    if (const CogType* key = m->memberKeyType()) out << " [key " << key->name() << "]";
    if (m->resync) out << " resync";
    if (m->settable && m->kind != MemberKind::function) out << " settable";
    if (m->isStatic) out << " static";
    out << "\n";
  }
}

std::string describeType(const CogType& type) {
  std::ostringstream out;
  describeType(type, out);
  return out.str();
}

}  // namespace Cog
