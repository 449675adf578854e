// The text of an entity tree, the same for equal trees whatever the
// collections' iteration order: every stored attribute through reflection,
// collection members sorted, entity members and directory entries written
// out recursively.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Cog/Dir.h"
#include "Cog/GenericIf.h"
#include "Mount/Mount.h"

namespace testsupport {

inline std::string treeText(const Cog::Entity* e, const std::string& indent = "");

inline std::string memberText(const Cog::Ptr<Cog::GenericIf>& v, const std::string& indent) {
  if (!v) return "null";
  if (const Cog::PtrInterface* p = v->entityPtr()) {
    return "{\n" + treeText(static_cast<const Cog::Entity*>(p), indent + "  ") + indent + "}";
  }
  return v->strRep().str();
}

inline std::string treeText(const Cog::Entity* e, const std::string& indent) {
  if (e == nullptr) return indent + "null\n";
  std::string out;
  if (auto* dir = dynamic_cast<const Cog::Dir*>(e)) {
    out += indent + "Dir " + dir->name().str() + "\n";
    for (const auto& [name, entry] : *dir) {
      out += indent + "  " + name.str() + ":\n" + treeText(entry.entity.ptr(), indent + "    ");
    }
    return out;
  }
  const Cog::CogType* t = Mount::typeOfEntity(*e);
  if (t == nullptr) return indent + "?\n";
  out += indent + t->name() + " " + e->name().str() + "\n";
  auto self = Cog::genericIfOfEntity(t, e, true);
  for (const Cog::MemberInfo* m : t->members()) {
    switch (m->kind) {
      case Cog::MemberKind::param:
      case Cog::MemberKind::attribute:
      case Cog::MemberKind::owned:
        out += indent + m->name + " = " + memberText(self->attribute(m->index), indent) + "\n";
        break;
      case Cog::MemberKind::collection: {
        std::vector<std::string> items;
        for (auto it = self->iterator(m->name); it->iterNonnull(); it->iterInc()) {
          items.push_back(it->iterKey()->strRep().str() + " => " + memberText(it->iterObj(), indent + "  "));
        }
        std::sort(items.begin(), items.end());
        out += indent + m->name + " [" + std::to_string(items.size()) + "]\n";
        for (const auto& i : items) out += indent + "  " + i + "\n";
        break;
      }
      default:
        break;
    }
  }
  return out;
}

}  // namespace testsupport
