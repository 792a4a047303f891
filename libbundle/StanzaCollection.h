// StanzaCollection: the stanzas of one listing, by name, with the step that
// files each stanza under its expanded name.
#pragma once

#include <map>

#include "libbundle/PropertiesMap.h"
#include "util/Str.h"

// As std::map, one owner at a time.
class StanzaCollection : public std::map<Str, PropertiesMap> {
 public:
  using std::map<Str, PropertiesMap>::map;

  // Moves each stanza whose expanded name (PropertiesMap::getExpandedName)
  // is set and differs from its key to that name. Where a stanza already
  // sits under the expanded name, it keeps every setting it has and gains
  // only the keys it lacks, with their provenance; its own permissions
  // and expanded name stay. Each move logs at debug level, channel
  // "StanzaCollection", "Moving stanza [<key>] to its expanded name [<x>]".
  // With `reverse`, each moved stanza's expanded name is mapped to its
  // name as written (the first such name when two share an expansion).
  void expandStanzaNames(std::map<Str, Str>* reverse);
};
