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

TEST(DateTimeRegex, MapsExtractionNamesToCodes) {
  const char* kNames[] = {"year",   "month",     "litmonth", "day", "ampm",     "hour",    "minute",
                          "second", "subsecond", "zone",     "ord", "utcepoch", "hexepoch"};
  for (int i = 0; i < 13; ++i) {
    DateTimeRegex::Extraction code = DateTimeRegex::IGNORED;
    ASSERT_TRUE(DateTimeRegex::extractionFromName(kNames[i], &code)) << kNames[i];
    EXPECT_EQ(i, code) << kNames[i];
  }
  for (const char* name : {"ignored_", "ignored_weekday"}) {
    DateTimeRegex::Extraction code = DateTimeRegex::YEAR;
    EXPECT_TRUE(DateTimeRegex::extractionFromName(name, &code));
    EXPECT_EQ(DateTimeRegex::IGNORED, code) << name;
  }
  // Case matters, and the prefix must be whole.
  for (const char* name : {"Hour", "ignored", "ignore_x", "", " hour", "years"}) {
    DateTimeRegex::Extraction code = DateTimeRegex::ZONE;
    EXPECT_FALSE(DateTimeRegex::extractionFromName(name, &code)) << name;
    EXPECT_EQ(DateTimeRegex::ZONE, code) << name;
  }
}

TEST(DateTimeRegex, UnknownExtractionWarnsAndKeepsItsPlace) {
  ScopedLogCapture log("DateParser");
  DateTimeRegex re("(\\d+):(\\d+):(\\d+)", {"hour", "weekday", "second"});
  EXPECT_EQ((std::vector<DateTimeRegex::Extraction>{DateTimeRegex::HOUR, DateTimeRegex::IGNORED,
                                                    DateTimeRegex::SECOND}),
            re.extractions);
  EXPECT_EQ("WARN Found unknown extraction \"weekday\" in RE \"(\\d+):(\\d+):(\\d+)\", "
            "ignoring it\n",
            log.text());
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
      // An empty group is as unset as one that took no part.
      {"(\\d\\d):(\\d\\d)(\\d*)(?::(\\d\\d))?", {"hour", "minute", "second", "subsecond"},
       "x 11:58 y", 2, 7, 2, {{DateTimeRegex::HOUR, "11"}, {DateTimeRegex::MINUTE, "58"}}},
      // More names than groups: the extra ones are unused.
      {"(\\d\\d):(\\d\\d)", {"hour", "minute", "second", "zone"}, "at 09:05", 3, 8, 2,
       {{DateTimeRegex::HOUR, "09"}, {DateTimeRegex::MINUTE, "05"}}},
      // More groups than names, and an ignored name in between.
      {"(\\d\\d):(\\d\\d):(\\d\\d)", {"ignored_h", "minute"}, "09:05:33", 0, 8, 1,
       {{DateTimeRegex::MINUTE, "05"}}},
      // Caseless, and offsets in bytes: "é" is two.
      {"(jun)", {"litmonth"}, "\xc3\xa9 15 JUN", 6, 9, 1, {{DateTimeRegex::LITMONTH, "JUN"}}},
      // Two groups of one code that both take part: the later text, counted twice.
      {"(\\d+)-(\\d+)", {"day", "day"}, "3-4", 0, 3, 2, {{DateTimeRegex::DAY, "4"}}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    DateTimeRegex re(c.pattern, c.names);
    StrSegment line(c.line);
    DateTimeRegexExtractions ex;
    ex.count = 99;
    int start = -1, end = -1;
    ASSERT_TRUE(re.evaluate(line, ex, start, end));
    EXPECT_EQ(c.start, start);
    EXPECT_EQ(c.end, end);
    EXPECT_EQ(c.count, ex.count);
    EXPECT_EQ(c.line, line.data());  // the text does not move
    size_t set = 0;
    for (int code = 0; code < DateTimeRegexExtractions::NUM_CODES; ++code) set += ex.has(code);
    EXPECT_EQ(c.groups.size(), set);
    for (const auto& [code, want] : c.groups) EXPECT_EQ(want, text(ex, code)) << code;

    // No match: nothing extracted, offsets untouched.
    StrSegment other("no time here");
    EXPECT_FALSE(re.evaluate(other, ex, start, end));
    EXPECT_EQ(0u, ex.count);
    EXPECT_EQ(c.start, start);
  }
}

}  // namespace
