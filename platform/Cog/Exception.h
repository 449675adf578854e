// Exceptions of the type framework. Every exception carries its text; the
// kinds let callers (and reflection, and scripts) tell bounds violations
// from malformed strings, read-only violations and unsupported operations.
#pragma once

#include <stdexcept>
#include <string>

namespace Cog {

class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& message) : std::runtime_error(message) {}
  std::string message() const { return what(); }
  // A copy of this exception with `message` in place of its text, same kind.
  virtual void rethrowWithMessage(const std::string& message) const = 0;
};

#define COG_EXCEPTION_KIND(Name)                                             \
  class Name : public Exception {                                           \
   public:                                                                  \
    explicit Name(const std::string& message) : Exception(message) {}      \
    void rethrowWithMessage(const std::string& message) const override {   \
      throw Name(message);                                                  \
    }                                                                       \
  };

// A value outside its bounds, or a conversion that has no result.
COG_EXCEPTION_KIND(RangeException)
// A string form that does not parse.
COG_EXCEPTION_KIND(ParseException)
// A write through something that may only read.
COG_EXCEPTION_KIND(ReadOnlyException)
// An operation the target does not offer (reflection, adapters).
COG_EXCEPTION_KIND(NotSupportedException)
// A name already taken by an entity of another kind or shape.
COG_EXCEPTION_KIND(NameInUseException)
// An attribute-log update arriving at a read-only remote proxy.
COG_EXCEPTION_KIND(WriteUpdateFromReadOnlyProxyException)
// A truncated or malformed attribute-log stream.
COG_EXCEPTION_KIND(StreamException)

#undef COG_EXCEPTION_KIND

// Rethrows the exception being handled (which must be a Cog::Exception) with
// the attribute's name in front of its text, keeping its kind. Used by the
// string-form parsers so that an error names the attribute it came from.
[[noreturn]] void rethrowFromDeserializeAttr(const char* attrName);

}  // namespace Cog
