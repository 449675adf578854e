// Value types of shared-memory tables, registered by the name their tables
// record in the segment (ValueTraits<V>::typeName()), so that a tool that
// knows nothing of a table's C++ type can still print its entries.
//
//   static Memtab::ValueTypeRegistration<Error> errorRegistration;
//
// An entry prints as the value's memtabString() when the type has one, else
// as its stream form (operator<<).
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Memtab/Table.h"

namespace Memtab {

struct ValueType {
  std::string name;
  // Sets `text` to the line of the value in `image` (`length` bytes; the
  // callee may zero-pad the vector); false, with `why` set, for an image
  // that is not a valid value.
  using Text = bool (*)(std::vector<std::uint8_t>& image, std::uint32_t length, std::string* text,
                        std::string* why);
  Text text = nullptr;
};

// Registers `type` under its name; a second registration of a name wins.
void registerValueType(const ValueType& type);
// The registration of value type `name`, or null.
const ValueType* findValueType(std::string_view name);

namespace detail {

template <class V>
bool valueText(std::vector<std::uint8_t>& image, std::uint32_t length, std::string* text,
               std::string* why) {
  V v;
  if (!decode(image, length, &v, why)) return false;
  if constexpr (requires { { v.memtabString() } -> std::convertible_to<std::string>; }) {
    *text = v.memtabString();
  } else if constexpr (requires(std::ostream& os) { os << v; }) {
    std::ostringstream os;
    os << v;
    *text = os.str();
  } else {
    *text = "value of " + std::to_string(length) + " bytes";
  }
  return true;
}

}  // namespace detail

template <TableValue V>
struct ValueTypeRegistration {
  ValueTypeRegistration() {
    registerValueType(ValueType{ValueTraits<V>::typeName(), &detail::valueText<V>});
  }
};

}  // namespace Memtab
