// BaseConfCacheBuilder: turns a trie of the configuration store into the
// stanza map of a cache, each value with its provenance.
#pragma once

#include "libbundle/BaseConfCache.h"
#include "libbundle/ConfPathTrie.h"
#include "libbundle/PropertySourceType.h"
#include "util/Str.h"

// One owner; borrows the map it fills for its lifetime.
class BaseConfCacheBuilder {
 public:
  // `contextApplication` is the page's application ("" for none).
  // With `overwrite` off a value already in the map stays; with it on, a
  // value is replaced by one of a source type not lower, so among equal
  // types the later path in trie order wins.
  BaseConfCacheBuilder(BaseConfCache::StanzaMap& stanzas, const BundlesSetup& setup,
                       const Str& confName, const Str& contextApplication, bool overwrite)
      : _stanzas(stanzas),
        _setup(setup),
        _confName(confName),
        _contextApplication(contextApplication),
        _overwrite(overwrite) {}

  // Walks `trie` in order. At a stanza (level 4) the entry is created if
  // missing, offered the metadata's permissions (mergePermissions) and
  // given its expanded name (ExpandedStanzaName with the root of the
  // path's bundle: system, apps/<app> or users/<user>/<app>; a stanza seen
  // with two different expansions keeps the first and warns "Stanza has an
  // expansion [%s], ignoring alternate expansion [%s] in %s.conf"); the
  // stanza's embedded property and each
  // setting's (level 5, with a value) are then set as above: value, source
  // type, application, modification time, user (the metadata's owner, else
  // the path's user), permissions and removable (the metadata's, else the
  // value's own flag).
  void build(const ConfPathTrie& trie);

  // The layer a path speaks for: SOURCE_SYSTEM_DEFAULT in the system
  // application (or none), SOURCE_USER in a user's own layer, otherwise by
  // the node's export: "app" SOURCE_APP; "global" SOURCE_GLOBAL_SAME_APP
  // in `contextApplication`, else SOURCE_GLOBAL_OTHER_APP; no export of its
  // own: `parentType` (SOURCE_APP above the top level).
  static PropertySourceType pathToSourceType(const ConfPathBase& path,
                                             const ConfPathTrie::Node& node,
                                             PropertySourceType parentType,
                                             const Str& contextApplication);

 private:
  void setExpandedName(PropertiesMap& stanza, const ConfPathBase& path);
  void setProperty(Property& target, bool isNew, const ConfPathBase& path,
                   const ConfPathTrie::Node& node, PropertySourceType type);

  BaseConfCache::StanzaMap& _stanzas;
  const BundlesSetup& _setup;
  const Str& _confName;
  const Str& _contextApplication;
  const bool _overwrite;
};
