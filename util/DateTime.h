// Broken-down times: the platform's tm tied to one view of the clock (GMT,
// the process's local zone, or an explicit Timezone), with the date tables
// and calendar arithmetic that all of the time code shares.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "util/Str.h"

class StructTm;
class TimeFormat;
class Timezone;

// How a renderer reaches a breakdown's view without knowing which it is.
// TimeFormat renders through it and names it TimeFormat::render_tm_ops. Each
// slot receives the record it was called through, so a record may carry
// more after the slots (StructTmInTimezone::ZoneOps carries its zone). The
// records the views hand out are never changed after they are filled, and
// may be shared by any number of threads.
struct render_tm_ops {
  // The instant the fields stand for in this view, or -1 when refused.
  long (*to_epoch)(const render_tm_ops* ops, const StructTm* tm);
  // Copies the zone abbreviation, NUL-terminated and cut to `size`, to
  // `buffer`; false, with nothing written, when the view knows none.
  bool (*get_tzname)(const render_tm_ops* ops, const StructTm* tm, char* buffer, size_t size);
  // Seconds east of UTC at the fields.
  long (*tz_sec_offset)(const render_tm_ops* ops, const StructTm* tm);
};

// A tm with the calendar helpers. The fields are public, as in tm; a plain
// value, one owner at a time. Subclasses add no virtual functions.
class StructTm : public tm {
 public:
  // Days before each month, days in each month, and the leap-year copy.
  static constexpr int CUMULATIVE_DAYS[12] = {0,   31,  59,  90,  120, 151,
                                              181, 212, 243, 273, 304, 334};
  static constexpr int DAYS_IN_MONTH[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  static constexpr int DAYS_IN_MONTH_LEAP[12] = {31, 29, 31, 30, 31, 30,
                                                 31, 31, 30, 31, 30, 31};
  // The last second of the year 3000 on the western edge of the zones; no
  // later time is broken down.
  static constexpr long MAX_BREAKDOWN_TIME = 32535244799;

  // Every field zero, tm_zone null.
  StructTm();

  // Gregorian rule on a full year (2000 yes, 1900 no, 2024 yes).
  static bool isLeapYear(long year);
  // 0 (Sunday) to 6 for January 1 of a full year, for any year.
  static int weekdayOfJanuaryFirst(long year);

  // Breaks `t` down by gmtime_r or localtime_r. False when `t` is above
  // MAX_BREAKDOWN_TIME or the platform refuses; the fields are then untouched.
  bool GMT_fromUnixTime(long t);
  bool Local_fromUnixTime(long t);

  // Whether tm_year + 1900 is a leap year.
  bool isLeapYear() const;
  // Whether tm_mday lies within tm_mon of tm_year; false when tm_mon is out
  // of range.
  bool mdayValidForMonth() const;
  // Sets tm_mday to the month's last day by the non-leap table (so 28 for
  // every February). Does nothing when tm_mon is out of range.
  void setToLastMday();
  // Moves by n calendar months (negative goes back), keeping the day unless
  // the new month is shorter, then taking its last day; recomputes tm_wday
  // and tm_yday. Jan 31 + 1 is Feb 28 or 29. Returns false, leaving every
  // field alone, when tm_mon is out of range or the new tm_year is 1100 or
  // more. REQUIRES: tm_year within +-2^30.
  bool addCalendarMonths(int n);

  // Week numbers from tm_year, tm_yday and tm_wday, which must be
  // consistent. ISO 8601 (as strftime's %G and %V): weeks start on Monday
  // and week 1 holds the year's first Thursday, so the first days of January
  // may belong to the previous ISO year and the last of December to the
  // next. yearISO8601 is a full year.
  int yearISO8601() const;
  int yearWeekISO8601() const;
  // As strftime's %W: the first Monday starts week 1, days before it are 0.
  int yearWeekFromMonday() const;
  // As strftime's %U: the first Sunday starts week 1.
  int yearWeekFromSunday() const;

  // asctime_r without its line end: "Sun Sep 16 01:03:52 1973", 24
  // characters. Empty when the platform refuses (a year past 9999).
  Str asctime() const;
  // The platform's strftime of the fields, with a buffer that grows as
  // needed. Output past 1 MiB, or that strftime cannot produce, is empty.
  Str strftime(const char* fmt) const;
  void appendFtime(Str& out, const char* fmt) const;

  // The ends of the date range that refused conversions fall back to, with
  // tm_isdst -1; tm_gmtoff and tm_zone stay. Low: 1900-01-01 00:00:00, a
  // Monday (tm_year 0, tm_wday 1, tm_yday 0). High: 9999-12-31 23:59:59,
  // a Friday (tm_year 8099, tm_wday 5, tm_yday 364).
  void setToRangeLimit(bool low);
};

// The GMT view. Same thread story as StructTm.
class GmtStructTm : public StructTm {
 public:
  // GMT_fromUnixTime.
  bool fromUnixTime(long t) { return GMT_fromUnixTime(t); }
  // timegm, normalising the fields; -1 when refused.
  long toUnixTime();
  // The clock's time; ends the process if the clock fails.
  void setToNow();
  // The view's renderer record: timegm, "GMT", offset 0. Static storage.
  const render_tm_ops* getRenderOps() const;
  // Appends TimeFormat::render of the fields in this view, with no
  // subseconds (util/StructTmFormat.cpp). REQUIRES: format.isSet().
  using StructTm::appendFtime;
  void appendFtime(Str& out, const TimeFormat& format) const;
};

// The process's local view, by localtime_r and mktime (TZ as of the last
// tzset). Same thread story as StructTm; a tzset while other threads convert
// is the caller's to prevent.
class LocalStructTm : public StructTm {
 public:
  // Local_fromUnixTime.
  bool fromUnixTime(long t) { return Local_fromUnixTime(t); }
  // mktime, normalising the fields; -1 when refused.
  long toUnixTime();
  // The clock's time; ends the process if the clock fails.
  void setToNow();
  // tm_gmtoff: seconds east of UTC.
  long timezoneOffsetSeconds() const { return tm_gmtoff; }
  // The local renderer record (mktime, tm_zone, tm_gmtoff). Static storage.
  const render_tm_ops* getRenderOps() const;
  // As GmtStructTm::appendFtime, in the local view.
  using StructTm::appendFtime;
  void appendFtime(Str& out, const TimeFormat& format) const;
};

// The local view with microseconds. Same thread story as StructTm.
class LocalStructTmHires : public LocalStructTm {
 public:
  uint64_t microseconds = 0;

  // The clock's time to the microsecond; ends the process if the clock fails.
  void setToNow();
  // As LocalStructTm::appendFtime, with `microseconds` for the subseconds.
  using LocalStructTm::appendFtime;
  void appendFtime(Str& out, const TimeFormat& format) const;
};

// The view of one Timezone, or the local view when the zone is null. The
// zone is borrowed: zones are immutable and live to the end of the process.
// Same thread story as StructTm.
class StructTmInTimezone : public StructTm {
 public:
  // The renderer record and the zone it speaks for. With a null zone the
  // slots hold the local versions, otherwise impl_to_epoch, impl_get_tzname
  // and impl_tz_sec_offset.
  struct ZoneOps : render_tm_ops {
    const Timezone* timezone;
  };
  ZoneOps impl;

  explicit StructTmInTimezone(const Timezone* zone = nullptr);
  void setTimezone(const Timezone* zone);
  const Timezone* getTimezone() const { return impl.timezone; }

  // Breaks `t` down in the zone. A null zone is Local_fromUnixTime. A zone
  // adds searchAt's offset with saturation and breaks the sum down as GMT, a
  // sum in -86399..-1 showing as Dec 31, 1969 (tm_wday 3, tm_yday 364), and
  // stores tm_isdst, tm_gmtoff and tm_zone (which points into the zone) from
  // the zone. False, with the fields untouched, when the sum is past
  // MAX_BREAKDOWN_TIME or the platform refuses it.
  bool fromUnixTime(long t);
  // Back to an instant: mktime for a null zone; for a zone, timegm less the
  // reverse-searched offset (Timezone::offsetFromReverseSearch with
  // tm_isdst), with saturation, normalising the fields and storing the
  // zone's tm_isdst, tm_gmtoff and tm_zone. -1, with every field as it was,
  // when no reading exists: a time in a spring gap, or one in an autumn
  // overlap with a negative tm_isdst.
  long toUnixTime();
  // tm_gmtoff.
  long timezoneOffsetSeconds() const { return tm_gmtoff; }
  const render_tm_ops* getRenderOps() const { return &impl; }
  // As GmtStructTm::appendFtime, in this view.
  using StructTm::appendFtime;
  void appendFtime(Str& out, const TimeFormat& format) const;

 private:
  // The zone's renderer slots. impl_tz_sec_offset answers tm_gmtoff when
  // tm_isdst is not negative, else the zone's constant offset if it has one,
  // else the reverse-searched offset, 0 when that fails.
  static long impl_to_epoch(const render_tm_ops* ops, const StructTm* tm);
  static bool impl_get_tzname(const render_tm_ops* ops, const StructTm* tm, char* buffer,
                              size_t size);
  static long impl_tz_sec_offset(const render_tm_ops* ops, const StructTm* tm);
};

// A zone's view with microseconds. Same thread story as StructTm.
class StructTmInTimezoneHires : public StructTmInTimezone {
 public:
  using StructTmInTimezone::StructTmInTimezone;
  uint64_t microseconds = 0;
  // As StructTmInTimezone::appendFtime, with `microseconds` for the
  // subseconds.
  using StructTmInTimezone::appendFtime;
  void appendFtime(Str& out, const TimeFormat& format) const;
};
