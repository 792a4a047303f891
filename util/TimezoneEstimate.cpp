// estimatedTzVariable: a POSIX TZ text read back out of a zone's table, for
// zones whose source name is unknown (a zone resurrected from a record).
#include <climits>
#include <cstring>

#include "util/DateTime.h"
#include "util/Timezone.h"

namespace {

constexpr long SECONDS_PER_YEAR_AND_A_DAY = 366L * 86400;

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Offsets from a serialized record may be anything; their text saturates.
long negated(long v) { return v == LONG_MIN ? LONG_MAX : -v; }
unsigned long magnitude(long v) { return v < 0 ? 0UL - static_cast<unsigned long>(v) : v; }

// The abbreviation as a POSIX name: bare when it is three letters or more,
// else in angle brackets, and made up from the offset when nothing of it
// is usable ("<+0530>").
void appendName(Str& out, const char* abbrev, long gmtoff) {
  bool letters = std::strlen(abbrev) >= 3;
  Str quoted;
  for (const char* p = abbrev; *p != '\0'; ++p) {
    letters = letters && isLetter(*p);
    if (isLetter(*p) || isDigit(*p) || *p == '+' || *p == '-') quoted.push_back(*p);
  }
  if (letters) {
    out += abbrev;
    return;
  }
  if (quoted.empty()) {
    const unsigned long a = magnitude(gmtoff);
    quoted.format("%c%02lu%02lu", gmtoff < 0 ? '-' : '+', a / 3600 % 100, a / 60 % 60);
  }
  out += "<" + quoted + ">";
}

// Hours with minutes and seconds only as needed: "5", "-5:30", "0:00:15".
void appendClock(Str& out, long seconds) {
  if (seconds < 0) out.push_back('-');
  const unsigned long a = magnitude(seconds);
  out.appendFormat("%lu", a / 3600);
  if (a % 3600 != 0) out.appendFormat(":%02lu", a / 60 % 60);
  if (a % 60 != 0) out.appendFormat(":%02lu", a % 60);
}

// The transition at `utc` as "Mm.w.d[/time]", read on the clock that was in
// force before it.
void appendEndpoint(Str& out, long utc, long offsetBefore) {
  StructTm local;
  long wall;
  if (__builtin_add_overflow(utc, offsetBefore, &wall) || !local.GMT_fromUnixTime(wall)) return;
  const int* days = local.isLeapYear() ? StructTm::DAYS_IN_MONTH_LEAP : StructTm::DAYS_IN_MONTH;
  const int week = local.tm_mday + 7 > days[local.tm_mon] ? 5 : (local.tm_mday - 1) / 7 + 1;
  out.appendFormat(",M%d.%d.%d", local.tm_mon + 1, week, local.tm_wday);
  const long clock = local.tm_hour * 3600L + local.tm_min * 60L + local.tm_sec;
  if (clock != 7200) {
    out.push_back('/');
    appendClock(out, clock);
  }
}

}  // namespace

Str Timezone::estimatedTzVariable(long t) const {
  const unsigned long at = searchAt(t);
  const TimezoneOffset* current = typeAt(at);
  // The first change into daylight time and the first out of it within a
  // year after `t`.
  long toDst = 0, toStd = 0;
  const TimezoneOffset* dstType = nullptr;
  const TimezoneOffset* stdType = nullptr;
  const long horizon = t > LONG_MAX - SECONDS_PER_YEAR_AND_A_DAY ? LONG_MAX : t + SECONDS_PER_YEAR_AND_A_DAY;
  for (unsigned long i = at + 1; i < _timecnt && _times[i] <= horizon; ++i) {
    const TimezoneOffset* before = typeAt(i - 1);
    const TimezoneOffset* after = typeAt(i);
    if (after->isdst == before->isdst) continue;
    if (after->isdst && dstType == nullptr) {
      dstType = after;
      toDst = _times[i];
    } else if (!after->isdst && stdType == nullptr) {
      stdType = after;
      toStd = _times[i];
    }
  }
  Str out;
  if (dstType == nullptr || stdType == nullptr) {
    appendName(out, abbreviation(current), current->gmtoff);
    appendClock(out, negated(current->gmtoff));
    return out;
  }
  appendName(out, abbreviation(stdType), stdType->gmtoff);
  appendClock(out, negated(stdType->gmtoff));
  appendName(out, abbreviation(dstType), dstType->gmtoff);
  long hourBehind;
  if (__builtin_sub_overflow(dstType->gmtoff, 3600, &hourBehind) || hourBehind != stdType->gmtoff) {
    appendClock(out, negated(dstType->gmtoff));
  }
  appendEndpoint(out, toDst, stdType->gmtoff);
  appendEndpoint(out, toStd, dstType->gmtoff);
  return out;
}
