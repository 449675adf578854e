#include "Cog/Generated.h"

namespace Cog::Glue {

void throwRange(const char* message) { throw RangeException(message); }

StrepWriter::StrepWriter(const char* typeName, bool single) : single_(single) {
  if (!single_) text_ = std::string("Value('") + typeName + "', ** {";
}

void StrepWriter::start(const char* name) {
  if (single_) return;
  if (!first_) text_ += ", ";
  first_ = false;
  text_ += "'";
  text_ += name;
  text_ += "': ";
}

String StrepWriter::done() {
  if (!single_) text_ += "})";
  return String(std::move(text_));
}

StrepReader::StrepReader(String::IteratorConst& it, const String::IteratorConst& end,
                         const char* typeName, bool single)
    : it_(it), end_(end), single_(single) {
  if (!single_) Parse::expect(it_, end_, std::string("Value('") + typeName + "', ** {");
}

void StrepReader::start(const char* name) {
  if (single_) return;
  if (!first_) Parse::expect(it_, end_, ", ");
  first_ = false;
  Parse::expect(it_, end_, std::string("'") + name + "': ");
}

void StrepReader::done() {
  if (!single_) Parse::expect(it_, end_, "})");
}

void keyMismatch(const char* collection, const std::string& key, const char* attribute,
                 const std::string& value) {
  throw RangeException(std::string(collection) + " key " + key + " is not the value's " +
                       attribute + " " + value);
}

void reinstantiating(const std::string& fullName, const char* param, const std::string& requested,
                     const std::string& present) {
  throw NameInUseException("Reinstantiating the entity with fullName " + fullName +
                           " where constructor parameter attribute '" + param +
                           "' has a different value of " + requested +
                           " than the current value of " + present + " not allowed");
}

}  // namespace Cog::Glue
