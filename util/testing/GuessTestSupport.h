// Test code only: the zone set-up that the guesser tests share (the staged
// zoneinfo tree, GMT as the process's default zone) and a UTC instant
// written as a civil time.
#pragma once

#include <cstdlib>

#include "util/TimezoneCache.h"
#include "util/Timeval.h"
#include "util/testing/CivilTime.h"
#include "util/testing/TimezoneTestSupport.h"

// Points named zones at the staged tree and makes GMT the default zone, so
// no test depends on the machine's zone. False when the tree is missing.
inline bool useStagedZonesWithGmtDefault() {
  const Pathname dir = stagedZoneinfoDir();
  if (dir.empty()) return false;
  setenv("TZ", "GMT", 1);
  setupTimezoneSupport(dir);
  return true;
}

// The instant of a UTC civil time, month 1-12.
inline Timeval utcInstant(long year, int month, int day, int hour = 0, int minute = 0,
                          int second = 0) {
  return Timeval(civilUtc(year, month, day, hour, minute, second), 0);
}
