// Timeval from a timestamp's text: the completion of a raw parse result by a
// guesser, checked against the C library's calendar and zones.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "util/DateParserGuesser.h"
#include "util/ExtraTimevalParseInfo.h"
#include "util/TimeFormat.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"
#include "util/Timezone.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
#include "util/testing/ScopedTz.h"

namespace {

using R = TimeFormatRawParseResult;

class TimevalParse : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(useStagedZonesWithGmtDefault()) << "build stage_zoneinfo"; }
};

std::string fieldsText(const tm& t) {
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

// A raw result with a date, month 1-12.
R rawDate(int year, int month, int day) {
  R r;
  r.storeYear(year);
  r.storeMonth(month - 1);
  r.storeMday(day);
  return r;
}

struct SetOutcome {
  bool ok;
  Timeval tv;
  ExtraTimevalParseInfo extra;
};

// Timeval::set over a copy of `r`, from a value it must leave alone on failure.
SetOutcome runSet(R r, TimeGuesser* g) {
  SetOutcome out;
  out.tv = Timeval(777, 7);
  out.ok = out.tv.set(&r, g, &out.extra);
  return out;
}

constexpr long FIRST_INSTANT = 31622400;   // 1971-01-02
constexpr long FIRST_NAMED = 631152000;    // 1990-01-01
constexpr long LAST_INSTANT = 4102358400;  // 2099-12-31

TEST_F(TimevalParse, NumericOffsetsAgreeWithTimegm) {
  const TimeFormat format("%Y-%m-%d %H:%M:%S %z");
  ASSERT_TRUE(format.isSet());
  std::mt19937_64 rng(20251123);
  std::uniform_int_distribution<long> instant(FIRST_INSTANT, LAST_INSTANT);
  std::uniform_int_distribution<int> minutes(-14 * 60, 14 * 60);
  int failures = 0;
  for (int i = 0; i < 10000 && failures < 10; ++i) {
    const int offsetMinutes = minutes(rng);
    const long local = instant(rng);
    tm fields = utcFields(local);
    char zone[16];
    std::snprintf(zone, sizeof zone, "%c%02d%02d", offsetMinutes < 0 ? '-' : '+',
                  std::abs(offsetMinutes) / 60, std::abs(offsetMinutes) % 60);
    const std::string text = fieldsText(fields) + " " + zone + " trailing";
    const long expect = timegm(&fields) - offsetMinutes * 60L;
    Timeval got;
    ExtraTimevalParseInfo extra;
    const long used = got.parse(format, text.c_str(), &extra);
    if (used != 25 || got.tv_sec != expect) ++failures;
    EXPECT_EQ(25, used) << text;
    EXPECT_EQ(expect, got.tv_sec) << text;
    EXPECT_EQ(offsetMinutes * 60L, extra.tzOffset) << text;
    EXPECT_TRUE(extra.timezoneKnown) << text;
    EXPECT_EQ(fields.tm_wday, extra.wday) << text;
  }
}

// Named zones, given in the text and as the parser's zone, against mktime
// over the same zone file. Times within 3 hours of a change are left out:
// their local reading may be ambiguous. They start in 1990, since a zone
// whose one change after 1970 is its last counts as constant (see
// TimeGuesser_test, ZonesConstantSinceTheirLastChange).
TEST_F(TimevalParse, NamedZonesAgreeWithMktime) {
  const char* kZones[] = {
      "America/New_York", "America/Los_Angeles", "America/Sao_Paulo", "America/St_Johns",
      "America/Santiago", "America/Havana",      "Europe/London",     "Europe/Paris",
      "Europe/Dublin",    "Europe/Moscow",       "Africa/Casablanca", "Africa/Cairo",
      "Asia/Kolkata",     "Asia/Kathmandu",      "Asia/Tehran",       "Asia/Tokyo",
      "Australia/Sydney", "Australia/Lord_Howe", "Australia/Adelaide", "Pacific/Auckland",
      "Pacific/Chatham",  "Pacific/Honolulu",    "Atlantic/Azores",   "Pacific/Kiritimati",
  };
  const TimeFormat withName("%Y-%m-%d %H:%M:%S %Z");
  const TimeFormat withoutName("%Y-%m-%d %H:%M:%S");
  std::mt19937_64 rng(1123);
  std::uniform_int_distribution<long> instant(FIRST_NAMED, LAST_INSTANT);
  int compared = 0;
  for (const char* name : kZones) {
    const Timezone* zone = getTimezone(name, true);
    ASSERT_NE(nullptr, zone) << name;
    ScopedTz tz(stagedZoneTz(name).c_str());
    int failures = 0;
    for (int i = 0; i < 500 && failures < 5; ++i) {
      const time_t t = instant(rng);
      tm fields, before, after;
      const time_t early = t - 10800, late = t + 10800;
      ASSERT_NE(nullptr, localtime_r(&t, &fields));
      localtime_r(&early, &before);
      localtime_r(&late, &after);
      if (before.tm_gmtoff != fields.tm_gmtoff || after.tm_gmtoff != fields.tm_gmtoff) continue;
      tm oracle = fields;
      oracle.tm_isdst = -1;
      const long expect = mktime(&oracle);
      Timeval got;
      ExtraTimevalParseInfo extra;
      std::string text = fieldsText(fields);
      long used;
      if (i % 2 == 0) {
        text += std::string(" ") + name;
        used = got.parse(withName, text.c_str(), &extra);
      } else {
        used = got.parse(withoutName, text.c_str(), zone, &extra);
      }
      ++compared;
      if (used != static_cast<long>(text.size()) || got.tv_sec != expect) ++failures;
      EXPECT_EQ(static_cast<long>(text.size()), used) << text;
      EXPECT_EQ(expect, got.tv_sec) << text;
      EXPECT_EQ(fields.tm_gmtoff, extra.tzOffset) << text;
      EXPECT_EQ(i % 2 == 0, extra.timezoneKnown) << text;
    }
  }
  EXPECT_GT(compared, 10000);
}

struct GuessCase {
  const char* why;
  const char* format;
  const char* text;
  Timeval now;
  bool context;  // the parser's guesser with `now` as the previous event
  Timeval expect;
};

void runGuessCases(const std::vector<GuessCase>& cases) {
  for (const GuessCase& c : cases) {
    ScopedFixedClock clock(c.context ? utcInstant(1990, 1, 1) : c.now);
    DateParserGuesser stream;
    stream.previous = c.now;
    TimeGuesser* guesser = c.context ? static_cast<TimeGuesser*>(&stream) : TimeGuesser::basic();
    const TimeFormat format(c.format);
    ASSERT_TRUE(format.isSet()) << c.why;
    Timeval got;
    EXPECT_EQ(static_cast<long>(std::strlen(c.text)), got.parse(format, c.text, guesser))
        << c.why;
    EXPECT_EQ(c.expect, got) << c.why << ": " << got.tv_sec - c.expect.tv_sec << " s off";
  }
}

TEST_F(TimevalParse, SyslogDatesTakeTheirYearFromTheClockOrTheStream) {
  const char* syslog = "%b %d %H:%M:%S";
  runGuessCases({
      {"Dec 31 on Jan 1", syslog, "Dec 31 23:59:59", utcInstant(2026, 1, 1, 0, 0, 10), false,
       utcInstant(2025, 12, 31, 23, 59, 59)},
      {"a stream runs into January", syslog, "Jan  3 08:00:00", utcInstant(2025, 12, 29, 22), true,
       utcInstant(2026, 1, 3, 8)},
      {"Feb 29, non-leap year", syslog, "Feb 29 12:00:00", utcInstant(2023, 6, 1), false,
       utcInstant(2020, 2, 29, 12)},
      {"Feb 29, non-leap year, stream", syslog, "Feb 29 12:00:00", utcInstant(2023, 6, 1), true,
       utcInstant(2024, 2, 29, 12)},
  });
}

TEST_F(TimevalParse, TimesWithoutDatesStayNearTheClock) {
  const Timeval ten = utcInstant(2025, 6, 15, 10);
  runGuessCases({
      {"3 h ahead", "%H:%M:%S", "13:00:00", ten, false, utcInstant(2025, 6, 15, 13)},
      {"3 h + 1 s ahead", "%H:%M:%S", "13:00:01", ten, false, utcInstant(2025, 6, 14, 13, 0, 1)},
      {"behind the stream", "%H:%M:%S", "09:59:59", ten, true, utcInstant(2025, 6, 15, 9, 59, 59)},
      {"ahead of the stream", "%H:%M", "13:01", ten, true, utcInstant(2025, 6, 14, 13, 1)},
      // The offset in the text places the clock: 05:00 UTC is 21:00 the day
      // before at -08:00, and 23:00 there is 2 h ahead.
      {"in the text's offset", "%H:%M %z", "23:00 -0800", utcInstant(2025, 6, 15, 5), false,
       utcInstant(2025, 6, 15, 7)},
      // 12-hour times without AM or PM take the nearer half day, with the
      // past weighing eight times the future.
      {"12:30 at 13:00", "%I:%M", "12:30", utcInstant(2025, 6, 15, 13), false,
       utcInstant(2025, 6, 15, 12, 30)},
      {"12:10 at 23:50", "%I:%M", "12:10", utcInstant(2025, 6, 15, 23, 50), false,
       utcInstant(2025, 6, 16, 0, 10)},
      {"08:00 at 21:00", "%I:%M", "08:00", utcInstant(2025, 6, 15, 21), false,
       utcInstant(2025, 6, 15, 20)},
      {"08:00 PM at 09:00, marked", "%I:%M %p", "08:00 PM", utcInstant(2025, 6, 15, 9), false,
       utcInstant(2025, 6, 14, 20)},
  });
}

// The local time 01:30 of the autumn change in a northern and a southern
// zone: the later reading wins once it is nearer by the weighted distance.
TEST_F(TimevalParse, AmbiguousLocalTimesTakeTheNearerReading) {
  const struct {
    const char* text;
    Timeval earlier;
    long earlierOffset, laterOffset;
  } kZones[] = {
      {"2025-11-02 01:30:00 America/New_York", utcInstant(2025, 11, 2, 5, 30), -14400, -18000},
      {"2025-04-06 02:30:00 Australia/Sydney", utcInstant(2025, 4, 5, 15, 30), 39600, 36000},
  };
  const struct {
    long nowFromEarlier;
    bool later;
  } kNows[] = {
      {-86400 * 100, false},  // both ahead: the earlier is nearer
      {300, false},
      {400, false},  // 8 x 400 = 3600 - 400: a tie keeps the earlier
      {401, true},
      {3600, true},
      {4000, true},
      {86400 * 100, true},  // both behind: the later is nearer
  };
  const TimeFormat format("%Y-%m-%d %H:%M:%S %Z");
  for (const auto& z : kZones) {
    for (const auto& n : kNows) {
      ScopedFixedClock clock(Timeval(z.earlier.tv_sec + n.nowFromEarlier, 0));
      Timeval got;
      ExtraTimevalParseInfo extra;
      unsigned int conflicts = 0;
      ASSERT_EQ(36, got.parse(format, z.text, &extra, &conflicts)) << z.text;
      EXPECT_EQ(z.earlier.tv_sec + (n.later ? 3600 : 0), got.tv_sec)
          << z.text << " now " << n.nowFromEarlier;
      EXPECT_EQ(n.later ? z.laterOffset : z.earlierOffset, extra.tzOffset) << z.text;
      EXPECT_EQ(1u, conflicts) << z.text;
    }
  }
}

TEST_F(TimevalParse, YearsAndDaysFromEveryShape) {
  const Timeval now = utcInstant(2025, 6, 15, 10);
  runGuessCases({
      {"short year 68", "%y-%m-%d %H:%M", "68-03-01 10:00", now, false,
       utcInstant(2068, 3, 1, 10)},
      {"short year 69", "%y-%m-%d %H:%M", "69-03-01 10:00", now, false,
       utcInstant(1969, 3, 1, 10)},
      {"short year 00", "%y-%m-%d %H:%M", "00-03-01 10:00", now, false,
       utcInstant(2000, 3, 1, 10)},
      {"century and short year", "%C%y-%m-%d %H:%M", "2109-03-01 10:00", now, false,
       utcInstant(2109, 3, 1, 10)},
      {"day of the year in a leap year", "%Y %j %H:%M", "2024 060 10:00", now, false,
       utcInstant(2024, 2, 29, 10)},
      {"day of the year otherwise", "%Y %j %H:%M", "2023 060 10:00", now, false,
       utcInstant(2023, 3, 1, 10)},
      {"Sunday week and weekday", "%Y %U %w %H:%M", "2025 10 3 10:00", now, false,
       utcInstant(2025, 3, 12, 10)},
      {"leap second reads as 59", "%Y-%m-%d %H:%M:%S", "2016-12-31 23:59:60", now, false,
       utcInstant(2016, 12, 31, 23, 59, 59)},
      {"a date without a time", "%Y-%m-%d", "2025-02-03", now, false, utcInstant(2025, 2, 3)},
      {"an epoch wins", "%s %Y", "1234567890 2001", now, false, Timeval(1234567890, 0)},
  });
}

TEST_F(TimevalParse, ImpossibleDatesAndUnknownZonesFail) {
  ScopedFixedClock clock(utcInstant(2025, 6, 15, 10));
  const struct {
    const char* format;
    const char* text;
  } kCases[] = {
      {"%Y-%m-%d", "2023-02-29"},
      {"%Y-%m-%d", "2024-04-31"},
      {"%Y %j", "2023 366"},
      {"%Y %U", "2025 10"},  // a week without a weekday
      {"%Y-%m", "2025-06"},  // a month without a day
      {"%Y-%m-%d %H:%M %Z", "2025-06-15 10:00 Nowhere"},
      {"%H:%M", "25:00"},    // the format refuses
      {"%S", "30"},          // no minute: no date can be guessed
      {"%b %d %H:%M", "Feb 30 10:00"},
  };
  for (const auto& c : kCases) {
    const TimeFormat format(c.format);
    ASSERT_TRUE(format.isSet()) << c.format;
    Timeval got(42, 7);
    EXPECT_EQ(-1, got.parse(format, c.text)) << c.text;
    EXPECT_EQ(Timeval(42, 7), got) << c.text;
  }
  Timeval got(42, 7);
  EXPECT_EQ(-1, got.parse(TimeFormat("%Y"), nullptr));
  EXPECT_EQ(-1, got.parse(TimeFormat("%Y"), nullptr, 4ul));
  EXPECT_EQ(-1, got.parse(TimeFormat(), "2025"));
  EXPECT_EQ(Timeval(42, 7), got);
}

TEST_F(TimevalParse, ExtraTellsPrecisionZoneAndReading) {
  ScopedFixedClock clock(utcInstant(2025, 6, 15, 10));
  const struct {
    const char* format;
    const char* text;
    int32_t subsecDigits;
    bool timezoneKnown;
    long tzOffset;
    int64_t usec;
    const char* reading;  // year-month-mday wday hour:minute:second
  } kCases[] = {
      {"%Y-%m-%d %H:%M:%S.%3N", "2025-06-15 08:30:15.123", 3, false, 0, 123000,
       "2025-5-15 0 8:30:15"},
      {"%Y-%m-%d %H:%M:%S", "2025-06-15 08:30:15", 0, false, 0, 0, "2025-5-15 0 8:30:15"},
      {"%Y-%m-%d %H:%M.%6N", "2025-06-15 08:30.123456", -1, false, 0, 0, "2025-5-15 0 8:30:0"},
      {"%Y-%m-%d", "2025-06-15", -2, false, 0, 0, "2025-5-15 0 0:0:0"},
      {"%Y-%m-%d %H:%M:%S %Z", "2025-06-15 08:30:15 CEST", 0, true, 7200, 0,
       "2025-5-15 0 8:30:15"},
      {"%Y-%m-%d %H:%M:%S %Z", "2025-01-15 08:30:15 Europe/Paris", 0, true, 3600, 0,
       "2025-0-15 3 8:30:15"},
      {"%Y-%m-%d %H:%M:%S %z", "2025-06-15 08:30:15 -0330", 0, true, -12600, 0,
       "2025-5-15 0 8:30:15"},
      // A weekday in the text is kept even when it is wrong.
      {"%a %Y-%m-%d %H:%M", "Tue 2025-06-15 08:30", -1, false, 0, 0, "2025-5-15 2 8:30:0"},
      // An unmarked 12-hour time reports the hour as read (12 is 0), even
      // when the afternoon is the reading taken.
      {"%I:%M:%S.%3N", "12:10:00.500", 3, false, 0, 500000, "2025-5-15 0 0:10:0"},
      {"%s.%3N", "1234567890.250", 3, true, 0, 250000, "2009-1-13 5 23:31:30"},
  };
  for (const auto& c : kCases) {
    const TimeFormat format(c.format);
    ASSERT_TRUE(format.isSet()) << c.format;
    Timeval got;
    ExtraTimevalParseInfo extra;
    extra.subsecDigits = 99;
    ASSERT_EQ(static_cast<long>(std::strlen(c.text)), got.parse(format, c.text, &extra))
        << c.text;
    EXPECT_EQ(c.subsecDigits, extra.subsecDigits) << c.text;
    EXPECT_EQ(c.timezoneKnown, extra.timezoneKnown) << c.text;
    EXPECT_EQ(c.tzOffset, extra.tzOffset) << c.text;
    EXPECT_EQ(c.usec, got.tv_usec) << c.text;
    char reading[64];
    std::snprintf(reading, sizeof reading, "%d-%d-%d %d %d:%d:%d", extra.year, extra.month,
                  extra.mday, extra.wday, extra.hour, extra.minute, extra.second);
    EXPECT_EQ(std::string(c.reading), reading) << c.text;
  }
}

TEST_F(TimevalParse, ConflictsCountRepeatedFields) {
  Timeval got;
  unsigned int conflicts = 99;
  EXPECT_EQ(19, got.parse(TimeFormat("%Y-%m-%d %H:%M %H"), "2025-06-15 10:00 11", nullptr,
                          &conflicts));
  EXPECT_EQ(1u, conflicts);
  EXPECT_EQ(utcInstant(2025, 6, 15, 10), got);
  EXPECT_EQ(16, got.parse(TimeFormat("%Y-%m-%d %H:%M"), "2025-06-15 10:00", nullptr, &conflicts));
  EXPECT_EQ(0u, conflicts);
}

// A full year below 100, which only the pattern path produces, is a short
// year; so is a century (0 likewise) with a short year that stays below 100.
TEST_F(TimevalParse, SetExpandsSmallFullYears) {
  const struct {
    int32_t year;  // -1: century and short year below
    int32_t century, shortYear;
    int32_t expect;
  } kCases[] = {
      {23, 0, 0, 2023},   {68, 0, 0, 2068},   {69, 0, 0, 1969},
      {100, 0, 0, 100},   {1999, 0, 0, 1999}, {-1, 0, 9, 2009},
      {-1, 0, 69, 1969},  {-1, 1, 5, 105},    {-1, 20, 5, 2005},
  };
  for (const auto& c : kCases) {
    R raw;
    if (c.year >= 0) {
      raw.storeYear(c.year);
    } else {
      raw.storeCentury(c.century);
      raw.storeShortYear(c.shortYear);
    }
    raw.storeMonth(2);
    raw.storeMday(1);
    raw.storeHour24(0);
    raw.storeMinute(0);
    Timeval got;
    ASSERT_TRUE(got.set(&raw, nullptr)) << c.expect;
    EXPECT_EQ(c.expect, raw.year) << c.expect;
    EXPECT_EQ(civilUtc(c.expect, 3, 1), got.tv_sec) << c.expect;
  }
}

// The parser's guesser end to end: its TZ, its name cache, and the date of
// the source's name with its midnight rule.
TEST_F(TimevalParse, ParserGuesserCompletesAStream) {
  ScopedFixedClock clock(utcInstant(2025, 6, 15, 10));
  DateParserGuesser g;
  g.setMinMaxDays(1825, 7);
  ASSERT_TRUE(g.setTZ("America/New_York"));
  g.sourceYear = 2025;
  g.sourceMonth = 0;
  g.sourceDay = 31;
  g.sourceHour = 0;
  const TimeFormat format("%H:%M:%S");
  const struct {
    const char* text;
    Timeval expect;
  } kLines[] = {
      {"22:00:00", utcInstant(2025, 2, 1, 3)},
      {"23:59:59", utcInstant(2025, 2, 1, 4, 59, 59)},
      {"00:00:01", utcInstant(2025, 2, 1, 5, 0, 1)},  // past midnight: Feb 1
      {"01:00:00", utcInstant(2025, 2, 1, 6)},
      {"01:30:00", utcInstant(2025, 2, 1, 6, 30)},  // the same hour: cached
  };
  for (const auto& l : kLines) {
    Timeval got;
    ExtraTimevalParseInfo extra;
    ASSERT_EQ(8, got.parse(format, l.text, &g, &extra)) << l.text;
    EXPECT_EQ(l.expect, got) << l.text;
    EXPECT_EQ(-18000, extra.tzOffset) << l.text;
    EXPECT_FALSE(extra.timezoneKnown) << l.text;
    EXPECT_TRUE(g.withinDateWindow(got)) << l.text;
  }
  EXPECT_EQ(1, g.sourceMonth);
  EXPECT_EQ(1, g.sourceDay);
  EXPECT_GE(g.hourCacheHits(), 1u);
}

TEST_F(TimevalParse, SetPrefersTheOffsetToTheZoneName) {
  const char* text = "EST";
  R r = rawDate(2009, 2, 13);
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

TEST_F(TimevalParse, SetReadsTheZoneNameOrTheBaseZone) {
  const struct { const char* name; long offset; bool known; } kCases[] = {
      {"EST", -18000, true},
      {"cest", 7200, true},
      {"Pacific Standard Time", -28800, true},
      {"GMT-0700", -25200, true},
      {nullptr, -14400, false},  // the guesser's base zone: New York in July
  };
  OnlyOverrideTimezoneTimeGuesser g(getTimezone("America/New_York", true));
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name == nullptr ? "none" : c.name);
    R r = rawDate(2023, 7, 1);
    r.storeHour24(12);
    r.storeMinute(0);
    if (c.name != nullptr) r.storeTzName(StrSegment(c.name, strlen(c.name)));
    const SetOutcome o = runSet(r, &g);
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(civilUtc(2023, 7, 1, 12) - c.offset, o.tv.tv_sec);
    EXPECT_EQ(c.known, o.extra.timezoneKnown);
    EXPECT_EQ(c.offset, o.extra.tzOffset);
  }
  // A zone no lookup knows fails the whole call and leaves the value.
  R bad = rawDate(2023, 7, 1);
  bad.storeHour24(12);
  bad.storeMinute(0);
  bad.storeTzName(StrSegment("Nowhere/Zone", 12));
  const SetOutcome o = runSet(bad, &g);
  EXPECT_FALSE(o.ok);
  EXPECT_EQ(777, o.tv.tv_sec);
  EXPECT_EQ(7, o.tv.tv_usec);
}

TEST_F(TimevalParse, SetReadsTheTimeOfDay) {
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
    R r = rawDate(2024, 3, 15);
    if (c.hour24 >= 0) r.storeHour24(c.hour24);
    if (c.hour12 >= 0) r.storeHour12(c.hour12);
    if (c.pm >= 0) r.storePm(c.pm == 1);
    if (c.minute >= 0) r.storeMinute(c.minute);
    if (c.second >= 0) r.storeSecond(c.second);
    if (c.frac) r.setFracsec(frac, frac + 3);
    r.storeTzOffset(0);
    const SetOutcome o = runSet(r, TimeGuesser::basic());
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(civilUtc(2024, 3, 15) + c.seconds, o.tv.tv_sec);
    EXPECT_EQ(c.usec, o.tv.tv_usec);
    EXPECT_EQ(c.digits, o.extra.subsecDigits);
    if (c.digits != -2) {
      EXPECT_EQ(c.seconds / 3600, o.extra.hour);
      EXPECT_EQ(c.seconds / 60 % 60, o.extra.minute);
    }
  }
}

TEST_F(TimevalParse, SetConvertsTheAfternoonReadingInItsOwnOffset) {
  // New York springs forward at 02:00 on 2023-03-12: 01:00 is EST, 13:00 EDT.
  // At 13:30 EDT a bare "1:00" is the afternoon, 17:00Z, not 06:00Z + 12h.
  ScopedFixedClock clock(Timeval(civilUtc(2023, 3, 12, 17, 30), 0));
  OnlyOverrideTimezoneTimeGuesser g(getTimezone("America/New_York", true));
  R r = rawDate(2023, 3, 12);
  r.storeHour12(1);
  r.storeMinute(0);
  const SetOutcome o = runSet(r, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civilUtc(2023, 3, 12, 17), o.tv.tv_sec);
  EXPECT_EQ(-14400, o.extra.tzOffset);
}

TEST_F(TimevalParse, SetWithoutADateUsesTheTextOffsetForTheGuess) {
  // 14:00Z on May 10 is 00:00 on May 11 at +10:00. "23:30 +1000" lies in the
  // past there, so it is May 10 at +10:00, 13:30Z.
  ScopedFixedClock clock(Timeval(civilUtc(2024, 5, 10, 14), 0));
  OnlyOverrideTimezoneTimeGuesser g(getTimezone("Etc/UTC", true));
  R r;
  r.storeHour24(23);
  r.storeMinute(30);
  r.storeTzOffset(36000);
  const SetOutcome o = runSet(r, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civilUtc(2024, 5, 10, 13, 30), o.tv.tv_sec);
  EXPECT_EQ(36000, o.extra.tzOffset);
  EXPECT_EQ(10, o.extra.mday);
  // Without a minute there is no date to guess.
  R none;
  none.storeHour24(23);
  EXPECT_FALSE(runSet(none, &g).ok);
}

TEST_F(TimevalParse, ParseReturnsTheBytesConsumed) {
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
  EXPECT_EQ(-1, t3.parse(f, static_cast<const char*>(nullptr), getTimezone("Etc/UTC", true)));
}

TEST_F(TimevalParse, ParseReadsZonelessTextInTheZoneGiven) {
  TimeFormat f("%Y-%m-%d %H:%M");
  const char* text = "2009-07-01 12:00";
  Timeval t;
  ExtraTimevalParseInfo extra;
  EXPECT_EQ(16, t.parse(f, text, getTimezone("America/New_York", true), &extra));
  EXPECT_EQ(civilUtc(2009, 7, 1, 16), t.tv_sec);
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

}  // namespace
