// A plain program built with `pkg-config --cflags --libs routinglib` only.
// Prints "plain: ok" when every check holds.
#include <iostream>
#include <vector>

#include <FecBasicTypes.h>

#include "Cog/Exception.h"
#include "RoutingLib/UcmpWeightRebase.h"
#include "RoutingLib/VrfName.h"

int main() {
  int failures = 0;
  const auto r = RoutingLib::rebaseWeights(std::vector<std::uint32_t>{10, 20, 30}, 64, 0.1f);
  if (r.status() != RoutingLib::UcmpRebaseStatus::rebaseSuccess || r.outWeight().size() != 3) {
    std::cout << "plain: FAILED rebase " << r.status() << "\n";
    ++failures;
  }
  try {
    L3::VrfName(std::string(101, 'v').c_str());
    std::cout << "plain: FAILED long VRF name accepted\n";
    ++failures;
  } catch (const Cog::RangeException& e) {
    if (std::string(e.what()) != "VrfName::bytes > VrfName::maxLength not allowed") {
      std::cout << "plain: FAILED text " << e.what() << "\n";
      ++failures;
    }
  }
  const Memtab::Fib::FecId fec(0x0100000000000005ull);
  if (fec.adjIndex() != 5) {
    std::cout << "plain: FAILED adjIndex\n";
    ++failures;
  }
  if (failures == 0) std::cout << "plain: ok\n";
  return failures == 0 ? 0 : 1;
}
