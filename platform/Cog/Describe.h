// A type record in words, for people: the lines `routinglib types
// --describe` prints and scripts show as a type's help.
//
//   <kind> <name>
//   base: <base name>                      (when there is one)
//     <enumerator> = <value>               (enumerations)
//     <index> <member kind> <name>: <type> [key <type>] resync settable static
//     <index> function <name>(<param>: <type>, ...) -> <type>
#pragma once

#include <iosfwd>
#include <string>

#include "Cog/Type.h"

namespace Cog {

void describeType(const CogType& type, std::ostream& out);
std::string describeType(const CogType& type);

}  // namespace Cog
