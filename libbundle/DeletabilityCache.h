// Which stanzas and settings a context may delete, worked out once per
// configuration type from the store: DeletableStanzasCache and
// DeletablePropertiesCache over their common base DeletabilityCache.
#pragma once

#include <map>
#include <set>

#include "libbundle/PropertyPagesContext.h"
#include "util/Mutex.h"
#include "util/Str.h"

class ConfPathBase;
class PropertyPages;

// Safe from any thread: init and the lookups share one mutex.
class DeletabilityCache {
 public:
  explicit DeletabilityCache(const Str& confName) : _confName(confName) {}
  virtual ~DeletabilityCache() = default;

  // Once, and only for a page whose context has a user or an application:
  // asks the page's cache for the removable paths at this cache's level
  // (findDeletableConf) and files each under the context of its own user
  // and application. Later calls do nothing.
  void init(PropertyPages& page);
  bool isInitialized() const;
  const Str& getConfName() const { return _confName; }

 protected:
  // 4 for stanzas, 5 for settings.
  virtual unsigned level() const = 0;
  // Files one removable path. REQUIRES: _mutex held.
  virtual void add(const PropertyPagesContext& context, const ConfPathBase& path) = 0;

  mutable Mutex _mutex;

 private:
  const Str _confName;
  bool _initialized = false;  // guarded by _mutex
};

class DeletableStanzasCache : public DeletabilityCache {
 public:
  using DeletabilityCache::DeletabilityCache;
  // Whether `stanza` may be deleted in `context` (user without regard to
  // case).
  bool isStanzaDeletable(const PropertyPagesContext& context, const Str& stanza) const;

 protected:
  unsigned level() const override { return 4; }
  void add(const PropertyPagesContext& context, const ConfPathBase& path) override;

 private:
  std::map<PropertyPagesContext, std::set<Str>> _stanzas;  // guarded by _mutex
};

// The settings of one context that may be deleted, by stanza. A plain value.
class DeletableProperties {
 public:
  void add(const Str& stanza, const Str& key) { _keys[stanza].insert(key); }
  bool isPropertyDeletable(const Str& stanza, const Str& key) const;

 private:
  std::map<Str, std::set<Str>> _keys;
};

class DeletablePropertiesCache : public DeletabilityCache {
 public:
  using DeletabilityCache::DeletabilityCache;
  bool isPropertyDeletable(const PropertyPagesContext& context, const Str& stanza,
                           const Str& key) const;

 protected:
  unsigned level() const override { return 5; }
  void add(const PropertyPagesContext& context, const ConfPathBase& path) override;

 private:
  std::map<PropertyPagesContext, DeletableProperties> _properties;  // guarded by _mutex
};
