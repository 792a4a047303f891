// A process-wide list of named callbacks that report metrics on demand,
// for components that keep counters (queues) and a reporter that reads
// them.
#pragma once

#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "util/Mutex.h"
#include "util/Str.h"

// One report: a group name ("queue:parsing") and its values in the order
// they were added.
struct metric {
  Str name;
  std::vector<std::pair<Str, Str>> values;

  void add(const char* key, const Str& value) { values.emplace_back(key, value); }
  void add(const char* key, uint64_t value) { values.emplace_back(key, std::to_string(value)); }
  // The value under `key`, or null.
  const Str* find(const char* key) const;
};

// Thread story: safe from any thread. Callbacks run under the registry's
// lock, so that once unregisterCallback returns the callback is not running
// and never runs again. Hence a callback may take its owner's lock, and the
// owner must not hold that lock while it registers or unregisters.
class MetricsRegistry {
 public:
  typedef std::function<void(metric*)> Callback;

  static MetricsRegistry& instance();

  // Registers `cb` under `name`, replacing any earlier one of that name.
  void registerCallback(const Str& name, Callback cb);
  // False when nothing was registered under `name`.
  bool unregisterCallback(const Str& name);
  bool isRegistered(const Str& name);
  // Runs every callback, in name order, each into a fresh metric named
  // after it.
  std::vector<metric> collect();

 private:
  Mutex _mutex;
  std::map<Str, Callback> _callbacks;  // guarded by _mutex
};
