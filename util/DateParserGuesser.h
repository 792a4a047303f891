// DateParserGuesser: the guesser a date parser embeds. It completes partial
// timestamps from the stream (the previous event, a date taken from the
// source's name, the configured TZ) rather than from the clock, and keeps
// two small caches that take the zone work off the per-line path.
#pragma once

#include <cstdint>

#include "util/Str.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"

// One owner at a time: the parser that embeds it, on one thread.
class DateParserGuesser : public TimeGuesser {
 public:
  // The largest acceptance window setMinMaxDays takes, either way: 30 years.
  static constexpr int MAX_WINDOW_DAYS = 10950;
  // The longest zone name the name cache keeps.
  static constexpr size_t MAX_CACHED_NAME = 7;

  // State the parser reads and writes directly.
  Timeval previous;                 // the previous event's time; zero: none
  Timeval now;                      // the current time of the parse
  int32_t maxDiffSecsAgo = 3600;    // MAX_DIFF_SECS_AGO
  int32_t maxDiffSecsHence = 604800;  // MAX_DIFF_SECS_HENCE
  // The date from the source's name; sourceYear -1 when there is none.
  // sourceHour is the hour of the last event under that date.
  int32_t sourceYear = -1;
  int32_t sourceMonth = 0;
  int32_t sourceDay = 0;
  int32_t sourceHour = 0;

  // With a name: the name cache, then the base lookup, whose success is
  // cached for names of up to MAX_CACHED_NAME bytes (and forgets the hour
  // cache). A name the base lookup does not know falls back to the TZ
  // override, and fails without one. Without a name: the TZ override, else
  // the base zone. So TZ only fills a gap that the text leaves.
  bool guessTimezone(const char* name, TimezoneGuessResult* result) override;
  // As the base, but a real zone's answer is cached by the hour of the local
  // time: a stream of lines within one hour costs one transition search. An
  // ambiguous local time (false) is never cached.
  bool convertToGmt(const TimezoneGuessResult* zone, long* time) override;
  // The base version without a source date. With one: the source's date,
  // moved on by a day (and the source date with it) when the hour falls back
  // more than maxDiffSecsAgo behind sourceHour, as past midnight; sourceHour
  // then becomes the hour. Needs a minute and a 24-hour hour or a 12-hour
  // hour with AM/PM; false otherwise.
  bool guessDate(TimeFormatRawParseResult* raw, const TimezoneGuessResult* zone) override;
  // previous's seconds when not zero, else now's.
  time_t current() override;
  // Whether previous is set.
  bool hasExistingDateContext() const override;

  // Sets now to the clock and the acceptance window to `ago` days back and
  // `hence` days ahead of it, each clamped to 0..MAX_WINDOW_DAYS. Logs
  // "Setting maxDaysAgo=%d and maxDaysHence=%d" (the clamped values) at INFO
  // on "DateParserVerbose".
  void setMinMaxDays(int ago, int hence);
  // The TZ setting: the base lookup of `name` becomes the override. Logs
  // "Set timezone to: %s" at INFO on "DateParser" and returns true; for a
  // name no lookup knows, clears the override, logs "Invalid TZ string: %s"
  // at WARN and returns false.
  bool setTZ(const Str& name);
  // Whether `time` lies within the window around now: no more than
  // maxAgoSecs() before it, no more than maxHenceSecs() after it, both
  // bounds included. The arithmetic saturates, so the window reaching past
  // the ends of the range lets min() or max() in.
  bool withinDateWindow(const Timeval& time) const;

  bool haveOverride() const { return _haveOverride; }
  const TimezoneGuessResult& overrideZone() const { return _overrideZone; }
  int32_t maxAgoSecs() const { return _maxAgoSecs; }
  int32_t maxHenceSecs() const { return _maxHenceSecs; }

  // How often each cache answered, for tests and diagnostics.
  uint64_t nameCacheHits() const { return _nameCacheHits; }
  uint64_t hourCacheHits() const { return _hourCacheHits; }

 private:
  // The name cache: the last name looked up, NUL-terminated, and its zone.
  // The first byte 0xFF matches no name a log gives.
  char _lastZoneName[MAX_CACHED_NAME + 1] = {'\xff', '\0'};
  TimezoneGuessResult _lastZone;
  bool _haveOverride = false;
  TimezoneGuessResult _overrideZone;
  // The hour cache: the local time divided by 3600 (-1: empty), what the
  // conversion added, and the zone it was computed for.
  int32_t _lastHourKey = -1;
  int64_t _lastHourDelta = 0;
  const Timezone* _lastHourZone = nullptr;
  int32_t _maxAgoSecs = 0;
  int32_t _maxHenceSecs = 0;
  uint64_t _nameCacheHits = 0;
  uint64_t _hourCacheHits = 0;
};
