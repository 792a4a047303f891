// FixedConfCache: a configuration cache whose stanzas a test or benchmark
// sets directly, so that the layering above it can be exercised without a
// configuration store on disk. Test code only.
#pragma once

#include <map>

#include "libbundle/BaseConfCache.h"
#include "libbundle/BundlesSetup.h"
#include "libbundle/PropertiesMap.h"

// One owner; as BaseConfCache otherwise. Its root is a directory that does
// not exist, so no mapper is ever polled.
class FixedConfCache : public BaseConfCache {
 public:
  explicit FixedConfCache(const Str& name = "props")
      : BaseConfCache(name, BundlesSetup(Pathname("/nonexistent/kestro-fixed-conf-cache"))) {}

  // The stanzas the next rebuild copies in; marks the cache dirty.
  void set(const std::map<Str, PropertiesMap>& stanzas) {
    _source = stanzas;
    markDirty();
  }
  void updateConfCache() override {
    ++rebuilds;
    _stanzas.clear();
    for (const auto& [name, map] : _source) static_cast<PropertiesMap&>(_stanzas[name]) = map;
  }
  bool findDeletableConf(unsigned, ConfPathTrie&) override { return false; }

  int rebuilds = 0;

 private:
  std::map<Str, PropertiesMap> _source;
};
