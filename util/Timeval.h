// Timeval: the system's one representation of an instant, with saturating
// arithmetic, its breakdown into the StructTm views, and the 14-character
// text form that persistent records keep.
#pragma once

#include <compare>
#include <cstdint>

#include "util/Str.h"

class CurrentTimeval;
struct ExtraTimevalParseInfo;
class GmtStructTm;
class LocalStructTm;
class LocalStructTmHires;
class StructTmInTimezone;
class StructTmInTimezoneHires;
class TimeFormat;
class TimeFormatRawParseResult;
class TimeGuesser;
class Timezone;
struct tm;

// Seconds since 1970-01-01 00:00:00 UTC and microseconds, both 64-bit.
// Arithmetic saturates at min() and max() instead of wrapping, and zero
// seconds means "no time" wherever a time is optional. A plain value: one
// owner at a time, const methods safe to share.
class Timeval {
 public:
  int64_t tv_sec;
  int64_t tv_usec;  // 0 to 999999 once normalised

  constexpr Timeval() : tv_sec(0), tv_usec(0) {}
  constexpr Timeval(int64_t sec, int64_t usec) : tv_sec(sec), tv_usec(usec) {}

  // (-9223372036854775808, 0) and (9223372036854775807, 999999).
  static constexpr Timeval min() { return Timeval(INT64_MIN, 0); }
  static constexpr Timeval max() { return Timeval(INT64_MAX, 999999); }
  // Both fields compared.
  constexpr bool isMin() const { return tv_sec == INT64_MIN && tv_usec == 0; }
  constexpr bool isMax() const { return tv_sec == INT64_MAX && tv_usec == 999999; }

  // Ordered by tv_sec, then tv_usec.
  friend constexpr auto operator<=>(const Timeval&, const Timeval&) = default;

  // The clock, read through the process's clock seam (setTimevalClock).
  static CurrentTimeval now();
  void setToNow();
  void setToMin() { *this = min(); }
  void setToMax() { *this = max(); }

  // In-place arithmetic. A carry or borrow past the seconds' range leaves
  // max() (adding) or min() (subtracting), so max() plus anything is max()
  // and min() minus anything is min(). The value must be normalised: an
  // intermediate tv_usec past the carry range ends the process.
  void addUsec(unsigned long long usec);
  void addMsec(unsigned long long msec);
  void addSec(unsigned int sec);
  void subtractUsec(unsigned long long usec);
  void subtractMsec(unsigned long long msec);
  void subtractSec(unsigned int sec);

  // a - b in microseconds (milliseconds, whole ones toward minus infinity),
  // borrowing one second when the microseconds go negative. A difference
  // past 64 bits saturates at the signed extremes.
  static int64_t usecDifference(const Timeval& a, const Timeval& b);
  static int64_t msecDifference(const Timeval& a, const Timeval& b);
  // a - b in seconds, computed on the ordered pair so that no intermediate
  // overflows: (5, 250000) - (7, 0) is -1.75.
  static double secDifferenceAsDouble(const Timeval& a, const Timeval& b);
  // seconds x 1000000 as an unsigned count, exact above 2^63 too. Negative
  // and NaN input give 0; a count past 64 bits gives all ones.
  static uint64_t secondsToTicks(double seconds);

  // Reads "digits" or "digits.digits": "12." is (12, 0), "0.5" is
  // (0, 500000), and fraction digits past the sixth add nothing. Returns
  // false, leaving the value alone, for anything else ("", ".5", "1.5x",
  // "-1") and for seconds past 64 bits.
  bool setToUnixTime(const char* text);

  // GMT breakdown. False when the platform or GMT_fromUnixTime refuses the
  // time (above 32535244799); `out` is then left as it was.
  bool gmtime(GmtStructTm* out) const;
  // Local breakdowns; they never fail. A refused time logs "%s(%lld)
  // failed!" and yields the end of the range on its side (see StructTm::
  // setToRangeLimit), with Hires microseconds 0 (negative times) or 999999.
  void localtime(LocalStructTm* out) const;
  void localtime(LocalStructTmHires* out) const;
  void localtime(StructTmInTimezone* out) const;
  void localtime(StructTmInTimezoneHires* out) const;

  // Back from a breakdown by timegm, mktime or StructTmInTimezone::
  // toUnixTime; the fields are normalised in place as those do. Hires
  // microseconds above 999999 count as 999999. A result of -1 is a failure:
  // it logs "%s(%d-%d-%d %d:%02d:%02d) failed!", leaves max() when tm_year is
  // above 69 and min() otherwise, and returns false. So the GMT fields of
  // 1969-12-31 23:59:59 give min().
  bool set(GmtStructTm& t);
  bool set(LocalStructTm& t);
  bool set(LocalStructTmHires& t);
  bool set(StructTmInTimezone& t);
  bool set(StructTmInTimezoneHires& t);

  // ---- From a timestamp's text (util/TimevalParse.cpp) ----

  // Turns what a parse read into an instant, asking `guesser` for whatever
  // the text left out: the zone (the text's offset wins over its zone name,
  // and no name means the guesser's base zone), a two-digit year (68 is 2068,
  // 69 is 1969), the year of a month and day, the date of a time of day, AM
  // or PM for a 12-hour time without a marker, and which reading of an
  // ambiguous local time to take. An epoch in the result wins over
  // everything. `raw` is completed in place (year, month, mday; hour12 by a
  // date guess), and an ambiguous local time raises its `conflicts`.
  // `extra`, when given, receives the precision (subsecDigits -2 without a
  // time of day, -1 without seconds), whether the zone was the text's, the
  // offset of the local reading and its fields. Examples with GMT as base:
  //   "2009-02-13 23:31:30 +0100"   1234564290
  //   "02/29/2023 10:00"            false: no such day
  //   "Feb 29 10:00" read in 2023   2020-02-29, the last leap year
  //   "23:59" read at 01:00         yesterday: more than 3 hours ahead
  // Returns false, leaving this value alone, when the guesser cannot supply
  // the zone or the date, the day does not fit the month, or the week date
  // does not make a day. REQUIRES: guesser != nullptr.
  bool set(TimeFormatRawParseResult* raw, TimeGuesser* guesser, ExtraTimevalParseInfo* extra);
  // set() with TimeGuesser::basic().
  bool set(TimeFormatRawParseResult* raw, ExtraTimevalParseInfo* extra);

  // Parses `text` (`length` bytes, or up to its NUL) from its start by
  // `format` and then set()s this value with the guesser: the one given, an
  // OnlyOverrideTimezoneTimeGuesser over the zone given (null: the default
  // zone), or TimeGuesser::basic(). Returns the bytes consumed, or -1 when
  // the text does not fit the format or set() fails (this value is then left
  // alone); a null text is -1. `conflicts`, when given, receives the count of
  // fields read twice with different values, plus one for an ambiguous local
  // time. "%Y-%m-%d %H:%M:%S %z" on "2009-02-13 23:31:30 +0100 rest" gives
  // 25 and 1234564290.
  long parse(const TimeFormat& format, const char* text, unsigned long length,
             TimeGuesser* guesser, ExtraTimevalParseInfo* extra = nullptr,
             unsigned int* conflicts = nullptr);
  long parse(const TimeFormat& format, const char* text, unsigned long length,
             const Timezone* zone, ExtraTimevalParseInfo* extra = nullptr,
             unsigned int* conflicts = nullptr);
  long parse(const TimeFormat& format, const char* text, unsigned long length,
             ExtraTimevalParseInfo* extra = nullptr, unsigned int* conflicts = nullptr);
  long parse(const TimeFormat& format, const char* text, TimeGuesser* guesser,
             ExtraTimevalParseInfo* extra = nullptr, unsigned int* conflicts = nullptr);
  long parse(const TimeFormat& format, const char* text, const Timezone* zone,
             ExtraTimevalParseInfo* extra = nullptr, unsigned int* conflicts = nullptr);
  long parse(const TimeFormat& format, const char* text, ExtraTimevalParseInfo* extra = nullptr,
             unsigned int* conflicts = nullptr);

  // "MAX_TIME", "MIN_TIME", "ZERO_TIME" (any time with zero seconds), else
  // the local StructTm::asctime ("Thu Jan  1 00:00:01 1970"), or
  // "INVALID_TIME (<seconds>)" when the local breakdown is refused.
  Str asctime() const;
  // Writes exactly n digits to `out`, no terminator: the six of tv_usec from
  // the left, then '0's. A tv_usec outside 0..999999 renders as its bound.
  void renderSubseconds(char* out, unsigned long n) const;
  // Appends the seconds, then "." and `digits` subsecond digits when digits
  // is not zero: (12, 345000) with 4 digits appends "12.3450".
  void renderUnixTime(Str& out, unsigned long digits) const;
  // Packs the first `digits` subsecond digits (as renderSubseconds writes
  // them) into one number: with z leading zero digits and v the value of the
  // rest, (2v + 1) << z, or 1 << digits when all are zero. For 3 digits:
  // 0 gives 8, 500000 gives 1001, 5000 gives 44. REQUIRES: digits <= 18.
  uint64_t encodedSubseconds(unsigned long digits) const;
  // A human text for a - b: "-" first when a is before b, then the magnitude
  // in hours (over 8000000000 us), seconds (over 3000000 us), milliseconds
  // (over 3000 us; whole when both times are on whole milliseconds) or whole
  // microseconds. Fractions use "%5.*f" with 1 decimal from 99.5, 2 from
  // 9.95, else 3: "12.50 seconds", "1 microsecond", "-4 milliseconds".
  static Str describeDifference(const Timeval& a, const Timeval& b);

  // span >= 2 rounds tv_sec down (toward minus infinity) to a multiple of
  // span; tv_usec always becomes 0.
  void snapSecond(unsigned int span);
  // Rounds tv_usec down to a multiple of span milliseconds; a span of 0
  // counts as 1. REQUIRES: span < 1000.
  void snapMillisecond(unsigned int span);

  // The 14-character record form: "zNULLzTIMEzzzz" (zero seconds),
  // "zMINzTIMEzzzzz", "zMAXzTIMEzzzzz", else 8 base-32 digits (0-9, A-V) of
  // the seconds since 1601-01-01 and 6 of the nanoseconds. Seconds past
  // 0xffffffffff from 1601, and times before 1601, are written as
  // 0xffffffffff with 999999999 nanoseconds.
  Str serialize() const;
  // Reads the record form: the three words in any case, or exactly 14
  // digits of either case with nanoseconds at most 999999999. Microseconds
  // are the nanoseconds rounded, at most 999999; a time before 1970 from
  // 1601 becomes max(). Returns false, leaving the value alone, otherwise.
  bool resurrect(const Str& text);

 private:
  // Logs the refused breakdown of `t` by `what` and saturates by its year.
  void handle_timet_failure(const char* what, const tm* t);
  // The shared end of the set() overloads: `sec` came from `t` by `what`.
  bool internal_setFromBreakdown(long sec, uint64_t usec, const char* what, const tm* t);
};

// A Timeval that holds the clock's time when it is made. Same thread story as
// Timeval.
class CurrentTimeval : public Timeval {
 public:
  CurrentTimeval() { setToNow(); }
  CurrentTimeval& operator=(const Timeval& other) {
    tv_sec = other.tv_sec;
    tv_usec = other.tv_usec;
    return *this;
  }
};

inline CurrentTimeval Timeval::now() { return CurrentTimeval(); }

// The source of "now" for the whole process. The system clock reads
// gettimeofday and ends the process when that fails: nothing can go on
// without a clock. The function must fill both fields.
typedef void (*TimevalClock)(Timeval* now);

// Makes `clock` the process's source of now and returns the one it replaces;
// null restores the system clock. For tests that fix the time. The switch
// is atomic, but callers that read the clock meanwhile may see either.
TimevalClock setTimevalClock(TimevalClock clock);

// Reads blanks and tabs, then decimal seconds with an optional fraction
// (".5" and "12." too), and stores milliseconds in *ms. The fraction keeps
// four digits and rounds at the fourth: "1.2345" is 1235, "0.0004" rounds to
// 0 and gives 1, since a non-zero fraction never yields 0. Overflow gives all
// ones. *consumed, when given, receives the bytes read from the start of the
// text, blanks included; what follows is the caller's business. Returns
// false, touching neither output, when there are no digits.
bool convert_string_to_milliseconds(const char* text, unsigned long long* ms,
                                    unsigned long* consumed);
