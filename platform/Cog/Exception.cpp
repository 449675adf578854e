#include "Cog/Exception.h"

namespace Cog {

void rethrowFromDeserializeAttr(const char* attrName) {
  try {
    throw;
  } catch (const Exception& e) {
    e.rethrowWithMessage(std::string("'") + attrName + "': " + e.what());
  }
  throw ParseException("rethrowFromDeserializeAttr called outside a handler");
}

}  // namespace Cog
