#include "libbundle/LiteralsLoader.h"

#include <set>

#include "libbundle/PropertyPages.h"
#include "util/Logger.h"
#include "util/StringMgr.h"

namespace {

Logger gLogger("LiteralsLoader");

}  // namespace

void loadLiteralsFromPages(StringMgr& mgr) {
  try {
    PropertyPages* page = PropertyPages::instance("literals");
    std::set<Str> names;
    page->keys(names);
    for (const Str& name : names) {
      PropertiesMap stanza;
      if (!page->getStanza(name, stanza)) continue;
      for (const auto& [key, property] : stanza) mgr.addLiteral(name, key, property.value());
    }
  } catch (const std::exception& e) {
    gLogger.warn("Cannot load literals: %s", e.what());
  }
}

void installLiteralsLoader() { StringMgr::setLiteralsLoader(&loadLiteralsFromPages); }
