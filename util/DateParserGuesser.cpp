#include "util/DateParserGuesser.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "util/Logger.h"
#include "util/SaturatingMath.h"
#include "util/TimeFormatRawParseResult.h"

namespace {

// The parser's two channels: its verbose one suppresses repeats, the setup
// one does not.
Logger gVerboseLogger("DateParserVerbose", true, 300, 10);
Logger gSetupLogger("DateParser", false, 60, 100);

constexpr int32_t SECONDS_PER_DAY = 86400;
constexpr int32_t NO_HOUR_KEY = -1;

long floorDiv(long a, long b) {
  const long q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

}  // namespace

bool DateParserGuesser::guessTimezone(const char* name, TimezoneGuessResult* result) {
  if (name == nullptr) {
    if (_haveOverride) {
      *result = _overrideZone;
      return true;
    }
    return TimeGuesser::guessTimezone(nullptr, result);
  }
  if (std::strcmp(name, _lastZoneName) == 0) {
    ++_nameCacheHits;
    *result = _lastZone;
    return true;
  }
  if (!TimeGuesser::guessTimezone(name, result)) {
    if (!_haveOverride) return false;
    *result = _overrideZone;
    return true;
  }
  const size_t len = std::strlen(name);
  if (len <= MAX_CACHED_NAME) {
    std::memcpy(_lastZoneName, name, len + 1);
    _lastZone = *result;
  }
  _lastHourKey = NO_HOUR_KEY;
  return true;
}

bool DateParserGuesser::convertToGmt(const TimezoneGuessResult* zone, long* time) {
  if (zone->isConstant || zone->zone == nullptr) return zone->convertToGmt(time);
  const long local = *time;
  // Floor division, so that each key is one hour of local time; -1 doubles
  // as "empty", and that one hour is simply never cached.
  const long key = floorDiv(local, 3600);
  if (key == _lastHourKey && key != NO_HOUR_KEY && zone->zone == _lastHourZone) {
    ++_hourCacheHits;
    *time = saturatingAdd(local, _lastHourDelta);
    return true;
  }
  if (!zone->convertToGmt(time)) {
    _lastHourKey = NO_HOUR_KEY;
    return false;
  }
  if (key >= INT32_MIN && key <= INT32_MAX) {
    _lastHourKey = static_cast<int32_t>(key);
    _lastHourDelta = *time - local;
    _lastHourZone = zone->zone;
  } else {
    _lastHourKey = NO_HOUR_KEY;
  }
  return true;
}

bool DateParserGuesser::guessDate(TimeFormatRawParseResult* raw,
                                  const TimezoneGuessResult* zone) {
  using R = TimeFormatRawParseResult;
  if (sourceYear == -1) return TimeGuesser::guessDate(raw, zone);
  raw->year = sourceYear;
  raw->month = sourceMonth;
  raw->mday = sourceDay;
  raw->have |= R::HAVE_YEAR | R::HAVE_MONTH | R::HAVE_MDAY;
  if (!raw->has(R::HAVE_MINUTE)) return false;
  int32_t hour;
  if (raw->has(R::HAVE_HOUR24)) {
    hour = raw->hour24;
  } else if (raw->has(R::HAVE_HOUR12 | R::HAVE_AMPM)) {
    hour = raw->hour12 + (raw->pm ? 12 : 0);
  } else {
    return false;
  }
  // An hour that falls back further than the stream allows means the file
  // went on past midnight.
  if (hour < sourceHour && static_cast<int64_t>(maxDiffSecsAgo) <
                               static_cast<int64_t>(sourceHour - hour) * 3600) {
    raw->incrementDay();
    sourceYear = raw->year;
    sourceMonth = raw->month;
    sourceDay = raw->mday;
  }
  sourceHour = hour;
  return true;
}

time_t DateParserGuesser::current() { return previous.tv_sec != 0 ? previous.tv_sec : now.tv_sec; }

bool DateParserGuesser::hasExistingDateContext() const { return previous.tv_sec != 0; }

void DateParserGuesser::setMinMaxDays(int ago, int hence) {
  now = Timeval::now();
  // Only the upper bound is the rule; the lower one keeps the product in
  // range, and a negative window stands as given (it accepts nothing).
  ago = std::clamp(ago, -MAX_WINDOW_DAYS, MAX_WINDOW_DAYS);
  hence = std::clamp(hence, -MAX_WINDOW_DAYS, MAX_WINDOW_DAYS);
  gVerboseLogger.info("Setting maxDaysAgo=%d and maxDaysHence=%d", ago, hence);
  _maxAgoSecs = ago * SECONDS_PER_DAY;
  _maxHenceSecs = hence * SECONDS_PER_DAY;
}

bool DateParserGuesser::setTZ(const Str& name) {
  _haveOverride = TimeGuesser::guessTimezone(name.c_str(), &_overrideZone);
  if (_haveOverride) {
    gSetupLogger.info("Set timezone to: %s", name.c_str());
  } else {
    gSetupLogger.warn("Invalid TZ string: %s", name.c_str());
  }
  return _haveOverride;
}

bool DateParserGuesser::withinDateWindow(const Timeval& time) const {
  Timeval edge = time;
  if (time < now) {
    edge.addSec(static_cast<unsigned int>(_maxAgoSecs));
    return now <= edge;
  }
  edge.subtractSec(static_cast<unsigned int>(_maxHenceSecs));
  return edge <= now;
}
