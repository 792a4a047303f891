#include "util/TimeGuesser.h"

#include <climits>
#include <cstring>

#include "util/DateTime.h"
#include "util/SaturatingMath.h"
#include "util/TimeFormat.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/Timeval.h"
#include "util/Timezone.h"
#include "util/TimezoneCache.h"
#include "util/TimezoneTables.h"

namespace {

constexpr long SECONDS_PER_DAY = 86400;
constexpr long HALF_DAY = 43200;
// How far ahead of the clock a dateless time may lie and still be today's.
constexpr long TODAY_ALLOWANCE = 3 * 3600;
// The same for a 12-hour time without AM or PM, within its half day.
constexpr long HALF_DAY_ALLOWANCE = 5400;
// How many days a date may stray from today before it changes year.
constexpr int NEW_YEAR_SLACK_DAYS = 3;
// The past weighs this much more than the future when two readings compete.
constexpr __int128 PAST_WEIGHT = 8;
// Abbreviations are at most this long; longer names are looked up whole.
constexpr size_t MAX_ABBREVIATION = 7;

// The weighted distance of `x` from `now`.
__int128 distanceFromNow(long x, long now) {
  const __int128 diff = static_cast<__int128>(x) - now;
  return diff >= 0 ? diff : -diff * PAST_WEIGHT;
}

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

char asciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// The date of the local time `local`, read as GMT, into the raw result; the
// flags are set whatever the fields held before.
bool storeDateOf(long local, TimeFormatRawParseResult* raw) {
  GmtStructTm tm;
  if (!tm.fromUnixTime(local)) return false;
  raw->year = tm.tm_year + 1900;
  raw->month = tm.tm_mon;
  raw->mday = tm.tm_mday;
  raw->have |= TimeFormatRawParseResult::HAVE_YEAR | TimeFormatRawParseResult::HAVE_MONTH |
               TimeFormatRawParseResult::HAVE_MDAY;
  return true;
}

// Steps 6 and 7 of the name lookup: the description table, then the cache.
bool guessByDescriptionOrZoneName(const char* name, TimezoneGuessResult* result) {
  if (const TimezoneDescription* row = findTimezoneDescription(name)) {
    result->setConstant(row->gmtoff);
    return true;
  }
  return result->set(getTimezone(name, true));
}

}  // namespace

bool TimezoneGuessResult::set(const Timezone* z) {
  if (z == nullptr) {
    isConstant = false;
    zone = nullptr;
    return false;
  }
  if (z->hasConstantOffset()) {
    setConstant(z->constantOffset());
  } else {
    isConstant = false;
    zone = z;
  }
  return true;
}

bool TimezoneGuessResult::convertToGmt(long* time) const {
  if (isConstant) {
    *time = saturatingSub(*time, offset);
    return true;
  }
  if (zone == nullptr) return true;
  reverse_search_result_type_t kind;
  const unsigned long i = zone->reverseSearchAt(*time, &kind);
  *time = saturatingSub(*time, zone->typeAt(i)->gmtoff);
  return kind != MIGHT_ALSO_BE_NEXT_INDEX;
}

long TimezoneGuessResult::convertFromGmt(long time) const {
  if (isConstant) return saturatingAdd(time, offset);
  if (zone == nullptr) return time;
  return saturatingAdd(time, zone->typeAt(zone->searchAt(time))->gmtoff);
}

TimeGuesser::~TimeGuesser() = default;

bool TimeGuesser::guessTimezone(const char* name, TimezoneGuessResult* result) {
  if (name == nullptr) return result->set(baseTimezone());
  // "GMT-0700" is an offset; "GMT" alone is the abbreviation.
  const char* p = name;
  if (std::strncmp(p, "GMT", 3) == 0 && p[3] != '\0') p += 3;
  if (*p == '+' || *p == '-') {
    const char* end = p + std::strlen(p);
    long seconds;
    if (TimeFormat::parseTzOffset(p, end, &seconds) == end) {
      result->setConstant(seconds);
      return true;
    }
    return guessByDescriptionOrZoneName(name, result);
  }
  char upper[MAX_ABBREVIATION + 1];
  size_t n = 0;
  for (; p[n] != '\0'; ++n) {
    if (!isAsciiLetter(p[n]) || n == MAX_ABBREVIATION) {
      return guessByDescriptionOrZoneName(name, result);
    }
    upper[n] = asciiUpper(p[n]);
  }
  if (n == 0) return result->set(baseTimezone());
  upper[n] = '\0';
  if (const TimezoneAbbreviation* row = findTimezoneAbbreviation(upper)) {
    result->setConstant(row->gmtoff);
    return true;
  }
  return guessByDescriptionOrZoneName(name, result);
}

bool TimeGuesser::convertToGmt(const TimezoneGuessResult* zone, long* time) {
  return zone->convertToGmt(time);
}

bool TimeGuesser::guessYear(TimeFormatRawParseResult* raw) {
  GmtStructTm today;
  if (!today.fromUnixTime(current())) return false;
  long year = today.tm_year + 1900L;
  const bool context = hasExistingDateContext();
  if (raw->month == 1 && raw->mday == 29) {
    while (!StructTm::isLeapYear(year)) year += context ? 1 : -1;
  } else if (raw->month == 0 && raw->mday == 1 && today.tm_mon == 11 && today.tm_mday == 31) {
    ++year;
  } else if (raw->month == 11 && raw->mday == 31 && today.tm_mon == 0 && today.tm_mday == 1) {
    --year;
  } else if (raw->month >= 0 && raw->month < 12) {
    const int day = StructTm::CUMULATIVE_DAYS[raw->month] + raw->mday - 1;
    if (context && day < today.tm_yday - NEW_YEAR_SLACK_DAYS) {
      ++year;
    } else if (!context && day > today.tm_yday + NEW_YEAR_SLACK_DAYS) {
      --year;
    }
  }
  raw->storeYear(static_cast<int32_t>(year));
  return true;
}

bool TimeGuesser::guessDate(TimeFormatRawParseResult* raw, const TimezoneGuessResult* zone) {
  using R = TimeFormatRawParseResult;
  if (!raw->has(R::HAVE_MINUTE)) return false;
  long t = zone->convertFromGmt(current());
  long s = floorMod(t, SECONDS_PER_DAY);
  const long m = raw->minute * 60L + (raw->has(R::HAVE_SECOND) ? raw->second : 0);

  if (raw->has(R::HAVE_HOUR12) && !raw->has(R::HAVE_AMPM)) {
    s %= HALF_DAY;
    if (s + HALF_DAY_ALLOWANCE < m + raw->hour12 * 3600L) t = saturatingSub(t, HALF_DAY);
    if (floorMod(t, SECONDS_PER_DAY) >= HALF_DAY) raw->hour12 += 12;
    return storeDateOf(t, raw);
  }
  long hour;
  if (raw->has(R::HAVE_HOUR24)) {
    hour = raw->hour24;
  } else if (raw->has(R::HAVE_HOUR12 | R::HAVE_AMPM)) {
    hour = raw->hour12 + (raw->pm ? 12 : 0);
  } else {
    return false;
  }
  if (s + TODAY_ALLOWANCE < m + hour * 3600) t = saturatingSub(t, SECONDS_PER_DAY);
  return storeDateOf(t, raw);
}

bool TimeGuesser::ambigiousDst(long time) {
  const long now = current();
  return distanceFromNow(saturatingAdd(time, 3600), now) < distanceFromNow(time, now);
}

bool TimeGuesser::usePmInstead(long time) {
  const long now = current();
  return distanceFromNow(saturatingAdd(time, HALF_DAY), now) < distanceFromNow(time, now);
}

int TimeGuesser::expandShortYear(unsigned int shortYear) {
  const long year = 2000L + shortYear;
  return static_cast<int>(year > 2068 ? year - 100 : year);
}

time_t TimeGuesser::current() { return Timeval::now().tv_sec; }

bool TimeGuesser::hasExistingDateContext() const { return false; }

const Timezone* TimeGuesser::baseTimezone() { return getDefaultTimezone(); }

TimeGuesser* TimeGuesser::basic() {
  static TimeGuesser instance;
  return &instance;
}

const Timezone* OnlyOverrideTimezoneTimeGuesser::baseTimezone() {
  return _zone != nullptr ? _zone : getDefaultTimezone();
}
