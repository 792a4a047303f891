#include "util/ConditionWaitTimeout.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

TEST(ConditionWaitTimeout, SetReadsWholeTextsOfSeconds) {
  const struct { const char* text; int64_t seconds; int64_t nanoseconds; } kCases[] = {
      {" \t2.25", 2, 250000000},  // leading blanks are part of the text
      {"0.0004", 0, 1000000},     // a fraction never rounds to nothing
      {"0.0005", 0, 1000000},     // rounds at the fourth digit
      {"0", 0, 0}, {"3", 3, 0}, {"1.5", 1, 500000000}, {"12.", 12, 0}, {".75", 0, 750000000},
      {"86400.001", 86400, 1000000},
  };
  for (const auto& c : kCases) {
    ConditionWaitTimeout t;
    ASSERT_TRUE(t.set(c.text)) << c.text;
    EXPECT_EQ(c.seconds, t.seconds()) << c.text;
    EXPECT_EQ(c.nanoseconds, t.nanoseconds()) << c.text;
  }
}

TEST(ConditionWaitTimeout, SetRefusesTextItDoesNotConsumeAndKeepsTheValue) {
  for (const char* text : {"", " ", "x", "1.5s", "1 ", "-1", "1,5", "1.5.5"}) {
    ConditionWaitTimeout t(7, 9);
    EXPECT_FALSE(t.set(text)) << text;
    EXPECT_EQ(7, t.seconds()) << text;
    EXPECT_EQ(9, t.nanoseconds()) << text;
  }
}

TEST(ConditionWaitTimeout, AsStrUsesTheFewestDigitGroups) {
  const struct { int64_t seconds; int64_t nanoseconds; const char* text; } kCases[] = {
      {0, 0, "0"}, {3, 0, "3"}, {3, 500000000, "3.500"}, {0, 1000000, "0.001"},
      {0, 1500000, "0.001500"}, {1, 1000, "1.000001"}, {2, 7, "2.000000007"},
      {2, 999999999, "2.999999999"}, {4294967295, 10, "4294967295.000000010"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.text, ConditionWaitTimeout(c.seconds, c.nanoseconds).asStr()) << c.text;
  }
}

TEST(ConditionWaitTimeout, SetThenAsStrRoundTripsEveryMillisecondUpToTwoSeconds) {
  for (int ms = 0; ms <= 2000; ++ms) {
    Str text;
    text.format("%d.%03d", ms / 1000, ms % 1000);
    ConditionWaitTimeout t;
    ASSERT_TRUE(t.set(text)) << text;
    ConditionWaitTimeout back;
    ASSERT_TRUE(back.set(t.asStr())) << text;
    EXPECT_EQ(t.seconds(), back.seconds()) << text;
    EXPECT_EQ(t.nanoseconds(), back.nanoseconds()) << text;
    EXPECT_EQ(int64_t(ms) * 1000000, t.seconds() * 1000000000 + t.nanoseconds()) << text;
  }
}

double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

TEST(ConditionWaitTimeout, SleepDoesNotReturnBeforeItsSpan) {
  // The usleep road, the sleep road, and nothing at all.
  const struct { int64_t seconds; int64_t nanoseconds; } kCases[] = {{0, 30000000}, {1, 0}, {0, 0}};
  for (const auto& c : kCases) {
    const double start = monotonicSeconds();
    ConditionWaitTimeout(c.seconds, c.nanoseconds).sleep();
    const double slept = monotonicSeconds() - start;
    EXPECT_GE(slept, double(c.seconds) + double(c.nanoseconds) / 1e9) << c.seconds;
  }
}

}  // namespace
