// The reactor frame on the test schema's Mirror: initial run, nested
// notifiees per input, activation, zombies, entry traces.
#include <gtest/gtest.h>

#include <AllConstructs.h>

#include "Cog/GenericIf.h"
#include "Cog/Trace.h"

using namespace CogTest;

namespace {

TEST(Reactor, RunsOnStartThenFollowsItsInput) {
  auto source = derivedFactory(Cog::Name("s"));
  source->countIs(7);
  source->flagsIs(1, true);
  source->flagsIs(2, true);
  auto target = leafFactory(Cog::Name("t"));
  Cog::Trace::levelIs("AllConstructs", 9);
  Cog::Trace::CaptureSink sink;
  auto sm = mirrorFactory(source, target);
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(target->x(), 7u);
  EXPECT_EQ(sm->flagCalls(), 2u);  // once per key present at start
  auto texts = sink.texts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.front(), "void CogTest::Mirror::handleInitialized()");
  EXPECT_NE(std::find(texts.begin(), texts.end(), "void CogTest::Mirror::handleCount()"), texts.end());

  source->countIs(8);
  EXPECT_EQ(target->x(), 8u);
  source->countIs(8);
  source->flagsIs(3, true);
  EXPECT_EQ(sm->flagCalls(), 3u);
  EXPECT_EQ(sm->cogFwkActivity(), 2u);

  sm->hasNotificationActiveIs(false);
  source->countIs(9);
  EXPECT_EQ(target->x(), 8u);
  sm->hasNotificationActiveIs(true);
  source->countIs(10);
  EXPECT_EQ(target->x(), 10u);

  sm->cogDoZombieReactors(true);
  source->countIs(11);
  EXPECT_EQ(target->x(), 10u);
  sm->cogDoZombieReactors(false);

  sm->sourceDel();
  source->countIs(12);
  EXPECT_EQ(target->x(), 10u);
  Cog::Trace::levelIs("AllConstructs", Cog::Trace::kOff);
}

TEST(Reactor, InputsThroughReflection) {
  auto source = derivedFactory(Cog::Name("s"));
  auto target = leafFactory(Cog::Name("t"));
  auto sm = mirrorFactory(nullptr, nullptr);
  auto g = Cog::genericIfOf(sm);
  g->attributeIs("target", Cog::genericIfOf(target));
  g->attributeIs("source", Cog::genericIfOf(Cog::Ptr<const Derived>(source)));
  source->countIs(5);
  EXPECT_EQ(target->x(), 5u);
  EXPECT_EQ(g->attribute("source")->strRep().str(), "CogTest::Derived('s')");
  // An output must be writable: a read-only handle does not convert.
  EXPECT_THROW(g->attributeIs("target", Cog::genericIfOf(Cog::Ptr<const Leaf>(target))),
               Cog::ReadOnlyException);
  EXPECT_THROW(g->attributeIs("source", Cog::genericIfOf(target)), Cog::RangeException);
}

}  // namespace
