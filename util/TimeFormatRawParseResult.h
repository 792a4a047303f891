// The raw record of what a timestamp parse saw: each field the text gave,
// flagged in `have`, before any guessing. TimeFormat::rawParse and the
// pattern path of the date parser fill it; Timeval::set completes it.
#pragma once

#include <cstdint>

#include "util/StrSegment.h"

// Every store goes through one rule: a field that is not yet flagged takes
// the value and its flag; a flagged field keeps its first value, and a
// different second value counts one in `conflicts`. Subseconds and the zone
// name are the two exceptions, each described at its setter.
//
// A plain value with no allocation: the zone name is a view into the parsed
// text, which the caller keeps alive. One owner at a time.
class TimeFormatRawParseResult {
 public:
  static constexpr uint32_t HAVE_EPOCH = 1u << 31;
  static constexpr uint32_t HAVE_TZOFFSET = 1u << 30;
  static constexpr uint32_t HAVE_TZNAM = 1u << 29;
  static constexpr uint32_t HAVE_YEAR = 1u << 28;
  static constexpr uint32_t HAVE_CENTURY = 1u << 27;
  static constexpr uint32_t HAVE_SHORTYEAR = 1u << 26;
  static constexpr uint32_t HAVE_MONTH = 1u << 25;
  static constexpr uint32_t HAVE_MDAY = 1u << 24;
  static constexpr uint32_t HAVE_HOUR24 = 1u << 23;
  static constexpr uint32_t HAVE_HOUR12 = 1u << 22;
  static constexpr uint32_t HAVE_AMPM = 1u << 21;
  static constexpr uint32_t HAVE_MINUTE = 1u << 20;
  static constexpr uint32_t HAVE_SECOND = 1u << 19;
  static constexpr uint32_t HAVE_SUBSEC = 1u << 18;
  static constexpr uint32_t HAVE_ISOYEAR = 1u << 7;
  static constexpr uint32_t HAVE_ISOSHORTYEAR = 1u << 6;
  static constexpr uint32_t HAVE_SUNDAYWEEK = 1u << 5;
  static constexpr uint32_t HAVE_MONDAYWEEK = 1u << 4;
  static constexpr uint32_t HAVE_ISOWEEK = 1u << 3;
  static constexpr uint32_t HAVE_MONTHWEEK = 1u << 2;
  static constexpr uint32_t HAVE_YDAY = 1u << 1;
  static constexpr uint32_t HAVE_WDAY = 1u << 0;

  uint32_t have = 0;
  uint32_t conflicts = 0;
  int64_t epoch = 0;      // seconds since 1970, signed
  int64_t tzOffset = 0;   // seconds east of UTC
  StrSegment tzName;      // points into the parsed text
  int32_t year = 0;       // full year
  int32_t century = 0;
  int32_t shortYear = 0;  // year within the century
  int32_t month = 0;      // 0 to 11
  int32_t mday = 0;       // 1 to 31
  int32_t hour24 = 0;
  int32_t hour12 = 0;     // 0 to 11; a written 12 is 0
  bool pm = false;        // with HAVE_AMPM: true for the afternoon
  int32_t minute = 0;
  int32_t second = 0;     // 0 to 60
  int64_t subsecUsec = 0;
  int32_t subsecDigits = 0;  // 1 to 6
  int32_t isoYear = 0;
  int32_t isoShortYear = 0;
  int32_t sundayWeek = 0;
  int32_t mondayWeek = 0;
  int32_t isoWeek = 0;
  int32_t monthWeek = 0;
  int32_t yday = 0;       // from 0
  int32_t wday = 0;       // 0 is Sunday

  // Back to the empty record: no flags, no conflicts.
  void clear() { *this = TimeFormatRawParseResult(); }
  bool has(uint32_t flags) const { return (have & flags) == flags; }

  // Stores by the one rule above. No range checks: the callers check.
  void storeEpoch(int64_t v) { store(HAVE_EPOCH, epoch, v); }
  void storeTzOffset(int64_t v) { store(HAVE_TZOFFSET, tzOffset, v); }
  void storeYear(int32_t v) { store(HAVE_YEAR, year, v); }
  void storeCentury(int32_t v) { store(HAVE_CENTURY, century, v); }
  void storeShortYear(int32_t v) { store(HAVE_SHORTYEAR, shortYear, v); }
  void storeMonth(int32_t v) { store(HAVE_MONTH, month, v); }
  void storeMday(int32_t v) { store(HAVE_MDAY, mday, v); }
  void storeHour24(int32_t v) { store(HAVE_HOUR24, hour24, v); }
  void storeHour12(int32_t v) { store(HAVE_HOUR12, hour12, v); }
  void storePm(bool v) { store(HAVE_AMPM, pm, v); }
  void storeMinute(int32_t v) { store(HAVE_MINUTE, minute, v); }
  void storeSecond(int32_t v) { store(HAVE_SECOND, second, v); }
  void storeIsoYear(int32_t v) { store(HAVE_ISOYEAR, isoYear, v); }
  void storeIsoShortYear(int32_t v) { store(HAVE_ISOSHORTYEAR, isoShortYear, v); }
  void storeSundayWeek(int32_t v) { store(HAVE_SUNDAYWEEK, sundayWeek, v); }
  void storeMondayWeek(int32_t v) { store(HAVE_MONDAYWEEK, mondayWeek, v); }
  void storeIsoWeek(int32_t v) { store(HAVE_ISOWEEK, isoWeek, v); }
  void storeMonthWeek(int32_t v) { store(HAVE_MONTHWEEK, monthWeek, v); }
  void storeYday(int32_t v) { store(HAVE_YDAY, yday, v); }
  void storeWday(int32_t v) { store(HAVE_WDAY, wday, v); }

  // The zone name: the longest name seen wins, and a name no longer than the
  // one held is ignored without a conflict. The view is kept, not copied.
  void storeTzName(const StrSegment& name);

  // Subseconds from the digits in [begin, end), stopping at the first
  // non-digit: they fill microseconds from the left ("5" is 500000, "1234567"
  // is 123456) and the count is capped at 6. No digit stores nothing. When
  // subseconds are held already, a longer count replaces them, an equal
  // count with another value counts a conflict, and a shorter one is
  // ignored.
  void setFracsec(const char* begin, const char* end);

  // A month name, in any case: its first three letters must be an English
  // abbreviation ("jan", "Sept", "DECEMBER"). Stores the month and returns
  // true; false, storing nothing, for a shorter text or an unknown name.
  bool setMonth(const StrSegment& name);

  // Year digits: one or two are a short year ("9", "09"), more a full year
  // ("2009", even "0023"). False, storing nothing, for an empty text, a
  // non-digit or more than 9 digits.
  bool setYear(const StrSegment& digits);

  // For each flag that only `other` has, copies its field; adds its
  // conflicts; `have` becomes the union. The zone-name view is copied as a
  // view.
  void mergeIn(const TimeFormatRawParseResult* other);

  // Moves year, month and mday on to the next calendar day: the year rolls
  // after December 31, and February 29 exists in leap years only. Other
  // fields (weekday, day of the year) are left as they were.
  void incrementDay();

  // Whether mday is 1 or more and fits month of year, February 29 only in a
  // leap year. False when month is out of range.
  bool mdayValidForMonth() const;

  // Month and mday from yday of year (yday 59 is March 1 in 2023, February
  // 29 in 2024). Stores both by the one rule and returns true; false for a
  // yday below 0 or past the year's last day.
  bool computeMmddFromYday();

  // yday from a Sunday week (preferred) or a Monday week, with the weekday
  // and the year: week 1 starts on the first Sunday (Monday) of the year.
  // False without a weekday, without either week, or when the day falls
  // outside the year. REQUIRES: HAVE_YEAR.
  bool computeYdayFromYweek();

  // Seconds from the epoch to 00:00:00 UTC of year-month-mday, by the
  // Gregorian calendar; negative before 1970.
  // REQUIRES: month 0 to 11.
  int64_t dayStartTime() const;

  // The weekday, 0 for Sunday, of year-month-mday.
  // REQUIRES: month 0 to 11.
  int computedWday() const;

 private:
  template <class T, class V>
  void store(uint32_t flag, T& field, V value) {
    if ((have & flag) == 0) {
      have |= flag;
      field = static_cast<T>(value);
    } else if (field != static_cast<T>(value)) {
      ++conflicts;
    }
  }
};
