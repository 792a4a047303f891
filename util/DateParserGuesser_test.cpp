// The date parser's guesser: the stream as the clock, the source's date, the
// TZ override, its two caches and the acceptance window.
#include "util/DateParserGuesser.h"

#include <gtest/gtest.h>

#include <string>

#include "util/ExtraTimevalParseInfo.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/Timeval.h"
#include "util/Timezone.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
#include "util/testing/LogCapture.h"

namespace {

using R = TimeFormatRawParseResult;

class DateParserGuesserTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(useStagedZonesWithGmtDefault()) << "build stage_zoneinfo"; }
};

TEST(DateParserGuesser, TheStreamIsTheClock) {
  ScopedFixedClock clock(Timeval(1500000000, 0));
  DateParserGuesser g;
  EXPECT_EQ(0, g.current());  // neither set yet
  g.now = Timeval(1600000000, 5);
  EXPECT_EQ(1600000000, g.current());
  EXPECT_FALSE(g.hasExistingDateContext());
  g.previous = Timeval(1400000000, 0);
  EXPECT_EQ(1400000000, g.current());
  EXPECT_TRUE(g.hasExistingDateContext());
  // Zero seconds is no time, whatever the microseconds say.
  g.previous = Timeval(0, 7);
  EXPECT_EQ(1600000000, g.current());
  EXPECT_FALSE(g.hasExistingDateContext());
}

// An hour that falls back more than maxDiffSecsAgo behind the last event
// under the source's date means midnight has passed.
TEST(DateParserGuesser, SourceDateRollsOverPastTheAllowedFallBack) {
  const struct {
    const char* why;
    int32_t maxDiffSecsAgo;
    int sourceHour;
    int hour;
    const char* date;
    int32_t sourceDayAfter;
  } kCases[] = {
      {"22 h back, allowance just below", 79199, 23, 1, "2026-1-1", 1},
      {"22 h back, allowance equal", 79200, 23, 1, "2025-12-31", 31},
      {"22 h back, allowance just above", 79201, 23, 1, "2025-12-31", 31},
      {"1 h back, default allowance", 3600, 23, 22, "2025-12-31", 31},
      {"2 h back, default allowance", 3600, 23, 21, "2026-1-1", 1},
      {"forward", 0, 5, 23, "2025-12-31", 31},
      {"same hour", 0, 23, 23, "2025-12-31", 31},
  };
  for (const auto& c : kCases) {
    DateParserGuesser g;
    g.maxDiffSecsAgo = c.maxDiffSecsAgo;
    g.sourceYear = 2025;
    g.sourceMonth = 11;
    g.sourceDay = 31;
    g.sourceHour = c.sourceHour;
    R raw;
    raw.storeHour24(c.hour);
    raw.storeMinute(0);
    TimezoneGuessResult zone;
    ASSERT_TRUE(g.guessDate(&raw, &zone)) << c.why;
    EXPECT_EQ(c.date, std::to_string(raw.year) + "-" + std::to_string(raw.month + 1) + "-" +
                          std::to_string(raw.mday))
        << c.why;
    EXPECT_EQ(c.sourceDayAfter, g.sourceDay) << c.why;
    EXPECT_EQ(c.hour, g.sourceHour) << c.why;
  }
}

TEST(DateParserGuesser, SourceDateNeedsAMinuteAndAFullHour) {
  DateParserGuesser g;
  g.sourceYear = 2025;
  g.sourceMonth = 5;
  g.sourceDay = 15;
  g.sourceHour = 3;
  TimezoneGuessResult zone;
  R unmarked;  // a 12-hour hour needs its AM or PM here
  unmarked.storeHour12(4);
  unmarked.storeMinute(0);
  EXPECT_FALSE(g.guessDate(&unmarked, &zone));
  R noMinute;
  noMinute.storeHour24(4);
  EXPECT_FALSE(g.guessDate(&noMinute, &zone));
  EXPECT_EQ(3, g.sourceHour);
  R marked;
  marked.storeHour12(4);
  marked.storePm(true);
  marked.storeMinute(0);
  ASSERT_TRUE(g.guessDate(&marked, &zone));
  EXPECT_EQ(16, g.sourceHour);
  EXPECT_EQ(2025, marked.year);
  EXPECT_EQ(5, marked.month);
  EXPECT_EQ(15, marked.mday);
}

TEST_F(DateParserGuesserTest, WithoutSourceDateTheStreamPlacesTheTime) {
  ScopedFixedClock clock(utcInstant(2001, 1, 1));
  DateParserGuesser g;
  g.previous = utcInstant(2025, 6, 15, 10);
  TimezoneGuessResult zone;
  R ahead;  // 3 h + 1 s ahead of the previous event: yesterday
  ahead.storeHour24(13);
  ahead.storeMinute(0);
  ahead.storeSecond(1);
  ASSERT_TRUE(g.guessDate(&ahead, &zone));
  EXPECT_EQ(2025, ahead.year);
  EXPECT_EQ(14, ahead.mday);
}

TEST_F(DateParserGuesserTest, NameCacheHitsGiveTheSameZone) {
  DateParserGuesser g;
  const char* names[] = {"EST", "est", "+05:30", "Tokyo", "CET", "EST", "Etc/UTC"};
  for (const char* name : names) {
    TimezoneGuessResult miss;
    ASSERT_TRUE(g.guessTimezone(name, &miss)) << name;
    const uint64_t before = g.nameCacheHits();
    TimezoneGuessResult hit;
    ASSERT_TRUE(g.guessTimezone(name, &hit)) << name;
    EXPECT_EQ(before + 1, g.nameCacheHits()) << name;
    EXPECT_EQ(miss.isConstant, hit.isConstant) << name;
    EXPECT_EQ(miss.offset, hit.offset) << name;
    EXPECT_EQ(miss.zone, hit.zone) << name;
    TimezoneGuessResult base;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone(name, &base));
    EXPECT_EQ(base.offset, hit.offset) << name;
  }
  // Names past 7 bytes are looked up every time.
  TimezoneGuessResult zone;
  const uint64_t before = g.nameCacheHits();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(g.guessTimezone("America/Sao_Paulo", &zone));
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(g.guessTimezone("GMT-0700", &zone));
  ASSERT_TRUE(g.guessTimezone("-0800", &zone));
  EXPECT_EQ(before, g.nameCacheHits());
  EXPECT_EQ(-28800, zone.offset);
}

TEST_F(DateParserGuesserTest, HourCacheHitsGiveTheSameAnswerAsTheSearch) {
  const Timezone* ny = getTimezone("America/New_York", true);
  TimezoneGuessResult zone;
  ASSERT_TRUE(zone.set(ny));
  DateParserGuesser g;
  uint64_t searches = 0;
  // Every 7 minutes over the autumn change: hits and misses must agree with
  // the plain conversion, and an ambiguous hour must never be cached.
  for (long local = civilUtc(2025, 11, 1, 20); local < civilUtc(2025, 11, 2, 6); local += 420) {
    long expect = local;
    const bool unique = zone.convertToGmt(&expect);
    const uint64_t hitsBefore = g.hourCacheHits();
    long got = local;
    EXPECT_EQ(unique, g.convertToGmt(&zone, &got)) << local;
    EXPECT_EQ(expect, got) << local;
    if (g.hourCacheHits() == hitsBefore) ++searches;
    if (!unique) {
      EXPECT_EQ(hitsBefore, g.hourCacheHits()) << local;
    }
  }
  // 10 hours, one of them ambiguous (9 sevenths of it searched every time).
  EXPECT_GT(g.hourCacheHits(), 60u);
  EXPECT_LT(searches, 25u);
}

TEST_F(DateParserGuesserTest, HourCacheBelongsToOneZone) {
  TimezoneGuessResult ny, paris;
  ASSERT_TRUE(ny.set(getTimezone("America/New_York", true)));
  ASSERT_TRUE(paris.set(getTimezone("Europe/Paris", true)));
  DateParserGuesser g;
  const long local = civilUtc(2025, 7, 1, 12, 10);
  long t = local;
  ASSERT_TRUE(g.convertToGmt(&ny, &t));
  EXPECT_EQ(civilUtc(2025, 7, 1, 16, 10), t);
  t = local + 60;
  ASSERT_TRUE(g.convertToGmt(&paris, &t));
  EXPECT_EQ(civilUtc(2025, 7, 1, 10, 11), t);
}

TEST_F(DateParserGuesserTest, CachesTheConversionByTheHour) {
  DateParserGuesser g;
  TimezoneGuessResult ny;
  ASSERT_TRUE(ny.set(getTimezone("America/New_York", true)));
  const long base = civilUtc(2023, 7, 1, 12);
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
}

TEST_F(DateParserGuesserTest, AFreshZoneLookupForgetsTheHourCache) {
  DateParserGuesser g;
  TimezoneGuessResult ny, r;
  ASSERT_TRUE(ny.set(getTimezone("America/New_York", true)));
  const long local = civilUtc(2023, 7, 1, 12);
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

TEST_F(DateParserGuesserTest, SourceDateRollsIntoALeapDay) {
  DateParserGuesser g;
  g.sourceYear = 2024;
  g.sourceMonth = 1;
  g.sourceDay = 28;
  g.sourceHour = 22;
  TimezoneGuessResult zone;
  zone.setConstant(0);
  R r;
  r.storeHour24(1);
  r.storeMinute(0);
  ASSERT_TRUE(g.guessDate(&r, &zone));
  EXPECT_EQ(2024, r.year);
  EXPECT_EQ(1, r.month);
  EXPECT_EQ(29, r.mday);
  // And through Timeval::set, with the source's date in the result.
  R s;
  s.storeHour24(0);
  s.storeMinute(30);
  s.storeTzOffset(0);
  Timeval tv;
  ExtraTimevalParseInfo extra;
  ASSERT_TRUE(tv.set(&s, &g, &extra));
  EXPECT_EQ(civilUtc(2024, 2, 29, 0, 30), tv.tv_sec);  // back by one hour only
}

TEST_F(DateParserGuesserTest, ConstantsAndNullZonesBypassTheHourCache) {
  DateParserGuesser g;
  TimezoneGuessResult constant;
  constant.setConstant(-3600);
  TimezoneGuessResult none;
  none.set(nullptr);
  for (int i = 0; i < 3; ++i) {
    long t = 7200;
    EXPECT_TRUE(g.convertToGmt(&constant, &t));
    EXPECT_EQ(10800, t);
    t = 7200;
    EXPECT_TRUE(g.convertToGmt(&none, &t));
    EXPECT_EQ(7200, t);
  }
  EXPECT_EQ(0u, g.hourCacheHits());
}

TEST_F(DateParserGuesserTest, TzFillsOnlyTheGapsTheTextLeaves) {
  DateParserGuesser g;
  TimezoneGuessResult zone;
  EXPECT_FALSE(g.guessTimezone("Nowhere", &zone));
  ASSERT_TRUE(g.guessTimezone(nullptr, &zone));  // the default zone
  EXPECT_EQ(0, zone.offset);

  ScopedLogCapture log("DateParser");
  ASSERT_TRUE(g.setTZ("America/New_York"));
  EXPECT_TRUE(g.haveOverride());
  const Timezone* ny = getTimezone("America/New_York", true);
  EXPECT_EQ(ny, g.overrideZone().zone);
  ASSERT_TRUE(g.guessTimezone(nullptr, &zone));
  EXPECT_EQ(ny, zone.zone);
  ASSERT_TRUE(g.guessTimezone("Nowhere", &zone));  // unknown: falls back
  EXPECT_EQ(ny, zone.zone);
  ASSERT_TRUE(g.guessTimezone("PST", &zone));  // the text's zone wins
  EXPECT_EQ(-28800, zone.offset);

  EXPECT_FALSE(g.setTZ("Nowhere/Zone"));
  EXPECT_FALSE(g.haveOverride());
  EXPECT_FALSE(g.guessTimezone("Nowhere", &zone));
  ASSERT_TRUE(g.setTZ("+0200"));
  EXPECT_EQ(7200, g.overrideZone().offset);
  EXPECT_EQ((std::vector<std::string>{"INFO Set timezone to: America/New_York",
                                      "WARN Invalid TZ string: Nowhere/Zone",
                                      "INFO Set timezone to: +0200"}),
            log.lines());
}

TEST_F(DateParserGuesserTest, SetMinMaxDaysClampsAndLogs) {
  const Timeval now = utcInstant(2025, 6, 15, 10);
  ScopedFixedClock clock(now);
  const struct {
    int ago, hence;
    int32_t agoSecs, henceSecs;
    const char* line;
  } kCases[] = {
      {1825, 7, 157680000, 604800, "INFO Setting maxDaysAgo=1825 and maxDaysHence=7"},
      {10950, 10950, 946080000, 946080000,
       "INFO Setting maxDaysAgo=10950 and maxDaysHence=10950"},
      {10951, 99999, 946080000, 946080000,
       "INFO Setting maxDaysAgo=10950 and maxDaysHence=10950"},
      {0, -5, 0, -432000, "INFO Setting maxDaysAgo=0 and maxDaysHence=-5"},
      {-20000, 0, -946080000, 0, "INFO Setting maxDaysAgo=-10950 and maxDaysHence=0"},
  };
  for (const auto& c : kCases) {
    ScopedLogCapture log("DateParserVerbose");
    DateParserGuesser g;
    g.setMinMaxDays(c.ago, c.hence);
    EXPECT_EQ(now, g.now);
    EXPECT_EQ(c.agoSecs, g.maxAgoSecs()) << c.ago;
    EXPECT_EQ(c.henceSecs, g.maxHenceSecs()) << c.hence;
    EXPECT_EQ(std::vector<std::string>{c.line}, log.lines());
  }
}

TEST(DateParserGuesser, DateWindowIsInclusiveAndSaturates) {
  ScopedFixedClock clock(Timeval(1000000000, 500000));
  DateParserGuesser g;
  g.setMinMaxDays(2, 1);
  const Timeval now = g.now;
  const auto shifted = [&](long sec, long usec) {
    return Timeval(now.tv_sec + sec, now.tv_usec + usec);
  };
  const struct {
    Timeval time;
    bool inside;
  } kCases[] = {
      {now, true},
      {shifted(-172800, 0), true},  // exactly maxAgoSecs before
      {shifted(-172800, -1), false},
      {shifted(-172801, 0), false},
      {shifted(86400, 0), true},  // exactly maxHenceSecs after
      {shifted(86400, 1), false},
      {shifted(86401, 0), false},
      {Timeval::min(), false},
      {Timeval::max(), false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.inside, g.withinDateWindow(c.time)) << c.time.tv_sec << "." << c.time.tv_usec;
  }
}

TEST(DateParserGuesser, DateWindowSaturatesAtTheEndsOfTheRange) {
  DateParserGuesser g;
  {
    ScopedFixedClock clock(Timeval::max());
    g.setMinMaxDays(1, 1);
  }
  // The window reaches past max(): adding to a time before now saturates.
  EXPECT_TRUE(g.withinDateWindow(Timeval(INT64_MAX - 86400, 999999)));
  EXPECT_FALSE(g.withinDateWindow(Timeval(INT64_MAX - 86401, 999999)));
  EXPECT_TRUE(g.withinDateWindow(Timeval::max()));
  EXPECT_TRUE(g.withinDateWindow(Timeval(INT64_MAX - 10, 0)));  // the sum passes max()
  {
    ScopedFixedClock clock(Timeval::min());
    g.setMinMaxDays(1, 1);
  }
  // Subtracting from a time after now saturates at min().
  EXPECT_TRUE(g.withinDateWindow(Timeval::min()));
  EXPECT_TRUE(g.withinDateWindow(Timeval(INT64_MIN + 86400, 0)));
  EXPECT_FALSE(g.withinDateWindow(Timeval(INT64_MIN + 86400, 1)));
  {
    ScopedFixedClock clock(Timeval(INT64_MIN + 10, 0));
    g.setMinMaxDays(1, 1);
  }
  EXPECT_TRUE(g.withinDateWindow(Timeval::min()));
  EXPECT_TRUE(g.withinDateWindow(Timeval(INT64_MIN + 86410, 0)));
  EXPECT_TRUE(g.withinDateWindow(Timeval(INT64_MIN + 20, 0)));  // the difference passes min()
  EXPECT_FALSE(g.withinDateWindow(Timeval(INT64_MIN + 86411, 0)));
}

}  // namespace
