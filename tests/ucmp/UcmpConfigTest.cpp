// UcmpConfig: the deliberately mixed initial values, and the threshold
// setters that store before they check (the rejected value stays, unnotified).
#include <gtest/gtest.h>

#include "Cog/Exception.h"
#include "RoutingLib/Ucmp.h"

using namespace RoutingLib::Ucmp;

namespace {

struct Counts : UcmpConfig::NotifieeConst {
  int trigger = 0, clear = 0, maxUcmp = 0;
  void onUcmpTriggerFecThreshold() override { ++trigger; }
  void onUcmpClearFecThreshold() override { ++clear; }
  void onMaxUcmp() override { ++maxUcmp; }
};

TEST(UcmpConfig, StartsInvalidExceptTheThresholds) {
  auto c = ucmpConfigFactory(Cog::Name("red"));
  EXPECT_EQ(c->ucmpMode(), UcmpConfig::ucmpModeInvalid);
  EXPECT_EQ(c->maxUcmp(), 4294967295u);
  EXPECT_EQ(c->maxUcmp(), UcmpConfig::maxUcmpInvalid);
  EXPECT_EQ(c->ucmpDeviation(), 0.0);
  EXPECT_EQ(UcmpConfig::ucmpDeviationDefault, 5.0);
  EXPECT_EQ(c->ucmpLinkbwDelay(), UcmpConfig::ucmpLinkbwDelayInvalid);
  EXPECT_EQ(c->ucmpTriggerFecThreshold(), 50);
  EXPECT_EQ(c->ucmpClearFecThreshold(), 40);
  EXPECT_EQ(UcmpConfig::ucmpModeDisabled, 255);
}

TEST(UcmpConfig, ThresholdsAreStoredThenChecked) {
  struct Case {
    void (UcmpConfig::*set)(std::int32_t);
    std::int32_t (UcmpConfig::*get)() const;
    int Counts::*notified;
    const char* text;
  };
  const Case cases[] = {
      {&UcmpConfig::ucmpTriggerFecThresholdIs, &UcmpConfig::ucmpTriggerFecThreshold, &Counts::trigger,
       "UcmpConfig::ucmpTriggerFecThreshold < -1 or > 100 not allowed"},
      {&UcmpConfig::ucmpClearFecThresholdIs, &UcmpConfig::ucmpClearFecThreshold, &Counts::clear,
       "UcmpConfig::ucmpClearFecThreshold < -1 or > 100 not allowed"},
  };
  for (const auto& k : cases) {
    auto c = ucmpConfigFactory(Cog::Name("red"));
    auto counts = Cog::allocate<Counts>();
    counts->notifierIs(c);
    for (std::int32_t ok : {-1, 100, 7}) {
      ((*c).*k.set)(ok);
      EXPECT_EQ(((*c).*k.get)(), ok);
    }
    EXPECT_EQ((*counts).*k.notified, 3);
    for (std::int32_t bad : {101, -2}) {
      try {
        ((*c).*k.set)(bad);
        ADD_FAILURE() << "accepted " << bad;
      } catch (const Cog::RangeException& e) {
        EXPECT_STREQ(e.what(), k.text);
      }
      EXPECT_EQ(((*c).*k.get)(), bad) << "the rejected value stays stored";
    }
    EXPECT_EQ((*counts).*k.notified, 3) << "a rejected value is not notified";
    ((*c).*k.set)(-2);  // the same (stored) value again: nothing happens
    EXPECT_EQ((*counts).*k.notified, 3);
  }
}

TEST(VrfUcmpConfigDir, CreatesOneConfigPerVrf) {
  auto dir = vrfUcmpConfigDirFactory(Cog::Name("ucmp"));
  auto red = dir->vrfConfigIs(Cog::Name("red"));
  EXPECT_EQ(red->name(), Cog::Name("red"));
  EXPECT_EQ(dir->vrfConfigIs(Cog::Name("red")), red) << "an existing entry is returned";
  red->maxUcmpIs(64);
  EXPECT_EQ(dir->vrfConfig(Cog::Name("red"))->maxUcmp(), 64u);
  dir->vrfConfigDel(Cog::Name("red"));
  EXPECT_FALSE(dir->vrfConfig(Cog::Name("red")));
}

}  // namespace
