#include "util/TimeParser.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

// Milliseconds per unit, written out here rather than taken from the code.
const struct {
  const char* word;
  unsigned long long msec;
} kUnitTable[] = {
    {"", 1000},          {"s", 1000},         {"sec", 1000},       {"secs", 1000},
    {"second", 1000},    {"seconds", 1000},   {"m", 60000},        {"min", 60000},
    {"mins", 60000},     {"minute", 60000},   {"minutes", 60000},  {"h", 3600000},
    {"hr", 3600000},     {"hrs", 3600000},    {"hour", 3600000},   {"hours", 3600000},
    {"d", 86400000},     {"day", 86400000},   {"days", 86400000},
};

}  // namespace

TEST(TimeParser, ReadsEachAcceptedShape) {
  const struct {
    const char* text;
    unsigned long long msec;
  } kCases[] = {
      {"30s", 30000},
      {"5m", 300000},
      {"2h", 7200000},
      {"1d", 86400000},
      {"90", 90000},              // plain seconds
      {"0", 0},
      {"0s", 0},
      {"250ms", 250},
      {"1.5h", 5400000},
      {"1.5m", 90000},
      {".5s", 500},
      {"12.", 12000},
      {"0.5ms", 1},               // half a millisecond rounds up
      {"0.4ms", 0},               // less rounds down
      {"1.9999ms", 2},
      {"0.0004", 1},              // a non-zero fraction of a second never gives 0
      {"0.00001m", 60},           // the smallest non-zero span is a thousandth of the unit
      {"  7 min ", 420000},       // blanks and tabs around and between
      {"\t3\tdays\t", 259200000},
      {"2 d", 172800000},
      {"18446744073709551", 18446744073709551000ULL},  // the most plain seconds that fit
  };
  for (const auto& c : kCases) {
    unsigned long long msec = 7;
    Str why = "untouched";
    EXPECT_TRUE(TimeParser::timeSpanToMsec(c.text, msec, &why)) << c.text << ": " << why;
    EXPECT_EQ(c.msec, msec) << c.text;
    EXPECT_EQ("untouched", why) << c.text;
  }
}

TEST(TimeParser, RefusesWithItsReasonAndLeavesTheOutputAlone) {
  const struct {
    const char* text;
    const char* why;
  } kCases[] = {
      {"", "empty time span"},
      {" \t ", "empty time span"},
      {"s", "no number in time span"},
      {"-5s", "no number in time span"},
      {"+5s", "no number in time span"},
      {".", "no number in time span"},
      {"x", "no number in time span"},
      {"5M", "unknown time unit \"M\""},         // units are lower case only
      {"5S", "unknown time unit \"S\""},
      {"5 weeks", "unknown time unit \"weeks\""},
      {"5y", "unknown time unit \"y\""},
      {"5s5", "unknown time unit \"s5\""},
      {"5 s x", "unknown time unit \"s x\""},    // one unit, then nothing
      {"5 5", "unknown time unit \"5\""},
      {"1e3", "unknown time unit \"e3\""},
      {"5\n", "unknown time unit \"\n\""},        // a line feed is no blank
      {"18446744073709551616", "time span too large"},
      {"18446744073709552", "time span too large"},  // fits as seconds, not as milliseconds
      {"213503982335d", "time span too large"},
      {"5124095576030432h", "time span too large"},
  };
  for (const auto& c : kCases) {
    unsigned long long msec = 7;
    Str why;
    EXPECT_FALSE(TimeParser::timeSpanToMsec(c.text, msec, &why)) << c.text;
    EXPECT_EQ(7u, msec) << c.text;
    EXPECT_EQ(c.why, why) << c.text;
    EXPECT_FALSE(TimeParser::timeSpanToMsec(c.text, msec)) << c.text;  // no reason wanted
  }
  unsigned long long msec = 7;
  EXPECT_FALSE(TimeParser::timeSpanToMsec(Str("5\0s", 3), msec));  // an inner NUL is foreign
  EXPECT_EQ(7u, msec);
}

TEST(TimeParser, EveryUnitScalesWholeAndHalfCounts) {
  for (const auto& u : kUnitTable) {
    for (unsigned long long n = 0; n <= 1000; n += 7) {
      for (const char* gap : {"", " "}) {
        const std::string text = std::to_string(n) + gap + u.word;
        unsigned long long msec = 0;
        ASSERT_TRUE(TimeParser::timeSpanToMsec(text, msec)) << text;
        EXPECT_EQ(n * u.msec, msec) << text;
        // n and a half of the unit: every unit here is a whole, even number
        // of milliseconds, so the half is exact.
        const std::string half = std::to_string(n) + ".5" + gap + u.word;
        ASSERT_TRUE(TimeParser::timeSpanToMsec(half, msec)) << half;
        EXPECT_EQ(n * u.msec + u.msec / 2, msec) << half;
      }
    }
  }
}

TEST(TimeParser, LargestSpanOfEachUnitFitsAndOneMoreDoesNot) {
  for (const auto& u : kUnitTable) {
    const unsigned long long most = ULLONG_MAX / u.msec;
    unsigned long long msec = 0;
    const std::string fits = std::to_string(most) + u.word;
    EXPECT_TRUE(TimeParser::timeSpanToMsec(fits, msec)) << fits;
    EXPECT_EQ(most * u.msec, msec) << fits;
    const std::string over = std::to_string(most + 1) + u.word;
    Str why;
    EXPECT_FALSE(TimeParser::timeSpanToMsec(over, msec, &why)) << over;
    EXPECT_EQ("time span too large", why) << over;
  }
}
