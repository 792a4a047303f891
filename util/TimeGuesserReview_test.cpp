// Black-box checks of the timestamp guessers and of Timeval::set/parse: the
// boundaries of each guess, the zone tables as the guesser reads them, the
// caches of the stream guesser.
#include "util/TimeGuesser.h"

#include <gtest/gtest.h>

#include <climits>
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
#include "util/testing/LogCapture.h"

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

// The base guesser over the clock, but as a stream that already has a date.
class ContextGuesser : public TimeGuesser {
 public:
  bool hasExistingDateContext() const override { return true; }
};

// A raw result with a date (month 1-12) and optionally a 24-hour time.
Raw rawDate(int year, int month, int day) {
  Raw r;
  r.storeYear(year);
  r.storeMonth(month - 1);
  r.storeMday(day);
  return r;
}

// ---- guessYear ----

struct YearCase {
  int nowYear, nowMonth, nowDay;  // the clock, UTC
  int month, day;                 // the text, month 1-12
  bool context;
  int year;
};

TEST(TimeGuesserReview, GuessesTheYearOfAMonthAndDay) {
  const YearCase kCases[] = {
      // February 29: the nearest leap year, back without a stream, forward with one.
      {2023, 6, 1, 2, 29, false, 2020},
      {2023, 6, 1, 2, 29, true, 2024},
      {2024, 6, 1, 2, 29, false, 2024},
      {2024, 6, 1, 2, 29, true, 2024},
      {2100, 6, 1, 2, 29, false, 2096},  // 2100 is no leap year
      {2100, 6, 1, 2, 29, true, 2104},
      // The turn of the year, either way, with or without a stream.
      {2023, 12, 31, 1, 1, false, 2024},
      {2023, 12, 31, 1, 1, true, 2024},
      {2024, 1, 1, 12, 31, false, 2023},
      {2024, 1, 1, 12, 31, true, 2023},
      // Without a stream: up to 3 days ahead is this year, 4 is last year.
      {2023, 6, 10, 6, 13, false, 2023},
      {2023, 6, 10, 6, 14, false, 2022},
      {2023, 6, 10, 1, 5, false, 2023},   // long past: still this year
      {2024, 1, 1, 12, 30, false, 2023},  // an old file read on New Year's Day
      // The text's date counts by the non-leap table: March 9 is day 67,
      // March 5 of 2024 is day 64, so March 9 is taken as only 3 days ahead.
      {2024, 3, 5, 3, 9, false, 2024},
      {2024, 3, 5, 3, 10, false, 2023},
      // With a stream: up to 3 days back is this year, 4 is next year.
      {2023, 6, 10, 6, 7, true, 2023},
      {2023, 6, 10, 6, 6, true, 2024},
      {2023, 6, 10, 12, 1, true, 2023},  // far ahead: still this year
      {2023, 12, 28, 1, 3, true, 2024},  // a stream crossing New Year
  };
  ScopedFixedClock clock(Timeval(0, 0));
  ContextGuesser withContext;
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.nowYear << "-" << c.nowMonth << "-" << c.nowDay
                                    << " reads " << c.month << "/" << c.day
                                    << (c.context ? " in a stream" : ""));
    clock.set(Timeval(civil(c.nowYear, c.nowMonth, c.nowDay, 12), 0));
    Raw r;
    r.storeMonth(c.month - 1);
    r.storeMday(c.day);
    TimeGuesser* g = c.context ? static_cast<TimeGuesser*>(&withContext) : TimeGuesser::basic();
    EXPECT_TRUE(g->guessYear(&r));
    EXPECT_TRUE(r.has(Raw::HAVE_YEAR));
    EXPECT_EQ(c.year, r.year);
  }
}

TEST(TimeGuesserReview, GuessYearOfTheStreamGuesserFollowsThePreviousEvent) {
  // The clock says June 2023; the stream's last event stood on December 30,
  // 2023. "Jan 2" is then next year by the stream, not this year by the clock.
  ScopedFixedClock clock(Timeval(civil(2023, 6, 1), 0));
  DateParserGuesser g;
  g.now = Timeval(civil(2023, 6, 1), 0);
  g.previous = Timeval(civil(2023, 12, 30, 23), 0);
  EXPECT_TRUE(g.hasExistingDateContext());
  EXPECT_EQ(g.previous.tv_sec, g.current());
  Raw r;
  r.storeMonth(0);
  r.storeMday(2);
  EXPECT_TRUE(g.guessYear(&r));
  EXPECT_EQ(2024, r.year);

  // Without a previous event the parse's own now counts, and it has no context.
  g.previous = Timeval();
  g.now = Timeval(civil(2021, 3, 1), 0);
  EXPECT_FALSE(g.hasExistingDateContext());
  EXPECT_EQ(g.now.tv_sec, g.current());
  Raw r2;
  r2.storeMonth(1);
  r2.storeMday(29);
  EXPECT_TRUE(g.guessYear(&r2));
  EXPECT_EQ(2020, r2.year);
}

// ---- guessDate of the base guesser ----

struct DateCase {
  const char* what;
  int nowHour, nowMinute;  // the clock, on 2024-05-10 UTC
  long zoneEast;           // the zone, a constant
  int hour24;              // -1: none
  int hour12;              // -1: none
  int pm;                  // -1: no marker, else 0 or 1
  int minute;              // -1: none
  int second;              // -1: none
  bool ok;
  int year, month, day;    // month 1-12
  int hour12After;         // -1: not checked
};

TEST(TimeGuesserReview, GuessesTheDateOfATimeOfDay) {
  const DateCase kCases[] = {
      {"exactly 3h ahead stays today", 12, 0, 0, 15, -1, -1, 0, 0, true, 2024, 5, 10, -1},
      {"3h and a second ahead is yesterday", 12, 0, 0, 15, -1, -1, 0, 1, true, 2024, 5, 9, -1},
      {"3h and a minute ahead, no second", 12, 0, 0, 15, -1, -1, 1, -1, true, 2024, 5, 9, -1},
      {"in the past is today", 12, 0, 0, 0, -1, -1, 0, -1, true, 2024, 5, 10, -1},
      {"pm pair 3h ahead stays today", 12, 0, 0, -1, 3, 1, 0, -1, true, 2024, 5, 10, -1},
      {"pm pair past 3h is yesterday", 12, 0, 0, -1, 3, 1, 1, -1, true, 2024, 5, 9, -1},
      {"am pair in the past is today", 12, 0, 0, -1, 3, 0, 0, -1, true, 2024, 5, 10, -1},
      {"just after midnight, late time", 1, 0, 0, 23, -1, -1, 0, -1, true, 2024, 5, 9, -1},
      // The clock is read in the zone: 22:00 local on the 10th ...
      {"zone east of UTC", 12, 0, 36000, 1, -1, -1, 0, -1, true, 2024, 5, 10, -1},
      // ... and 23:00 local on the 9th.
      {"zone west of UTC", 12, 0, -46800, 23, -1, -1, 0, -1, true, 2024, 5, 9, -1},
      // 12-hour hours without a marker.
      {"12:30 at 13:00 is this afternoon", 13, 0, 0, -1, 0, -1, 30, -1, true, 2024, 5, 10, 12},
      {"12:30 at 11:00 stays in the morning half", 11, 0, 0, -1, 0, -1, 30, -1, true, 2024, 5,
       10, 0},
      {"90 minutes ahead is allowed", 10, 0, 0, -1, 11, -1, 30, -1, true, 2024, 5, 10, 11},
      {"91 minutes ahead is the half day before", 10, 0, 0, -1, 11, -1, 31, -1, true, 2024, 5,
       9, 23},
      {"11 o'clock at 01:00 is last night", 1, 0, 0, -1, 11, -1, 0, -1, true, 2024, 5, 9, 23},
      {"afternoon clock, morning text", 15, 0, 0, -1, 2, -1, 0, -1, true, 2024, 5, 10, 14},
      // Failures.
      {"no minute", 12, 0, 0, 10, -1, -1, -1, -1, false, 0, 0, 0, -1},
      {"no hour", 12, 0, 0, -1, -1, -1, 10, -1, false, 0, 0, 0, -1},
  };
  ScopedFixedClock clock(Timeval(0, 0));
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    clock.set(Timeval(civil(2024, 5, 10, c.nowHour, c.nowMinute), 0));
    Raw r;
    if (c.hour24 >= 0) r.storeHour24(c.hour24);
    if (c.hour12 >= 0) r.storeHour12(c.hour12);
    if (c.pm >= 0) r.storePm(c.pm == 1);
    if (c.minute >= 0) r.storeMinute(c.minute);
    if (c.second >= 0) r.storeSecond(c.second);
    TimezoneGuessResult zone;
    zone.setConstant(c.zoneEast);
    const bool ok = TimeGuesser::basic()->guessDate(&r, &zone);
    EXPECT_EQ(c.ok, ok);
    if (!c.ok || !ok) continue;
    EXPECT_TRUE(r.has(Raw::HAVE_YEAR | Raw::HAVE_MONTH | Raw::HAVE_MDAY));
    EXPECT_EQ(c.year, r.year);
    EXPECT_EQ(c.month - 1, r.month);
    EXPECT_EQ(c.day, r.mday);
    if (c.hour12After >= 0) {
      EXPECT_EQ(c.hour12After, r.hour12);
    }
  }
}

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

TEST(TimeGuesserReview, AbbreviationTableHasItsRowsInTheirOrder) {
  const struct { const char* name; long gmtoff; } kRows[] = {
      {"ACDT", 37800}, {"ACST", 34200}, {"ADT", -10800}, {"AEDT", 39600}, {"AEST", 36000},
      {"AKDT", -28800}, {"AKST", -32400}, {"AST", -14400}, {"AWDT", 32400}, {"AWST", 28800},
      {"BST", 3600}, {"CADT", 37800}, {"CAST", 34200}, {"CDT", -18000}, {"CEDT", 7200},
      {"CEST", 7200}, {"CET", 3600}, {"CETDST", 7200}, {"CST", -21600}, {"CXT", 25200},
      {"EADT", 39600}, {"EAST", 36000}, {"EDT", -14400}, {"EEDT", 10800}, {"EEST", 10800},
      {"EET", 7200}, {"EST", -18000}, {"EETDST", 10800}, {"GMT", 0}, {"HAA", -10800},
      {"HAC", -18000}, {"HADT", -32400}, {"HAE", -14400}, {"HAP", -25200}, {"HAR", -21600},
      {"HAST", -36000}, {"HAT", -9000}, {"HAY", -28800}, {"HDT", -32400}, {"HNA", -14400},
      {"HNC", -21600}, {"HNE", -18000}, {"HNP", -28800}, {"HNR", -25200}, {"HNT", -12600},
      {"HNY", -32400}, {"HKT", 28800}, {"HST", -36000}, {"IST", 19800}, {"JST", 32400},
      {"KST", 32400}, {"MDT", -21600}, {"MEST", 7200}, {"MESZ", 7200}, {"MET", 3600},
      {"METDST", 7200}, {"MEZ", 3600}, {"MSD", 14400}, {"MSK", 10800}, {"MST", -25200},
      {"NDT", -9000}, {"NFT", 41400}, {"NST", -12600}, {"PDT", -25200}, {"PST", -28800},
      {"ROK", 32400}, {"UT", 0}, {"UTC", 0}, {"WADT", 32400}, {"WAST", 28800},
      {"WEDT", 3600}, {"WEST", 3600}, {"WET", 0}, {"WETDST", 3600}, {"YDT", -28800},
      {"YST", -32400}, {"Z", 0}, {"ZULU", 0},
  };
  ASSERT_EQ(sizeof(kRows) / sizeof(kRows[0]), TIMEZONE_ABBREVIATION_COUNT);
  for (size_t i = 0; i < TIMEZONE_ABBREVIATION_COUNT; ++i) {
    SCOPED_TRACE(kRows[i].name);
    EXPECT_STREQ(kRows[i].name, TIMEZONE_ABBREVIATIONS[i].name);
    EXPECT_EQ(kRows[i].gmtoff, TIMEZONE_ABBREVIATIONS[i].gmtoff);
  }
}

TEST(TimeGuesserReview, ReadsOffsetsAndNamesAsConstants) {
  const struct { const char* name; long offset; } kCases[] = {
      {"-0800", -28800},
      {"+0100", 3600},
      {"+05:30", 19800},
      {"-08", -28800},
      {"GMT-0700", -25200},  // "GMT" is skipped when text follows it
      {"GMT+0530", 19800},
      {"GMT+01:00", 3600},
      {"GMT", 0},
      {"gmt", 0},
      {"utc", 0},
      {"Z", 0},
      {"zulu", 0},
      {"Pacific Standard Time", -28800},
      {"Pacific Daylight Time", -25200},
      {"Eastern Standard Time", -18000},  // the table wins over the zone file
      {"Eastern Daylight Time", -14400},
      {"Namibia Standard Time", 7200},    // daylight time west of standard
      {"Namibia Daylight Time", 3600},
      {"Coordinated Universal Time", 0},
      {"Cen. Australia Standard Time", 34200},
      {"Central (Mexico) Standard Time", -21600},
      {"Mexico 2 Daylight Time", -21600},
      {"Mid-Atlantic Daylight Time", -3600},
      {"GMT Standard Time", 0},
      {"GMT Daylight Time", 3600},
      {"Nepal Standard Time", 20700},
      {"Tonga Daylight Time", 50400},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TimezoneGuessResult res;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone(c.name, &res));
    EXPECT_TRUE(res.isConstant);
    EXPECT_EQ(c.offset, res.offset);
  }
}

TEST(TimeGuesserReview, OtherNamesGoToTheZoneFiles) {
  const struct { const char* name; bool ok; bool constant; } kCases[] = {
      {"America/New_York", true, false},
      {"EST5EDT", true, false},  // a digit ends the abbreviation search
      {"Etc/UTC", true, true},
      {"ABCDEFGH", false, false},  // eight letters skip the abbreviations
      {"Nowhere/Zone", false, false},
      {"QQQ", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TimezoneGuessResult res;
    EXPECT_EQ(c.ok, TimeGuesser::basic()->guessTimezone(c.name, &res));
    if (c.ok) {
      EXPECT_EQ(c.constant, res.isConstant);
    }
  }
}

TEST(TimeGuesserReview, NoNameOrAnEmptyNameIsTheBaseZone) {
  TimezoneGuessResult expected;
  expected.set(getDefaultTimezone());
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    SCOPED_TRACE(name == nullptr ? "null" : "empty");
    TimezoneGuessResult res;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone(name, &res));
    EXPECT_EQ(expected.isConstant, res.isConstant);
    if (expected.isConstant) {
      EXPECT_EQ(expected.offset, res.offset);
    }
  }
  // An override guesser answers with its zone.
  OnlyOverrideTimezoneTimeGuesser ny(newYork());
  EXPECT_EQ(newYork(), ny.baseTimezone());
  TimezoneGuessResult res;
  ASSERT_TRUE(ny.guessTimezone(nullptr, &res));
  EXPECT_FALSE(res.isConstant);
  OnlyOverrideTimezoneTimeGuesser none(nullptr);
  EXPECT_EQ(getDefaultTimezone(), none.baseTimezone());
}

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
}

TEST(TimeGuesserReview, DescriptionTableHoldsEachPairAnHourApart) {
  const struct { const char* base; long standard; } kPairs[] = {
      {"AUS Central", 34200}, {"AUS Eastern", 36000}, {"Afghanistan", 16200},
      {"Alaskan", -32400}, {"Arab", 10800}, {"Arabian", 14400}, {"Arabic", 10800},
      {"Argentina", -10800}, {"Armenian", 14400}, {"Atlantic", -14400}, {"Azerbaijan", 14400},
      {"Azores", -3600}, {"Canada Central", -21600}, {"Cape Verde", -3600},
      {"Caucasus", 14400}, {"Cen. Australia", 34200}, {"Central America", -21600},
      {"Central Asia", 21600}, {"Central Brazilian", -14400}, {"Central Europe", 3600},
      {"Central European", 3600}, {"Central Pacific", 39600}, {"Central", -21600},
      {"China", 28800}, {"Dateline", -43200}, {"E. Africa", 10800},
      {"E. Australia", 36000}, {"E. Europe", 7200}, {"E. South America", -10800},
      {"Eastern", -18000}, {"Egypt", 7200}, {"Ekaterinburg", 18000}, {"FLE", 7200},
      {"Fiji", 43200}, {"GMT", 0}, {"GTB", 7200}, {"Georgian", 10800}, {"Greenland", -10800},
      {"Greenwich", 0}, {"Hawaiian", -36000}, {"India", 19800}, {"Iran", 12600},
      {"Jerusalem", 7200}, {"Jordan", 7200}, {"Kamchatka", 43200}, {"Korea", 32400},
      {"Malay Peninsula", 28800}, {"Mauritius", 14400}, {"Mexico", -21600}, {"Mexico 2", -25200},
      {"Central (Mexico)", -21600}, {"Mountain (Mexico)", -25200}, {"Pacific (Mexico)", -28800},
      {"Mid-Atlantic", -7200}, {"Middle East", 7200}, {"Montevideo", -10800},
      {"Morocco", 0}, {"Mountain", -25200}, {"Myanmar", 23400}, {"N. Central Asia", 21600},
      {"Nepal", 20700}, {"New Zealand", 43200}, {"Newfoundland", -12600},
      {"North Asia East", 28800}, {"North Asia", 25200}, {"Pacific SA", -14400},
      {"Pacific", -28800}, {"Pakistan", 18000}, {"Paraguay", -14400}, {"Romance", 3600},
      {"Russian", 10800}, {"SA Eastern", -10800}, {"SA Pacific", -18000},
      {"SA Western", -14400}, {"SE Asia", 25200}, {"Samoa", -39600}, {"South Africa", 7200},
      {"Sri Lanka", 19800}, {"Taipei", 28800}, {"Tasmania", 36000}, {"Tokyo", 32400},
      {"Tonga", 46800}, {"US Eastern", -18000}, {"US Mountain", -25200},
      {"Venezuela", -16200}, {"Vladivostok", 36000}, {"W. Australia", 28800},
      {"W. Central Africa", 3600}, {"W. Europe", 3600}, {"West Asia", 18000},
      {"West Pacific", 36000}, {"Yakutsk", 32400},
  };
  ASSERT_EQ(92u, sizeof(kPairs) / sizeof(kPairs[0]));
  for (const auto& p : kPairs) {
    SCOPED_TRACE(p.base);
    const std::string standard = std::string(p.base) + " Standard Time";
    const std::string daylight = std::string(p.base) + " Daylight Time";
    const TimezoneDescription* s = findTimezoneDescription(standard.c_str());
    const TimezoneDescription* d = findTimezoneDescription(daylight.c_str());
    ASSERT_NE(nullptr, s);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(p.standard, s->gmtoff);
    EXPECT_EQ(p.standard + 3600, d->gmtoff);
  }
  // Namibia is the other way round.
  const TimezoneDescription* ns = findTimezoneDescription("Namibia Standard Time");
  const TimezoneDescription* nd = findTimezoneDescription("Namibia Daylight Time");
  ASSERT_NE(nullptr, ns);
  ASSERT_NE(nullptr, nd);
  EXPECT_EQ(7200, ns->gmtoff);
  EXPECT_EQ(3600, nd->gmtoff);
  // The key must agree and strcmp must confirm: a wrong case is no row.
  EXPECT_EQ(nullptr, findTimezoneDescription("pacific standard time"));
  EXPECT_EQ(nullptr, findTimezoneDescription("Pacific Standard Time "));
}

// ---- TimezoneGuessResult ----

TEST(TimeGuesserReview, GuessResultSetsAndSaturates) {
  TimezoneGuessResult r;
  EXPECT_FALSE(r.set(nullptr));
  EXPECT_FALSE(r.isConstant);
  long t = 12345;
  r.convertToGmt(&t);
  EXPECT_EQ(12345, t);
  EXPECT_EQ(12345, r.convertFromGmt(12345));

  ASSERT_TRUE(r.set(utcZone()));
  EXPECT_TRUE(r.isConstant);
  EXPECT_EQ(0, r.offset);
  ASSERT_TRUE(r.set(newYork()));
  EXPECT_FALSE(r.isConstant);

  const struct { long east; long in; long gmt; long local; } kCases[] = {
      {3600, LONG_MIN + 10, LONG_MIN, LONG_MIN + 3610},
      {-3600, LONG_MAX - 10, LONG_MAX, LONG_MAX - 3610},
      {3600, LONG_MAX - 10, LONG_MAX - 3610, LONG_MAX},
      {-3600, LONG_MIN + 10, LONG_MIN + 3610, LONG_MIN},
      {19800, 100000, 80200, 119800},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.east << " " << c.in);
    TimezoneGuessResult k;
    k.setConstant(c.east);
    long v = c.in;
    EXPECT_TRUE(k.convertToGmt(&v));
    EXPECT_EQ(c.gmt, v);
    EXPECT_EQ(c.local, k.convertFromGmt(c.in));
  }
}

TEST(TimeGuesserReview, GuessResultReportsTheAutumnOverlap) {
  TimezoneGuessResult r;
  ASSERT_TRUE(r.set(newYork()));
  // 2023-11-05 01:30 local happens twice; 12:00 on a summer day once.
  long ambiguous = civil(2023, 11, 5, 1, 30);
  EXPECT_FALSE(r.convertToGmt(&ambiguous));
  EXPECT_TRUE(ambiguous == civil(2023, 11, 5, 5, 30) || ambiguous == civil(2023, 11, 5, 6, 30));
  long summer = civil(2023, 7, 1, 12);
  EXPECT_TRUE(r.convertToGmt(&summer));
  EXPECT_EQ(civil(2023, 7, 1, 16), summer);
  EXPECT_EQ(civil(2023, 7, 1, 12), r.convertFromGmt(civil(2023, 7, 1, 16)));
  EXPECT_EQ(civil(2023, 1, 1, 7), r.convertFromGmt(civil(2023, 1, 1, 12)));
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

TEST(TimeGuesserReview, SetTakesAnEpochOverEverythingElse) {
  Raw r;
  r.storeEpoch(1234567890);
  const char* frac = "25";
  r.setFracsec(frac, frac + 2);
  r.storeYear(1999);  // ignored
  r.storeTzOffset(3600);
  OnlyOverrideTimezoneTimeGuesser g(newYork());
  const SetOutcome o = runSet(r, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(1234567890, o.tv.tv_sec);
  EXPECT_EQ(250000, o.tv.tv_usec);
  EXPECT_EQ(2, o.extra.subsecDigits);
  EXPECT_TRUE(o.extra.timezoneKnown);
  EXPECT_EQ(0, o.extra.tzOffset);
  EXPECT_EQ(2009, o.extra.year);
  EXPECT_EQ(1, o.extra.month);
  EXPECT_EQ(13, o.extra.mday);
  EXPECT_EQ(5, o.extra.wday);
  EXPECT_EQ(23, o.extra.hour);
  EXPECT_EQ(31, o.extra.minute);

  Raw plain;
  plain.storeEpoch(-5);
  const SetOutcome p = runSet(plain, TimeGuesser::basic());
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(-5, p.tv.tv_sec);
  EXPECT_EQ(0, p.tv.tv_usec);
  EXPECT_EQ(0, p.extra.subsecDigits);
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

TEST(TimeGuesserReview, SetCompletesTheYear) {
  const struct {
    const char* what;
    int year, century, shortYear;  // -1: absent
    int expected;
  } kCases[] = {
      {"full year", 2011, -1, -1, 2011},
      {"full year below 100 is short", 99, -1, -1, 1999},
      {"full year 68", 68, -1, -1, 2068},
      {"full year 100 stays", 100, -1, -1, 100},
      {"short year", -1, -1, 5, 2005},
      {"short year 69", -1, -1, 69, 1969},
      {"century and short year", -1, 19, 5, 1905},
      {"century 0 and short year", -1, 0, 5, 2005},
      {"century 20 and short year 99", -1, 20, 99, 2099},
      {"full year wins over short", 2011, -1, 5, 2011},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Raw r;
    if (c.year >= 0) r.storeYear(c.year);
    if (c.century >= 0) r.storeCentury(c.century);
    if (c.shortYear >= 0) r.storeShortYear(c.shortYear);
    r.storeMonth(5);
    r.storeMday(15);
    r.storeHour24(10);
    r.storeMinute(0);
    r.storeTzOffset(0);
    const SetOutcome o = runSet(r, TimeGuesser::basic());
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(c.expected, o.extra.year);
    EXPECT_EQ(5, o.extra.month);
    EXPECT_EQ(15, o.extra.mday);
    if (c.expected >= 1902) {
      EXPECT_EQ(civil(c.expected, 6, 15, 10), o.tv.tv_sec);
    }
  }
}

TEST(TimeGuesserReview, SetChecksTheDayAgainstTheMonth) {
  const struct { int year, month, day; bool ok; } kCases[] = {
      {2023, 2, 29, false}, {2024, 2, 29, true},  {2100, 2, 29, false}, {2000, 2, 29, true},
      {2023, 4, 31, false}, {2023, 4, 30, true},  {2023, 1, 0, false},  {2023, 12, 31, true},
      {2023, 12, 32, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.year << "-" << c.month << "-" << c.day);
    Raw r = rawDate(c.year, c.month, c.day);
    r.storeHour24(0);
    r.storeMinute(0);
    r.storeTzOffset(0);
    const SetOutcome o = runSet(r, TimeGuesser::basic());
    EXPECT_EQ(c.ok, o.ok);
    if (c.ok) {
      EXPECT_EQ(civil(c.year, c.month, c.day), o.tv.tv_sec);
    } else {
      EXPECT_EQ(777, o.tv.tv_sec);
    }
  }
}

TEST(TimeGuesserReview, SetGuessesTheYearAndChecksTheGuessedDate) {
  // Feb 29 read in 2023 without a stream is 2020's.
  ScopedFixedClock clock(Timeval(civil(2023, 6, 1, 12), 0));
  Raw r;
  r.storeMonth(1);
  r.storeMday(29);
  r.storeHour24(10);
  r.storeMinute(0);
  r.storeTzOffset(0);
  const SetOutcome o = runSet(r, TimeGuesser::basic());
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civil(2020, 2, 29, 10), o.tv.tv_sec);
  // A day that no month has still fails after the year was guessed.
  Raw bad;
  bad.storeMonth(3);
  bad.storeMday(31);
  bad.storeHour24(10);
  bad.storeMinute(0);
  bad.storeTzOffset(0);
  EXPECT_FALSE(runSet(bad, TimeGuesser::basic()).ok);
}

TEST(TimeGuesserReview, SetMakesTheDateFromTheDayOfTheYearOrTheWeek) {
  const struct {
    const char* what;
    int yday, sundayWeek, mondayWeek, wday;  // -1: absent
    bool ok;
    int month, day;  // month 1-12
  } kCases[] = {
      {"yday 59 in a leap year", 59, -1, -1, -1, true, 2, 29},
      {"yday 0", 0, -1, -1, -1, true, 1, 1},
      {"yday 365 in a leap year", 365, -1, -1, -1, true, 12, 31},
      {"first Sunday week, Sunday", -1, 1, -1, 0, true, 1, 7},
      {"Sunday week 0, Monday", -1, 0, -1, 1, true, 1, 1},
      {"first Monday week, Monday", -1, -1, 1, 1, true, 1, 1},
      {"week without weekday", -1, 1, -1, -1, false, 0, 0},
      {"neither day of year nor week", -1, -1, -1, -1, false, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Raw r;
    r.storeYear(2024);
    if (c.yday >= 0) r.storeYday(c.yday);
    if (c.sundayWeek >= 0) r.storeSundayWeek(c.sundayWeek);
    if (c.mondayWeek >= 0) r.storeMondayWeek(c.mondayWeek);
    if (c.wday >= 0) r.storeWday(c.wday);
    r.storeHour24(6);
    r.storeMinute(0);
    r.storeTzOffset(0);
    const SetOutcome o = runSet(r, TimeGuesser::basic());
    EXPECT_EQ(c.ok, o.ok);
    if (c.ok && o.ok) {
      EXPECT_EQ(civil(2024, c.month, c.day, 6), o.tv.tv_sec);
    }
  }
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
      {"seconds without fraction", 10, -1, -1, 20, 30, false, 37230, 0, 0},
      {"no seconds drops the fraction", 10, -1, -1, 20, -1, true, 37200, 0, -1},
      {"second 60 counts as 59", 23, -1, -1, 59, 60, false, 86399, 0, 0},
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

TEST(TimeGuesserReview, SetTakesTheWeekdayOfTheTextAsItStands) {
  // March 15, 2024 is a Friday; a weekday in the text is reported unchecked.
  Raw r = rawDate(2024, 3, 15);
  r.storeHour24(1);
  r.storeMinute(0);
  r.storeTzOffset(0);
  EXPECT_EQ(5, runSet(r, TimeGuesser::basic()).extra.wday);
  r.storeWday(2);
  const SetOutcome o = runSet(r, TimeGuesser::basic());
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(2, o.extra.wday);
  EXPECT_EQ(civil(2024, 3, 15, 1), o.tv.tv_sec);
}

TEST(TimeGuesserReview, SetPicksAmOrPmByTheWeightedDistance) {
  const struct {
    const char* what;
    int nowH, nowM;     // the clock, 2024-05-10 UTC
    int hour12, minute;
    int day, hour;      // the result, May `day` at `hour`:`minute` UTC
  } kCases[] = {
      {"02:00 at 13:00 is 14:00", 13, 0, 2, 0, 10, 14},
      {"02:00 at 03:00 stays 02:00", 3, 0, 2, 0, 10, 2},
      {"12:30 at 13:00 is half past noon", 13, 0, 0, 30, 10, 12},
      {"12:30 at 11:00 is half past noon too", 11, 0, 0, 30, 10, 12},
      {"11:00 at 01:00 is the coming morning", 1, 0, 11, 0, 10, 11},
  };
  ScopedFixedClock clock(Timeval(0, 0));
  OnlyOverrideTimezoneTimeGuesser g(utcZone());
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    clock.set(Timeval(civil(2024, 5, 10, c.nowH, c.nowM), 0));
    Raw r;
    r.storeHour12(c.hour12);
    r.storeMinute(c.minute);
    const SetOutcome o = runSet(r, &g);
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(civil(2024, 5, c.day, c.hour, c.minute), o.tv.tv_sec);
    EXPECT_EQ(-1, o.extra.subsecDigits);
    EXPECT_FALSE(o.extra.timezoneKnown);
  }
  // The same with a date: only AM or PM is guessed.
  clock.set(Timeval(civil(2024, 5, 10, 13), 0));
  Raw r = rawDate(2024, 5, 10);
  r.storeHour12(2);
  r.storeMinute(0);
  EXPECT_EQ(civil(2024, 5, 10, 14), runSet(r, &g).tv.tv_sec);
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

TEST(TimeGuesserReview, SetResolvesTheAutumnOverlapByTheClock) {
  // 2023-11-05 01:30 in New York is 05:30Z (EDT) or 06:30Z (EST).
  const struct { int nowH, nowM; int resultH; long offset; } kCases[] = {
      {5, 0, 5, -14400},   // just before the first reading
      {6, 40, 6, -18000},  // after the second
      {5, 50, 6, -18000},  // 20 minutes after the first, 40 before the second
      {5, 31, 5, -14400},  // a minute after the first: 8 minutes against 59
  };
  OnlyOverrideTimezoneTimeGuesser g(newYork());
  ScopedFixedClock clock(Timeval(0, 0));
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.nowH << ":" << c.nowM);
    clock.set(Timeval(civil(2023, 11, 5, c.nowH, c.nowM), 0));
    Raw r = rawDate(2023, 11, 5);
    r.storeHour24(1);
    r.storeMinute(30);
    const SetOutcome o = runSet(r, &g);
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(civil(2023, 11, 5, c.resultH, 30), o.tv.tv_sec);
    EXPECT_EQ(1u, o.conflicts);
    EXPECT_EQ(c.offset, o.extra.tzOffset);
  }
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

TEST(TimeGuesserReview, ParseFailsWhenSetFails) {
  TimeFormat f("%m/%d/%Y %H:%M");
  Timeval t(5, 6);
  EXPECT_EQ(-1, t.parse(f, "02/29/2023 10:00", utcZone()));
  EXPECT_EQ(5, t.tv_sec);
  EXPECT_EQ(16, t.parse(f, "02/29/2024 10:00", utcZone()));
  EXPECT_EQ(civil(2024, 2, 29, 10), t.tv_sec);
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

TEST(TimeGuesserReview, ParseHandsBackConflicts) {
  TimeFormat f("%Y-%m-%d %H:%M %H");
  Timeval t;
  unsigned conflicts = 0;
  EXPECT_EQ(19, t.parse(f, "2009-07-01 12:00 13", utcZone(), nullptr, &conflicts));
  EXPECT_EQ(1u, conflicts);
  EXPECT_EQ(civil(2009, 7, 1, 12), t.tv_sec);  // the first value stays
  // An ambiguous local time counts one more.
  ScopedFixedClock clock(Timeval(civil(2023, 11, 5, 5), 0));
  TimeFormat g("%Y-%m-%d %H:%M");
  conflicts = 0;
  EXPECT_EQ(16, t.parse(g, "2023-11-05 01:30", newYork(), nullptr, &conflicts));
  EXPECT_EQ(1u, conflicts);
}

// ---- DateParserGuesser ----

TEST(DateParserGuesserReview, CachesShortNamesOnly) {
  const struct { const char* name; bool cached; long offset; } kCases[] = {
      {"EST", true, -18000},
      {"-0700", true, -25200},
      {"+05:30", true, 19800},
      {"Etc/UTC", true, 0},     // 7 bytes: the longest kept
      {"GMT-0700", false, -25200},  // 8 bytes
      {"Pacific Standard Time", false, -28800},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    DateParserGuesser g;
    TimezoneGuessResult a, b;
    ASSERT_TRUE(g.guessTimezone(c.name, &a));
    EXPECT_EQ(0u, g.nameCacheHits());
    ASSERT_TRUE(g.guessTimezone(c.name, &b));
    EXPECT_EQ(c.cached ? 1u : 0u, g.nameCacheHits());
    EXPECT_TRUE(b.isConstant);
    EXPECT_EQ(c.offset, b.offset);
    // Another name replaces the entry.
    TimezoneGuessResult other;
    ASSERT_TRUE(g.guessTimezone("UTC", &other));
    ASSERT_TRUE(g.guessTimezone(c.name, &b));
    EXPECT_EQ(c.cached ? 1u : 0u, g.nameCacheHits());
    EXPECT_EQ(c.offset, b.offset);
  }
}

TEST(DateParserGuesserReview, TzOnlyFillsTheGap) {
  DateParserGuesser g;
  TimezoneGuessResult r;
  EXPECT_FALSE(g.guessTimezone("Nowhere/Zone", &r));
  {
    ScopedLogCapture log("DateParser");
    ASSERT_TRUE(g.setTZ("-0300"));
    EXPECT_NE(std::string::npos, log.text().find("INFO Set timezone to: -0300"));
  }
  EXPECT_TRUE(g.haveOverride());
  EXPECT_TRUE(g.overrideZone().isConstant);
  EXPECT_EQ(-10800, g.overrideZone().offset);
  const struct { const char* name; long offset; } kCases[] = {
      {nullptr, -10800},         // no zone in the text
      {"Nowhere/Zone", -10800},  // an unknown zone in the text
      {"EST", -18000},           // a known zone in the text wins
      {"+0100", 3600},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name == nullptr ? "none" : c.name);
    TimezoneGuessResult res;
    ASSERT_TRUE(g.guessTimezone(c.name, &res));
    EXPECT_TRUE(res.isConstant);
    EXPECT_EQ(c.offset, res.offset);
  }
  // An invalid TZ removes the override.
  {
    ScopedLogCapture log("DateParser");
    EXPECT_FALSE(g.setTZ("Nowhere/Zone"));
    EXPECT_NE(std::string::npos, log.text().find("Invalid TZ string: Nowhere/Zone"));
  }
  EXPECT_FALSE(g.haveOverride());
  EXPECT_FALSE(g.guessTimezone("Nowhere/Else", &r));
}

TEST(DateParserGuesserReview, TzGoesThroughTheWholeSetPath) {
  DateParserGuesser g;
  ASSERT_TRUE(g.setTZ("America/New_York"));
  Raw r = rawDate(2023, 7, 1);
  r.storeHour24(12);
  r.storeMinute(0);
  const SetOutcome o = runSet(r, &g);
  ASSERT_TRUE(o.ok);
  EXPECT_EQ(civil(2023, 7, 1, 16), o.tv.tv_sec);
  EXPECT_FALSE(o.extra.timezoneKnown);
  EXPECT_EQ(-14400, o.extra.tzOffset);
}

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

TEST(DateParserGuesserReview, NeverCachesTheAutumnOverlap) {
  DateParserGuesser g;
  TimezoneGuessResult ny;
  ASSERT_TRUE(ny.set(newYork()));
  const long overlap = civil(2023, 11, 5, 1, 10);
  for (int i = 0; i < 3; ++i) {
    long t = overlap + i * 60;
    EXPECT_FALSE(g.convertToGmt(&ny, &t));
    EXPECT_EQ(0u, g.hourCacheHits());
  }
  // The hour after the overlap is unique and cached from its second line.
  long t = civil(2023, 11, 5, 2, 10);
  EXPECT_TRUE(g.convertToGmt(&ny, &t));
  EXPECT_EQ(civil(2023, 11, 5, 7, 10), t);
  t = civil(2023, 11, 5, 2, 20);
  EXPECT_TRUE(g.convertToGmt(&ny, &t));
  EXPECT_EQ(civil(2023, 11, 5, 7, 20), t);
  EXPECT_EQ(1u, g.hourCacheHits());
}

TEST(DateParserGuesserReview, TakesTheDateFromTheSource) {
  const struct {
    const char* what;
    int sourceHour, maxDiff;
    int hour24, hour12, pm, minute;  // -1: absent
    bool ok;
    int year, month, day;  // month 1-12, after the call (raw and source)
    int newSourceHour;
  } kCases[] = {
      {"same hour", 5, 3600, 5, -1, -1, 0, true, 2023, 12, 31, 5},
      {"later hour", 5, 3600, 9, -1, -1, 0, true, 2023, 12, 31, 9},
      {"back by exactly the limit", 5, 3600, 4, -1, -1, 0, true, 2023, 12, 31, 4},
      {"back past the limit: next day", 5, 3600, 3, -1, -1, 0, true, 2024, 1, 1, 3},
      {"midnight passed", 23, 3600, 0, -1, -1, 5, true, 2024, 1, 1, 0},
      {"wider limit keeps the day", 23, 86400, 0, -1, -1, 5, true, 2023, 12, 31, 0},
      {"pm pair", 5, 3600, -1, 1, 1, 0, true, 2023, 12, 31, 13},
      {"am pair back: next day", 5, 3600, -1, 1, 0, 0, true, 2024, 1, 1, 1},
      {"12-hour without marker", 5, 3600, -1, 1, -1, 0, false, 0, 0, 0, -1},
      {"no minute", 5, 3600, 5, -1, -1, -1, false, 0, 0, 0, -1},
      {"no hour", 5, 3600, -1, -1, -1, 0, false, 0, 0, 0, -1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    DateParserGuesser g;
    g.sourceYear = 2023;
    g.sourceMonth = 11;  // December, from 0
    g.sourceDay = 31;
    g.sourceHour = c.sourceHour;
    g.maxDiffSecsAgo = c.maxDiff;
    Raw r;
    if (c.hour24 >= 0) r.storeHour24(c.hour24);
    if (c.hour12 >= 0) r.storeHour12(c.hour12);
    if (c.pm >= 0) r.storePm(c.pm == 1);
    if (c.minute >= 0) r.storeMinute(c.minute);
    TimezoneGuessResult zone;
    zone.setConstant(0);
    EXPECT_EQ(c.ok, g.guessDate(&r, &zone));
    if (!c.ok) continue;
    EXPECT_EQ(c.year, r.year);
    EXPECT_EQ(c.month - 1, r.month);
    EXPECT_EQ(c.day, r.mday);
    EXPECT_EQ(c.year, g.sourceYear);
    EXPECT_EQ(c.month - 1, g.sourceMonth);
    EXPECT_EQ(c.day, g.sourceDay);
    EXPECT_EQ(c.newSourceHour, g.sourceHour);
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

TEST(DateParserGuesserReview, WithoutASourceDateUsesTheStreamOrTheParseTime) {
  ScopedFixedClock clock(Timeval(civil(2030, 1, 1), 0));  // must not be read
  DateParserGuesser g;
  g.now = Timeval(civil(2024, 5, 10, 12), 0);
  TimezoneGuessResult zone;
  zone.setConstant(0);
  Raw r;
  r.storeHour24(16);
  r.storeMinute(0);
  ASSERT_TRUE(g.guessDate(&r, &zone));
  EXPECT_EQ(9, r.mday);  // more than 3 hours ahead of now
  g.previous = Timeval(civil(2024, 5, 10, 14), 0);
  Raw r2;
  r2.storeHour24(16);
  r2.storeMinute(0);
  ASSERT_TRUE(g.guessDate(&r2, &zone));
  EXPECT_EQ(10, r2.mday);  // within 3 hours of the previous event
  EXPECT_EQ(2024, r2.year);
}

TEST(DateParserGuesserReview, SetMinMaxDaysClampsLogsAndReadsTheClock) {
  const Timeval fixed(civil(2024, 5, 10, 12), 250);
  ScopedFixedClock clock(fixed);
  const struct { int ago, hence; int loggedAgo, loggedHence; } kCases[] = {
      {1, 2, 1, 2},
      {10950, 10950, 10950, 10950},
      {10951, 100000, 10950, 10950},
      {0, 0, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.ago << "/" << c.hence);
    DateParserGuesser g;
    ScopedLogCapture log("DateParserVerbose");
    g.setMinMaxDays(c.ago, c.hence);
    EXPECT_EQ(fixed.tv_sec, g.now.tv_sec);
    EXPECT_EQ(fixed.tv_usec, g.now.tv_usec);
    EXPECT_EQ(c.loggedAgo * 86400, g.maxAgoSecs());
    EXPECT_EQ(c.loggedHence * 86400, g.maxHenceSecs());
    const std::string expected = "INFO Setting maxDaysAgo=" + std::to_string(c.loggedAgo) +
                                 " and maxDaysHence=" + std::to_string(c.loggedHence);
    EXPECT_NE(std::string::npos, log.text().find(expected)) << log.text();
  }
}

}  // namespace
