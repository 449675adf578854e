// A hand-written class extending a generated Gen base: the generated
// factory and the reflective constructor make the extension.
#include <gtest/gtest.h>

#include "Counted.h"
#include "Cog/GenericIf.h"

using namespace CogTest;

namespace {

TEST(ExtendedGen, FactoryMakesTheHandWrittenClass) {
  Cog::Ptr<CountedGen> made = countedGenFactory(Cog::Name("c"));
  auto* counted = dynamic_cast<Counted*>(made.ptr());
  ASSERT_NE(counted, nullptr);
  counted->increment();
  EXPECT_EQ(made->n(), 1u);
  auto g = CountedGen::cogType()->fromCtorArgs({Cog::genericIfOf(Cog::Name("d"))});
  EXPECT_NE(g->as<Counted>(), nullptr);
  EXPECT_EQ(g->attribute("n")->strRep().str(), "0");
}

}  // namespace
