// IConfCache: the stanzas of one configuration type for one context, as a
// page of layered configuration reads them; its cursor; and
// ScopedIConfCacheLock, which every read goes through.
#pragma once

#include <memory>

#include "util/Mutex.h"
#include "util/Str.h"

class ConfPathTrie;
class PropertiesMap;
class Regex;

// A cursor over the stanzas of a cache in name order (bytewise). It borrows
// the cache: use it only while holding the cache's mutex, and not across a
// rebuild. One owner.
class IConfCacheIterator {
 public:
  virtual ~IConfCacheIterator() = default;
  // A second cursor at the same place.
  virtual std::unique_ptr<IConfCacheIterator> copy() const = 0;
  // The stanza's name as written. REQUIRES: !isDone().
  virtual const Str& getConfName() const = 0;
  // The stanza's pattern (getRegexPatternFromFilePattern), or null when the
  // stanza applies only by exact name. Computed on first call and kept
  // with the stanza. REQUIRES: !isDone().
  virtual const Regex* getConfRegex() = 0;
  // PropertiesMap::addLayerTo of the stanza, with its name as the stanza
  // recorded. REQUIRES: !isDone().
  virtual void addLayerTo(PropertiesMap& out, bool withMetadata) const = 0;
  virtual bool isDone() const = 0;
  // REQUIRES: !isDone().
  virtual void next() = 0;
};

// Thread story: the cursors and the rebuild need getConfCacheMutex() held
// (take it through ScopedIConfCacheLock); markDirty() may be called from any
// thread at any time.
class IConfCache {
 public:
  virtual ~IConfCache() = default;

  // The lock of the stanza map, held for the whole of a read so that one
  // result comes from one state of the cache.
  virtual Mutex& getConfCacheMutex() = 0;
  // A cursor at the first stanza; isDone() at once for an empty cache.
  virtual std::unique_ptr<IConfCacheIterator> begin() = 0;
  // A cursor at the stanza named exactly `name`, or null without one.
  virtual std::unique_ptr<IConfCacheIterator> findConf(const Str& name) = 0;
  // Asks for a rebuild before the next read.
  virtual void markDirty() = 0;
  // Fills `out` with the paths of this cache's context that can be
  // removed, cut below `level` (4 for stanzas, 5 for settings). False when
  // nothing could be searched.
  virtual bool findDeletableConf(unsigned level, ConfPathTrie& out) = 0;
  // Polls for changes where polling is on, and rebuilds when dirty.
  // REQUIRES: getConfCacheMutex() held.
  virtual void updateIfDirty() = 0;
  // Rebuilds the stanza map from the configuration store.
  // REQUIRES: getConfCacheMutex() held.
  virtual void updateConfCache() = 0;
};

// Holds the cache's mutex for its scope and brings the cache up to date
// (updateIfDirty) on entry. One owner.
class ScopedIConfCacheLock {
 public:
  // An exception from the update passes, with the mutex released.
  explicit ScopedIConfCacheLock(IConfCache& cache);

 private:
  ScopedLock _lock;
};
