// Timeval from a timestamp's text: the completion of a raw parse result by a
// TimeGuesser, and the parse overloads built on it.
#include <algorithm>
#include <climits>
#include <cstring>

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/SaturatingMath.h"
#include "util/Str.h"
#include "util/TimeFormat.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"

namespace {

using R = TimeFormatRawParseResult;

constexpr long HALF_DAY = 43200;

// The zone name of a raw result, which points into the parsed text, as a
// NUL-terminated copy: on the stack for every name a log is likely to give.
class ZoneName {
 public:
  explicit ZoneName(const StrSegment& name) {
    if (name.size() < sizeof _inline) {
      std::memcpy(_inline, name.data(), name.size());
      _inline[name.size()] = '\0';
      _text = _inline;
    } else {
      _long.assign(name.data(), name.size());
      _text = _long.c_str();
    }
  }
  const char* c_str() const { return _text; }

 private:
  char _inline[64];
  Str _long;
  const char* _text;
};

// Step 4 and 5: a complete, valid date in raw, guessed where it must be.
bool completeDate(R* raw, TimeGuesser* guesser, bool haveOffset, TimezoneGuessResult* zone) {
  const auto expandIfShort = [&](int32_t year) {
    return year >= 0 && year < 100 ? guesser->expandShortYear(static_cast<unsigned>(year)) : year;
  };
  if (raw->has(R::HAVE_YEAR)) {
    raw->year = expandIfShort(raw->year);
  } else if (raw->has(R::HAVE_SHORTYEAR)) {
    raw->year = raw->has(R::HAVE_CENTURY)
                    ? expandIfShort(raw->century * 100 + raw->shortYear)
                    : guesser->expandShortYear(static_cast<unsigned>(raw->shortYear));
    raw->have |= R::HAVE_YEAR;
  } else if (raw->has(R::HAVE_MONTH | R::HAVE_MDAY)) {
    if (!guesser->guessYear(raw)) return false;
  } else {
    // No date at all: the time of day is placed near the clock, in the
    // text's own offset when it gave one.
    if (haveOffset) zone->setConstant(raw->tzOffset);
    if (!guesser->guessDate(raw, zone)) return false;
    return raw->mdayValidForMonth();
  }
  if (raw->has(R::HAVE_MONTH | R::HAVE_MDAY)) return raw->mdayValidForMonth();
  if (!raw->has(R::HAVE_YDAY) && !raw->computeYdayFromYweek()) return false;
  return raw->computeMmddFromYday();
}

}  // namespace

bool Timeval::set(TimeFormatRawParseResult* raw, TimeGuesser* guesser,
                  ExtraTimevalParseInfo* extra) {
  kassert(guesser != nullptr);
  int64_t usec = raw->has(R::HAVE_SUBSEC) ? std::clamp<int64_t>(raw->subsecUsec, 0, 999999) : 0;
  if (extra != nullptr) {
    extra->subsecDigits = raw->has(R::HAVE_SUBSEC) ? raw->subsecDigits : 0;
    extra->timezoneKnown = true;
  }
  if (raw->has(R::HAVE_EPOCH)) {
    tv_sec = raw->epoch;
    tv_usec = usec;
    if (extra != nullptr) extra->fromGmtUnixtime(raw->epoch);
    return true;
  }

  const bool haveOffset = raw->has(R::HAVE_TZOFFSET);
  TimezoneGuessResult zone;
  if (!haveOffset) {
    bool found;
    if (raw->has(R::HAVE_TZNAM)) {
      const ZoneName name(raw->tzName);
      found = guesser->guessTimezone(name.c_str(), &zone);
    } else {
      found = guesser->guessTimezone(nullptr, &zone);
      if (extra != nullptr) extra->timezoneKnown = false;
    }
    if (!found) return false;
  }
  if (!completeDate(raw, guesser, haveOffset, &zone)) return false;

  // Time of day. A 12-hour time without AM or PM reads as the morning for
  // now; the afternoon is tried below.
  bool ampmGuessed = false;
  bool haveTime = true;
  int32_t hour = 0;
  if (raw->has(R::HAVE_HOUR12 | R::HAVE_MINUTE) && !raw->has(R::HAVE_HOUR24)) {
    ampmGuessed = !raw->has(R::HAVE_AMPM);
    hour = raw->hour12 + (raw->has(R::HAVE_AMPM) && raw->pm ? 12 : 0);
  } else if (raw->has(R::HAVE_HOUR24 | R::HAVE_MINUTE)) {
    hour = raw->hour24;
  } else {
    haveTime = false;
  }
  const int32_t minute = haveTime ? raw->minute : 0;
  const int32_t second = haveTime && raw->has(R::HAVE_SECOND) ? std::min(raw->second, 59) : 0;
  if (!haveTime) {
    usec = 0;
    if (extra != nullptr) extra->subsecDigits = -2;
  } else if (!raw->has(R::HAVE_SECOND)) {
    usec = 0;
    if (extra != nullptr) extra->subsecDigits = -1;
  }

  long local = saturatingAdd(raw->dayStartTime(), hour * 3600L + minute * 60L + second);
  long result;
  for (;;) {
    result = haveOffset ? saturatingSub(local, raw->tzOffset) : local;
    if (!haveOffset && !guesser->convertToGmt(&zone, &result)) {
      ++raw->conflicts;
      if (guesser->ambigiousDst(result)) result = saturatingAdd(result, 3600);
    }
    if (!ampmGuessed || !guesser->usePmInstead(result)) break;
    local = saturatingAdd(local, HALF_DAY);
    ampmGuessed = false;
  }

  if (extra != nullptr) {
    extra->tzOffset = haveOffset ? raw->tzOffset : saturatingSub(local, result);
    extra->year = raw->year;
    extra->month = raw->month;
    extra->mday = raw->mday;
    extra->wday = raw->has(R::HAVE_WDAY) ? raw->wday : raw->computedWday();
    extra->hour = hour;
    extra->minute = minute;
    extra->second = second;
  }
  tv_sec = result;
  tv_usec = usec;
  return true;
}

bool Timeval::set(TimeFormatRawParseResult* raw, ExtraTimevalParseInfo* extra) {
  return set(raw, TimeGuesser::basic(), extra);
}

long Timeval::parse(const TimeFormat& format, const char* text, unsigned long length,
                    TimeGuesser* guesser, ExtraTimevalParseInfo* extra,
                    unsigned int* conflicts) {
  if (text == nullptr) return -1;
  TimeFormatRawParseResult raw;
  const char* end = format.rawParse(&raw, text, text + length);
  const bool ok = end != nullptr && set(&raw, guesser, extra);
  if (conflicts != nullptr) *conflicts = raw.conflicts;
  return ok ? end - text : -1;
}

long Timeval::parse(const TimeFormat& format, const char* text, unsigned long length,
                    const Timezone* zone, ExtraTimevalParseInfo* extra,
                    unsigned int* conflicts) {
  OnlyOverrideTimezoneTimeGuesser guesser(zone);
  return parse(format, text, length, &guesser, extra, conflicts);
}

long Timeval::parse(const TimeFormat& format, const char* text, unsigned long length,
                    ExtraTimevalParseInfo* extra, unsigned int* conflicts) {
  return parse(format, text, length, TimeGuesser::basic(), extra, conflicts);
}

long Timeval::parse(const TimeFormat& format, const char* text, TimeGuesser* guesser,
                    ExtraTimevalParseInfo* extra, unsigned int* conflicts) {
  if (text == nullptr) return -1;
  return parse(format, text, std::strlen(text), guesser, extra, conflicts);
}

long Timeval::parse(const TimeFormat& format, const char* text, const Timezone* zone,
                    ExtraTimevalParseInfo* extra, unsigned int* conflicts) {
  OnlyOverrideTimezoneTimeGuesser guesser(zone);
  return parse(format, text, &guesser, extra, conflicts);
}

long Timeval::parse(const TimeFormat& format, const char* text, ExtraTimevalParseInfo* extra,
                    unsigned int* conflicts) {
  return parse(format, text, TimeGuesser::basic(), extra, conflicts);
}
