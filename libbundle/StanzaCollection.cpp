#include "libbundle/StanzaCollection.h"

#include <vector>

#include "util/Logger.h"

namespace {

Logger gLogger("StanzaCollection");

}  // namespace

void StanzaCollection::expandStanzaNames(std::map<Str, Str>* reverse) {
  // Collected first: moving entries while walking the map could visit a
  // moved stanza a second time.
  std::vector<Str> toMove;
  for (const auto& [name, map] : *this) {
    const Str& expanded = map.getExpandedName();
    if (!expanded.empty() && expanded != name) toMove.push_back(name);
  }
  for (const Str& name : toMove) {
    auto it = find(name);
    const Str expanded = it->second.getExpandedName();
    gLogger.debug("Moving stanza [%s] to its expanded name [%s]", name.c_str(), expanded.c_str());
    auto existing = find(expanded);
    if (existing == end()) {
      emplace(expanded, std::move(it->second));
    } else {
      it->second.addLayerTo(existing->second, false, name);
    }
    if (reverse != nullptr) reverse->emplace(expanded, name);
    erase(it);
  }
}
