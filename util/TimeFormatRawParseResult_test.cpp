#include "util/TimeFormatRawParseResult.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>

#include <gtest/gtest.h>

#include "util/testing/CivilTime.h"

namespace {

typedef TimeFormatRawParseResult RPR;

RPR dateOf(int year, int month, int mday) {
  RPR r;
  r.storeYear(year);
  r.storeMonth(month);
  r.storeMday(mday);
  return r;
}

TEST(TimeFormatRawParseResult, KeepsTheFirstValueAndCountsConflicts) {
  RPR r;
  r.storeHour24(12);
  r.storeHour24(12);  // the same again is no conflict
  EXPECT_EQ(0u, r.conflicts);
  r.storeHour24(13);
  r.storeHour24(14);
  EXPECT_EQ(12, r.hour24);
  EXPECT_EQ(2u, r.conflicts);
  EXPECT_EQ(RPR::HAVE_HOUR24, r.have);
  r.storePm(true);
  r.storePm(false);
  EXPECT_TRUE(r.pm);
  EXPECT_EQ(3u, r.conflicts);
  r.storeEpoch(-5);
  r.storeTzOffset(3600);
  r.storeTzOffset(-3600);
  EXPECT_EQ(-5, r.epoch);
  EXPECT_EQ(3600, r.tzOffset);
  EXPECT_EQ(4u, r.conflicts);
  EXPECT_EQ(RPR::HAVE_HOUR24 | RPR::HAVE_AMPM | RPR::HAVE_EPOCH | RPR::HAVE_TZOFFSET, r.have);
}

TEST(TimeFormatRawParseResult, FlagBitsAreFixed) {
  EXPECT_EQ(0x80000000u, RPR::HAVE_EPOCH);
  EXPECT_EQ(0x20000000u, RPR::HAVE_TZNAM);
  EXPECT_EQ(0x10000000u, RPR::HAVE_YEAR);
  EXPECT_EQ(0x00040000u, RPR::HAVE_SUBSEC);
  EXPECT_EQ(0x00000080u, RPR::HAVE_ISOYEAR);
  EXPECT_EQ(0x00000001u, RPR::HAVE_WDAY);
}

TEST(TimeFormatRawParseResult, LongestZoneNameWins) {
  const char text[] = "EST Eastern Standard Time";
  RPR r;
  r.storeTzName(StrSegment(text, 3));
  r.storeTzName(StrSegment(text + 4, 21));
  r.storeTzName(StrSegment(text + 12, 8));
  EXPECT_EQ("Eastern Standard Time", r.tzName.view());
  EXPECT_EQ(0u, r.conflicts);
}

TEST(TimeFormatRawParseResult, SetFracsecFillsFromTheLeft) {
  const struct { const char* digits; int64_t usec; int32_t count; } kCases[] = {
      {"5", 500000, 1},        {"05", 50000, 2},      {"123", 123000, 3},
      {"123456", 123456, 6},   {"1234567", 123456, 6},  // a seventh digit adds nothing
      {"999999999", 999999, 6}, {"12x4", 120000, 2},    // stops at a non-digit
      {"000", 0, 3},
  };
  for (const auto& c : kCases) {
    RPR r;
    r.setFracsec(c.digits, c.digits + std::strlen(c.digits));
    EXPECT_TRUE(r.has(RPR::HAVE_SUBSEC)) << c.digits;
    EXPECT_EQ(c.usec, r.subsecUsec) << c.digits;
    EXPECT_EQ(c.count, r.subsecDigits) << c.digits;
  }
  for (const char* none : {"", "x1", "."}) {
    RPR r;
    r.setFracsec(none, none + std::strlen(none));
    EXPECT_EQ(0u, r.have) << none;
  }
}

TEST(TimeFormatRawParseResult, SetFracsecPrefersMoreDigits) {
  RPR r;
  const auto set = [&r](const char* digits) { r.setFracsec(digits, digits + std::strlen(digits)); };
  set("12");
  set("125");  // longer: replaces
  EXPECT_EQ(125000, r.subsecUsec);
  EXPECT_EQ(3, r.subsecDigits);
  set("9");  // shorter: ignored
  EXPECT_EQ(125000, r.subsecUsec);
  EXPECT_EQ(0u, r.conflicts);
  set("125");  // equal and the same
  EXPECT_EQ(0u, r.conflicts);
  set("126");  // equal and different
  EXPECT_EQ(1u, r.conflicts);
  EXPECT_EQ(125000, r.subsecUsec);
}

TEST(TimeFormatRawParseResult, SetMonthAndSetYear) {
  const struct { const char* text; bool ok; int32_t month; } kMonths[] = {
      {"jan", true, 0}, {"Sept", true, 8}, {"DECEMBER", true, 11}, {"mAy", true, 4},
      {"ja", false, 0}, {"foo", false, 0}, {"", false, 0},         {"1an", false, 0},
  };
  for (const auto& c : kMonths) {
    RPR r;
    EXPECT_EQ(c.ok, r.setMonth(c.text)) << c.text;
    EXPECT_EQ(c.ok ? RPR::HAVE_MONTH : 0u, r.have) << c.text;
    if (c.ok) {
      EXPECT_EQ(c.month, r.month) << c.text;
    }
  }
  const struct { const char* text; uint32_t have; int32_t value; } kYears[] = {
      {"9", RPR::HAVE_SHORTYEAR, 9}, {"09", RPR::HAVE_SHORTYEAR, 9}, {"2009", RPR::HAVE_YEAR, 2009},
      {"0023", RPR::HAVE_YEAR, 23},  {"123", RPR::HAVE_YEAR, 123},   {"", 0, 0},
      {"2a09", 0, 0},                {"-9", 0, 0},                   {"1234567890", 0, 0},
  };
  for (const auto& c : kYears) {
    RPR r;
    EXPECT_EQ(c.have != 0, r.setYear(c.text)) << c.text;
    EXPECT_EQ(c.have, r.have) << c.text;
    if (c.have == RPR::HAVE_YEAR) {
      EXPECT_EQ(c.value, r.year) << c.text;
    } else if (c.have == RPR::HAVE_SHORTYEAR) {
      EXPECT_EQ(c.value, r.shortYear) << c.text;
    }
  }
}

TEST(TimeFormatRawParseResult, MergeInCopiesOnlyWhatIsMissing) {
  const char zone[] = "PDT";
  RPR date = dateOf(2023, 4, 6);
  date.storeHour24(9);  // held by both: the receiver's value stays
  date.storeTzName(StrSegment(zone, 3));
  date.conflicts = 2;
  RPR time;
  time.storeHour24(10);
  time.storeMinute(11);
  const char* digits = "25";
  time.setFracsec(digits, digits + 2);
  time.conflicts = 1;
  time.mergeIn(&date);
  EXPECT_EQ(RPR::HAVE_YEAR | RPR::HAVE_MONTH | RPR::HAVE_MDAY | RPR::HAVE_HOUR24 |
                RPR::HAVE_MINUTE | RPR::HAVE_SUBSEC | RPR::HAVE_TZNAM,
            time.have);
  EXPECT_EQ(2023, time.year);
  EXPECT_EQ(4, time.month);
  EXPECT_EQ(6, time.mday);
  EXPECT_EQ(10, time.hour24);
  EXPECT_EQ(11, time.minute);
  EXPECT_EQ(250000, time.subsecUsec);
  EXPECT_EQ(zone, time.tzName.data());
  EXPECT_EQ(3u, time.conflicts);
}

TEST(TimeFormatRawParseResult, IncrementDayWalksTheCalendar) {
  // Every day from 1899 to 2101 against the C library's calendar.
  RPR r = dateOf(1899, 0, 1);
  for (long t = -2240524800L; t < 4133980800L; t += 86400) {
    const tm next = utcFields(t + 86400);
    r.incrementDay();
    ASSERT_EQ(next.tm_year + 1900, r.year) << t;
    ASSERT_EQ(next.tm_mon, r.month) << t;
    ASSERT_EQ(next.tm_mday, r.mday) << t;
  }
}

TEST(TimeFormatRawParseResult, MdayValidForMonthAgreesWithTimegm) {
  for (int year : {1900, 1999, 2000, 2023, 2024, 2100}) {
    for (int month = 0; month < 12; ++month) {
      for (int mday = -1; mday <= 33; ++mday) {
        // timegm normalises an impossible day into the next month.
        const tm t = utcFields(civilUtc(year, month + 1, mday));
        const bool valid = t.tm_mon == month && t.tm_mday == mday;
        EXPECT_EQ(valid, dateOf(year, month, mday).mdayValidForMonth())
            << year << "-" << month << "-" << mday;
      }
    }
  }
  EXPECT_FALSE(dateOf(2023, 12, 1).mdayValidForMonth());
  EXPECT_FALSE(dateOf(2023, -1, 1).mdayValidForMonth());
}

TEST(TimeFormatRawParseResult, ComputeMmddFromYdayAgreesWithGmtime) {
  for (int year : {1900, 1971, 2000, 2023, 2024, 2100, 2400}) {
    const long start = civilUtc(year, 1, 1);
    const int days = (year % 4 == 0 && (year % 100 != 0 || year % 400 == 0)) ? 366 : 365;
    for (int yday = 0; yday < days; ++yday) {
      const tm expected = utcFields(start + 86400L * yday);
      RPR r;
      r.storeYear(year);
      r.storeYday(yday);
      ASSERT_TRUE(r.computeMmddFromYday()) << year << " " << yday;
      EXPECT_EQ(expected.tm_mon, r.month) << year << " " << yday;
      EXPECT_EQ(expected.tm_mday, r.mday) << year << " " << yday;
    }
    for (int yday : {-1, days, 366, 400}) {
      RPR r;
      r.storeYear(year);
      r.storeYday(yday);
      EXPECT_FALSE(r.computeMmddFromYday()) << year << " " << yday;
      EXPECT_FALSE(r.has(RPR::HAVE_MONTH)) << year << " " << yday;
    }
  }
}

TEST(TimeFormatRawParseResult, ComputeYdayFromYweekAgreesWithStrftime) {
  std::mt19937_64 rng(1234);
  for (int i = 0; i < 20000; ++i) {
    const long t = std::uniform_int_distribution<long>(-2208988800L, 32503680000L)(rng);
    const tm g = utcFields(t);
    char week[8];
    for (const char* directive : {"%U", "%W"}) {
      std::strftime(week, sizeof week, directive, &g);
      RPR r;
      r.storeYear(g.tm_year + 1900);
      r.storeWday(g.tm_wday);
      if (directive[1] == 'U') {
        r.storeSundayWeek(std::atoi(week));
      } else {
        r.storeMondayWeek(std::atoi(week));
      }
      ASSERT_TRUE(r.computeYdayFromYweek()) << directive << " " << t;
      ASSERT_EQ(g.tm_yday, r.yday) << directive << " " << t;
    }
  }
}

TEST(TimeFormatRawParseResult, ComputeYdayFromYweekNeedsAWeekdayAndAWeek) {
  RPR noWeekday;
  noWeekday.storeYear(2023);
  noWeekday.storeSundayWeek(3);
  EXPECT_FALSE(noWeekday.computeYdayFromYweek());
  RPR noWeek;
  noWeek.storeYear(2023);
  noWeek.storeWday(3);
  noWeek.storeIsoWeek(3);  // an ISO week is not used
  EXPECT_FALSE(noWeek.computeYdayFromYweek());
  RPR beforeTheYear;  // 2023 began on a Sunday: week 0 has no days
  beforeTheYear.storeYear(2023);
  beforeTheYear.storeWday(6);
  beforeTheYear.storeSundayWeek(0);
  EXPECT_FALSE(beforeTheYear.computeYdayFromYweek());
  EXPECT_FALSE(beforeTheYear.has(RPR::HAVE_YDAY));
}

TEST(TimeFormatRawParseResultDeathTest, ComputeYdayFromYweekRequiresAYear) {
  RPR r;
  r.storeWday(1);
  r.storeSundayWeek(1);
  EXPECT_DEATH(r.computeYdayFromYweek(), "HAVE_YEAR");
}

TEST(TimeFormatRawParseResult, DayStartTimeAndWeekdayAgreeWithTimegm) {
  std::mt19937_64 rng(42);
  for (int i = 0; i < 50000; ++i) {
    // Years 1 to 9999, the century corrections included.
    const long t = std::uniform_int_distribution<long>(-62135596800L, 253402300799L)(rng);
    const tm g = utcFields(t);
    const RPR r = dateOf(g.tm_year + 1900, g.tm_mon, g.tm_mday);
    ASSERT_EQ(t - (t % 86400 + 86400) % 86400, r.dayStartTime()) << t;
    ASSERT_EQ(g.tm_wday, r.computedWday()) << t;
  }
}

}  // namespace
