// The writing side of the Python table tests and of the Python lookup
// benchmark: a process that owns the IPv4 unprogrammed-route table `NAME`
// (through the library's UnprogrammedRoute entity) and edits it on command,
// one command per line on stdin, answering each with "ok" (or "error: ...")
// on stdout once the change is published:
//
//   set PREFIX VRF CODE     insert or overwrite the error of (PREFIX, VRF)
//   del PREFIX VRF          delete it
//   fill N                  insert N errors: 10.x.y.z/32 in VRF "default", code = i
//   clear                   delete every entry
//   quit                    end (the table stays for readers)
//
// It prints "ready" when the table exists. Usage: PyTableWriter NAME
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "Cog/Exception.h"
#include "RoutingLib/KernelUnprogrammedRoute.h"

using Memtab::KernelUnprogrammedRoute::Error;
using Memtab::KernelUnprogrammedRoute::ErrorKey;

namespace {

ErrorKey keyOf(const std::string& prefix, const std::string& vrf) {
  return ErrorKey(L3::VrfName(vrf), Velnet::IpGenPrefix(Cog::String(prefix)));
}

std::string fillPrefix(std::uint32_t i) {
  return "10." + std::to_string((i >> 16) & 255) + "." + std::to_string((i >> 8) & 255) + "." +
         std::to_string(i & 255) + "/32";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: PyTableWriter NAME\n";
    return 2;
  }
  auto kernel = Memtab::KernelUnprogrammedRoute::unprogrammedRouteFactory(Cog::Name("pytest"));
  kernel->errorWriterIs(argv[1]);
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream in(line);
    std::string op, prefix, vrf;
    in >> op;
    try {
      if (op == "set") {
        std::uint32_t code = 0;
        in >> prefix >> vrf >> code;
        kernel->errorIs(Error(code, keyOf(prefix, vrf)));
      } else if (op == "del") {
        in >> prefix >> vrf;
        kernel->errorDel(keyOf(prefix, vrf));
      } else if (op == "fill") {
        std::uint32_t n = 0;
        in >> n;
        for (std::uint32_t i = 0; i < n; ++i) kernel->errorIs(Error(i, keyOf(fillPrefix(i), "default")));
      } else if (op == "clear") {
        kernel->errorDelAll();
      } else if (op == "quit") {
        std::cout << "ok" << std::endl;
        return 0;
      } else {
        std::cout << "error: unknown command '" << op << "'" << std::endl;
        continue;
      }
    } catch (const Cog::Exception& e) {
      std::cout << "error: " << e.what() << std::endl;
      continue;
    }
    std::cout << "ok" << std::endl;
  }
  return 0;
}
