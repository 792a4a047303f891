// Name tables for zones: Windows event-log zone names with their zoneinfo
// names, and the abbreviations and long descriptions that timestamp
// guessing reads as fixed offsets.
#pragma once

#include <cstddef>
#include <cstdint>

// Everything here is constant data and pure functions, safe from any thread.

// The zoneinfo name for a zone name of Windows event logs, or null. Static
// storage. Case matters.
//   "Eastern Standard Time", "Eastern Daylight Time"   "America/New_York"
//   "US Mountain Standard Time"                       "America/Phoenix"
//   "US Eastern Standard Time"                        "Etc/GMT+5"
//   "US Pacific Standard Time"                        "America/Los_Angeles"
//   "Greenwich Daylight Time"                         "Europe/London"
//   "Central Standard Time (Mexico)"                  "America/Mexico_City"
//   "Mexico Daylight Time 2"                          "America/Chihuahua"
//   "Tokyo"                                           "Asia/Tokyo"
//   "GMT", "Greenwich", "Nowhere Standard Time"       null
// REQUIRES: name != nullptr.
const char* mapSystemZoneName(const char* name);

// One row of the event-log table: a name as it stands there, without
// " Standard Time", and its zoneinfo name. Sorted by strcmp on systemName.
struct SystemZoneName {
  const char* systemName;
  const char* zoneinfoName;
};
inline constexpr size_t SYSTEM_ZONE_NAME_COUNT = 247;
extern const SystemZoneName SYSTEM_ZONE_NAMES[SYSTEM_ZONE_NAME_COUNT];

// A zone abbreviation, upper case, and its offset in seconds east of UTC.
struct TimezoneAbbreviation {
  const char* name;
  long gmtoff;
};
// Sorted by strcmp but for two rows: "EETDST" stands behind "EST" and "HKT"
// behind "HNY". A bisection therefore never finds those two, and that is how
// timestamp guessing has always read them.
inline constexpr size_t TIMEZONE_ABBREVIATION_COUNT = 78;
extern const TimezoneAbbreviation TIMEZONE_ABBREVIATIONS[TIMEZONE_ABBREVIATION_COUNT];

// Bisects the abbreviation table for `name` (already upper case): the row,
// or null. "EST" gives -18000; "EETDST", "HKT" and "est" give null.
const TimezoneAbbreviation* findTimezoneAbbreviation(const char* name);

// A long zone name as event logs write it ("Pacific Standard Time",
// "Coordinated Universal Time") with its offset east of UTC, and its key.
struct TimezoneDescription {
  uint32_t key;
  const char* name;
  long gmtoff;
};
// Sorted by key, ascending as unsigned numbers; no two keys are equal.
inline constexpr size_t TIMEZONE_DESCRIPTION_COUNT = 187;
extern const TimezoneDescription TIMEZONE_DESCRIPTIONS[TIMEZONE_DESCRIPTION_COUNT];

// The description key of `len` bytes at `name`: h starts at 0 and becomes
// h x 2 + byte for each byte, s sums the bytes, and the key is
// ((h + s) x 256) | len, all in unsigned 32-bit arithmetic.
uint32_t timezoneDescriptionKey(const char* name, size_t len);

// Bisects the description table by key and confirms the name with strcmp:
// the row, or null. "Eastern Daylight Time" gives -14400.
const TimezoneDescription* findTimezoneDescription(const char* name);
