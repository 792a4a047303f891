// BaseConfCache: the stanza map, lock and dirty flag that every cache of a
// page of layered configuration shares; subclasses say how the map is
// built.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "libbundle/BundlesSetup.h"
#include "libbundle/IConfCache.h"
#include "libbundle/IConfPathMapper.h"
#include "libbundle/PropertiesMap.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/Timeval.h"

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
  // flag (false for "props" only). `setup` is the root whose mappers are
  // polled, `contextApplication` the page's application ("" for none),
  // which tells exports of its own application from others'. The cache
  // starts dirty and empty.
  BaseConfCache(const Str& confName, const BundlesSetup& setup,
                const Str& contextApplication = Str::EMPTY_STR);

  Mutex& getConfCacheMutex() override { return _mutex; }
  std::unique_ptr<IConfCacheIterator> begin() override;
  std::unique_ptr<IConfCacheIterator> findConf(const Str& name) override;
  void markDirty() override { _dirty = true; }
  // Runs maybePollForUpdate, then the rebuild if dirty, and clears the
  // flag. A rebuild that throws leaves the cache dirty, so the next read
  // tries again.
  void updateIfDirty() override;

  const Str& getConfName() const { return _confName; }
  const BundlesSetup& bundlesSetup() const { return _setup; }
  const Str& contextApplication() const { return _contextApplication; }
  bool isDirty() const { return _dirty; }

 protected:
  // Polls only with pooling, every ConfSettings::getPollingInterval()
  // ("poll.interval.rebuild"): walks the mappers in order beside the
  // stored (mapper, state) list, gives a new mapper a state from
  // cpmNewState, asks each cpmHasChangedSince for this type, logs a change
  // as "[<mapper path>] detected change in type <type> <root>" and marks
  // the cache dirty. A clock that went back behind the last poll warns
  // "Current time (%s) precedes previous poll time (%s)." and polls.
  // REQUIRES: _mutex held.
  void maybePollForUpdate();
  // Adds the paths of `trie` (levels user, application, type, stanza,
  // setting) to the stanza map; see BaseConfCacheBuilder.
  // REQUIRES: _mutex held.
  void updateConfCacheWithTrie(const ConfPathTrie& trie, bool overwrite);

  StanzaMap _stanzas;  // guarded by _mutex

 private:
  const Str _confName;
  const bool _pageFlag;
  const BundlesSetup _setup;
  const Str _contextApplication;
  std::atomic<bool> _dirty{true};
  full_Mutex _mutex;
  // Polling state, guarded by _mutex.
  Timeval _lastPoll;
  std::vector<std::pair<IConfPathMapper*, IConfPathMapper::State>> _mapperStates;
};
