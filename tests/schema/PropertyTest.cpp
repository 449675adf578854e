// Properties every registered generated type must have, checked over the
// type registry: a type added to a schema gets them without a line here.
// Values (and enumerations and external values) are checked on their
// samples (TypeGlue::samples); entities are made from sample constructor
// arguments.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "support/SampleEntities.h"
#include "Cog/GenericIf.h"
#include "Cog/NboAttrLogSa.h"
#include "Cog/Type.h"

namespace {

using Cog::CogType;
using Cog::GenericIf;
using Cog::Ptr;

bool generated(const CogType* t) {
  return t->kind() != Cog::TypeKind::primitive;
}

std::vector<const CogType*> valueTypes() {
  std::vector<const CogType*> out;
  for (const CogType* t : Cog::registeredTypes()) {
    if (generated(t) && !t->isEntity()) out.push_back(t);
  }
  return out;
}

std::vector<const CogType*> entityTypes() {
  std::vector<const CogType*> out;
  for (const CogType* t : Cog::registeredTypes()) {
    if (t->isEntity()) out.push_back(t);
  }
  return out;
}

TEST(TypeRegistry, HoldsTheLibraryAndTestTypes) {
  for (const char* name : {"Memtab::Fib::FecId", "Memtab::Fib::TableId", "Memtab::Fib::AdjType",
                           "Memtab::Fib::FecMode", "Memtab::Fib::FecIdConstants",
                           "Memtab::Fib::FecIdCollection", "Memtab::Fib::FecModeStatus",
                           "CogTest::Widths", "CogTest::Derived", "CogTest::Mirror", "U64"}) {
    const CogType* t = Cog::typeByName(name);
    ASSERT_NE(t, nullptr) << name;
    EXPECT_STREQ(t->name(), name);
  }
  EXPECT_EQ(Cog::typeByName("CogTest::Nope"), nullptr);
  std::set<std::string> names;
  for (const CogType* t : Cog::registeredTypes()) EXPECT_TRUE(names.insert(t->name()).second);
}

TEST(ValueProperties, StringAndAttributeLogRoundTrip) {
  for (const CogType* t : valueTypes()) {
    auto samples = t->samples();
    ASSERT_FALSE(samples.empty()) << t->name();
    for (const Ptr<GenericIf>& s : samples) {
      SCOPED_TRACE(std::string(t->name()) + " " + s->strRep().str());
      EXPECT_EQ(s->type(), t);
      if (t->glue().fromStrRep != nullptr) {
        Ptr<GenericIf> back = t->fromStrRep(s->strRep());
        EXPECT_TRUE(back->equals(*s)) << back->strRep();
      }
      auto out = Cog::allocate<Cog::NboAttrLog::Out>();
      s->attrLogOut(out);
      Cog::NboAttrLog::In in(out->bytes());
      Ptr<GenericIf> back = t->glue().fromAttrLog(&in);
      EXPECT_TRUE(back->equals(*s)) << back->strRep();
      EXPECT_TRUE(in.atEnd());
      // A truncated log is refused, never read past its end.
      if (out->size() > 0) {
        auto bytes = out->bytes();
        bytes.pop_back();
        Cog::NboAttrLog::In cut(bytes);
        EXPECT_THROW(t->glue().fromAttrLog(&cut), Cog::Exception);
      }
    }
  }
}

TEST(ValueProperties, HashAgreesWithEqualityAndOrderIsStrictWeak) {
  for (const CogType* t : valueTypes()) {
    SCOPED_TRACE(t->name());
    auto samples = t->samples();
    // Equal copies made through the string or log form, to compare.
    std::vector<Ptr<GenericIf>> copies;
    for (auto& s : samples) {
      auto out = Cog::allocate<Cog::NboAttrLog::Out>();
      s->attrLogOut(out);
      Cog::NboAttrLog::In in(out->bytes());
      copies.push_back(t->glue().fromAttrLog(&in));
    }
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const GenericIf& a = *samples[i];
      EXPECT_EQ(a.hash(), copies[i]->hash());
      EXPECT_FALSE(a.less(a));
      for (std::size_t j = 0; j < samples.size(); ++j) {
        const GenericIf& b = *samples[j];
        if (a.equals(b)) {
          EXPECT_EQ(a.hash(), b.hash());
        }
        EXPECT_FALSE(a.less(b) && b.less(a));
        // incomparable exactly when equal
        EXPECT_EQ(!a.less(b) && !b.less(a), a.equals(b)) << a.strRep() << " vs " << b.strRep();
        for (std::size_t k = 0; k < samples.size(); ++k) {
          const GenericIf& c = *samples[k];
          if (a.less(b) && b.less(c)) {
            EXPECT_TRUE(a.less(c));
          }
        }
      }
    }
    EXPECT_TRUE(samples[0]->isDefault()) << "the first sample is the default value";
    for (std::size_t i = 1; i < samples.size(); ++i) {
      if (!samples[i]->equals(*samples[0])) {
        EXPECT_FALSE(samples[i]->isDefault());
      }
    }
  }
}

TEST(ValueProperties, ReflectionReadsEveryAttributeAndConstant) {
  for (const CogType* t : valueTypes()) {
    for (const Ptr<GenericIf>& s : t->samples()) {
      for (const Cog::MemberInfo* m : t->members()) {
        if (m->kind == Cog::MemberKind::attribute || m->kind == Cog::MemberKind::constant) {
          Ptr<GenericIf> v = s->attribute(m->name);
          ASSERT_TRUE(v) << t->name() << "::" << m->name;
          EXPECT_TRUE(v->equals(*s->attribute(m->index)));
          EXPECT_EQ(v->type(), m->memberType()) << t->name() << "::" << m->name;
        } else if (m->kind == Cog::MemberKind::collection) {
          std::size_t n = 0;
          for (auto it = s->iterator(m->name); it->iterNonnull(); it->iterInc()) {
            EXPECT_TRUE(it->iterKey());
            ++n;
          }
          EXPECT_LE(n, 8u);
        }
      }
    }
  }
}

TEST(ValueProperties, CollectionsRebuildThroughReflectedInsertLookupAndRemove) {
  for (const CogType* t : valueTypes()) {
    if (t->kind() != Cog::TypeKind::value) continue;
    for (const Ptr<GenericIf>& s : t->samples()) {
      SCOPED_TRACE(std::string(t->name()) + " " + s->strRep().str());
      // A default value given the sample's attributes and elements, in
      // iteration order, is the sample again.
      Ptr<GenericIf> copy = t->fromCtorArgs({});
      for (const Cog::MemberInfo* m : t->members()) {
        if (m->kind == Cog::MemberKind::attribute) copy->attributeIs(m->index, s->attribute(m->index));
        if (m->kind != Cog::MemberKind::collection) continue;
        const bool isSet = m->memberType() == nullptr;
        for (auto it = s->iterator(m->name); it->iterNonnull(); it->iterInc()) {
          Ptr<GenericIf> element = s->element(m->name, it->iterKey());
          ASSERT_TRUE(element);
          EXPECT_TRUE(element->equals(*(isSet ? it->iterKey() : it->iterObj())));
          if (isSet) copy->insert(m->name, {it->iterKey()});
          else copy->insert(m->name, {it->iterKey(), it->iterObj()});
        }
      }
      EXPECT_TRUE(copy->equals(*s)) << copy->strRep();
      // Removal, last key first (a dense array shrinks from its end).
      for (const Cog::MemberInfo* m : t->members()) {
        if (m->kind != Cog::MemberKind::collection) continue;
        std::vector<Ptr<GenericIf>> keys;
        for (auto it = copy->iterator(m->name); it->iterNonnull(); it->iterInc()) keys.push_back(it->iterKey());
        for (auto k = keys.rbegin(); k != keys.rend(); ++k) {
          copy->remove(m->name, *k);
          EXPECT_FALSE(copy->element(m->name, *k)) << (*k)->strRep();
        }
        EXPECT_FALSE(copy->iterator(m->name)->iterNonnull());
      }
    }
  }
}

Ptr<GenericIf> makeEntity(const CogType* t) { return testsupport::makeSampleEntity(t, "sample"); }

TEST(EntityProperties, CollectionsInsertLookupAndRemoveThroughReflectionAndNotify) {
  for (const CogType* t : entityTypes()) {
    if (t->kind() == Cog::TypeKind::reactor) continue;
    SCOPED_TRACE(t->name());
    Ptr<GenericIf> e = makeEntity(t);
    std::map<Cog::AttributeId, int> calls;
    auto notifiee = t->glue().genericIfNotifiee(e->entityPtr(),
                                                [&](Cog::AttributeId id) { ++calls[id]; });
    for (const Cog::MemberInfo* m : t->members()) {
      if (m->kind != Cog::MemberKind::collection) continue;
      SCOPED_TRACE(m->name);
      const CogType* element = m->memberType();
      auto keys = m->memberKeyType()->samples();
      Ptr<GenericIf> key = keys.size() > 1 ? keys[1] : keys[0];
      // Maps and arrays take (key, value), sets (key), collections of
      // entities (key, their other constructor parameters), tables (value).
      std::vector<Cog::ArgList> forms;
      if (element == nullptr) {
        forms.push_back({key});
      } else if (element->isEntity()) {
        forms.push_back({key});
      } else {
        auto values = element->samples();
        forms.push_back({key, values.back()});
        if (element->glue().fromAttrLog != nullptr) forms.push_back({values.back()});
      }
      auto keysNow = [&] {
        std::vector<Ptr<GenericIf>> out;
        for (auto it = e->iterator(m->name); it->iterNonnull(); it->iterInc()) out.push_back(it->iterKey());
        return out;
      };
      const std::size_t before = keysNow().size();
      ASSERT_EQ(before, 0u) << "a new entity's collections are empty";
      calls.clear();
      Ptr<GenericIf> made;
      bool inserted = false;
      for (const Cog::ArgList& args : forms) {
        try {
          made = e->insert(m->name, args);
          inserted = true;
          break;
        } catch (const Cog::RangeException&) {
        }
      }
      if (!inserted) continue;  // no form fits (entities with more parameters)
      EXPECT_GE(calls[m->index], 1) << "an insertion notifies";
      // The new element is the last in order (a dense array fills the gap
      // before it with defaults).
      std::vector<Ptr<GenericIf>> present = keysNow();
      ASSERT_FALSE(present.empty());
      Ptr<GenericIf> found = e->element(m->name, present.back());
      ASSERT_TRUE(found);
      if (made) {
        EXPECT_TRUE(found->equals(*made));
      }
      for (auto k = present.rbegin(); k != present.rend(); ++k) {
        e->remove(m->name, *k);
        EXPECT_FALSE(e->element(m->name, *k)) << (*k)->strRep();
      }
      EXPECT_FALSE(e->iterator(m->name)->iterNonnull());
      auto ro = Cog::genericIfOfEntity(t, e->entityPtr(), true);
      EXPECT_THROW(ro->remove(m->name, present.back()), Cog::ReadOnlyException);
      EXPECT_THROW(ro->insert(m->name, forms[0]), Cog::ReadOnlyException);
    }
  }
}
using testsupport::contents;

TEST(EntityProperties, SettersNotifyOnlyOnChange) {
  for (const CogType* t : entityTypes()) {
    // A reactor runs its hand-written handlers on construction, which may
    // require real inputs: reactors are tested one by one.
    if (t->kind() == Cog::TypeKind::reactor) continue;
    SCOPED_TRACE(t->name());
    Ptr<GenericIf> e = makeEntity(t);
    ASSERT_TRUE(e);
    std::map<Cog::AttributeId, int> calls;
    auto notifiee = t->glue().genericIfNotifiee(e->entityPtr(),
                                                [&](Cog::AttributeId id) { ++calls[id]; });
    for (const Cog::MemberInfo* m : t->members()) {
      if (m->kind != Cog::MemberKind::attribute || !m->settable) continue;
      if (std::string(m->name) == "initialized") continue;  // the reactor frame's switch
      for (const Ptr<GenericIf>& v : m->memberType()->samples()) {
        SCOPED_TRACE(std::string(m->name) + " = " + v->strRep().str());
        bool same = e->attribute(m->name)->equals(*v);
        calls.clear();
        try {
          e->attributeIs(m->name, v);
        } catch (const Cog::RangeException&) {
          EXPECT_TRUE(calls.empty()) << "a refused value notifies nobody";
          continue;
        }
        EXPECT_TRUE(e->attribute(m->name)->equals(*v));
        EXPECT_EQ(calls[m->index], same ? 0 : 1);
        e->attributeIs(m->name, v);
        EXPECT_EQ(calls[m->index], same ? 0 : 1) << "the same value again notifies nobody";
      }
    }
    // A read-only handle refuses writes.
    auto ro = Cog::genericIfOfEntity(t, e->entityPtr(), true);
    for (const Cog::MemberInfo* m : t->members()) {
      if (m->kind == Cog::MemberKind::attribute && m->settable) {
        EXPECT_THROW(ro->attributeIs(m->name, ro->attribute(m->name)), Cog::ReadOnlyException);
      }
    }
  }
}

TEST(EntityProperties, AttributeLogResyncRebuildsTheEntity) {
  for (const CogType* t : entityTypes()) {
    if (t->kind() == Cog::TypeKind::reactor) continue;
    SCOPED_TRACE(t->name());
    Ptr<GenericIf> a = makeEntity(t);
    // Every settable attribute gets a value other than its default.
    for (const Cog::MemberInfo* m : t->members()) {
      if (m->kind != Cog::MemberKind::attribute || !m->settable) continue;
      auto samples = m->memberType()->samples();
      for (auto it = samples.rbegin(); it != samples.rend(); ++it) {
        try {
          a->attributeIs(m->name, *it);
          break;
        } catch (const Cog::RangeException&) {
        }
      }
    }
    auto out = Cog::allocate<Cog::NboAttrLog::Out>();
    auto saA = t->glue().attrLogSa(const_cast<Cog::PtrInterface*>(a->entityPtr()), 0, nullptr);
    auto* sa = static_cast<Cog::Entity::CogNboAttrLogSa*>(saA.ptr());
    auto header = Cog::allocate<Cog::NboAttrLog::Out>();
    sa->cogInstantiateSerialize(header);
    sa->outIs(out);
    EXPECT_TRUE(sa->resync());
    Ptr<Cog::PtrInterface> made =
        Cog::entityFromAttrLog(Cog::allocate<Cog::NboAttrLog::In>(header->bytes()));
    auto saB = t->glue().attrLogSa(made.ptr(), 0, nullptr);
    static_cast<Cog::Entity::CogNboAttrLogSa*>(saB.ptr())
        ->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
    auto b = Cog::genericIfOfEntity(t, made.ptr());
    EXPECT_EQ(contents(*b), contents(*a));
  }
}

}  // namespace
