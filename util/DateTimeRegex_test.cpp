#include "util/DateTimeRegex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "util/testing/LogCapture.h"

namespace {

std::string text(const DateTimeRegexExtractions& ex, int code) {
  const StrSegment s = ex.get(code);
  return std::string(s.data() == nullptr ? "" : s.data(), s.size());
}

TEST(DateTimeRegex, MapsEveryExtractionNameToItsCode) {
  const struct {
    const char* name;
    DateTimeRegex::Extraction code;
  } kCases[] = {
      {"year", DateTimeRegex::YEAR},         {"month", DateTimeRegex::MONTH},
      {"litmonth", DateTimeRegex::LITMONTH}, {"day", DateTimeRegex::DAY},
      {"ampm", DateTimeRegex::AMPM},         {"hour", DateTimeRegex::HOUR},
      {"minute", DateTimeRegex::MINUTE},     {"second", DateTimeRegex::SECOND},
      {"subsecond", DateTimeRegex::SUBSECOND}, {"zone", DateTimeRegex::ZONE},
      {"ord", DateTimeRegex::ORD},           {"utcepoch", DateTimeRegex::UTCEPOCH},
      {"hexepoch", DateTimeRegex::HEXEPOCH}, {"ignored_", DateTimeRegex::IGNORED},
      {"ignored_weekday", DateTimeRegex::IGNORED},
  };
  for (const auto& c : kCases) {
    DateTimeRegex::Extraction code = DateTimeRegex::YEAR;
    ASSERT_TRUE(DateTimeRegex::extractionFromName(c.name, &code)) << c.name;
    EXPECT_EQ(c.code, code) << c.name;
    if (c.code != DateTimeRegex::IGNORED) {
      EXPECT_STREQ(c.name, DateTimeRegex::extractionName(code));
    }
  }
  // Case matters, and the prefix must be whole.
  for (const char* name : {"Hour", "HOUR", "ignored", "ignore_x", "", " hour", "years"}) {
    DateTimeRegex::Extraction code = DateTimeRegex::ZONE;
    EXPECT_FALSE(DateTimeRegex::extractionFromName(name, &code)) << name;
    EXPECT_EQ(DateTimeRegex::ZONE, code) << name;
  }
}

TEST(DateTimeRegex, UnknownExtractionWarnsAndKeepsItsPlace) {
  ScopedLogCapture log("DateParser");
  DateTimeRegex re("(\\d+):(\\d+):(\\d+)", {"hour", "weekday", "second"});
  ASSERT_EQ(3u, re.extractions.size());
  EXPECT_EQ(DateTimeRegex::IGNORED, re.extractions[1]);
  EXPECT_EQ(DateTimeRegex::SECOND, re.extractions[2]);
  EXPECT_NE(std::string::npos,
            log.text().find("WARN Found unknown extraction \"weekday\" in RE "
                            "\"(\\d+):(\\d+):(\\d+)\", ignoring it"))
      << log.text();

  // The group of the unknown name is dropped, the next one still lands.
  StrSegment line("at 11:58:07");
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(re.evaluate(line, ex, start, end));
  EXPECT_EQ(2u, ex.count);
  EXPECT_EQ("11", text(ex, DateTimeRegex::HOUR));
  EXPECT_EQ("07", text(ex, DateTimeRegex::SECOND));
  EXPECT_FALSE(ex.has(DateTimeRegex::MINUTE));
}

TEST(DateTimeRegex, CompilesCaselessAndThrowsOnBadText) {
  DateTimeRegex re("(jun|jul)", {"litmonth"});
  StrSegment line("15 JUN 2026");
  DateTimeRegexExtractions ex;
  int start = 0, end = 0;
  ASSERT_TRUE(re.evaluate(line, ex, start, end));
  EXPECT_EQ("JUN", text(ex, DateTimeRegex::LITMONTH));
  EXPECT_THROW(DateTimeRegex("(\\d+", {"hour"}), RegexException);
}

TEST(DateTimeRegex, EvaluateGivesOffsetsGroupsAndCounts) {
  const struct {
    const char* pattern;
    std::vector<Str> names;
    const char* line;
    int start, end;
    size_t count;
    std::vector<std::pair<int, const char*>> groups;  // code, text
  } kCases[] = {
      {"(\\d\\d):(\\d\\d)(?::(\\d\\d))?", {"hour", "minute", "second"}, "x 11:58 y", 2, 7, 2,
       {{DateTimeRegex::HOUR, "11"}, {DateTimeRegex::MINUTE, "58"}}},
      // An empty group is as unset as one that took no part.
      {"(\\d\\d):(\\d\\d)(\\d*)", {"hour", "minute", "second"}, "11:58 z", 0, 5, 2,
       {{DateTimeRegex::HOUR, "11"}, {DateTimeRegex::MINUTE, "58"}}},
      // More names than groups: the extra ones are unused.
      {"(\\d\\d):(\\d\\d)", {"hour", "minute", "second", "zone", "year"}, "at 09:05", 3, 8, 2,
       {{DateTimeRegex::HOUR, "09"}, {DateTimeRegex::MINUTE, "05"}}},
      // More groups than names: the extra groups are unused.
      {"(\\d\\d):(\\d\\d):(\\d\\d)", {"hour"}, "09:05:33", 0, 8, 1,
       {{DateTimeRegex::HOUR, "09"}}},
      // No names at all: a match with nothing extracted.
      {"(\\d\\d):(\\d\\d)", {}, "09:05", 0, 5, 0, {}},
      // Offsets are bytes: "é" is two.
      {"(\\d+)", {"utcepoch"}, "\xc3\xa9 1781524681", 3, 13, 1,
       {{DateTimeRegex::UTCEPOCH, "1781524681"}}},
      // Two groups of one code that both take part: the later text, counted twice.
      {"(\\d+)-(\\d+)", {"day", "day"}, "3-4", 0, 3, 2, {{DateTimeRegex::DAY, "4"}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    DateTimeRegex re(c.pattern, c.names);
    StrSegment line(c.line);
    const StrSegment before = line;
    DateTimeRegexExtractions ex;
    ex.count = 99;
    int start = -1, end = -1;
    ASSERT_TRUE(re.evaluate(line, ex, start, end));
    EXPECT_EQ(c.start, start);
    EXPECT_EQ(c.end, end);
    EXPECT_EQ(c.count, ex.count);
    EXPECT_TRUE(line.data() == before.data() && line.size() == before.size());
    size_t set = 0;
    for (int code = 0; code < DateTimeRegexExtractions::NUM_CODES; ++code) {
      if (ex.has(code)) ++set;
    }
    EXPECT_EQ(c.groups.size(), set);
    for (const auto& [code, want] : c.groups) EXPECT_EQ(want, text(ex, code)) << code;
  }
}

TEST(DateTimeRegex, NoMatchClearsExtractionsAndLeavesOffsets) {
  DateTimeRegex re("(\\d\\d):(\\d\\d)", {"hour", "minute"});
  DateTimeRegexExtractions ex;
  int start = 0, end = 0;
  StrSegment first("11:58");
  ASSERT_TRUE(re.evaluate(first, ex, start, end));
  for (const char* line : {"no time here", "", "1:5", "\xff\xfe 11:58"}) {
    SCOPED_TRACE(line);
    StrSegment s(line);
    start = 7;
    end = 9;
    EXPECT_FALSE(re.evaluate(s, ex, start, end));
    EXPECT_EQ(0u, ex.count);
    EXPECT_FALSE(ex.has(DateTimeRegex::HOUR));
    EXPECT_EQ(7, start);
    EXPECT_EQ(9, end);
  }
}

}  // namespace
