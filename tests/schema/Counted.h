// CogTest::Counted, the hand-written extension of the generated CountedGen
// (AllConstructs.cog).
#pragma once

#include <AllConstructs.h>

namespace CogTest {

class Counted : public CountedGen {
 public:
  using CountedGen::CountedGen;
  // Adds one to n, notifying as the generated setter does.
  void increment() { nIs(n() + 1); }
};

}  // namespace CogTest
