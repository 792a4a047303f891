#include "libbundle/BaseConfCache.h"

#include "libbundle/StanzaPattern.h"

namespace {

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

BaseConfCache::BaseConfCache(const Str& confName)
    : _confName(confName), _pageFlag(confName != "props") {}

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

ScopedIConfCacheLock::ScopedIConfCacheLock(IConfCache& cache) : _lock(cache.getConfCacheMutex()) {
  cache.updateIfDirty();
}
