// TimeGuesser: what completes a timestamp that the text gave only in part
// (no year, no date, no zone, no AM or PM), and the zone a guess settles on.
// Timeval::set asks a guesser for each missing piece; the stream-aware
// guesser of the date parser is util/DateParserGuesser.h.
#pragma once

#include <cstdint>
#include <ctime>

class TimeFormatRawParseResult;
class Timezone;

// The zone a guess found: a constant offset, or a Timezone to be searched.
// A plain value; the zone is borrowed (zones from getTimezone live to the end
// of the process). One owner at a time.
class TimezoneGuessResult {
 public:
  bool isConstant = true;
  // Seconds east of UTC when isConstant, else unused.
  long offset = 0;
  // The zone when !isConstant; may be null, which leaves times alone.
  const Timezone* zone = nullptr;

  // A fixed offset east of UTC.
  void setConstant(long secondsEast) {
    isConstant = true;
    offset = secondsEast;
    zone = nullptr;
  }
  // A null zone gives isConstant false and returns false. A zone with a
  // constant offset becomes that constant; any other zone is kept. True then.
  bool set(const Timezone* z);

  // Local time to UTC in place, with saturation. A constant is subtracted; a
  // null zone leaves the time alone; a zone subtracts the offset of its
  // reverse search. Returns false only when the local time is ambiguous (an
  // autumn overlap): *time then holds the earlier of the two readings. A
  // local time in a spring gap reads with the offset before the gap.
  bool convertToGmt(long* time) const;
  // UTC to local time, with saturation: the reverse of convertToGmt.
  long convertFromGmt(long time) const;
};

// The strategy behind Timeval::set. The base class answers from the clock
// and the default zone. It holds no state: basic() is shared by every thread.
// Subclasses state their own thread story.
//
// The virtual slots keep this order; subclasses replace what they know
// better.
class TimeGuesser {
 public:
  virtual ~TimeGuesser();

  // The zone for `name` (NUL-terminated; null when the text had none):
  //   null or ""                   baseTimezone()
  //   "EST", "cest", "Z"           the abbreviation table (util/
  //                                TimezoneTables.h), by bisection
  //   "-0800", "+05:30", "GMT-7"   that offset; "GMT" before a sign is
  //                                skipped, and the offset must be all the
  //                                rest of the name
  //   "Pacific Standard Time"      the description table, as a constant
  //   anything else                getTimezone(name, true), which knows
  //                                zoneinfo names, Windows names and POSIX
  //                                rules ("America/Sao_Paulo", "Hawaiian")
  // Returns false, with *result undefined, when no zone is found.
  virtual bool guessTimezone(const char* name, TimezoneGuessResult* result);
  // zone->convertToGmt(time).
  virtual bool convertToGmt(const TimezoneGuessResult* zone, long* time);
  // Stores the year of a date without one (month and mday set), by the
  // date of current() in GMT: Feb 29 takes the nearest leap year (forward
  // with a date context, back without); Jan 1 seen on Dec 31 is next year and
  // Dec 31 seen on Jan 1 last year; otherwise this year, unless the date lies
  // more than 3 days before today with a context (next year: the stream
  // crossed New Year) or more than 3 days after it without (last year: an
  // old file read today). Always true.
  virtual bool guessYear(TimeFormatRawParseResult* raw);
  // Stores year, month and mday for a time of day without a date, from
  // current() read in `zone`. A 24-hour time (or a 12-hour one with AM/PM)
  // more than 3 hours ahead of the clock is yesterday's. A 12-hour time
  // without a marker takes the latest half day in which it lies at most 90
  // minutes ahead, and its hour12 gains 12 when that half day is the
  // afternoon. False without a minute, without any hour, or when the date
  // cannot be broken down.
  virtual bool guessDate(TimeFormatRawParseResult* raw, const TimezoneGuessResult* zone);
  // Whether the other reading of an ambiguous local time, `time` + 3600,
  // lies nearer to current(). Distances count 8 times heavier into the past.
  virtual bool ambigiousDst(long time);
  // Whether `time` + 43200 lies nearer to current(), by the same distance.
  virtual bool usePmInstead(long time);
  // A two-digit year: 0-68 are 2000-2068, 69-99 are 1969-1999. Larger values
  // are taken as years within their century the same way (y + 2000, or y +
  // 1900 when that passes 2068).
  virtual int expandShortYear(unsigned int shortYear);
  // The clock through the process's seam (Timeval::now()).
  virtual time_t current();
  // Whether current() follows a stream rather than the clock. False here.
  virtual bool hasExistingDateContext() const;
  // The zone of times that name none: getDefaultTimezone().
  virtual const Timezone* baseTimezone();

  // The shared stateless instance.
  static TimeGuesser* basic();
};

// The base guesser with another zone for times that name none. Timeval::parse
// makes one on the stack for its overloads that take a Timezone. Borrows the
// zone. Stateless after construction, so safe to share.
class OnlyOverrideTimezoneTimeGuesser : public TimeGuesser {
 public:
  explicit OnlyOverrideTimezoneTimeGuesser(const Timezone* zone) : _zone(zone) {}
  // The zone given, or getDefaultTimezone() when it was null.
  const Timezone* baseTimezone() override;

 private:
  const Timezone* _zone;
};
