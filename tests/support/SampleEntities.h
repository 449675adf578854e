// Entities of any registered type made and read through reflection alone,
// for the suites that sweep every type (the property suite, the fuzzers).
#pragma once

#include <map>
#include <set>
#include <string>

#include "Cog/Exception.h"
#include "Cog/GenericIf.h"
#include "Cog/String.h"
#include "Cog/Type.h"

namespace testsupport {

// An entity of type `t` named `name` (the name is dropped again for unnamed
// types), its other constructor parameters the second sample of their type
// (the first is the default).
inline Cog::Ptr<Cog::GenericIf> makeSampleEntity(const Cog::CogType* t, const char* name) {
  Cog::ArgList args;
  args.push_back(Cog::genericIfOf(Cog::Name(name)));
  for (const Cog::MemberInfo* m : t->members()) {
    if (m->kind == Cog::MemberKind::param) {
      auto s = m->memberType()->samples();
      args.push_back(s.size() > 1 ? s[1] : s[0]);
    }
  }
  try {
    return t->fromCtorArgs(args);
  } catch (const Cog::RangeException&) {
    args.erase(args.begin());  // an unnamed entity
    return t->fromCtorArgs(args);
  }
}

// Every stored attribute's string form and every collection's elements.
inline std::map<std::string, std::string> contents(const Cog::GenericIf& e) {
  std::map<std::string, std::string> out;
  for (const Cog::MemberInfo* m : e.type()->members()) {
    if (m->kind == Cog::MemberKind::attribute || m->kind == Cog::MemberKind::param) {
      out[m->name] = e.attribute(m->name)->strRep().str();
    } else if (m->kind == Cog::MemberKind::collection) {
      std::set<std::string> elements;
      for (auto it = e.iterator(m->name); it->iterNonnull(); it->iterInc()) {
        elements.insert(it->iterKey()->strRep().str() + "=" + it->iterObj()->strRep().str());
      }
      for (auto& x : elements) out[m->name] += x + ";";
    } else if (m->kind == Cog::MemberKind::owned) {
      auto v = e.attribute(m->name);
      out[m->name] = v ? v->strRep().str() : "null";
    }
  }
  return out;
}

}  // namespace testsupport
