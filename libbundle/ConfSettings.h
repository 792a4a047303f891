// ConfSettings: the "pooling" stanza of a root's bootstrap file, which says
// whether the configuration is pooled (shared on a network file system by
// several processes), where, and how those processes poll and lock.
#pragma once

#include <memory>
#include <vector>

#include "libbundle/BundlesSetup.h"
#include "libbundle/IniFile.h"
#include "util/Pathname.h"
#include "util/Regex.h"

// Immutable once built; safe from any thread. forSetup hands out one per
// root, rebuilt when the bootstrap file changes.
class ConfSettings {
 public:
  // Defaults, when the stanza does not say.
  static constexpr unsigned long long DEFAULT_STAT_INTERVAL_MSEC = 5000;
  static constexpr unsigned long long DEFAULT_POLLING_INTERVAL_MSEC = 10000;
  static constexpr unsigned long long DEFAULT_LOCK_TIMEOUT_MSEC = 30000;

  // The bootstrap file of `setup`: getBootstrapConf(), or for a non-default
  // root without one, getFallbackBootstrapConf(). With neither: logs "No
  // bootstrap configuration available for: %s" and the settings are the
  // defaults (no pooling).
  explicit ConfSettings(const BundlesSetup& setup);
  // The settings of `setup`, read once per root and shared; forget()
  // drops them so that the next call reads the bootstrap file again.
  static std::shared_ptr<const ConfSettings> forSetup(const BundlesSetup& setup);
  static void forget(const BundlesSetup& setup);
  // The bootstrap ini read by the constructor (empty and not opened when
  // none was found).
  const IniFile& bootstrapIni() const { return _ini; }

  // "state = enabled" in "pooling", with "storage" non-empty.
  bool isPoolingEnabled() const { return _pooling; }
  // "storage", environment variables substituted; empty without pooling.
  const Pathname& getPoolingStorage() const { return _storage; }
  // "poll.interval.check", a time span, in milliseconds.
  unsigned long long getStatInterval() const { return _statInterval; }
  // "poll.interval.rebuild", a time span, in milliseconds.
  unsigned long long getPollingInterval() const { return _pollingInterval; }
  // "lock.timeout", a time span, in milliseconds.
  unsigned long long getLockTimeout() const { return _lockTimeout; }
  // "lock.logging", a boolean, false by default.
  bool shouldLogToSentinel() const { return _logToSentinel; }
  // False when `path` matches one of the "poll.blacklist.*" regexes (any
  // key beginning with that prefix; a regex that does not compile is
  // logged and ignored). Logs "Not watching blacklisted path for updates:
  // %s" or "Watching path for updates: %s" at debug level.
  bool shouldWatchPath(const Pathname& path) const;
  // getPooledStorageOrRoot() / `name` with pooling, else root / `name`.
  Pathname getPooledStorageSubdir(const Str& name) const;

 private:
  BundlesSetup _setup;
  IniFile _ini;
  bool _pooling = false;
  Pathname _storage;
  unsigned long long _statInterval = DEFAULT_STAT_INTERVAL_MSEC;
  unsigned long long _pollingInterval = DEFAULT_POLLING_INTERVAL_MSEC;
  unsigned long long _lockTimeout = DEFAULT_LOCK_TIMEOUT_MSEC;
  bool _logToSentinel = false;
  std::vector<std::unique_ptr<Regex>> _blacklist;
};
