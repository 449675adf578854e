#include "Cog/Trace.h"

#include <gtest/gtest.h>

COG_TRACE_HANDLE("CogTraceTest");

namespace {

int evaluations = 0;
int counted() { return ++evaluations; }

TEST(Trace, RecordIsBuiltOnlyWhenItsLevelIsOn) {
  Cog::Trace::CaptureSink sink;
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
  evaluations = 0;
  COG_TRACE(0, "never " << counted());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(sink.texts().empty());

  Cog::Trace::levelIs("CogTrace*", 3);
  COG_TRACE(3, "level three " << counted());
  COG_TRACE(4, "level four " << counted());
  EXPECT_EQ(evaluations, 1);
  ASSERT_EQ(sink.records().size(), 1u);
  auto r = sink.records()[0];
  EXPECT_EQ(r.text, "level three 1");
  EXPECT_EQ(r.level, 3);
  EXPECT_STREQ(r.file, "TraceTest.cpp");
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
}

TEST(Trace, ConfigureParsesAndRefusesMalformedSettings) {
  EXPECT_TRUE(Cog::Trace::configure("CogTraceTest=7"));
  ASSERT_NE(Cog::Trace::handle("CogTraceTest"), nullptr);
  EXPECT_EQ(Cog::Trace::handle("CogTraceTest")->level(), 7);
  EXPECT_FALSE(Cog::Trace::configure("CogTraceTest=x"));
  EXPECT_FALSE(Cog::Trace::configure("=3"));
  EXPECT_EQ(Cog::Trace::handle("CogTraceTest")->level(), 7);
  Cog::Trace::levelIs("CogTraceTest", Cog::Trace::kOff);
}

}  // namespace
