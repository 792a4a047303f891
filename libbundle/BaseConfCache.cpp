#include "libbundle/BaseConfCache.h"

#include <algorithm>

#include "libbundle/BaseConfCacheBuilder.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfSettings.h"
#include "libbundle/StanzaPattern.h"
#include "util/Logger.h"

namespace {

Logger gLogger("BaseConfCache");

Str timeText(const Timeval& t) {
  return Str().format("%lld.%06lld", static_cast<long long>(t.tv_sec),
                      static_cast<long long>(t.tv_usec));
}

// A cursor over a StanzaMap; valid while the map is not rebuilt.
class StanzaMapIterator : public IConfCacheIterator {
 public:
  StanzaMapIterator(BaseConfCache::StanzaMap::iterator at, BaseConfCache::StanzaMap::iterator end,
                    bool pageFlag)
      : _at(at), _end(end), _pageFlag(pageFlag) {}

  std::unique_ptr<IConfCacheIterator> copy() const override {
    return std::make_unique<StanzaMapIterator>(*this);
  }
  const Str& getConfName() const override { return _at->first; }
  const Regex* getConfRegex() override { return _at->second.getRegex(_at->first, _pageFlag); }
  void addLayerTo(PropertiesMap& out, bool withMetadata) const override {
    _at->second.addLayerTo(out, withMetadata, _at->first);
  }
  bool isDone() const override { return _at == _end; }
  void next() override { ++_at; }

 private:
  BaseConfCache::StanzaMap::iterator _at;
  BaseConfCache::StanzaMap::iterator _end;
  bool _pageFlag;
};

}  // namespace

const Regex* PropertiesMapWithRegex::getRegex(const Str& name, bool pageFlag) {
  if (!_regexKnown) {
    _regex = getRegexPatternFromFilePattern(name, pageFlag);
    _regexKnown = true;
  }
  return _regex;
}

BaseConfCache::BaseConfCache(const Str& confName, const BundlesSetup& setup,
                             const Str& contextApplication)
    : _confName(confName),
      _pageFlag(confName != "props"),
      _setup(setup),
      _contextApplication(contextApplication) {}

std::unique_ptr<IConfCacheIterator> BaseConfCache::begin() {
  return std::make_unique<StanzaMapIterator>(_stanzas.begin(), _stanzas.end(), _pageFlag);
}

std::unique_ptr<IConfCacheIterator> BaseConfCache::findConf(const Str& name) {
  const auto it = _stanzas.find(name);
  if (it == _stanzas.end()) return nullptr;
  return std::make_unique<StanzaMapIterator>(it, _stanzas.end(), _pageFlag);
}

void BaseConfCache::updateIfDirty() {
  maybePollForUpdate();
  if (!_dirty) return;
  // Cleared before the rebuild, so that a markDirty landing during it asks
  // for one more; set again if the rebuild throws, so the next read retries.
  _dirty = false;
  struct RedirtyUnlessDone {
    std::atomic<bool>& dirty;
    bool done = false;
    ~RedirtyUnlessDone() {
      if (!done) dirty = true;
    }
  } guard{_dirty};
  updateConfCache();
  guard.done = true;
}

void BaseConfCache::maybePollForUpdate() {
  const auto settings = ConfSettings::forSetup(_setup);
  const unsigned long long interval =
      settings->isPoolingEnabled() ? settings->getPollingInterval() : 0;
  if (interval == 0) return;
  const CurrentTimeval now;
  if (now < _lastPoll) {
    gLogger.warn("Current time (%s) precedes previous poll time (%s).", timeText(now).c_str(),
                 timeText(_lastPoll).c_str());
  } else if (Timeval::msecDifference(now, _lastPoll) < static_cast<int64_t>(interval)) {
    return;
  }
  _lastPoll = now;
  bool changed = false;
  std::vector<std::pair<IConfPathMapper*, IConfPathMapper::State>> states;
  for (auto mappers = ConfPathMapperManager::instance().getMappers(_setup); !mappers.isDone();
       mappers.next()) {
    IConfPathMapper* mapper = mappers.data();
    const auto known = std::find_if(_mapperStates.begin(), _mapperStates.end(),
                                    [mapper](const auto& entry) { return entry.first == mapper; });
    IConfPathMapper::State state =
        known != _mapperStates.end() ? known->second : mapper->cpmNewState(_confName);
    if (mapper->cpmHasChangedSince(_confName, state)) {
      gLogger.info("[%s] detected change in type %s %s", mapper->cpmPath().c_str(),
                   _confName.c_str(), _setup.toString().c_str());
      changed = true;
    }
    states.emplace_back(mapper, state);
  }
  _mapperStates = std::move(states);
  if (changed) markDirty();
}

void BaseConfCache::updateConfCacheWithTrie(const ConfPathTrie& trie, bool overwrite) {
  BaseConfCacheBuilder builder(_stanzas, _setup, _confName, _contextApplication, overwrite);
  builder.build(trie);
}

ScopedIConfCacheLock::ScopedIConfCacheLock(IConfCache& cache) : _lock(cache.getConfCacheMutex()) {
  cache.updateIfDirty();
}
