#include "util/DateTime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "util/testing/CivilTime.h"
#include "util/testing/ScopedTz.h"

namespace {

// The C library's GMT calendar is the oracle; `mon` counts from 0 here as
// in tm, and day 0 is the previous month's last day.
tm civil(long year, int mon, int mday, int hour = 0, int min = 0, int sec = 0) {
  return utcFields(civilUtc(year, mon + 1, mday, hour, min, sec));
}

StructTm randomDate(std::mt19937_64& rng, long firstYear, long lastYear) {
  const long first = civilUtc(firstYear, 1, 1);
  const long last = civilUtc(lastYear, 12, 31, 23, 59, 59);
  StructTm out;
  static_cast<tm&>(out) = utcFields(first + static_cast<long>(rng() % (last - first + 1)));
  return out;
}

}  // namespace

TEST(StructTm, DateTablesAgreeWithTheCalendar) {
  for (int mon = 0; mon < 12; ++mon) {
    SCOPED_TRACE(mon);
    EXPECT_EQ(civil(2023, mon, 1).tm_yday, StructTm::CUMULATIVE_DAYS[mon]);
    EXPECT_EQ(civil(2023, mon + 1, 0).tm_mday, StructTm::DAYS_IN_MONTH[mon]);
    EXPECT_EQ(civil(2024, mon + 1, 0).tm_mday, StructTm::DAYS_IN_MONTH_LEAP[mon]);
  }
}

TEST(StructTm, LeapYearsAndJanuaryFirstAgreeWithTimegm) {
  for (long year = 1; year <= 10000; ++year) {
    // February 29 survives normalisation only in a leap year.
    const bool leap = civil(year, 1, 29).tm_mon == 1;
    ASSERT_EQ(leap, StructTm::isLeapYear(year)) << year;
    StructTm t;
    t.tm_year = static_cast<int>(year - 1900);
    ASSERT_EQ(leap, t.isLeapYear()) << year;
    ASSERT_EQ(civil(year, 0, 1).tm_wday, StructTm::weekdayOfJanuaryFirst(year)) << year;
  }
}

// Some 330 of the dates fall within three days of a New Year, where the ISO
// year and week part from the calendar's.
TEST(StructTm, WeekNumbersAgreeWithStrftime) {
  std::mt19937_64 rng(8601);
  for (int i = 0; i < 20000; ++i) {
    const StructTm t = randomDate(rng, 1, 9999);
    char text[64];
    ASSERT_GT(::strftime(text, sizeof text, "%G %V %U %W", &t), 0u);
    long isoYear;
    int isoWeek, sundayWeek, mondayWeek;
    ASSERT_EQ(4, std::sscanf(text, "%ld %d %d %d", &isoYear, &isoWeek, &sundayWeek, &mondayWeek));
    SCOPED_TRACE(civilFields(t));
    EXPECT_EQ(isoYear, t.yearISO8601());
    EXPECT_EQ(isoWeek, t.yearWeekISO8601());
    EXPECT_EQ(sundayWeek, t.yearWeekFromSunday());
    EXPECT_EQ(mondayWeek, t.yearWeekFromMonday());
  }
}

TEST(StructTm, MdayValidForMonthAndLastMday) {
  const struct { int year, mon, mday; bool valid; int lastMday; } kCases[] = {
      {124, 1, 29, true, 28},  // the last-day table is the non-leap one
      {123, 1, 29, false, 28},
      {100, 1, 29, true, 28},   // 2000 is leap
      {0, 1, 29, false, 28},    // 1900 is not
      {123, 3, 31, false, 30}, {123, 11, 31, true, 31}, {123, 0, 0, false, 31},
      {123, 12, 1, false, -1},  // month out of range: no change
      {123, -1, 1, false, -1},
  };
  for (const auto& c : kCases) {
    StructTm t;
    t.tm_year = c.year;
    t.tm_mon = c.mon;
    t.tm_mday = c.mday;
    SCOPED_TRACE(civilFields(t));
    EXPECT_EQ(c.valid, t.mdayValidForMonth());
    t.setToLastMday();
    EXPECT_EQ(c.lastMday == -1 ? c.mday : c.lastMday, t.tm_mday);
  }
}

TEST(StructTm, AddCalendarMonthsKnownCasesAndRefusals) {
  const struct { long year; int mon, mday, n; long wantYear; int wantMon, wantMday; } kCases[] = {
      {2024, 0, 31, 1, 2024, 1, 29},   // into a leap February
      {2023, 0, 31, 1, 2023, 1, 28}, {2024, 2, 31, -1, 2024, 1, 29}, {2024, 1, 29, 12, 2025, 1, 28},
      {2999, 11, 31, 0, 2999, 11, 31},
  };
  for (const auto& c : kCases) {
    StructTm t;
    static_cast<tm&>(t) = civil(c.year, c.mon, c.mday, 10, 20, 30);
    SCOPED_TRACE(civilFields(t) + " + " + std::to_string(c.n));
    ASSERT_TRUE(t.addCalendarMonths(c.n));
    EXPECT_EQ(civilFields(civil(c.wantYear, c.wantMon, c.wantMday, 10, 20, 30)), civilFields(t));
  }
  const struct { int year, mon, n; } kRefused[] = {
      {1099, 11, 1},    // into the year 3000
      {123, 0, 12000},
      {123, 12, 1},     // month out of range
      {123, -1, 0},
  };
  for (const auto& c : kRefused) {
    StructTm t;
    t.tm_year = c.year;
    t.tm_mon = c.mon;
    t.tm_mday = 5;
    t.tm_wday = 6;
    const StructTm before = t;
    EXPECT_FALSE(t.addCalendarMonths(c.n)) << c.year << "/" << c.mon << " + " << c.n;
    EXPECT_EQ(0, std::memcmp(&before, &t, sizeof(tm)));
  }
}

TEST(StructTm, AddCalendarMonthsMatchesAMonthCountModel) {
  std::mt19937_64 rng(12);
  for (int i = 0; i < 20000; ++i) {
    StructTm t = randomDate(rng, 1, 2999);
    const int n = static_cast<int>(rng() % 60001) - 30000;
    const StructTm before = t;
    // The model: count months from year 0, clamp the day by the calendar.
    const long total = (before.tm_year + 1900L) * 12 + before.tm_mon + n;
    const long year = total >= 0 ? total / 12 : -((-total + 11) / 12);
    const int mon = static_cast<int>(total - year * 12);
    SCOPED_TRACE(civilFields(before) + " + " + std::to_string(n));
    if (year - 1900 >= 1100) {
      EXPECT_FALSE(t.addCalendarMonths(n));
      EXPECT_EQ(civilFields(before), civilFields(t));
      continue;
    }
    const int daysInMonth = civil(year, mon + 1, 0).tm_mday;
    const tm want = civil(year, mon, std::min(before.tm_mday, daysInMonth), before.tm_hour,
                          before.tm_min, before.tm_sec);
    ASSERT_TRUE(t.addCalendarMonths(n));
    EXPECT_EQ(civilFields(want), civilFields(t));
  }
}

TEST(StructTm, GmtBreakdownAgreesWithGmtimeR) {
  std::mt19937_64 rng(77);
  for (int i = 0; i < 5000; ++i) {
    const long t = static_cast<long>(rng() % 40000000000ULL) - 5000000000L;
    SCOPED_TRACE(t);
    GmtStructTm got;
    got.tm_year = 4242;
    if (t > StructTm::MAX_BREAKDOWN_TIME) {
      EXPECT_FALSE(got.fromUnixTime(t));
      EXPECT_EQ(4242, got.tm_year);
      continue;
    }
    ASSERT_TRUE(got.fromUnixTime(t));
    EXPECT_EQ(civilFieldsAndZone(utcFields(t)), civilFieldsAndZone(got));
    EXPECT_EQ(t, got.toUnixTime());
  }
  GmtStructTm edge;
  EXPECT_TRUE(edge.GMT_fromUnixTime(32535244799));
  EXPECT_FALSE(edge.GMT_fromUnixTime(32535244800));
  EXPECT_FALSE(edge.Local_fromUnixTime(32535244800));
}

TEST(StructTm, LocalBreakdownAgreesWithTheCLibraryInRealZones) {
  for (const char* zone : {"America/New_York", "Asia/Kolkata", "Australia/Lord_Howe",
                           "Asia/Kathmandu", "Europe/London", "UTC"}) {
    ScopedTz tz(zone);
    std::mt19937_64 rng(std::hash<std::string>()(zone));
    for (int i = 0; i < 3000; ++i) {
      const long t = static_cast<long>(rng() % 10000000000ULL) - 3000000000L;
      SCOPED_TRACE(std::string(zone) + " " + std::to_string(t));
      const time_t tt = t;
      tm want;
      ASSERT_NE(nullptr, localtime_r(&tt, &want));
      LocalStructTm got;
      ASSERT_TRUE(got.fromUnixTime(t));
      EXPECT_EQ(civilFieldsAndZone(want), civilFieldsAndZone(got));
      EXPECT_EQ(want.tm_gmtoff, got.timezoneOffsetSeconds());
      tm again = want;
      EXPECT_EQ(mktime(&again), got.toUnixTime());
      StructTmInTimezone local(nullptr);
      ASSERT_TRUE(local.fromUnixTime(t));
      EXPECT_EQ(civilFieldsAndZone(want), civilFieldsAndZone(local));
      EXPECT_EQ(want.tm_gmtoff, local.timezoneOffsetSeconds());
      EXPECT_EQ(t, local.toUnixTime());
    }
  }
}

TEST(StructTm, AsctimeDropsTheLineEnd) {
  std::mt19937_64 rng(1);
  for (int i = 0; i < 2000; ++i) {
    const StructTm t = randomDate(rng, 1000, 9999);
    char buffer[64];
    ASSERT_NE(nullptr, asctime_r(&t, buffer));
    const Str text = t.asctime();
    EXPECT_EQ(24u, text.size()) << buffer;
    EXPECT_EQ(std::string(buffer, 24), text);
  }
  StructTm far;
  static_cast<tm&>(far) = civil(9999, 11, 31);
  far.tm_year += 1;  // the year 10000 no longer fits
  EXPECT_EQ("", far.asctime());
}

TEST(StructTm, StrftimeGrowsItsBuffer) {
  StructTm t;
  static_cast<tm&>(t) = civil(2009, 1, 13, 23, 31, 30);
  std::string longFormat, want;
  for (int i = 0; i < 300; ++i) {
    longFormat += "%Y-%m-%d ";
    want += "2009-02-13 ";
  }
  EXPECT_EQ(want, t.strftime(longFormat.c_str()));
  const struct { const char* fmt; const char* text; } kCases[] = {
      {"%H:%M:%S", "23:31:30"}, {"", ""}, {"%j %a %b", "044 Fri Feb"}, {"%%", "%"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.text, t.strftime(c.fmt)) << c.fmt;
    Str out("keep:");
    t.appendFtime(out, c.fmt);
    EXPECT_EQ(std::string("keep:") + c.text, out) << c.fmt;
  }
}

TEST(StructTm, RangeLimitsAreRealDates) {
  StructTm low, high;
  low.setToRangeLimit(true);
  high.setToRangeLimit(false);
  EXPECT_EQ(civilFields(civil(1900, 0, 1)), civilFields(low));
  EXPECT_EQ(civilFields(civil(9999, 11, 31, 23, 59, 59)), civilFields(high));
  EXPECT_EQ(-1, low.tm_isdst);
  EXPECT_EQ(-1, high.tm_isdst);
}

TEST(StructTm, RenderOpsOfEachView) {
  ScopedTz tz("America/New_York");
  const long t = 1700000000;  // November: standard time, -5 hours
  GmtStructTm gmt;
  ASSERT_TRUE(gmt.fromUnixTime(t));
  const render_tm_ops* ops = gmt.getRenderOps();
  char name[11];
  EXPECT_EQ(t, ops->to_epoch(ops, &gmt));
  ASSERT_TRUE(ops->get_tzname(ops, &gmt, name, sizeof name));
  EXPECT_STREQ("GMT", name);
  EXPECT_EQ(0, ops->tz_sec_offset(ops, &gmt));

  LocalStructTm local;
  ASSERT_TRUE(local.fromUnixTime(t));
  StructTmInTimezone zoned(nullptr);
  ASSERT_TRUE(zoned.fromUnixTime(t));
  const struct { const char* name; const StructTm* view; const render_tm_ops* ops; } kViews[] = {
      {"local", &local, local.getRenderOps()}, {"zone-less", &zoned, zoned.getRenderOps()},
  };
  for (const auto& v : kViews) {
    SCOPED_TRACE(v.name);
    EXPECT_EQ(t, v.ops->to_epoch(v.ops, v.view));
    ASSERT_TRUE(v.ops->get_tzname(v.ops, v.view, name, sizeof name));
    EXPECT_STREQ("EST", name);
    ASSERT_TRUE(v.ops->get_tzname(v.ops, v.view, name, 3));  // cut to the buffer
    EXPECT_STREQ("ES", name);
    EXPECT_EQ(-18000, v.ops->tz_sec_offset(v.ops, v.view));
  }
  // An unknown daylight flag asks the C library for the offset.
  LocalStructTm summer;
  static_cast<tm&>(summer) = civil(2023, 6, 1, 12);
  summer.tm_isdst = -1;
  ops = summer.getRenderOps();
  EXPECT_EQ(-14400, ops->tz_sec_offset(ops, &summer));
  summer.tm_zone = nullptr;
  EXPECT_FALSE(ops->get_tzname(ops, &summer, name, sizeof name));
}
