// POSIX TZ rules: endpoint and rule syntax, the yearly tables, posixrules,
// and agreement with the C library reading the same rule.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "util/DateTime.h"
#include "util/Timezone.h"
#include "util/testing/CivilTime.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TimezoneTestSupport.h"

namespace {

TEST(DstEndpoint, ParsesEachAcceptedShape) {
  const struct { const char* text; int used, type, month, week, day; long time; } kCases[] = {
      {"M3.2.0", 6, DstEndpoint::MONTH_WEEK_DAY, 2, 7, -11, 7200},
      {"M11.1.0", 7, DstEndpoint::MONTH_WEEK_DAY, 10, 0, -11, 7200},
      {"M10.5.6/24", 10, DstEndpoint::MONTH_WEEK_DAY, 9, 28, -5, 86400},
      {"M3.5.0/-1", 9, DstEndpoint::MONTH_WEEK_DAY, 2, 28, -11, -3600},  // Greenland
      {"M3.4.4/50", 9, DstEndpoint::MONTH_WEEK_DAY, 2, 21, -7, 180000},
      {"M9.5.0/2:45", 11, DstEndpoint::MONTH_WEEK_DAY, 8, 28, -11, 9900},
      {"J1", 2, DstEndpoint::JULIAN_SKIPPING_LEAP_DAY, 0, 0, 0, 7200},
      {"J365/25", 7, DstEndpoint::JULIAN_SKIPPING_LEAP_DAY, 0, 0, 364, 90000},
      {"J60/1:30", 8, DstEndpoint::JULIAN_SKIPPING_LEAP_DAY, 0, 0, 59, 5400},
      {"0", 1, DstEndpoint::DOY, 0, 0, 0, 7200}, {"0/0", 3, DstEndpoint::DOY, 0, 0, 0, 0},
      {"365/+167:59:59", 14, DstEndpoint::DOY, 0, 0, 365, 604799},
      {"M3.2.0,M11.1.0", 6, DstEndpoint::MONTH_WEEK_DAY, 2, 7, -11, 7200},  // stops at ","
      {"M03.02.00", 9, DstEndpoint::MONTH_WEEK_DAY, 2, 7, -11, 7200},
  };
  for (const auto& c : kCases) {
    DstEndpoint e;
    EXPECT_EQ(c.used, e.parsePosix(c.text)) << c.text;
    EXPECT_EQ(c.type, e._type) << c.text;
    EXPECT_EQ(c.month, e.month) << c.text;
    EXPECT_EQ(c.week, e.week) << c.text;
    EXPECT_EQ(c.day, e.day) << c.text;
    EXPECT_EQ(c.time, e.time) << c.text;
  }
}

TEST(DstEndpoint, RejectsMalformed) {
  for (const char* text : {"", "J", "J0", "J366", "M", "M0.1.0", "M13.1.0", "M3", "M3.",
                           "M3.0.0", "M3.6.0", "M3.2", "M3.2.7", "366", "-1", "x", "M3.2.0/",
                           "M3.2.0/168", "M3.2.0/2:60", "M3.2.0/2:00:60", "M3.2.0/+",
                           "J99999999999999999999"}) {
    DstEndpoint e;
    EXPECT_EQ(-1, e.parsePosix(text)) << text;
  }
}

TEST(DstEndpoint, SecondsFromJanuary) {
  const struct { const char* text; long year; int yday; long time; } kCases[] = {
      {"M3.2.0", 2024, 69, 7200},   // March 10, 2024
      {"M3.2.0", 2023, 70, 7200},   // March 12, 2023
      {"M3.5.0", 2024, 90, 7200},   // March 31: the fifth Sunday exists
      {"M2.5.4", 2024, 59, 7200},   // February 29 is the fifth Thursday
      {"M2.5.4", 2023, 53, 7200},   // no fifth Thursday: back a week, Feb 23
      {"M1.1.0", 2017, 0, 7200},    // a year starting on Sunday
      {"M12.5.6", 2022, 364, 7200}, // Saturday December 31
      {"J60", 2024, 60, 7200},      // March 1 in a leap year
      {"J60", 2023, 59, 7200},      // March 1 otherwise
      {"J59", 2024, 58, 7200},      // February 28 either way
      {"59", 2024, 59, 7200},       // day of year: February 29 in a leap year
      {"365", 2023, 364, 7200},     // day 365 is the last day of a short year
      {"365", 2024, 365, 7200}, {"M3.5.0/-1", 2024, 90, -3600},
  };
  for (const auto& c : kCases) {
    DstEndpoint e;
    ASSERT_GT(e.parsePosix(c.text), 0) << c.text;
    EXPECT_EQ(c.yday * 86400L + c.time, e.secondsFromJanuary(c.year)) << c.text << " " << c.year;
  }
}

TEST(Timezone, PosixStringAcceptedShapes) {
  const struct {
    const char* text;
    uint32_t typecnt;
    long stdEast, dstEast;
    const char* stdName;
    const char* dstName;
  } kCases[] = {
      {"JST-9", 1, 32400, 0, "JST", nullptr}, {"IST-5:30", 1, 19800, 0, "IST", nullptr},
      {"<+0545>-5:45", 1, 20700, 0, "+0545", nullptr}, {"<-03>3", 1, -10800, 0, "-03", nullptr},
      {"UTC0", 1, 0, 0, "UTC", nullptr}, {"ABC+1:02:03", 1, -3723, 0, "ABC", nullptr},
      {"A5", 1, -18000, 0, "A", nullptr},
      {"EST5EDT,M3.2.0,M11.1.0", 2, -18000, -14400, "EST", "EDT"},
      {"EST5EDT;M3.2.0,M11.1.0", 2, -18000, -14400, "EST", "EDT"},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", 2, 36000, 39600, "AEST", "AEDT"},
      {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", 2, 37800, 39600, "+1030", "+11"},
      {"IST-1GMT0,M10.5.0,M3.5.0/1", 2, 3600, 0, "IST", "GMT"},
      {"ABC5DEF4:30,J60,300", 2, -18000, -16200, "ABC", "DEF"},
      {"ABC5DEF,M3.2.0,M11.1.0", 2, -18000, -14400, "ABC", "DEF"},
  };
  for (const auto& c : kCases) {
    Timezone zone;
    ASSERT_TRUE(zone.fromPosixString(c.text)) << c.text;
    ASSERT_EQ(c.typecnt, zone.typecnt()) << c.text;
    EXPECT_EQ(c.stdEast, zone.type(0).gmtoff) << c.text;
    EXPECT_FALSE(zone.type(0).isdst) << c.text;
    EXPECT_STREQ(c.stdName, zone.abbreviation(&zone.type(0))) << c.text;
    if (c.typecnt == 1) {
      EXPECT_EQ(c.stdEast, zone.constantOffset()) << c.text;
      continue;
    }
    EXPECT_EQ(c.dstEast, zone.type(1).gmtoff) << c.text;
    EXPECT_TRUE(zone.type(1).isdst) << c.text;
    EXPECT_STREQ(c.dstName, zone.abbreviation(&zone.type(1))) << c.text;
    EXPECT_EQ(1200u, zone.timecnt()) << c.text;
  }
}

TEST(Timezone, PosixStringRejects) {
  for (const char* text :
       {"", "5", "EST", "EST+", "EST24", "EST5:60", "EST-5:00:60", "<>5", "<EST5", "<E T>5",
        "EST5EDT,M3.2.0", "EST5EDT,M3.2.0,", "EST5EDT,M3.2.0,M11.1.0,",
        "EST5EDT,M3.2.0,M11.1.0x", "EST5EDT,M13.2.0,M11.1.0", "EST5EDT4x", "EST5 EDT",
        "EST5EDT,,M11.1.0", "America/New_York", "EST5EDT;M3.2.0;M11.1.0", "1EST5",
        "EST5EDT99,M3.2.0,M11.1.0"}) {
    Timezone zone;
    EXPECT_FALSE(zone.fromPosixString(text)) << text;
    EXPECT_EQ(0u, zone.typecnt()) << text;
  }
  Timezone zone;
  EXPECT_FALSE(zone.fromPosixString(nullptr));
  EXPECT_FALSE(zone.fromPosixString(std::string(300, 'A').append("5").c_str()));
}

TEST(Timezone, StaticDstFillsSixHundredYears) {
  Timezone zone;
  ASSERT_TRUE(zone.fromPosixString("EST5EDT,M3.2.0,M11.1.0"));
  ASSERT_EQ(1200u, zone.timecnt());
  EXPECT_EQ(civilUtc(1970, 3, 8, 7, 0), zone.transitionTime(0));
  EXPECT_EQ(civilUtc(2569, 11, 5, 6, 0), zone.transitionTime(1199));
  EXPECT_TRUE(zone.typeAt(0)->isdst);
  EXPECT_FALSE(zone.typeAt(1199)->isdst);
}

TEST(Timezone, StaticDstWithEqualOffsetsIsConstant) {
  Timezone zone;
  ASSERT_TRUE(zone.fromPosixString("ABC5DEF5,M3.2.0,M11.1.0"));
  EXPECT_EQ(-18000, zone.constantOffset());
  Timezone direct;
  DstEndpoint start, end;
  ASSERT_EQ(6, start.parsePosix("M3.2.0"));
  ASSERT_EQ(7, end.parsePosix("M11.1.0"));
  ASSERT_TRUE(direct.setToStaticDst("S", "D", -3600, -3600, start, end));
  EXPECT_EQ(3600, direct.constantOffset());
}

// The southern hemisphere starts its year in daylight time: each year's
// endpoints are stored in time order.
TEST(Timezone, StaticDstOrdersEachYearsEndpoints) {
  Timezone zone;
  ASSERT_TRUE(zone.fromPosixString("AEST-10AEDT,M10.1.0,M4.1.0/3"));
  EXPECT_FALSE(zone.typeAt(0)->isdst);  // April 1970 first
  EXPECT_TRUE(zone.typeAt(1)->isdst);   // then October
  for (uint32_t i = 1; i < zone.timecnt(); ++i) {
    ASSERT_LT(zone.transitionTime(i - 1), zone.transitionTime(i)) << i;
  }
}

// With no dates in the rule, posixrules gives them: "EST5EDT" reads like
// New York, which that file is here.
TEST(Timezone, PosixStringWithoutDatesUsesPosixrules) {
  Timezone rules;
  ASSERT_TRUE(rules.fromZoneinfoPath("posixrules", true)) << "no posixrules on this machine";
  Timezone zone;
  ASSERT_TRUE(zone.fromPosixString("EST5EDT"));
  EXPECT_EQ(2u, zone.typecnt());
  ASSERT_EQ(rules.timecnt(), zone.timecnt());
  for (uint32_t i = 0; i < zone.timecnt(); ++i) {
    EXPECT_EQ(rules.transitionTime(i), zone.transitionTime(i)) << i;
    EXPECT_EQ(rules.typeAt(i)->isdst, zone.typeAt(i)->isdst) << i;
  }
}

// Other offsets keep the dates and local clock times of posixrules: 2:00
// local standard time in spring, 2:00 local daylight time in autumn. (The C
// library here shifts the other way and so is no oracle for this case.)
TEST(Timezone, PosixrulesAreShiftedToTheRulesOwnClock) {
  Timezone shifted, explicitRule;
  ASSERT_TRUE(shifted.fromPosixString("ABC4DEF"));
  ASSERT_TRUE(explicitRule.fromPosixString("ABC4DEF,M3.2.0,M11.1.0"));
  EXPECT_STREQ("ABC", shifted.abbreviation(&shifted.type(0)));
  EXPECT_STREQ("DEF", shifted.abbreviation(&shifted.type(1)));
  int compared = 0;
  for (long t = civilUtc(2007, 1, 1); t < civilUtc(2038, 1, 1); t += 3 * 3600) {
    const TimezoneOffset* a = shifted.typeAt(shifted.searchAt(t));
    const TimezoneOffset* b = explicitRule.typeAt(explicitRule.searchAt(t));
    ASSERT_EQ(b->gmtoff, a->gmtoff) << t;
    ASSERT_EQ(b->isdst, a->isdst) << t;
    ++compared;
  }
  EXPECT_GT(compared, 90000);
  EXPECT_EQ(civilUtc(2024, 3, 10, 6, 0),
            shifted.transitionTime(shifted.searchAt(civilUtc(2024, 3, 11))));
}

// A footer never consults posixrules: without dates it takes the default
// rule of the second Sunday of March and the first of November.
TEST(Timezone, FooterWithoutDatesTakesTheDefaultRule) {
  TzifParts s = simpleTzif({1000});
  s.footer = "\nABC4DEF\n";
  const std::string bytes = buildTzif(s);
  Timezone zone, expected;
  ASSERT_TRUE(zone.fromZoneinfoData(bytes.data(), bytes.size(), true));
  ASSERT_TRUE(expected.fromPosixString("ABC4DEF,M3.2.0,M11.1.0"));
  for (long year = 1971; year < 2100; year += 7) {
    const long t = civilUtc(year, 3, 15);
    EXPECT_EQ(expected.transitionTime(expected.searchAt(t)), zone.transitionTime(zone.searchAt(t)))
        << year;
  }
}

// Rules of every shape against the C library given the same TZ text, at
// each transition from 1971 to 2100 and the seconds around it, and at
// every 97 minutes of 2024.
TEST(TimezonePosixOracle, RulesReadAsTheCLibraryReadsThem) {
  const char* kRules[] = {
      "EST5EDT,M3.2.0,M11.1.0",
      "CET-1CEST,M3.5.0,M10.5.0/3",
      "AEST-10AEDT,M10.1.0,M4.1.0/3",
      "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
      "<-04>4<-03>,M9.1.6/24,M4.1.6/24",
      "EET-2EEST,M3.4.4/50,M10.4.4/50",
      "EET-2EEST,M4.5.5/0,M10.5.4/24",
      "IST-1GMT0,M10.5.0,M3.5.0/1",
      "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45",
      "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
      "ABC3DEF,J60,J300",
      // Away from New Year: the C library looks only at the rule of the UTC
      // year and so misreads transitions that cross into another year.
      "ABC-3DEF,J2/0,J364/23",
      "ABC3DEF,59/3,300",
      "ABC3DEF2:30,M2.5.4,M10.1.1/1:15:30",
      "XYZ-11:30",
  };
  long compared = 0;
  for (const char* rule : kRules) {
    Timezone zone;
    ASSERT_TRUE(zone.fromPosixString(rule)) << rule;
    ScopedTz tz(rule);
    std::vector<long> instants;
    for (uint32_t i = 0; i < zone.timecnt(); ++i) {
      const long t = zone.transitionTime(i);
      if (t < civilUtc(1971, 1, 1) || t > civilUtc(2100, 1, 1)) continue;
      instants.insert(instants.end(), {t - 1, t, t + 1});
    }
    for (long t = civilUtc(2024, 1, 1); t < civilUtc(2025, 1, 1); t += 97 * 60) {
      instants.push_back(t);
    }
    for (long t : instants) {
      const time_t tt = t;
      tm expect;
      ASSERT_NE(nullptr, localtime_r(&tt, &expect));
      StructTmInTimezone got(&zone);
      ASSERT_TRUE(got.fromUnixTime(t));
      ++compared;
      ASSERT_EQ(expect.tm_gmtoff, got.tm_gmtoff) << rule << " at " << t;
      ASSERT_EQ(expect.tm_isdst, got.tm_isdst) << rule << " at " << t;
      ASSERT_STREQ(expect.tm_zone, got.tm_zone) << rule << " at " << t;
      ASSERT_EQ(expect.tm_hour, got.tm_hour) << rule << " at " << t;
      ASSERT_EQ(expect.tm_mday, got.tm_mday) << rule << " at " << t;
    }
  }
  EXPECT_GT(compared, 50000);
}

}  // namespace
