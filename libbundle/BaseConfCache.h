// BaseConfCache: the stanza map, lock and dirty flag that every cache of a
// page of layered configuration shares; subclasses say how the map is
// built.
#pragma once

#include <atomic>
#include <map>
#include <memory>

#include "libbundle/IConfCache.h"
#include "libbundle/PropertiesMap.h"
#include "util/Mutex.h"
#include "util/Str.h"

// A stanza with its pattern, computed on first use and kept while the
// stanza lives. Guarded like the map it sits in.
class PropertiesMapWithRegex : public PropertiesMap {
 public:
  // getRegexPatternFromFilePattern(name, pageFlag), remembered.
  const Regex* getRegex(const Str& name, bool pageFlag);

 private:
  bool _regexKnown = false;
  const Regex* _regex = nullptr;  // borrowed from the process-wide pattern map
};

// Thread story: as IConfCache. The map is guarded by _mutex; _dirty is
// atomic so that writers elsewhere may mark the cache without its lock.
class BaseConfCache : public IConfCache {
 public:
  typedef std::map<Str, PropertiesMapWithRegex> StanzaMap;

  // `confName` is the configuration type ("props"); it decides the pattern
  // flag (false for "props" only). The cache starts dirty and empty.
  explicit BaseConfCache(const Str& confName);

  Mutex& getConfCacheMutex() override { return _mutex; }
  std::unique_ptr<IConfCacheIterator> begin() override;
  std::unique_ptr<IConfCacheIterator> findConf(const Str& name) override;
  void markDirty() override { _dirty = true; }
  // Runs maybePollForUpdate, then the rebuild if dirty, and clears the
  // flag. A rebuild that throws leaves the cache dirty, so the next read
  // tries again.
  void updateIfDirty() override;

  const Str& getConfName() const { return _confName; }
  bool isDirty() const { return _dirty; }

 protected:
  // Where polling is on and its interval has passed, asks the store
  // whether this type changed and marks the cache dirty if so. Nothing
  // here; caches over the store override it.
  virtual void maybePollForUpdate() {}

  StanzaMap _stanzas;  // guarded by _mutex

 private:
  const Str _confName;
  const bool _pageFlag;
  std::atomic<bool> _dirty{true};
  full_Mutex _mutex;
};
