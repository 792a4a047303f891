#include "framework/LimitsStanza.h"

#include <exception>

#include "libbundle/PropertyPages.h"
#include "libbundle/PropertyPagesContext.h"

bool getConfStanza(const char* conf, const Str& stanza, const PropertyPagesContext* context,
                   PropertiesMap& out) {
  // Without an install (tools, tests) the pages cannot be built; that is
  // the same as a page without the stanza.
  try {
    PropertyPages* pages = context != nullptr ? PropertyPages::instance(conf, *context)
                                              : PropertyPages::instance(conf);
    return pages != nullptr && pages->getStanza(stanza, out);
  } catch (const std::exception&) {
    return false;
  }
}

bool getLimitsStanza(const char* name, PropertiesMap& out) {
  return getConfStanza("limits", Str(name), nullptr, out);
}
