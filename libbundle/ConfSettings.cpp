#include "libbundle/ConfSettings.h"

#include <map>

#include "util/EnvironmentSubstitution.h"
#include "util/Logger.h"
#include "util/Mutex.h"
#include "util/TimeParser.h"

namespace {

Logger gLogger("ConfSettings");

const Str POOLING_STANZA("pooling");
const Str BLACKLIST_PREFIX("poll.blacklist.");

// The identity of the bootstrap file as stat sees it, so that a cached
// ConfSettings is rebuilt when the file is edited.
Str statKey(const Pathname& path) {
  PathnameStat st;
  if (!path.stat(&st)) return Str("-");
  return Str().format("%lld.%ld.%ld.%lu", static_cast<long long>(st.st.st_mtim.tv_sec),
                      static_cast<long>(st.st.st_mtim.tv_nsec), static_cast<long>(st.st.st_size),
                      static_cast<unsigned long>(st.st.st_ino));
}

struct Cached {
  Str key;
  std::shared_ptr<const ConfSettings> settings;
};

Mutex gCacheMutex;
std::map<BundlesSetup, Cached>& cache() {
  static auto* const m = new std::map<BundlesSetup, Cached>;
  return *m;
}

Pathname bootstrapPathOf(const BundlesSetup& setup) {
  const Pathname own = setup.getBootstrapConf();
  if (own.exists() || setup.isDefaultRoot()) return own;
  return BundlesSetup::getFallbackBootstrapConf();
}

}  // namespace

ConfSettings::ConfSettings(const BundlesSetup& setup) : _setup(setup) {
  const Pathname path = bootstrapPathOf(setup);
  if (!path.exists()) {
    gLogger.warn("No bootstrap configuration available for: %s", setup.getRoot().c_str());
    return;
  }
  _ini.fromPath(path);
  const IniStanza* pooling = _ini.findStanza(POOLING_STANZA);
  if (pooling == nullptr) return;
  std::map<Str, Str> values;
  for (auto it = pooling->settings().begin(); it != pooling->settings().end(); ++it) {
    values[it.key().trim()] = it.value().value().trim();
  }
  Str storage;
  substituteEnvironmentVariables(values["storage"], storage);
  _pooling = values["state"] == "enabled" && !storage.empty();
  if (_pooling) _storage = storage;
  unsigned long long msec = 0;
  if (TimeParser::timeSpanToMsec(values["poll.interval.check"], msec)) _statInterval = msec;
  if (TimeParser::timeSpanToMsec(values["poll.interval.rebuild"], msec)) _pollingInterval = msec;
  if (TimeParser::timeSpanToMsec(values["lock.timeout"], msec)) _lockTimeout = msec;
  _logToSentinel = values["lock.logging"].toBool(false, false);
  for (const auto& [key, value] : values) {
    if (!key.startswith(StrSegment(BLACKLIST_PREFIX)) || value.empty()) continue;
    try {
      _blacklist.push_back(std::make_unique<Regex>(value));
    } catch (const RegexException& e) {
      gLogger.error("Ignoring blacklist regex %s = %s: %s", key.c_str(), value.c_str(), e.what());
    }
  }
}

std::shared_ptr<const ConfSettings> ConfSettings::forSetup(const BundlesSetup& setup) {
  const Str key = statKey(bootstrapPathOf(setup));
  {
    ScopedLock lock(gCacheMutex);
    auto it = cache().find(setup);
    if (it != cache().end() && it->second.key == key) return it->second.settings;
  }
  auto fresh = std::make_shared<const ConfSettings>(setup);
  ScopedLock lock(gCacheMutex);
  cache()[setup] = Cached{key, fresh};
  return fresh;
}

void ConfSettings::forget(const BundlesSetup& setup) {
  ScopedLock lock(gCacheMutex);
  cache().erase(setup);
}

bool ConfSettings::shouldWatchPath(const Pathname& path) const {
  for (const auto& regex : _blacklist) {
    if (regex->matches(path)) {
      gLogger.debug("Not watching blacklisted path for updates: %s", path.c_str());
      return false;
    }
  }
  gLogger.debug("Watching path for updates: %s", path.c_str());
  return true;
}

Pathname ConfSettings::getPooledStorageSubdir(const Str& name) const {
  return _setup.getPooledStorageOrRoot() / name;
}
