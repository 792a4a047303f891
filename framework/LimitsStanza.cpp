#include "framework/LimitsStanza.h"

#include <exception>

#include "libbundle/PropertyPages.h"

bool getLimitsStanza(const char* name, PropertiesMap& out) {
  try {
    PropertyPages* pages = PropertyPages::instance("limits");
    return pages != nullptr && pages->getStanza(name, out);
  } catch (const std::exception&) {
    return false;
  }
}
