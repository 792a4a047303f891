#include "util/TimeFormatRawParseResult.h"

#include "util/Assert.h"
#include "util/DateTime.h"
#include "util/TimeFormatImpl.h"

namespace {

// Days before each month in a leap year, with the year's end last, so that
// one table serves every year once a common year's days from March on are
// counted one higher.
constexpr int LEAP_CUMULATIVE[13] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366};

int daysInMonth(int32_t year, int32_t month) {
  return StructTm::isLeapYear(year) ? StructTm::DAYS_IN_MONTH_LEAP[month]
                                    : StructTm::DAYS_IN_MONTH[month];
}

}  // namespace

void TimeFormatRawParseResult::storeTzName(const StrSegment& name) {
  if ((have & HAVE_TZNAM) == 0 || name.size() > tzName.size()) {
    have |= HAVE_TZNAM;
    tzName = name;
  }
}

void TimeFormatRawParseResult::setFracsec(const char* begin, const char* end) {
  int64_t usec = 0;
  int32_t digits = 0;
  for (const char* p = begin; p < end && *p >= '0' && *p <= '9'; ++p) {
    if (digits < 6) {
      usec = usec * 10 + (*p - '0');
      ++digits;
    }
  }
  if (digits == 0) return;
  for (int32_t i = digits; i < 6; ++i) usec *= 10;
  if ((have & HAVE_SUBSEC) == 0 || digits > subsecDigits) {
    have |= HAVE_SUBSEC;
    subsecUsec = usec;
    subsecDigits = digits;
  } else if (digits == subsecDigits && usec != subsecUsec) {
    ++conflicts;
  }
}

bool TimeFormatRawParseResult::setMonth(const StrSegment& name) {
  if (name.size() < 3) return false;
  const int m = time_format_impl::findAbbrev(time_format_impl::MONTH_ABBREVS, 12, name.data());
  if (m < 0) return false;
  storeMonth(m);
  return true;
}

bool TimeFormatRawParseResult::setYear(const StrSegment& digits) {
  if (digits.empty() || digits.size() > 9) return false;
  int32_t v = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (digits.size() <= 2) {
    storeShortYear(v);
  } else {
    storeYear(v);
  }
  return true;
}

void TimeFormatRawParseResult::mergeIn(const TimeFormatRawParseResult* other) {
  const uint32_t only = other->have & ~have;
  if (only & HAVE_EPOCH) epoch = other->epoch;
  if (only & HAVE_TZOFFSET) tzOffset = other->tzOffset;
  if (only & HAVE_TZNAM) tzName = other->tzName;
  if (only & HAVE_YEAR) year = other->year;
  if (only & HAVE_CENTURY) century = other->century;
  if (only & HAVE_SHORTYEAR) shortYear = other->shortYear;
  if (only & HAVE_MONTH) month = other->month;
  if (only & HAVE_MDAY) mday = other->mday;
  if (only & HAVE_HOUR24) hour24 = other->hour24;
  if (only & HAVE_HOUR12) hour12 = other->hour12;
  if (only & HAVE_AMPM) pm = other->pm;
  if (only & HAVE_MINUTE) minute = other->minute;
  if (only & HAVE_SECOND) second = other->second;
  if (only & HAVE_SUBSEC) {
    subsecUsec = other->subsecUsec;
    subsecDigits = other->subsecDigits;
  }
  if (only & HAVE_ISOYEAR) isoYear = other->isoYear;
  if (only & HAVE_ISOSHORTYEAR) isoShortYear = other->isoShortYear;
  if (only & HAVE_SUNDAYWEEK) sundayWeek = other->sundayWeek;
  if (only & HAVE_MONDAYWEEK) mondayWeek = other->mondayWeek;
  if (only & HAVE_ISOWEEK) isoWeek = other->isoWeek;
  if (only & HAVE_MONTHWEEK) monthWeek = other->monthWeek;
  if (only & HAVE_YDAY) yday = other->yday;
  if (only & HAVE_WDAY) wday = other->wday;
  conflicts += other->conflicts;
  have |= other->have;
}

void TimeFormatRawParseResult::incrementDay() {
  const bool monthInRange = month >= 0 && month < 12;
  if (monthInRange && mday < daysInMonth(year, month)) {
    ++mday;
    return;
  }
  mday = 1;
  if (month >= 11) {
    month = 0;
    ++year;
  } else {
    ++month;
  }
}

bool TimeFormatRawParseResult::mdayValidForMonth() const {
  if (month < 0 || month > 11) return false;
  return mday >= 1 && mday <= daysInMonth(year, month);
}

bool TimeFormatRawParseResult::computeMmddFromYday() {
  int32_t day = yday;
  if (day < 0) return false;
  if (!StructTm::isLeapYear(year) && day >= 59) ++day;
  if (day >= 366) return false;
  int32_t m = day / 30;
  if (LEAP_CUMULATIVE[m] > day) --m;
  storeMonth(m);
  storeMday(day - LEAP_CUMULATIVE[m] + 1);
  return true;
}

bool TimeFormatRawParseResult::computeYdayFromYweek() {
  if ((have & HAVE_WDAY) == 0) return false;
  kassert((have & HAVE_YEAR) != 0);
  int32_t jan1 = StructTm::weekdayOfJanuaryFirst(year);
  int32_t weekday = wday;
  int32_t week;
  if (have & HAVE_SUNDAYWEEK) {
    week = sundayWeek;
  } else if (have & HAVE_MONDAYWEEK) {
    week = mondayWeek;
    jan1 = (jan1 + 6) % 7;
    weekday = (weekday + 6) % 7;
  } else {
    return false;
  }
  const int32_t day = week * 7 + weekday - (jan1 == 0 ? 7 : jan1);
  if (day < 0 || day >= (StructTm::isLeapYear(year) ? 366 : 365)) return false;
  storeYday(day);
  return true;
}

int64_t TimeFormatRawParseResult::dayStartTime() const {
  kassert(month >= 0 && month < 12);
  // Days from 1970-01-01 to January 1 of `year`: the four-year rule alone is
  // exact between 1901 and 2100, and the century terms correct it outside.
  const int64_t y = static_cast<int64_t>(year) - 1;
  auto floorDiv = [](int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); };
  int64_t days = (static_cast<int64_t>(year) - 1970) * 365 + (floorDiv(y, 4) - 492);
  if (year <= 1900 || year > 2100) days += -(floorDiv(y, 100) - 19) + (floorDiv(y, 400) - 4);
  days += StructTm::CUMULATIVE_DAYS[month] + ((month > 1 && StructTm::isLeapYear(year)) ? 1 : 0);
  days += mday - 1;
  return days * 86400;
}

int TimeFormatRawParseResult::computedWday() const {
  kassert(month >= 0 && month < 12);
  const int64_t days = dayStartTime() / 86400;
  // 1970-01-01 was a Thursday.
  return static_cast<int>(((days + 4) % 7 + 7) % 7);
}
