// The all-constructs schema through its static API, reflection, string form
// and attribute log: what the property suite cannot see generically.
#include <gtest/gtest.h>

#include "support/ExceptionText.h"

#include <AllConstructs.h>

#include "Cog/GenericIf.h"
#include "Cog/NboAttrLogSa.h"

using namespace CogTest;

namespace {

std::string rangeText(const std::function<void()>& f) { return testsupport::exceptionText(f); }

TEST(AllConstructs, DefaultsConstantsAndEnumerations) {
  Widths w;
  EXPECT_EQ(w.a(), 1);
  EXPECT_EQ(w.g(), -5);
  EXPECT_TRUE(w.i());
  EXPECT_EQ(w.k(), 0.5);
  EXPECT_EQ(w.s().str(), "x");
  EXPECT_EQ(w.color(), blue());
  EXPECT_EQ(Widths::limit, 1000);
  EXPECT_EQ(Widths::shade, Color::green);
  EXPECT_EQ(answer(), 42u);
  EXPECT_EQ(sizeof(Color), 1u);
  EXPECT_EQ(static_cast<std::uint32_t>(big()), 4000000000u);
  EXPECT_EQ(ColorInstance(7u), blue());
  EXPECT_THROW(ColorInstance(3u), Cog::RangeException);
  EXPECT_TRUE(!Widths());
  EXPECT_FALSE(!Widths::make(2, "y"));
  EXPECT_EQ(Widths::make(2, "y").sum(), 2u);
}

TEST(AllConstructs, StringForm) {
  Nested n;
  EXPECT_EQ(valueToStrep(Single(7)).str(), "7");
  EXPECT_EQ(valueToStrep(Empty()).str(), "Value('CogTest::Empty', ** {})");
  EXPECT_EQ(valueToStrep(Bounded()).str(),
            "Value('CogTest::Bounded', ** {'level': 50, 'len': 1, 'count': 0})");
  Cog::String text = valueToStrep(n);
  EXPECT_EQ(text.str().rfind("Value('CogTest::Nested', ** {'widths': Value('CogTest::Widths', ** {'a': 1,", 0), 0u);
  auto it = text.begin();
  EXPECT_EQ(Nested(it, text.end()), n);
  EXPECT_TRUE(it == text.end());

  // Missing text is a parse error; errors inside an attribute name it.
  auto parse = [](const char* s) {
    Cog::String t(s);
    auto i = t.begin();
    Bounded b(i, t.end());
    Cog::strepToValueEnd(i, t.end());
  };
  EXPECT_THROW(parse("Value('CogTest::Bounded', ** {'level': 50, 'len': 1})"), Cog::ParseException);
  EXPECT_THROW(parse("Value('CogTest::Other', ** {'level': 50, 'len': 1, 'count': 0})"),
               Cog::ParseException);
  EXPECT_THROW(parse("Value('CogTest::Bounded', ** {'level': 50, 'len': 1, 'count': 0}) "),
               Cog::ParseException);
  EXPECT_EQ(rangeText([&] { parse("Value('CogTest::Bounded', ** {'level': 101, 'len': 1, 'count': 0})"); }),
            "'level': Bounded::level < -1 or > 100 not allowed");
  try {
    parse("Value('CogTest::Bounded', ** {'level': 50, 'len': x, 'count': 0})");
    FAIL();
  } catch (const Cog::ParseException& e) {
    EXPECT_EQ(std::string(e.what()).rfind("'len': ", 0), 0u) << e.what();
  }
}

TEST(AllConstructs, BoundsTexts) {
  Bounded b;
  EXPECT_EQ(rangeText([&] { b.levelIs(-2); }), "Bounded::level < -1 or > 100 not allowed");
  EXPECT_EQ(rangeText([&] { b.lenIs(0); }),
            "Bounded::len < 1 or > Expr @AllConstructs.cog:41 not allowed");
  EXPECT_EQ(rangeText([&] { b.countIs(501); }),
            "Bounded::count < Bounded::minCount or > Bounded::maxCount not allowed");
  b.levelIs(-1);
  b.levelIs(100);
  b.lenIs(1 << 20);
  EXPECT_EQ(b.level(), 100);
  EXPECT_EQ(rangeText([] { Bounded(200, 1, 0); }), "Bounded::level < -1 or > 100 not allowed");
}

struct ThresholdWatcher : Tables::NotifieeConst {
  int calls = 0;
  void onThreshold() override { ++calls; }
};

TEST(AllConstructs, StoreBeforeCheckKeepsTheRefusedValue) {
  auto t = tablesFactory(Cog::Name("t"));
  auto w = Cog::allocate<ThresholdWatcher>();
  w->notifierIs(t);
  EXPECT_EQ(rangeText([&] { t->thresholdIs(101); }), "Tables::threshold < -1 or > 100 not allowed");
  EXPECT_EQ(t->threshold(), 101);
  EXPECT_EQ(w->calls, 0);
  t->thresholdIs(100);
  t->thresholdIs(-1);
  EXPECT_EQ(w->calls, 2);
  EXPECT_THROW(t->thresholdIs(-2), Cog::RangeException);
}

TEST(AllConstructs, CollectionsInValues) {
  WithCollections v;
  EXPECT_EQ(valueToStrep(v).str(),
            "Value('CogTest::WithCollections', ** {'status': red, 'weights': [], 'byName': {}, "
            "'tags': [], 'sorted': {}})");
  v.weightsIs(2, 9);
  v.byNameIs("b", 2);
  v.byNameIs("a", 1);
  v.tagsIs(5);
  v.sortedIs(3, blue());
  EXPECT_EQ(valueToStrep(v).str(),
            "Value('CogTest::WithCollections', ** {'status': red, 'weights': [0, 0, 9], "
            "'byName': {'a': 1, 'b': 2}, 'tags': [5], 'sorted': {3: blue}})");
  EXPECT_EQ(v.byName("zz"), 0u);
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  out << v;
  Cog::NboAttrLog::In in(out->bytes());
  EXPECT_EQ(WithCollections(&in, Cog::StreamBogon{}), v);
  Cog::String text("x");
  auto it = text.begin();
  EXPECT_DEATH(WithCollections(it, text.end()),
               "No String constructor for WithCollections - has collection");
  EXPECT_EQ(Cog::typeByName("CogTest::WithCollections")->glue().fromStrRep, nullptr);
}

TEST(AllConstructs, ReflectionIndexesAndCalls) {
  const Cog::CogType* w = Cog::typeByName("CogTest::Widths");
  EXPECT_EQ(w->member("a")->index, 2u);
  EXPECT_EQ(w->member("tunnel")->index, 18u);
  EXPECT_EQ(w->member("limit")->index, 19u);
  EXPECT_EQ(w->member("hash")->index, 21u);
  EXPECT_EQ(w->member("make")->index, 23u);
  auto made = w->callStatic("make", {Cog::genericIfOf(3), Cog::genericIfOf("z")});
  EXPECT_EQ(made->attribute("s")->strRep().str(), "'z'");
  EXPECT_EQ(made->call("sum")->strRep().str(), "3");
  EXPECT_EQ(made->call("hash")->strRep().str(), std::to_string(made->as<Widths>()->hash()));
  Cog::Ptr<Cog::GenericIf> copy = w->fromStrRep(made->strRep());
  EXPECT_TRUE(copy->equals(*made));
  copy->attributeIs("color", Cog::genericIfOf(Cog::String("red")));
  EXPECT_EQ(copy->as<Widths>()->color(), red());
  EXPECT_THROW(copy->attributeIs("color", Cog::genericIfOf(Cog::String("mauve"))), Cog::ParseException);
  EXPECT_THROW(copy->attributeIs("limit", Cog::genericIfOf(3)), Cog::NotSupportedException);
  EXPECT_THROW(made->call("sum", {Cog::genericIfOf(1)}), Cog::RangeException);

  const Cog::CogType* d = Cog::typeByName("CogTest::Derived");
  EXPECT_EQ(d->member("count")->index, 258u);
  EXPECT_EQ(d->member("ratio")->index, 386u);
  EXPECT_EQ(d->member("color")->index, 514u);
  EXPECT_EQ(d->ownerOf(386), Cog::typeByName("CogTest::Middle"));
  EXPECT_TRUE(d->isA(Cog::typeByName("CogTest::Base")));
  EXPECT_TRUE(d->member("flags")->resync);
  EXPECT_FALSE(d->member("weights")->resync);
}



struct DerivedWatcher : Derived::NotifieeConst {
  std::vector<std::string> log;
  void onCount() override { log.push_back("count"); }
  void onFlags(std::uint32_t key) override { log.push_back("flags " + std::to_string(key)); }
  void onItems(std::uint32_t key) override { log.push_back("items " + std::to_string(key)); }
  void onChild() override { log.push_back("child"); }
  void onColor() override { log.push_back("color"); }
  void onWeights(std::uint64_t index) override { log.push_back("weights " + std::to_string(index)); }
};

TEST(AllConstructs, EntityCollectionsAndInheritance) {
  auto d = derivedFactory(Cog::Name("d"));
  auto w = Cog::allocate<DerivedWatcher>();
  w->notifierIs(d);
  d->countIs(3);
  d->countIs(3);
  EXPECT_THROW(d->countIs(1001), Cog::RangeException);
  d->flagsIs(1, true);
  d->flagsIs(1, true);
  d->flagsIs(1, false);
  d->flagsDel(9);
  d->weightsIs(1, 5);
  d->colorIs(green());
  d->colorIs(red());
  auto k = d->itemsIs(4, blue());
  EXPECT_EQ(d->itemsIs(4, blue()), k);
  EXPECT_EQ(k->id(), 4u);
  try {
    d->itemsIs(4, red());
    FAIL();
  } catch (const Cog::NameInUseException& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the entity with fullName d/items/4 where constructor parameter "
                 "attribute 'color' has a different value of red than the current value of blue "
                 "not allowed");
  }
  EXPECT_EQ(d->items(4), k);
  EXPECT_EQ(d->items(5), nullptr);
  auto child = d->childIs(Cog::Name("c"));
  EXPECT_EQ(d->childIs(Cog::Name("c")), child);
  d->itemsNotify(4);
  d->itemsDelAll();
  d->childDel();
  EXPECT_EQ(w->log, (std::vector<std::string>{"count", "flags 1", "flags 1", "weights 1", "color",
                                              "items 4", "child", "items 4", "items 4", "child"}));
  EXPECT_EQ(d->describe().str(), "d:3:red");
  auto leaf = leafFactory(Cog::Name("leaf"));
  auto adopted = Cog::genericIfOf(d)->call("adopt", {Cog::genericIfOf(leaf)});
  EXPECT_EQ(adopted->strRep().str(), "CogTest::Leaf('leaf')");
  EXPECT_EQ(leaf->x(), 3u);
  // The ordered collection keeps its keys in order.
  d->itemsIs(9, red());
  d->itemsIs(2, red());
  std::vector<std::uint32_t> keys;
  for (auto& [key, member] : d->items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::uint32_t>{2, 9}));
}

TEST(AllConstructs, PerKeyDirtyMarksAndResync) {
  auto d = derivedFactory(Cog::Name("d"));
  auto out = Cog::allocate<Cog::NboAttrLog::Out>();
  auto sa = d->cogNboAttrLogSaIs(0, 0, out);
  sa->capacityIs(0);
  d->flagsIs(1, true);
  d->flagsIs(2, true);
  d->flagsIs(1, false);
  d->membersIs("m");
  EXPECT_EQ(sa->dirtyKeys(d->fwkType()->member("flags")->index), 2u);
  EXPECT_EQ(sa->dirtyKeys(d->fwkType()->member("members")->index), 1u);
  d->flagsDel(2);
  sa->capacityIs(1 << 20);
  EXPECT_TRUE(sa->handleAttrFlowOut(0));

  auto mirror = derivedFactory(Cog::Name("d"));
  mirror->flagsIs(2, true);  // stale: the log deletes it
  auto in = mirror->cogNboAttrLogSaIs(0, 0, nullptr);
  in->deserialize(Cog::allocate<Cog::NboAttrLog::In>(out->bytes()));
  EXPECT_EQ(mirror->flags(1), false);
  EXPECT_TRUE(mirror->flags().contains(1));
  EXPECT_FALSE(mirror->flags().contains(2));
  EXPECT_TRUE(mirror->membersHas("m"));

  // A malformed log is refused.
  auto bad = Cog::allocate<Cog::NboAttrLog::Out>();
  bad->putU32(700);
  bad->putU8(0);
  EXPECT_THROW(in->deserialize(Cog::allocate<Cog::NboAttrLog::In>(bad->bytes())), Cog::StreamException);
}

}  // namespace
