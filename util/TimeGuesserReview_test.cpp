// Black-box checks of the timestamp guessers and of Timeval::set/parse: the
// boundaries of each guess, the zone tables as the guesser reads them, the
// caches of the stream guesser.
#include "util/TimeGuesser.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>

#include "util/DateParserGuesser.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/TimeFormat.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/Timeval.h"
#include "util/TimezoneCache.h"
#include "util/TimezoneTables.h"
#include "util/testing/FixedClock.h"

namespace {

typedef TimeFormatRawParseResult Raw;

// The UTC instant of a civil time, month 1-12, through the C library.
long civil(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return timegm(&t);
}

const Timezone* utcZone() { return getTimezone("Etc/UTC", true); }
const Timezone* newYork() { return getTimezone("America/New_York", true); }

// A raw result with a date (month 1-12) and optionally a 24-hour time.
Raw rawDate(int year, int month, int day) {
  Raw r;
  r.storeYear(year);
  r.storeMonth(month - 1);
  r.storeMday(day);
  return r;
}

// ---- guessDate of the base guesser, in a zone with transitions ----

TEST(TimeGuesserReview, GuessDateReadsTheClockInAZoneWithTransitions) {
  // 2024-03-10 04:30Z is 23:30 EST on the 9th in New York.
  ScopedFixedClock clock(Timeval(civil(2024, 3, 10, 4, 30), 0));
  TimezoneGuessResult zone;
  ASSERT_TRUE(zone.set(newYork()));
  ASSERT_FALSE(zone.isConstant);
  Raw r;
  r.storeHour24(22);
  r.storeMinute(0);
  ASSERT_TRUE(TimeGuesser::basic()->guessDate(&r, &zone));
  EXPECT_EQ(2024, r.year);
  EXPECT_EQ(2, r.month);
  EXPECT_EQ(9, r.mday);
}

// ---- guessTimezone of the base guesser ----

// The description key, computed here from its definition.
uint32_t descriptionKey(const char* name) {
  uint32_t h = 0, s = 0;
  const size_t len = strlen(name);
  for (size_t i = 0; i < len; ++i) {
    const uint32_t b = static_cast<unsigned char>(name[i]);
    h = h * 2 + b;
    s += b;
  }
  return ((h + s) * 256u) | static_cast<uint32_t>(len);
}

TEST(TimeGuesserReview, EveryDescriptionRowIsFoundByItsKey) {
  ASSERT_EQ(187u, TIMEZONE_DESCRIPTION_COUNT);
  for (size_t i = 0; i < TIMEZONE_DESCRIPTION_COUNT; ++i) {
    const TimezoneDescription& row = TIMEZONE_DESCRIPTIONS[i];
    SCOPED_TRACE(row.name);
    EXPECT_EQ(descriptionKey(row.name), row.key);
    EXPECT_EQ(descriptionKey(row.name), timezoneDescriptionKey(row.name, strlen(row.name)));
    if (i > 0) {
      EXPECT_LT(TIMEZONE_DESCRIPTIONS[i - 1].key, row.key);
    }
    TimezoneGuessResult res;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone(row.name, &res));
    EXPECT_TRUE(res.isConstant);
    EXPECT_EQ(row.gmtoff, res.offset);
  }
  // The key must agree and strcmp must confirm: a wrong case is no row.
  EXPECT_EQ(nullptr, findTimezoneDescription("pacific standard time"));
  EXPECT_EQ(nullptr, findTimezoneDescription("Pacific Standard Time "));
}

// ---- Timeval::set ----

struct SetOutcome {
  bool ok;
  Timeval tv;
  ExtraTimevalParseInfo extra;
  uint32_t conflicts;
};

SetOutcome runSet(Raw r, TimeGuesser* g) {
  SetOutcome out;
  out.tv = Timeval(777, 7);
  out.ok = out.tv.set(&r, g, &out.extra);
  out.conflicts = r.conflicts;
  return out;
}

TEST(TimeGuesserReview, SetPrefersTheOffsetToTheZoneName) {
  const char* text = "EST";
  Raw r = rawDate(2009, 2, 13);
  r.storeHour24(23);
  r.storeMinute(31);
  r.storeSecond(30);
  r.storeTzOffset(3600);
  r.storeTzName(StrSegment(text, 3));
  const SetOutcome o = runSet(r, TimeGuesser::basic());
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(1234564290, o.tv.tv_sec);
  EXPECT_TRUE(o.extra.timezoneKnown);
  EXPECT_EQ(3600, o.extra.tzOffset);
  EXPECT_EQ(0, o.extra.subsecDigits);
  EXPECT_EQ(2009, o.extra.year);
  EXPECT_EQ(1, o.extra.month);
  EXPECT_EQ(13, o.extra.mday);
  EXPECT_EQ(5, o.extra.wday);
  EXPECT_EQ(23, o.extra.hour);
  EXPECT_EQ(31, o.extra.minute);
}

TEST(TimeGuesserReview, SetReadsTheZoneNameOrTheBaseZone) {
  const struct { const char* name; long offset; bool known; } kCases[] = {
      {"EST", -18000, true},
      {"cest", 7200, true},
      {"Pacific Standard Time", -28800, true},
      {"GMT-0700", -25200, true},
      {nullptr, -14400, false},  // the guesser's base zone: New York in July
  };
  OnlyOverrideTimezoneTimeGuesser g(newYork());
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name == nullptr ? "none" : c.name);
    Raw r = rawDate(2023, 7, 1);
    r.storeHour24(12);
    r.storeMinute(0);
    if (c.name != nullptr) r.storeTzName(StrSegment(c.name, strlen(c.name)));
    const SetOutcome o = runSet(r, &g);
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(civil(2023, 7, 1, 12) - c.offset, o.tv.tv_sec);
    EXPECT_EQ(c.known, o.extra.timezoneKnown);
    EXPECT_EQ(c.offset, o.extra.tzOffset);
  }
  // A zone no lookup knows fails the whole call and leaves the value.
  Raw bad = rawDate(2023, 7, 1);
  bad.storeHour24(12);
  bad.storeMinute(0);
  bad.storeTzName(StrSegment("Nowhere/Zone", 12));
  const SetOutcome o = runSet(bad, &g);
  EXPECT_FALSE(o.ok);
  EXPECT_EQ(777, o.tv.tv_sec);
  EXPECT_EQ(7, o.tv.tv_usec);
}

TEST(TimeGuesserReview, SetReadsTheTimeOfDay) {
  const char* frac = "123";
  const struct {
    const char* what;
    int hour24, hour12, pm, minute, second;  // -1: absent
    bool frac;
    long seconds;  // of the day
    long usec;
    int digits;
  } kCases[] = {
      {"full time", 10, -1, -1, 20, 30, true, 37230, 123000, 3},
      {"no minute is no time", 10, -1, -1, -1, 30, true, 0, 0, -2},
      {"no hour is no time", -1, -1, -1, 20, 30, true, 0, 0, -2},
      {"12-hour afternoon", -1, 3, 1, 15, -1, false, 15 * 3600 + 900, 0, -1},
      {"12-hour morning", -1, 3, 0, 15, -1, false, 3 * 3600 + 900, 0, -1},
      {"12 AM is midnight", -1, 0, 0, 5, 0, false, 300, 0, 0},
      {"12 PM is noon", -1, 0, 1, 5, 0, false, 12 * 3600 + 300, 0, 0},
      {"24-hour hour wins over 12-hour", 22, 3, 0, 0, 0, false, 22 * 3600, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Raw r = rawDate(2024, 3, 15);
    if (c.hour24 >= 0) r.storeHour24(c.hour24);
    if (c.hour12 >= 0) r.storeHour12(c.hour12);
    if (c.pm >= 0) r.storePm(c.pm == 1);
    if (c.minute >= 0) r.storeMinute(c.minute);
    if (c.second >= 0) r.storeSecond(c.second);
    if (c.frac) r.setFracsec(frac, frac + 3);
    r.storeTzOffset(0);
    const SetOutcome o = runSet(r, TimeGuesser::basic());
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(civil(2024, 3, 15) + c.seconds, o.tv.tv_sec);
    EXPECT_EQ(c.usec, o.tv.tv_usec);
    EXPECT_EQ(c.digits, o.extra.subsecDigits);
    if (c.digits != -2) {
      EXPECT_EQ(c.seconds / 3600, o.extra.hour);
      EXPECT_EQ(c.seconds / 60 % 60, o.extra.minute);
    }
  }
}

TEST(TimeGuesserReview, SetConvertsTheAfternoonReadingInItsOwnOffset) {
  // New York springs forward at 02:00 on 2023-03-12: 01:00 is EST, 13:00 EDT.
  // At 13:30 EDT a bare "1:00" is the afternoon, 17:00Z, not 06:00Z + 12h.
  ScopedFixedClock clock(Timeval(civil(2023, 3, 12, 17, 30), 0));
  OnlyOverrideTimezoneTimeGuesser g(newYork());
  Raw r = rawDate(2023, 3, 12);
  r.storeHour12(1);
  r.storeMinute(0);
  const SetOutcome o = runSet(r, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civil(2023, 3, 12, 17), o.tv.tv_sec);
  EXPECT_EQ(-14400, o.extra.tzOffset);
}

TEST(TimeGuesserReview, SetWithoutADateUsesTheTextOffsetForTheGuess) {
  // 14:00Z on May 10 is 00:00 on May 11 at +10:00. "23:30 +1000" lies in the
  // past there, so it is May 10 at +10:00, 13:30Z.
  ScopedFixedClock clock(Timeval(civil(2024, 5, 10, 14), 0));
  OnlyOverrideTimezoneTimeGuesser g(utcZone());
  Raw r;
  r.storeHour24(23);
  r.storeMinute(30);
  r.storeTzOffset(36000);
  const SetOutcome o = runSet(r, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civil(2024, 5, 10, 13, 30), o.tv.tv_sec);
  EXPECT_EQ(36000, o.extra.tzOffset);
  EXPECT_EQ(10, o.extra.mday);
  // Without a minute there is no date to guess.
  Raw none;
  none.storeHour24(23);
  EXPECT_FALSE(runSet(none, &g).ok);
}

// ---- Timeval::parse ----

TEST(TimeGuesserReview, ParseReturnsTheBytesConsumed) {
  TimeFormat f("%Y-%m-%d %H:%M:%S %z");
  ASSERT_TRUE(f.isSet());
  const char* text = "2009-02-13 23:31:30 +0100 rest";
  Timeval t;
  unsigned conflicts = 99;
  ExtraTimevalParseInfo extra;
  EXPECT_EQ(25, t.parse(f, text, &extra, &conflicts));
  EXPECT_EQ(1234564290, t.tv_sec);
  EXPECT_EQ(0u, conflicts);
  EXPECT_EQ(3600, extra.tzOffset);
  Timeval t2;
  EXPECT_EQ(25, t2.parse(f, text, strlen(text), TimeGuesser::basic()));
  EXPECT_EQ(1234564290, t2.tv_sec);
  // Cut before the offset: the format is not met, the value stays.
  Timeval t3(5, 6);
  EXPECT_EQ(-1, t3.parse(f, text, 19UL, static_cast<ExtraTimevalParseInfo*>(nullptr)));
  EXPECT_EQ(5, t3.tv_sec);
  EXPECT_EQ(6, t3.tv_usec);
  EXPECT_EQ(-1, t3.parse(f, static_cast<const char*>(nullptr), utcZone()));
}

TEST(TimeGuesserReview, ParseReadsZonelessTextInTheZoneGiven) {
  TimeFormat f("%Y-%m-%d %H:%M");
  const char* text = "2009-07-01 12:00";
  Timeval t;
  ExtraTimevalParseInfo extra;
  EXPECT_EQ(16, t.parse(f, text, newYork(), &extra));
  EXPECT_EQ(civil(2009, 7, 1, 16), t.tv_sec);
  EXPECT_EQ(-14400, extra.tzOffset);
  EXPECT_FALSE(extra.timezoneKnown);
  EXPECT_EQ(-1, extra.subsecDigits);
  // A null zone is the default zone, as is the overload without one.
  Timeval a, b;
  EXPECT_EQ(16, a.parse(f, text, static_cast<const Timezone*>(nullptr)));
  EXPECT_EQ(16, b.parse(f, text));
  EXPECT_EQ(a.tv_sec, b.tv_sec);
  OnlyOverrideTimezoneTimeGuesser def(getDefaultTimezone());
  Timeval c;
  EXPECT_EQ(16, c.parse(f, text, &def));
  EXPECT_EQ(c.tv_sec, b.tv_sec);
}

// ---- DateParserGuesser ----

TEST(DateParserGuesserReview, CachesTheConversionByTheHour) {
  DateParserGuesser g;
  TimezoneGuessResult ny;
  ASSERT_TRUE(ny.set(newYork()));
  const long base = civil(2023, 7, 1, 12);
  const struct { long local; uint64_t hits; } kSteps[] = {
      {base, 0},
      {base + 59, 1},
      {base + 3599, 2},
      {base + 3600, 2},  // the next hour
      {base + 3700, 3},
      {base - 1, 3},     // back an hour
  };
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.local - base);
    long t = s.local;
    EXPECT_TRUE(g.convertToGmt(&ny, &t));
    EXPECT_EQ(s.local + 14400, t);
    EXPECT_EQ(s.hits, g.hourCacheHits());
  }
  // A constant is subtracted and never touches the hour cache.
  TimezoneGuessResult k;
  k.setConstant(3600);
  long t = base + 10;
  EXPECT_TRUE(g.convertToGmt(&k, &t));
  EXPECT_EQ(base + 10 - 3600, t);
  t = base - 1;
  EXPECT_TRUE(g.convertToGmt(&ny, &t));
  EXPECT_EQ(4u, g.hourCacheHits());
}

TEST(DateParserGuesserReview, AFreshZoneLookupForgetsTheHourCache) {
  DateParserGuesser g;
  TimezoneGuessResult ny, r;
  ASSERT_TRUE(ny.set(newYork()));
  const long local = civil(2023, 7, 1, 12);
  // Each step: a zone name looked up (null: none), then one conversion of
  // the same local hour; the hour cache must answer only after a cache hit
  // of the name or no lookup at all.
  const struct { const char* lookup; uint64_t hits; } kSteps[] = {
      {nullptr, 0},
      {"EST", 0},       // a base lookup, cached by name
      {"EST", 1},       // answered by the name cache
      {"GMT-0700", 1},  // too long for the name cache, looked up afresh
      {nullptr, 2},
  };
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.lookup == nullptr ? "none" : s.lookup);
    if (s.lookup != nullptr) {
      ASSERT_TRUE(g.guessTimezone(s.lookup, &r));
    }
    long t = local;
    EXPECT_TRUE(g.convertToGmt(&ny, &t));
    EXPECT_EQ(local + 14400, t);
    EXPECT_EQ(s.hits, g.hourCacheHits());
  }
}

TEST(DateParserGuesserReview, SourceDateRollsIntoALeapDay) {
  DateParserGuesser g;
  g.sourceYear = 2024;
  g.sourceMonth = 1;
  g.sourceDay = 28;
  g.sourceHour = 22;
  TimezoneGuessResult zone;
  zone.setConstant(0);
  Raw r;
  r.storeHour24(1);
  r.storeMinute(0);
  ASSERT_TRUE(g.guessDate(&r, &zone));
  EXPECT_EQ(2024, r.year);
  EXPECT_EQ(1, r.month);
  EXPECT_EQ(29, r.mday);
  // And through Timeval::set, with the source's date in the result.
  Raw s;
  s.storeHour24(0);
  s.storeMinute(30);
  s.storeTzOffset(0);
  const SetOutcome o = runSet(s, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civil(2024, 2, 29, 0, 30), o.tv.tv_sec);  // back by one hour only
}

}  // namespace
