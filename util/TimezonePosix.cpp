// POSIX TZ rules: their endpoints, the yearly table they unfold into, and the
// "posixrules" file that supplies dates to a rule that names none.
#include <climits>
#include <cstring>

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/SaturatingMath.h"
#include "util/Timezone.h"

namespace {

// A zone or daylight name longer than this is not a rule anyone meant.
constexpr size_t MAX_POSIX_NAME = 255;
constexpr long SECONDS_PER_DAY = 86400;
constexpr int MAX_OFFSET_HOURS = 23;
constexpr int MAX_ENDPOINT_HOURS = 167;

int floorMod7(long a) { return static_cast<int>(((a % 7) + 7) % 7); }

bool isAsciiLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Days from 1970-01-01 to January 1 of `year`. REQUIRES: year >= 1970.
long daysBeforeYear(long year) {
  const long y = year - 1;
  return 365 * (year - 1970) + (y / 4 - y / 100 + y / 400) - (1969 / 4 - 1969 / 100 + 1969 / 400);
}

// Digits at `p` as a number from `lo` to `hi`; null when there are none or
// the value leaves the range.
const char* parseNumber(const char* p, long lo, long hi, long* out) {
  if (!isDigit(*p)) return nullptr;
  long v = 0;
  for (; isDigit(*p); ++p) {
    v = v * 10 + (*p - '0');
    if (v > hi) return nullptr;
  }
  if (v < lo) return nullptr;
  *out = v;
  return p;
}

// [+-]hh[:mm[:ss]] with hours up to `maxHours`, as signed seconds.
const char* parseClock(const char* p, long maxHours, long* seconds) {
  long sign = 1;
  if (*p == '+' || *p == '-') sign = *p++ == '-' ? -1 : 1;
  long h = 0, m = 0, s = 0;
  p = parseNumber(p, 0, maxHours, &h);
  if (p != nullptr && *p == ':') {
    p = parseNumber(p + 1, 0, 59, &m);
    if (p != nullptr && *p == ':') p = parseNumber(p + 1, 0, 59, &s);
  }
  if (p != nullptr) *seconds = sign * (h * 3600 + m * 60 + s);
  return p;
}

// "<+0530>" or letters.
const char* parseName(const char* p, Str* out) {
  const char* start = p;
  if (*p == '<') {
    for (++start, ++p; isAsciiLetter(*p) || isDigit(*p) || *p == '+' || *p == '-';) ++p;
    if (*p != '>' || p == start || static_cast<size_t>(p - start) > MAX_POSIX_NAME) return nullptr;
    out->assign(start, p);
    return p + 1;
  }
  while (isAsciiLetter(*p)) ++p;
  if (p == start || static_cast<size_t>(p - start) > MAX_POSIX_NAME) return nullptr;
  out->assign(start, p);
  return p;
}

DstEndpoint monthWeekDay(int month, int week, int weekday) {
  DstEndpoint e;
  e._type = DstEndpoint::MONTH_WEEK_DAY;
  e.month = month - 1;
  e.week = (week - 1) * 7;
  e.day = weekday - 11;
  e.time = 7200;
  return e;
}

}  // namespace

int DstEndpoint::parsePosix(const char* text) {
  const char* p = text;
  long a = 0, b = 0, c = 0;
  month = 0;
  week = 0;
  time = 7200;
  if (*p == 'J') {
    p = parseNumber(p + 1, 1, 365, &a);
    if (p == nullptr) return -1;
    _type = JULIAN_SKIPPING_LEAP_DAY;
    day = static_cast<int>(a) - 1;
  } else if (*p == 'M') {
    p = parseNumber(p + 1, 1, 12, &a);
    if (p == nullptr || *p != '.') return -1;
    p = parseNumber(p + 1, 1, 5, &b);
    if (p == nullptr || *p != '.') return -1;
    p = parseNumber(p + 1, 0, 6, &c);
    if (p == nullptr) return -1;
    *this = monthWeekDay(static_cast<int>(a), static_cast<int>(b), static_cast<int>(c));
  } else {
    p = parseNumber(p, 0, 365, &a);
    if (p == nullptr) return -1;
    _type = DOY;
    day = static_cast<int>(a);
  }
  if (*p == '/') {
    long seconds = 0;
    p = parseClock(p + 1, MAX_ENDPOINT_HOURS, &seconds);
    if (p == nullptr) return -1;
    time = seconds;
  }
  return static_cast<int>(p - text);
}

long DstEndpoint::secondsFromJanuary(long year) const {
  const bool leap = StructTm::isLeapYear(year);
  long yday = day;
  if (_type == JULIAN_SKIPPING_LEAP_DAY) {
    // Day 59 is March 1 whether or not February had 29 days.
    if (leap && day > 58) ++yday;
  } else if (_type == DOY) {
    if (!leap && day == 365) yday = 364;
  } else {
    kassert(month >= 0 && month <= 11);
    const long monthStart = StructTm::CUMULATIVE_DAYS[month] + (leap && month > 1 ? 1 : 0);
    const int firstWeekday = floorMod7(StructTm::weekdayOfJanuaryFirst(year) + monthStart);
    // `day` holds the weekday less 11, which the modulo absorbs.
    yday = monthStart + floorMod7(day + 11 - firstWeekday) + week;
    const int* days = leap ? StructTm::DAYS_IN_MONTH_LEAP : StructTm::DAYS_IN_MONTH;
    if (yday >= monthStart + days[month]) yday -= 7;
  }
  return yday * SECONDS_PER_DAY + time;
}

bool Timezone::setToStaticDst(const char* std, const char* dst, long stdWest, long dstWest,
                              const DstEndpoint& startEndpoint, const DstEndpoint& endEndpoint) {
  internal_reset();
  internal_addType(saturatingAdd(0, -stdWest), false, TimezoneOffset::KIND_WALL, std, SIZE_MAX);
  internal_addType(saturatingAdd(0, -dstWest), true, TimezoneOffset::KIND_WALL, dst, SIZE_MAX);
  for (long year = 1970; _timecnt < MAX_TRANSITIONS; ++year) {
    const long base = daysBeforeYear(year) * SECONDS_PER_DAY;
    const long start =
        saturatingAdd(saturatingAdd(base, startEndpoint.secondsFromJanuary(year)), stdWest);
    const long end = saturatingAdd(saturatingAdd(base, endEndpoint.secondsFromJanuary(year)), dstWest);
    const bool startFirst = start <= end;
    _times[_timecnt] = startFirst ? start : end;
    _typeIndex[_timecnt++] = startFirst ? 1 : 0;
    _times[_timecnt] = startFirst ? end : start;
    _typeIndex[_timecnt++] = startFirst ? 0 : 1;
  }
  internal_finishLoad();
  return true;
}

bool Timezone::fromPosixString(const char* text) { return internal_fromPosixString(text, true); }

bool Timezone::internal_fromPosixString(const char* text, bool allowPosixRules) {
  internal_reset();
  if (text == nullptr) return false;
  Str std, dst;
  long stdWest = 0;
  const char* p = parseName(text, &std);
  if (p != nullptr) p = parseClock(p, MAX_OFFSET_HOURS, &stdWest);
  if (p == nullptr) return false;
  if (*p == '\0') return setToConstantOffset(std.c_str(), stdWest);

  p = parseName(p, &dst);
  if (p == nullptr) return false;
  long dstWest = stdWest - 3600;
  if (*p != '\0' && *p != ',' && *p != ';') {
    p = parseClock(p, MAX_OFFSET_HOURS, &dstWest);
    if (p == nullptr) return false;
  }
  if (*p == '\0') {
    if (allowPosixRules && internal_fromPosixRules(std.c_str(), dst.c_str(), stdWest, dstWest)) {
      return true;
    }
    return setToStaticDst(std.c_str(), dst.c_str(), stdWest, dstWest, monthWeekDay(3, 2, 0),
                          monthWeekDay(11, 1, 0));
  }
  if (*p != ',' && *p != ';') return false;
  DstEndpoint start, end;
  int n = start.parsePosix(p + 1);
  if (n < 0) return false;
  p += 1 + n;
  if (*p != ',') return false;
  n = end.parsePosix(p + 1);
  if (n < 0 || p[1 + n] != '\0') return false;
  return setToStaticDst(std.c_str(), dst.c_str(), stdWest, dstWest, start, end);
}

bool Timezone::internal_fromPosixRules(const char* std, const char* dst, long stdWest,
                                       long dstWest) {
  Timezone rules;
  if (!rules.fromZoneinfoPath("posixrules", true)) return false;
  if (rules._typecnt < 2 || rules._timecnt == 0) return false;

  // The rules file's own offsets, from its latest transitions of each kind.
  bool haveStd = false, haveDst = false;
  long ruleStd = rules.typeAt(rules._timecnt - 1)->gmtoff, ruleDst = ruleStd;
  for (unsigned long i = rules._timecnt; i-- > 0 && !(haveStd && haveDst);) {
    const TimezoneOffset* t = rules.typeAt(i);
    if (!t->isdst && !haveStd) ruleStd = t->gmtoff, haveStd = true;
    if (t->isdst && !haveDst) ruleDst = t->gmtoff, haveDst = true;
  }
  if (!haveDst) ruleDst = ruleStd;

  internal_reset();
  const long newStd = saturatingAdd(0, -stdWest);
  const long newDst = saturatingAdd(0, -dstWest);
  internal_addType(newStd, false, TimezoneOffset::KIND_WALL, std, SIZE_MAX);
  internal_addType(newDst, true, TimezoneOffset::KIND_WALL, dst, SIZE_MAX);
  // A transition keeps its local clock time: the wall clock it was stated
  // in is the standard one, or whichever was in force before it.
  bool dstBefore = false;
  for (uint32_t i = 0; i < rules._timecnt; ++i) {
    const TimezoneOffset* t = rules.typeAt(i);
    long shift = 0;
    if (t->kind == TimezoneOffset::KIND_STANDARD || (t->kind == TimezoneOffset::KIND_WALL && !dstBefore)) {
      shift = ruleStd - newStd;
    } else if (t->kind == TimezoneOffset::KIND_WALL) {
      shift = ruleDst - newDst;
    }
    _times[i] = saturatingAdd(rules._times[i], shift);
    _typeIndex[i] = t->isdst ? 1 : 0;
    dstBefore = t->isdst;
  }
  _timecnt = rules._timecnt;
  internal_finishLoad();
  return true;
}
