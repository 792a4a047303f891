#include "libbundle/DeletabilityCache.h"

#include "libbundle/ConfPathTrie.h"
#include "libbundle/PropertyPages.h"

void DeletabilityCache::init(PropertyPages& page) {
  ScopedLock lock(_mutex);
  if (_initialized) return;
  _initialized = true;
  const PropertyPagesContext& context = page.context();
  if (!context.hasUserContext() && !context.hasApplicationContext()) return;
  ConfPathTrie trie;
  if (!page.cache().findDeletableConf(level(), trie)) return;
  const unsigned wanted = level();
  trie.walk([&](const ConfPathBase& path, const ConfPathTrie::Node&) {
    if (path.level() < wanted) return true;
    add(PropertyPagesContext(context.bundlesSetup(), path.user(), path.application()), path);
    return false;
  });
}

bool DeletabilityCache::isInitialized() const {
  ScopedLock lock(_mutex);
  return _initialized;
}

bool DeletableStanzasCache::isStanzaDeletable(const PropertyPagesContext& context,
                                              const Str& stanza) const {
  ScopedLock lock(_mutex);
  const auto it = _stanzas.find(context);
  return it != _stanzas.end() && it->second.count(stanza) != 0;
}

void DeletableStanzasCache::add(const PropertyPagesContext& context, const ConfPathBase& path) {
  _stanzas[context].insert(path.stanza());
}

bool DeletableProperties::isPropertyDeletable(const Str& stanza, const Str& key) const {
  const auto it = _keys.find(stanza);
  return it != _keys.end() && it->second.count(key) != 0;
}

bool DeletablePropertiesCache::isPropertyDeletable(const PropertyPagesContext& context,
                                                   const Str& stanza, const Str& key) const {
  ScopedLock lock(_mutex);
  const auto it = _properties.find(context);
  return it != _properties.end() && it->second.isPropertyDeletable(stanza, key);
}

void DeletablePropertiesCache::add(const PropertyPagesContext& context, const ConfPathBase& path) {
  _properties[context].add(path.stanza(), path.setting());
}
