#include "util/TimezoneCache.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "util/Assert.h"
#include "util/Mutex.h"
#include "util/Timezone.h"
#include "util/TimezoneTables.h"

namespace {

// Past this many, the bad names are forgotten rather than kept growing.
constexpr size_t MAX_BAD_NAMES = 2048;

bool loadFromPathOrPosix(Timezone* zone, const char* name) { return zone->fromPathOrPosix(name); }

struct TimezoneCacheState {
  Mutex mutex;
  std::unordered_map<std::string, const Timezone*> zones;  // guarded by mutex
  std::vector<std::unique_ptr<Timezone>> owned;            // guarded by mutex
  std::unordered_set<std::string> badNames;                // guarded by mutex
  TimezoneLoadFunction load = &loadFromPathOrPosix;        // guarded by mutex
  // Every zoneinfo directory ever set, so that a reader never holds one
  // that was freed. Guarded by mutex.
  std::vector<std::unique_ptr<const Pathname>> directories;
};

// Never destroyed: zones are handed out for the life of the process, also
// to code that runs during static destruction.
TimezoneCacheState& cacheState() {
  static TimezoneCacheState* state = new TimezoneCacheState;
  return *state;
}

// The directory set last. Changed under the mutex and read without it, since
// the loaders that run under the mutex need it too.
std::atomic<const Pathname*> gZoneinfoDirectory{nullptr};

std::atomic<const Timezone*> gDefaultTimezone{nullptr};

// REQUIRES: state.mutex held.
const Timezone* lookupLocked(TimezoneCacheState& state, const char* name, bool useAliases) {
  const auto found = state.zones.find(name);
  if (found != state.zones.end()) return found->second;
  if (state.badNames.count(name) != 0) return nullptr;
  if (useAliases) {
    const char* alias = mapSystemZoneName(name);
    if (alias != nullptr && std::strcmp(alias, name) != 0) {
      const Timezone* zone = lookupLocked(state, alias, false);
      if (zone != nullptr) state.zones.emplace(name, zone);
      return zone;
    }
  }
  auto zone = std::make_unique<Timezone>();
  if (!state.load(zone.get(), name)) {
    if (state.badNames.size() > MAX_BAD_NAMES) state.badNames.clear();
    state.badNames.emplace(name);
    return nullptr;
  }
  const Timezone* shared = zone.get();
  state.owned.push_back(std::move(zone));
  state.zones.emplace(name, shared);
  return shared;
}

}  // namespace

void setupTimezoneSupport(const Pathname& zoneinfoDir) {
  TimezoneCacheState& state = cacheState();
  {
    ScopedLock lock(state.mutex);
    const Pathname* current = gZoneinfoDirectory.load(std::memory_order_acquire);
    if (current == nullptr || *current != zoneinfoDir) {
      state.directories.push_back(std::make_unique<const Pathname>(zoneinfoDir));
      gZoneinfoDirectory.store(state.directories.back().get(), std::memory_order_release);
      state.badNames.clear();
    }
  }
  ::tzset();
  getDefaultTimezone();
}

void setupTimezoneSupport() { setupTimezoneSupport(Pathname()); }

Pathname getZoneinfoDirectory() {
  const Pathname* dir = gZoneinfoDirectory.load(std::memory_order_acquire);
  return dir != nullptr ? *dir : Pathname();
}

const Timezone* getDefaultTimezone() {
  const Timezone* zone = gDefaultTimezone.load(std::memory_order_acquire);
  if (zone != nullptr) return zone;
  // Two first callers may both get here; the cache gives them the same
  // zone unless TZ changes in between, and either answer is a fair one.
  const char* tz = std::getenv("TZ");
  zone = getTimezone(tz != nullptr && *tz != '\0' ? tz : "localtime", true);
  if (zone == nullptr) zone = getTimezone("GMT", false);
  if (zone == nullptr) zone = getTimezone("", false);
  const Timezone* expected = nullptr;
  if (!gDefaultTimezone.compare_exchange_strong(expected, zone, std::memory_order_acq_rel)) {
    return expected;
  }
  return zone;
}

const Timezone* getTimezone(const char* name, bool useAliases) {
  kassert(name != __null);
  TimezoneCacheState& state = cacheState();
  ScopedLock lock(state.mutex);
  return lookupLocked(state, name, useAliases);
}

TimezoneLoadFunction setTimezoneLoadFunction(TimezoneLoadFunction load) {
  TimezoneCacheState& state = cacheState();
  ScopedLock lock(state.mutex);
  const TimezoneLoadFunction previous = state.load;
  state.load = load != nullptr ? load : &loadFromPathOrPosix;
  return previous;
}

size_t getBadTimezoneNameCount() {
  TimezoneCacheState& state = cacheState();
  ScopedLock lock(state.mutex);
  return state.badNames.size();
}
