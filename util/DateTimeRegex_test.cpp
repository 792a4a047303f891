#include "util/DateTimeRegex.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "util/Regex.h"
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
  for (const char* bad : {"(\\d+", "[a-", "x{2,1}", "(?<n>a)(?<n>b)"}) {
    EXPECT_THROW(DateTimeRegex(bad, {"hour"}), RegexException) << bad;
  }
}

// Log lines mix encodings; a byte that is not UTF-8 must cost only
// itself, wherever it stands, and a month name with an accent still reads.
TEST(DateTimeRegex, BytesThatAreNotUtf8DoNotHideTheTimestamp) {
  DateTimeRegex re("(\\d\\d):(\\d\\d):(\\d\\d)", {"hour", "minute", "second"});
  const struct {
    const char* line;
    int start;
  } kCases[] = {
      {"caf\xe9 12:34:56", 5},         // Latin-1 before
      {"12:34:56 caf\xe9", 0},         // Latin-1 after
      {"\xff\xfe 12:34:56", 3},        // a stray byte-order mark
      {"\xc3 12:34:56", 2},            // a sequence cut short
      {"\xed\xa0\x80 12:34:56", 4},    // an encoded surrogate
      {"x\xe9\xe9\xe9 12:34:56\xff", 5},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.line);
    StrSegment line(c.line);
    DateTimeRegexExtractions ex;
    int start = -1, end = -1;
    ASSERT_TRUE(re.evaluate(line, ex, start, end));
    EXPECT_EQ(c.start, start);
    EXPECT_EQ(c.start + 8, end);
    EXPECT_EQ(3u, ex.count);
    EXPECT_EQ("56", text(ex, DateTimeRegex::SECOND));
  }
  // An invalid byte never matches a pattern item, not even ".".
  DateTimeRegex dot("a(.)b", {"zone"});
  StrSegment bad("a\xe9" "b");
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  EXPECT_FALSE(dot.evaluate(bad, ex, start, end));
  StrSegment good("a\xc3\xa9" "b");
  ASSERT_TRUE(dot.evaluate(good, ex, start, end));
  EXPECT_EQ("\xc3\xa9", text(ex, DateTimeRegex::ZONE));
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
      // No extract at all: a match with nothing stored.
      {"(\\d+)", {}, "abc 99", 4, 6, 0, {}},
      // Ignored groups take their place in the order but store nothing.
      {"(\\w+) (\\d+) (\\d{4})", {"ignored_wd", "day", "year"}, "Mon 03 2021", 0, 11, 2,
       {{DateTimeRegex::DAY, "03"}, {DateTimeRegex::YEAR, "2021"}}},
      // Of two alternatives only the one that took part is stored.
      {"@(\\d+)|0x([0-9a-f]+)", {"utcepoch", "hexepoch"}, "t=0x5f5e100", 2, 11, 1,
       {{DateTimeRegex::HEXEPOCH, "5f5e100"}}},
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
    for (const auto& [code, want] : c.groups) {
      EXPECT_EQ(want, text(ex, code)) << code;
      // The stored text points into the subject, not into a copy.
      EXPECT_GE(ex.ptr[code], c.line) << code;
      EXPECT_LE(ex.ptr[code] + ex.len[code], c.line + std::strlen(c.line)) << code;
    }

    // No match: nothing extracted, offsets untouched.
    StrSegment other("no time here");
    EXPECT_FALSE(re.evaluate(other, ex, start, end));
    EXPECT_EQ(0u, ex.count);
    EXPECT_EQ(c.start, start);
  }
}

TEST(DateTimeRegex, EvaluateSeesOnlyTheSegment) {
  DateTimeRegex regex(Str("(\\d\\d):(\\d\\d)$"), {"hour", "minute"});
  // The bytes after the segment are not part of the text.
  const char buffer[] = "12:345 and 07:08";
  const struct {
    size_t offset, length;
    bool match;
    int start;
  } kCases[] = {
      {0, 4, false, -1},  // "12:3"
      {0, 5, true, 0},    // "12:34", end of segment is end of text
      {1, 5, false, -1},  // "2:345": one digit before the colon
      {11, 5, true, 0},   // "07:08"
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(buffer + c.offset, c.length));
    StrSegment seg(buffer + c.offset, c.length);
    DateTimeRegexExtractions ex;
    int start = -1, end = -1;
    EXPECT_EQ(c.match, regex.evaluate(seg, ex, start, end));
    EXPECT_EQ(c.start, start);
  }
}

TEST(DateTimeRegex, EvaluateReadsPastNulBytes) {
  DateTimeRegex regex(Str("(\\d\\d):(\\d\\d)"), {"hour", "minute"});
  const Str line("a\0b\0 09:41", 10);
  StrSegment seg(line);
  DateTimeRegexExtractions ex;
  int start = -1, end = -1;
  ASSERT_TRUE(regex.evaluate(seg, ex, start, end));
  EXPECT_EQ(5, start);
  EXPECT_EQ(10, end);
  EXPECT_EQ("09", text(ex, DateTimeRegex::HOUR));
}

}  // namespace
