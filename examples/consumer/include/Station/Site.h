// Station::Site: a site number, a value type of the consumer's own that its
// schema names with an `extern` line. Text form: the number; attribute-log
// form: the number as an unsigned 32-bit integer.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "Cog/Hash.h"
#include "Cog/NboAttrLog.h"
#include "Cog/String.h"

namespace Station {

class Site {
 public:
  Site() = default;
  explicit Site(std::uint32_t number) : number_(number) {}
  Site(Cog::String::IteratorConst& it, const Cog::String::IteratorConst& end)
      : number_(static_cast<std::uint32_t>(Cog::Parse::unsignedNumber(it, end, 0xFFFFFFFFu, "Site"))) {}
  Site(Cog::NboAttrLog::In* in, Cog::StreamBogon) : number_(in->nextU32()) {}

  std::uint32_t number() const { return number_; }
  friend bool operator==(const Site&, const Site&) = default;
  friend bool operator<(const Site& a, const Site& b) { return a.number_ < b.number_; }
  bool operator!() const { return number_ == 0; }
  Cog::HashValue hash() const { return number_ * 2654435761u; }

 private:
  std::uint32_t number_ = 0;
};

inline Cog::String valueToStrep(const Site& s) { return Cog::String(std::to_string(s.number())); }
inline std::ostream& operator<<(std::ostream& os, const Site& s) { return os << s.number(); }
inline const Cog::Ptr<Cog::NboAttrLog::Out>& operator<<(const Cog::Ptr<Cog::NboAttrLog::Out>& out,
                                                        const Site& s) {
  out->putU32(s.number());
  return out;
}

}  // namespace Station
