// The process's zones: the install's zoneinfo directory, the cache from
// which getTimezone hands out shared zones, and the default zone.
#pragma once

#include <cstddef>

#include "util/Pathname.h"

class Timezone;

// Thread safety: every function here may be called from any thread. One
// process-wide Mutex guards the name-to-zone map, the set of bad names and
// changes of the directory; the directory is read without it, from a copy
// that is never freed, because the loaders that run under the Mutex read it
// too. Zones, once in the map, are immutable and never freed, so callers
// read them without locks. The default zone is cached on its own.

// Sets the zoneinfo directory that named zones are looked up in (an empty
// path: none, only /usr/share/zoneinfo), calls the platform's tzset and
// fixes the default zone. A new directory also forgets the names that
// failed before; zones already handed out stay.
void setupTimezoneSupport(const Pathname& zoneinfoDir);
void setupTimezoneSupport();

// The directory set last, empty before setupTimezoneSupport.
Pathname getZoneinfoDirectory();

// The process's zone, decided on the first call and then kept for the life
// of the process: the environment's TZ if not empty, else "localtime", both
// by getTimezone(name, true); failing that "GMT" and then "" (which is
// always GMT). Never null.
const Timezone* getDefaultTimezone();

// The shared zone called `name`, or null. Names are remembered either way:
// a loaded zone is handed out again (the same pointer, to every thread) and
// a name that failed fails again without touching the disk, until more
// than 2048 names have failed and that memory starts afresh. With
// `useAliases`, a name that mapSystemZoneName maps ("Eastern Standard
// Time") is looked up by its zoneinfo name and then remembered under both.
// The zone lives to the end of the process. REQUIRES: name != nullptr.
const Timezone* getTimezone(const char* name, bool useAliases);

// Seam for tests: how getTimezone turns a name it has never seen into a
// zone (Timezone::fromPathOrPosix unless replaced). Returns the function
// replaced; null restores the real one. Called under the cache's mutex.
typedef bool (*TimezoneLoadFunction)(Timezone* zone, const char* name);
TimezoneLoadFunction setTimezoneLoadFunction(TimezoneLoadFunction load);

// How many names the cache currently knows to be bad.
size_t getBadTimezoneNameCount();
