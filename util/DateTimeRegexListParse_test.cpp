// The scores of time and date matches, and the zone check, from extractions
// built by hand: each case names the groups a pattern would have caught.

#include <cstring>
#include <initializer_list>
#include <utility>

#include <gtest/gtest.h>

#include "util/DateParser.h"
#include "util/DateTimeRegexList.h"

namespace {

typedef DateTimeRegex X;
typedef TimeFormatRawParseResult R;

// Extractions over texts that live as long as the literals.
DateTimeRegexExtractions extractions(std::initializer_list<std::pair<int, const char*>> groups) {
  DateTimeRegexExtractions ex;
  for (const auto& [code, text] : groups) {
    ex.ptr[code] = text;
    ex.len[code] = strlen(text);
    ++ex.count;
  }
  return ex;
}

TEST(StrictZoneCheck, NamesPassAndOffsetsMustBeWellFormed) {
  for (const char* ok : {"PDT", "GMT-0700", "Z", "Europe/Paris", "+0530", "-08:00", "0000",
                         "+2359", "23:59"}) {
    EXPECT_TRUE(strict_zone_check(ok, strlen(ok))) << ok;
  }
  for (const char* bad : {"+", "-", "+2500", "+2400", "-0860", "+053", "+05:3", "+05-30",
                          "0800x", "+123456", "1"}) {
    EXPECT_FALSE(strict_zone_check(bad, strlen(bad))) << bad;
  }
}

TEST(TimeRegexListParse, ScoresByWhatTheMatchHolds) {
  const struct {
    DateTimeRegexExtractions ex;
    int score;
    const char* why;
  } kCases[] = {
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}}), 6, "base 3, minute +3"},
      {extractions({{X::HOUR, "1"}, {X::MINUTE, "05"}}), 5, "one-digit hour: base 2"},
      {extractions({{X::HOUR, "1"}, {X::MINUTE, "05"}, {X::AMPM, "PM"}}), 8,
       "a marker on a 12-hour hour: 3 above the same without"},
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}, {X::AMPM, "PM"}}), 6,
       "hour 13 is 24-hour time: the marker counts nothing"},
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}, {X::SECOND, "09"}}), 9, "second +6"},
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}, {X::SUBSECOND, "123"}}), 6,
       "subseconds count only with a second"},
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}, {X::SECOND, "09"}, {X::SUBSECOND, "123"}}),
       12, "subsecond digits add their count"},
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}, {X::SECOND, "09"}, {X::ZONE, "PDT"}}), 13,
       "zone +1 and its length"},
      {extractions({{X::HOUR, "13"}, {X::MINUTE, "05"}, {X::SECOND, "09"}, {X::ZONE, "+2500"}}), 9,
       "a bad zone adds nothing"},
      {extractions({{X::UTCEPOCH, "1781524681"}}), 4, "epoch"},
      {extractions({{X::HEXEPOCH, "6a2fe8c9"}}), 4, "hex epoch"},
  };
  for (const auto& c : kCases) {
    DP_parseState ps;
    EXPECT_EQ(c.score, TimeRegexList().parse(c.ex, &ps)) << c.why;
  }
}

TEST(TimeRegexListParse, RejectsImpossibleValues) {
  for (const DateTimeRegexExtractions& ex : {
           extractions({{X::MINUTE, "05"}}),
           extractions({{X::HOUR, "24"}, {X::MINUTE, "05"}}),
           extractions({{X::HOUR, "12"}}),
           extractions({{X::HOUR, "12"}, {X::MINUTE, "60"}}),
           extractions({{X::HOUR, "12"}, {X::MINUTE, "00"}, {X::SECOND, "60"}}),
           extractions({{X::HOUR, "1x"}, {X::MINUTE, "05"}}),
           extractions({{X::HOUR, "11"}, {X::MINUTE, "05"}, {X::AMPM, "XM"}}),
           extractions({{X::HEXEPOCH, "6a2fe8cg"}}),
           extractions({{X::UTCEPOCH, "17815x4681"}}),
           extractions({{X::UTCEPOCH, "@400000006a2fe8cZ12345678"}}),
       }) {
    DP_parseState ps;
    EXPECT_EQ(-1, TimeRegexList().parse(ex, &ps));
  }
}

// Hour 12 is 0 on the 12-hour clock; the marker then says which half.
TEST(TimeRegexListParse, MarkersSetTheHalfOfTheDay) {
  const struct {
    const char* hour;
    const char* marker;
    int hour12;
    bool pm;
  } kCases[] = {
      {"12", "AM", 0, false}, {"12", "pm", 0, true},  {"1", "p", 1, true},
      {"11", "a.m.", 11, false},
      {"9", "\xE4\xB8\x8A\xE5\x8D\x88", 9, false},  // morning mark
      {"9", "\xE4\xB8\x8B\xE5\x8D\x88", 9, true},   // afternoon mark
  };
  for (const auto& c : kCases) {
    DP_parseState ps;
    ASSERT_LE(0, TimeRegexList().parse(
                     extractions({{X::HOUR, c.hour}, {X::MINUTE, "30"}, {X::AMPM, c.marker}}), &ps))
        << c.hour << c.marker;
    EXPECT_TRUE(ps.has(R::HAVE_HOUR12 | R::HAVE_AMPM)) << c.hour << c.marker;
    EXPECT_FALSE(ps.has(R::HAVE_HOUR24));
    EXPECT_EQ(c.hour12, ps.hour12) << c.hour << c.marker;
    EXPECT_EQ(c.pm, ps.pm) << c.hour << c.marker;
  }
}

TEST(TimeRegexListParse, EpochsInTheirThreeForms) {
  const struct {
    DateTimeRegexExtractions ex;
    int64_t epoch;
    int64_t usec;
  } kCases[] = {
      {extractions({{X::UTCEPOCH, "1781524681"}}), 1781524681, 0},
      {extractions({{X::UTCEPOCH, "1781524681"}, {X::SUBSECOND, "5"}}), 1781524681, 500000},
      {extractions({{X::HEXEPOCH, "6A2FE8C9"}}), 0x6a2fe8c9, 0},
      // An external label: the low half of its 64-bit second count.
      {extractions({{X::UTCEPOCH, "@400000006a2fe8c912345678"}}), 0x6a2fe8c9, 0},
  };
  for (const auto& c : kCases) {
    DP_parseState ps;
    ASSERT_EQ(4, TimeRegexList().parse(c.ex, &ps));
    EXPECT_TRUE(ps.has(R::HAVE_EPOCH));
    EXPECT_EQ(c.epoch, ps.epoch);
    EXPECT_EQ(c.usec, ps.subsecUsec);
  }
}

TEST(DateRegexListParse, ScoresByWhatTheMatchHolds) {
  const struct {
    DateTimeRegexExtractions ex;
    int score;
  } kCases[] = {
      {extractions({{X::DAY, "15"}, {X::MONTH, "6"}}), 6},
      {extractions({{X::DAY, "15"}, {X::MONTH, "06"}, {X::YEAR, "26"}}), 9},
      {extractions({{X::DAY, "15"}, {X::MONTH, "06"}, {X::YEAR, "2026"}}), 11},
      {extractions({{X::DAY, "15"}, {X::LITMONTH, "June"}}), 11},
      {extractions({{X::DAY, "15"}, {X::LITMONTH, "jun"}, {X::YEAR, "2026"}}), 16},
      {extractions({{X::ORD, "166"}, {X::YEAR, "2026"}}), 8},
      {extractions({{X::ORD, "366"}, {X::YEAR, "24"}}), 8},
  };
  for (const auto& c : kCases) {
    DP_parseState ps;
    EXPECT_EQ(c.score, DateRegexList().parse(c.ex, &ps));
  }
  DP_parseState ps;
  DateRegexList().parse(extractions({{X::DAY, "5"}, {X::LITMONTH, "Sept"}, {X::YEAR, "09"}}), &ps);
  EXPECT_EQ(5, ps.mday);
  EXPECT_EQ(8, ps.month);  // September, counted from 0
  EXPECT_TRUE(ps.has(R::HAVE_SHORTYEAR));
  EXPECT_EQ(9, ps.shortYear);
}

TEST(DateRegexListParse, RejectsImpossibleValues) {
  for (const DateTimeRegexExtractions& ex : {
           extractions({{X::ORD, "166"}}),
           extractions({{X::ORD, "0"}, {X::YEAR, "2026"}}),
           extractions({{X::ORD, "367"}, {X::YEAR, "2026"}}),
           extractions({{X::MONTH, "06"}}),
           extractions({{X::DAY, "0"}, {X::MONTH, "06"}}),
           extractions({{X::DAY, "32"}, {X::MONTH, "06"}}),
           extractions({{X::DAY, "15"}}),
           extractions({{X::DAY, "15"}, {X::MONTH, "13"}}),
           extractions({{X::DAY, "15"}, {X::MONTH, "0"}}),
           extractions({{X::DAY, "15"}, {X::LITMONTH, "Ju"}}),
           extractions({{X::DAY, "15"}, {X::LITMONTH, "Foo"}}),
       }) {
    DP_parseState ps;
    EXPECT_EQ(-1, DateRegexList().parse(ex, &ps));
  }
}

}  // namespace
