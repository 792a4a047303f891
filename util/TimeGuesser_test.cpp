// The base guesser: years, dates and zones filled in from the clock, and the
// zone a guess settles on.
#include "util/TimeGuesser.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "util/DateParserGuesser.h"
#include "util/TimeFormatRawParseResult.h"
#include "util/Timezone.h"
#include "util/TimezoneTables.h"
#include "util/testing/FixedClock.h"
#include "util/testing/GuessTestSupport.h"
#include "util/testing/ScopedTz.h"

namespace {

using R = TimeFormatRawParseResult;

class TimeGuesserTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(useStagedZonesWithGmtDefault()) << "build stage_zoneinfo"; }
};

std::string ymd(const R& raw) {
  return std::to_string(raw.year) + "-" + std::to_string(raw.month + 1) + "-" +
         std::to_string(raw.mday);
}

TEST(TimeGuesser, ExpandShortYearPivotsAt68) {
  const struct {
    unsigned shortYear;
    int year;
  } kCases[] = {{0, 2000}, {9, 2009}, {67, 2067}, {68, 2068}, {69, 1969}, {70, 1970}, {99, 1999}};
  for (const auto& c : kCases) {
    EXPECT_EQ(c.year, TimeGuesser::basic()->expandShortYear(c.shortYear)) << c.shortYear;
  }
}

// guessYear with and without a date context: the base guesser reads the
// clock, the parser's guesser with a previous event reads that event.
TEST_F(TimeGuesserTest, GuessYearAroundNewYearAndLeapDays) {
  const struct {
    const char* why;
    Timeval today;
    bool context;
    int month, mday;
    int year;
  } kCases[] = {
      {"Dec 31 read on Jan 1", utcInstant(2026, 1, 1, 10), false, 12, 31, 2025},
      {"Jan 1 read on Dec 31", utcInstant(2025, 12, 31, 10), false, 1, 1, 2026},
      {"Dec 31 after Jan 1 in a stream", utcInstant(2026, 1, 1, 10), true, 12, 31, 2025},
      {"Jan 1 after Dec 31 in a stream", utcInstant(2025, 12, 31, 10), true, 1, 1, 2026},
      {"a stream crosses New Year", utcInstant(2025, 12, 28, 23), true, 1, 2, 2026},
      {"an old file read in January", utcInstant(2026, 1, 2), false, 12, 30, 2025},
      {"long past is still this year", utcInstant(2023, 6, 10), false, 1, 5, 2023},
      // With a context only dates behind the stream change the year.
      {"a stream sees a date ahead", utcInstant(2026, 1, 2), true, 12, 30, 2026},
      {"4 days behind a stream", utcInstant(2025, 4, 11), true, 4, 7, 2026},
      {"3 days behind a stream", utcInstant(2025, 4, 11), true, 4, 8, 2025},
      {"4 days ahead of the clock", utcInstant(2025, 4, 11), false, 4, 15, 2024},
      {"3 days ahead of the clock", utcInstant(2025, 4, 11), false, 4, 14, 2025},
      // The text's day counts by the non-leap table, today's by the real
      // calendar: in March of a leap year 4 days ahead still reads as 3.
      {"leap-year March, 4 real days ahead", utcInstant(2024, 3, 10), false, 3, 14, 2024},
      {"leap-year March, 5 real days ahead", utcInstant(2024, 3, 10), false, 3, 15, 2023},
      {"Feb 29 in a non-leap year, no context", utcInstant(2023, 6, 1), false, 2, 29, 2020},
      {"Feb 29 in a non-leap year, context", utcInstant(2023, 6, 1), true, 2, 29, 2024},
      {"Feb 29 in a leap year, no context", utcInstant(2024, 6, 1), false, 2, 29, 2024},
      {"Feb 29 in a leap year, context", utcInstant(2024, 6, 1), true, 2, 29, 2024},
      {"Feb 29 in 2100, no context", utcInstant(2100, 3, 1), false, 2, 29, 2096},
      {"Feb 29 in 2100, context", utcInstant(2100, 3, 1), true, 2, 29, 2104},
      // The leap-day rule comes before "far ahead means last year".
      {"Feb 29 read on Jan 1", utcInstant(2025, 1, 1), false, 2, 29, 2024},
  };
  for (const auto& c : kCases) {
    ScopedFixedClock clock(c.context ? utcInstant(1999, 1, 1) : c.today);
    DateParserGuesser stream;
    stream.previous = c.today;
    TimeGuesser* guesser = c.context ? static_cast<TimeGuesser*>(&stream) : TimeGuesser::basic();
    R raw;
    raw.storeMonth(c.month - 1);
    raw.storeMday(c.mday);
    ASSERT_TRUE(guesser->guessYear(&raw)) << c.why;
    EXPECT_TRUE(raw.has(R::HAVE_YEAR)) << c.why;
    EXPECT_EQ(c.year, raw.year) << c.why;
    EXPECT_EQ(c.month - 1, raw.month) << c.why;
    EXPECT_EQ(c.mday, raw.mday) << c.why;
  }
}

struct DatelessCase {
  const char* why;
  Timeval now;
  long zoneOffset;  // seconds east
  int hour;         // 0-23, or the written 12-hour value with `marker`
  int minute, second;
  const char* marker;  // nullptr: 24-hour; "": 12-hour without AM/PM
  const char* date;
  int hour12After;  // 12-hour rows: hour12 after the guess
};

R datelessRaw(const DatelessCase& c) {
  R raw;
  if (c.marker == nullptr) {
    raw.storeHour24(c.hour);
  } else {
    raw.storeHour12(c.hour % 12);
    if (*c.marker != '\0') raw.storePm(std::string(c.marker) == "PM");
  }
  raw.storeMinute(c.minute);
  if (c.second >= 0) raw.storeSecond(c.second);
  return raw;
}

TEST_F(TimeGuesserTest, GuessDateKeepsTodayUpToThreeHoursAhead) {
  const Timeval ten = utcInstant(2025, 6, 15, 10);
  const DatelessCase kCases[] = {
      {"exactly 3 h ahead", ten, 0, 13, 0, 0, nullptr, "2025-6-15", 0},
      {"3 h + 1 s ahead", ten, 0, 13, 0, 1, nullptr, "2025-6-14", 0},
      {"3 h ahead, no seconds", ten, 0, 13, 0, -1, nullptr, "2025-6-15", 0},
      {"3 h 1 min ahead, no seconds", ten, 0, 13, 1, -1, nullptr, "2025-6-14", 0},
      {"now", ten, 0, 10, 0, 0, nullptr, "2025-6-15", 0},
      {"midnight, behind", ten, 0, 0, 0, 0, nullptr, "2025-6-15", 0},
      {"late evening", ten, 0, 23, 59, 0, nullptr, "2025-6-14", 0},
      {"1 PM is 3 h ahead", ten, 0, 1, 0, 0, "PM", "2025-6-15", 1},
      {"1:00:01 PM", ten, 0, 1, 0, 1, "PM", "2025-6-14", 1},
      {"across New Year", utcInstant(2026, 1, 1, 0, 30), 0, 23, 0, 0, nullptr, "2025-12-31", 0},
      // The clock is read in the zone: 20:00 UTC is 01:30 on the 16th.
      {"+05:30, exactly 3 h", utcInstant(2025, 6, 15, 20), 19800, 4, 30, 0, nullptr,
       "2025-6-16", 0},
      {"+05:30, 3 h + 1 s", utcInstant(2025, 6, 15, 20), 19800, 4, 30, 1, nullptr,
       "2025-6-15", 0},
      {"-08:00, evening before", utcInstant(2025, 6, 15, 3), -28800, 19, 0, 0, nullptr,
       "2025-6-14", 0},
  };
  for (const auto& c : kCases) {
    ScopedFixedClock clock(c.now);
    TimezoneGuessResult zone;
    zone.setConstant(c.zoneOffset);
    R raw = datelessRaw(c);
    ASSERT_TRUE(TimeGuesser::basic()->guessDate(&raw, &zone)) << c.why;
    EXPECT_EQ(c.date, ymd(raw)) << c.why;
  }
}

// A 12-hour time without a marker lies in the latest half day that has it at
// most 90 minutes ahead; hour12 gains 12 in an afternoon.
TEST_F(TimeGuesserTest, GuessDateFoldsUnmarkedTwelveHourTimes) {
  const DatelessCase kCases[] = {
      {"11:30 at 10:00, 90 min ahead", utcInstant(2025, 6, 15, 10), 0, 11, 30, 0, "",
       "2025-6-15", 11},
      {"11:30:01 at 10:00", utcInstant(2025, 6, 15, 10), 0, 11, 30, 1, "", "2025-6-14", 23},
      {"12:30 at 13:00", utcInstant(2025, 6, 15, 13), 0, 12, 30, 0, "", "2025-6-15", 12},
      {"12:30 at 11:00", utcInstant(2025, 6, 15, 11), 0, 12, 30, 0, "", "2025-6-15", 0},
      {"12:10 at 00:20", utcInstant(2025, 6, 15, 0, 20), 0, 12, 10, -1, "", "2025-6-15", 0},
      {"12:10 at 23:50", utcInstant(2025, 6, 15, 23, 50), 0, 12, 10, -1, "", "2025-6-15", 12},
      {"11:00 at 00:30", utcInstant(2025, 6, 15, 0, 30), 0, 11, 0, -1, "", "2025-6-14", 23},
      {"in the zone's afternoon", utcInstant(2025, 6, 15, 10), 19800, 4, 0, -1, "", "2025-6-15",
       16},
  };
  for (const auto& c : kCases) {
    ScopedFixedClock clock(c.now);
    TimezoneGuessResult zone;
    zone.setConstant(c.zoneOffset);
    R raw = datelessRaw(c);
    ASSERT_TRUE(TimeGuesser::basic()->guessDate(&raw, &zone)) << c.why;
    EXPECT_EQ(c.date, ymd(raw)) << c.why;
    EXPECT_EQ(c.hour12After, raw.hour12) << c.why;
    EXPECT_FALSE(raw.has(R::HAVE_AMPM)) << c.why;
  }
}

TEST_F(TimeGuesserTest, GuessDateNeedsAMinuteAndAnHour) {
  ScopedFixedClock clock(utcInstant(2025, 6, 15, 10));
  TimezoneGuessResult zone;
  R noMinute;
  noMinute.storeHour24(10);
  EXPECT_FALSE(TimeGuesser::basic()->guessDate(&noMinute, &zone));
  R noHour;
  noHour.storeMinute(10);
  noHour.storeSecond(10);
  EXPECT_FALSE(TimeGuesser::basic()->guessDate(&noHour, &zone));
  R onlyMarker;
  onlyMarker.storeMinute(10);
  onlyMarker.storePm(true);
  EXPECT_FALSE(TimeGuesser::basic()->guessDate(&onlyMarker, &zone));
}

// The later candidate wins when its distance is smaller; a second in the
// past weighs as much as eight in the future.
TEST(TimeGuesser, AmbiguousDstAndPmWeighThePastEightfold) {
  const long now = 1750000000;
  ScopedFixedClock clock(Timeval(now, 0));
  const struct {
    long time;
    bool laterHour;  // ambigiousDst
    bool laterHalfDay;  // usePmInstead
  } kCases[] = {
      {now + 1, false, false},
      {now, false, false},
      {now - 400, false, false},  // 3200 either way: a tie keeps the first
      {now - 401, true, false},
      {now - 3600, true, false},
      {now - 4800, true, false},  // 38400 either way
      {now - 4801, true, true},
      {now - 43200, true, true},
      {now - 90000, true, true},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.laterHour, TimeGuesser::basic()->ambigiousDst(c.time)) << now - c.time;
    EXPECT_EQ(c.laterHalfDay, TimeGuesser::basic()->usePmInstead(c.time)) << now - c.time;
  }
}

// The abbreviation table as it is written, out-of-order rows included.
const struct {
  const char* name;
  long offset;
} kAbbreviations[] = {
    {"ACDT", 37800},  {"ACST", 34200},  {"ADT", -10800},  {"AEDT", 39600},  {"AEST", 36000},
    {"AKDT", -28800}, {"AKST", -32400}, {"AST", -14400},  {"AWDT", 32400},  {"AWST", 28800},
    {"BST", 3600},    {"CADT", 37800},  {"CAST", 34200},  {"CDT", -18000},  {"CEDT", 7200},
    {"CEST", 7200},   {"CET", 3600},    {"CETDST", 7200}, {"CST", -21600},  {"CXT", 25200},
    {"EADT", 39600},  {"EAST", 36000},  {"EDT", -14400},  {"EEDT", 10800},  {"EEST", 10800},
    {"EET", 7200},    {"EST", -18000},  {"EETDST", 10800}, {"GMT", 0},      {"HAA", -10800},
    {"HAC", -18000},  {"HADT", -32400}, {"HAE", -14400},  {"HAP", -25200},  {"HAR", -21600},
    {"HAST", -36000}, {"HAT", -9000},   {"HAY", -28800},  {"HDT", -32400},  {"HNA", -14400},
    {"HNC", -21600},  {"HNE", -18000},  {"HNP", -28800},  {"HNR", -25200},  {"HNT", -12600},
    {"HNY", -32400},  {"HKT", 28800},   {"HST", -36000},  {"IST", 19800},   {"JST", 32400},
    {"KST", 32400},   {"MDT", -21600},  {"MEST", 7200},   {"MESZ", 7200},   {"MET", 3600},
    {"METDST", 7200}, {"MEZ", 3600},    {"MSD", 14400},   {"MSK", 10800},   {"MST", -25200},
    {"NDT", -9000},   {"NFT", 41400},   {"NST", -12600},  {"PDT", -25200},  {"PST", -28800},
    {"ROK", 32400},   {"UT", 0},        {"UTC", 0},       {"WADT", 32400},  {"WAST", 28800},
    {"WEDT", 3600},   {"WEST", 3600},   {"WET", 0},       {"WETDST", 3600}, {"YDT", -28800},
    {"YST", -32400},  {"Z", 0},         {"ZULU", 0},
};

std::string lower(const char* s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return out;
}

TEST_F(TimeGuesserTest, GuessDateReadsTheClockInAZoneWithTransitions) {
  // 2024-03-10 04:30Z is 23:30 EST on the 9th in New York.
  ScopedFixedClock clock(Timeval(civilUtc(2024, 3, 10, 4, 30), 0));
  TimezoneGuessResult zone;
  ASSERT_TRUE(zone.set(getTimezone("America/New_York", true)));
  ASSERT_FALSE(zone.isConstant);
  R r;
  r.storeHour24(22);
  r.storeMinute(0);
  ASSERT_TRUE(TimeGuesser::basic()->guessDate(&r, &zone));
  EXPECT_EQ(2024, r.year);
  EXPECT_EQ(2, r.month);
  EXPECT_EQ(9, r.mday);
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

TEST(TimeGuesser, EveryDescriptionRowIsFoundByItsKey) {
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

TEST_F(TimeGuesserTest, AbbreviationsGiveTheirTableOffsetInAnyCase) {
  static_assert(sizeof kAbbreviations / sizeof kAbbreviations[0] == 78);
  for (const auto& a : kAbbreviations) {
    const std::string name = a.name;
    // A bisection never reaches the two rows out of order, and no zone file
    // or POSIX rule carries those names either.
    const bool unreachable = name == "EETDST" || name == "HKT";
    for (const std::string& spelling : {name, lower(a.name)}) {
      TimezoneGuessResult zone;
      const bool found = TimeGuesser::basic()->guessTimezone(spelling.c_str(), &zone);
      if (unreachable) {
        EXPECT_FALSE(found) << spelling;
        continue;
      }
      ASSERT_TRUE(found) << spelling;
      EXPECT_TRUE(zone.isConstant) << spelling;
      EXPECT_EQ(a.offset, zone.offset) << spelling;
    }
  }
}

TEST_F(TimeGuesserTest, NumericOffsetsAndDescriptionsAreConstants) {
  const struct {
    const char* name;
    long offset;
  } kCases[] = {
      {"GMT-0700", -25200},
      {"GMT+5", 18000},
      {"GMT+05:30", 19800},
      {"GMT", 0},  // nothing follows: the abbreviation
      {"+05:30", 19800},
      {"-0800", -28800},
      {"+5", 18000},
      {"-08:00", -28800},
      {"-08", -28800},
      {"+0545", 20700},
      {"W. Europe Standard Time", 3600},
      {"W. Europe Daylight Time", 7200},
      {"Coordinated Universal Time", 0},
      {"Eastern Standard Time", -18000},  // the table wins over the zone file
      {"India Standard Time", 19800},
      {"Nepal Standard Time", 20700},
      {"Namibia Standard Time", 7200},  // daylight time is the western one
      {"Namibia Daylight Time", 3600},
      {"Central (Mexico) Standard Time", -21600},
      {"Tokyo", 32400},      // a system name, through getTimezone
      {"Hawaiian", -36000},  // 8 letters: never an abbreviation
      {"Singapore", 28800},  // 9 letters, a zone file
      {"Asia/Kolkata", 19800},
      {"JST-9", 32400},  // a POSIX rule
  };
  for (const auto& c : kCases) {
    TimezoneGuessResult zone;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone(c.name, &zone)) << c.name;
    EXPECT_TRUE(zone.isConstant) << c.name;
    EXPECT_EQ(c.offset, zone.offset) << c.name;
  }
}

TEST_F(TimeGuesserTest, NamedZonesComeFromTheZoneCache) {
  for (const char* name : {"America/Sao_Paulo", "Europe/Paris", "Eastern", "Pacific/Auckland",
                           "Central Standard Time (Mexico)",
                           "EST5EDT"}) {  // a digit ends the abbreviation search
    TimezoneGuessResult zone;
    ASSERT_TRUE(TimeGuesser::basic()->guessTimezone(name, &zone)) << name;
    EXPECT_FALSE(zone.isConstant) << name;
    EXPECT_EQ(getTimezone(name, true), zone.zone) << name;
    EXPECT_NE(nullptr, zone.zone) << name;
  }
}

// A zone counts as constant when its only change since 1970 is its last, and
// a guess then reads it with that offset throughout: Kathmandu's +05:45 of
// 1986 applies to 1983 as well.
TEST_F(TimeGuesserTest, ZonesConstantSinceTheirLastChange) {
  TimezoneGuessResult zone;
  ASSERT_TRUE(TimeGuesser::basic()->guessTimezone("Asia/Kathmandu", &zone));
  EXPECT_TRUE(zone.isConstant);
  EXPECT_EQ(20700, zone.offset);
  long t = civilUtc(1983, 7, 19, 14);
  EXPECT_TRUE(zone.convertToGmt(&t));
  EXPECT_EQ(civilUtc(1983, 7, 19, 8, 15), t);
}

TEST_F(TimeGuesserTest, UnknownNamesAndBadOffsetsFail) {
  for (const char* name : {"Nowhere", "Mars/Olympus", "NOTAZONE", "+0860", "+05:30x", "GMT-",
                           "-", "GMTX", "12:00"}) {
    TimezoneGuessResult zone;
    EXPECT_FALSE(TimeGuesser::basic()->guessTimezone(name, &zone)) << name;
  }
}

TEST_F(TimeGuesserTest, NoNameMeansTheBaseZone) {
  const Timezone* paris = getTimezone("Europe/Paris", true);
  ASSERT_NE(nullptr, paris);
  OnlyOverrideTimezoneTimeGuesser guesser(paris);
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    TimezoneGuessResult zone;
    ASSERT_TRUE(guesser.guessTimezone(name, &zone));
    EXPECT_FALSE(zone.isConstant);
    EXPECT_EQ(paris, zone.zone);
  }
  TimezoneGuessResult text;
  ASSERT_TRUE(guesser.guessTimezone("EST", &text));
  EXPECT_EQ(-18000, text.offset);
  // A null zone is the process's default zone, GMT in these tests.
  OnlyOverrideTimezoneTimeGuesser fallback(nullptr);
  EXPECT_EQ(getDefaultTimezone(), fallback.baseTimezone());
  TimezoneGuessResult gmt;
  ASSERT_TRUE(fallback.guessTimezone(nullptr, &gmt));
  EXPECT_TRUE(gmt.isConstant);
  EXPECT_EQ(0, gmt.offset);
}

TEST_F(TimeGuesserTest, GuessResultSetKeepsRealZonesAndFlattensConstantOnes) {
  TimezoneGuessResult none;
  EXPECT_FALSE(none.set(nullptr));
  EXPECT_FALSE(none.isConstant);
  EXPECT_EQ(nullptr, none.zone);
  long t = 1000;
  EXPECT_TRUE(none.convertToGmt(&t));
  EXPECT_EQ(1000, t);
  EXPECT_EQ(1000, none.convertFromGmt(1000));

  TimezoneGuessResult kolkata;
  ASSERT_TRUE(kolkata.set(getTimezone("Asia/Kolkata", true)));
  EXPECT_TRUE(kolkata.isConstant);
  EXPECT_EQ(19800, kolkata.offset);

  const Timezone* ny = getTimezone("America/New_York", true);
  TimezoneGuessResult newYork;
  ASSERT_TRUE(newYork.set(ny));
  EXPECT_FALSE(newYork.isConstant);
  EXPECT_EQ(ny, newYork.zone);
}

TEST_F(TimeGuesserTest, GuessResultConvertsBothWaysAndFlagsOverlaps) {
  const struct {
    const char* zone;
    Timeval local;  // local civil time written as UTC
    Timeval utc;
    bool unique;
  } kCases[] = {
      {"America/New_York", utcInstant(2025, 7, 1, 12), utcInstant(2025, 7, 1, 16), true},
      {"America/New_York", utcInstant(2025, 1, 1, 12), utcInstant(2025, 1, 1, 17), true},
      // The autumn overlap gives the earlier reading and false.
      {"America/New_York", utcInstant(2025, 11, 2, 1, 30), utcInstant(2025, 11, 2, 5, 30), false},
      // The spring gap reads with the offset before it.
      {"America/New_York", utcInstant(2025, 3, 9, 2, 30), utcInstant(2025, 3, 9, 7, 30), true},
      {"Australia/Sydney", utcInstant(2025, 4, 6, 2, 30), utcInstant(2025, 4, 5, 15, 30), false},
      {"Australia/Sydney", utcInstant(2025, 7, 1, 12), utcInstant(2025, 7, 1, 2), true},
  };
  for (const auto& c : kCases) {
    TimezoneGuessResult zone;
    ASSERT_TRUE(zone.set(getTimezone(c.zone, true))) << c.zone;
    long t = c.local.tv_sec;
    EXPECT_EQ(c.unique, zone.convertToGmt(&t)) << c.zone << " " << c.local.tv_sec;
    EXPECT_EQ(c.utc.tv_sec, t) << c.zone << " " << c.local.tv_sec;
    if (c.unique && c.local.tv_sec != utcInstant(2025, 3, 9, 2, 30).tv_sec) {
      EXPECT_EQ(c.local.tv_sec, zone.convertFromGmt(t)) << c.zone;
    }
  }
}

TEST(TimeGuesser, GuessResultConstantsSaturate) {
  TimezoneGuessResult west;
  west.setConstant(-3600);
  long t = LONG_MAX - 10;
  EXPECT_TRUE(west.convertToGmt(&t));
  EXPECT_EQ(LONG_MAX, t);
  EXPECT_EQ(LONG_MIN, west.convertFromGmt(LONG_MIN + 10));
  TimezoneGuessResult east;
  east.setConstant(3600);
  t = LONG_MIN + 10;
  EXPECT_TRUE(east.convertToGmt(&t));
  EXPECT_EQ(LONG_MIN, t);
  EXPECT_EQ(LONG_MAX, east.convertFromGmt(LONG_MAX - 10));
}

// convertFromGmt against the C library's reading of the same zone file, every
// 37 minutes over two years, and convertToGmt back.
TEST_F(TimeGuesserTest, GuessResultAgreesWithLocaltime) {
  for (const char* name : {"America/New_York", "Australia/Sydney", "Europe/Dublin",
                           "Australia/Lord_Howe", "America/Sao_Paulo"}) {
    TimezoneGuessResult zone;
    ASSERT_TRUE(zone.set(getTimezone(name, true))) << name;
    ScopedTz tz(stagedZoneTz(name).c_str());
    int mismatches = 0;
    for (long t = civilUtc(2018, 1, 1); t < civilUtc(2020, 1, 1) && mismatches < 5; t += 37 * 60) {
      const time_t at = t;
      tm fields;
      ASSERT_NE(nullptr, localtime_r(&at, &fields));
      const long local = zone.convertFromGmt(t);
      if (local != t + fields.tm_gmtoff) ++mismatches;
      EXPECT_EQ(t + fields.tm_gmtoff, local) << name << " " << t;
      long back = local;
      if (zone.convertToGmt(&back)) {
        EXPECT_EQ(t, back) << name << " " << t;
      } else {
        // An overlap gives the earlier reading; the later lies one DST step on.
        EXPECT_TRUE(back == t || back < t) << name << " " << t;
      }
    }
  }
}

}  // namespace
