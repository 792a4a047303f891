#include "util/LogFormat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "util/LogFormattedTime.h"
#include "util/Logger.h"
#include "util/testing/FixedClock.h"
#include "util/testing/ScopedTz.h"

namespace {

// The clock fixed at `t` and the zone at UTC for one test.
struct FixedTimeAndZone {
  explicit FixedTimeAndZone(const Timeval& t) : clock(t) {}
  ScopedTz zone{"UTC"};
  ScopedFixedClock clock;
};

// The instant of the given UTC fields, by the C library.
Timeval utc(int year, int mon, int mday, int hour, int min, int sec, int usec) {
  tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = mon - 1;
  fields.tm_mday = mday;
  fields.tm_hour = hour;
  fields.tm_min = min;
  fields.tm_sec = sec;
  return Timeval(timegm(&fields), usec);
}

Logger gLogger("DateParser");
Logger gShort("ab");

std::string render(const char* pattern, const Logger& logger, LogLevel level,
                   const std::string& message) {
  LogFormat format{Str(pattern)};
  Str out;
  format.apply(out, LogMsgMetadata(&logger, level), Str(message));
  return out;
}

TEST(LogFormat, EachConversionAndModifier) {
  const struct { const char* pattern; const char* want; } kCases[] = {
      {"%-8p: %m%n", "WARN    : hello\n"},  // SimpleLayout pads on the right
      {"[%5%]", "[    %]"},               // a literal takes widths too
      {"%q%m", "hello"},                  // an unknown letter adds nothing
      {"%m{ignored}!", "hello!"},         // an argument is read and dropped
      {"abc%", "abc"},                    // a cut-off conversion adds nothing
      {"%m%n", "hello\n"}, {"%p %c - %m%n", "WARN DateParser - hello\n"}, {"%8p|", "    WARN|"},
      {"%.3p|", "WAR|"}, {"%-6.2p|", "WA    |"}, {"%3.3m", "hel"}, {"%10m|", "     hello|"},
      {"%%", "%"}, {"100%% %m", "100% hello"}, {"%-", ""}, {"", ""}, {"plain text", "plain text"},
      {"%n%n", "\n\n"}, {"%t", "Main Thread"}, {"%c%c", "DateParserDateParser"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, render(c.pattern, gLogger, LOGLEVEL_WARN, "hello")) << c.pattern;
  }
}

TEST(LogFormat, ZeroPaddingAndLevelTexts) {
  EXPECT_EQ("000ab|", render("%05c|", gShort, LOGLEVEL_INFO, ""));
  const struct { int level; const char* text; } kLevels[] = {
      {0, "DEBUG"}, {1, "INFO"}, {2, "NOTICE"}, {3, "WARN"}, {4, "ERROR"},
      {5, "CRIT"},  {6, "ALERT"}, {7, "FATAL"}, {8, "EMERG"}, {9, "???"}, {-1, "???"},
  };
  for (const auto& c : kLevels) {
    EXPECT_EQ(c.text, render("%p", gShort, static_cast<LogLevel>(c.level), "")) << c.level;
  }
}

TEST(LogFormat, LongTextsAreReplacedByTheirLength) {
  const struct { size_t length; const char* pattern; std::string want; } kCases[] = {
      {16384, "%m", std::string(16384, 'x')},  // the longest kept
      {16385, "%m", "{16385 byte str!}"},
      {20000, "%m", "{20000 byte str!}"},
      {20000, "%.5m", "{2000"},                 // then cut to the maximum
      {20000, "%20m", "   {20000 byte str!}"},  // or padded to the minimum
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, render(c.pattern, gLogger, LOGLEVEL_INFO, std::string(c.length, 'x')))
        << c.length << " " << c.pattern;
  }
}

TEST(LogFormat, RelativeTimeCountsFromTheFirstNeed) {
  const Timeval start = utc(2024, 3, 5, 14, 7, 9, 42000);
  FixedTimeAndZone fixed(start);
  EXPECT_EQ("0 0", render("%r %R", gLogger, LOGLEVEL_INFO, ""));
  fixed.clock.set(Timeval(start.tv_sec + 1, start.tv_usec + 234000));
  EXPECT_EQ("1234 1234", render("%r %R", gLogger, LOGLEVEL_INFO, ""));
  fixed.clock.set(Timeval(start.tv_sec - 5, 0));  // a clock that went back shows 0
  EXPECT_EQ("0", render("%r", gLogger, LOGLEVEL_INFO, ""));
}

TEST(LogFormat, ProcessClockIsDigits) {
  const std::string clock = render("%u", gLogger, LOGLEVEL_INFO, "");
  ASSERT_FALSE(clock.empty());
  for (char ch : clock) EXPECT_TRUE(ch >= '0' && ch <= '9') << clock;
}

TEST(LogFormat, DatesInEachNamedFormAndByPattern) {
  FixedTimeAndZone fixed(utc(2024, 3, 5, 14, 7, 9, 42000));
  const struct { const char* pattern; const char* want; } kCases[] = {
      {"%d{%i}", "2024-03-05 14:07:09,042"},  // refused by TimeFormat: the first form
      {"%d", "2024-03-05 14:07:09,042"}, {"%d{}", "2024-03-05 14:07:09,042"},
      {"%d{ISO8601}", "2024-03-05 14:07:09,042"}, {"%d{DATE}", "05 Mar 2024 14:07:09,042"},
      {"%d{ABSOLUTE}", "14:07:09,042"}, {"%d{%Y/%m/%d %H}", "2024/03/05 14"},
      {"[%30d{ABSOLUTE}]", "[                  14:07:09,042]"},
      {"%d{ABSOLUTE} %d{DATE}", "14:07:09,042 05 Mar 2024 14:07:09,042"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, render(c.pattern, gLogger, LOGLEVEL_INFO, "")) << c.pattern;
  }
  fixed.clock.set(utc(2024, 3, 5, 14, 7, 10, 999000));  // the next second: not the cached one
  EXPECT_EQ("14:07:10,999", render("%d{ABSOLUTE}", gLogger, LOGLEVEL_INFO, ""));
}

TEST(LogFormattedTime, NamesFallBackToTheFirstForm) {
  const struct { const char* arg; const char* pattern; } kCases[] = {
      {"iso8601", "iso8601"},  // names are exact; this is plain text
      {"", "%Y-%m-%d %H:%M:%S,%l"}, {"ISO8601", "%Y-%m-%d %H:%M:%S,%l"}, {"%H", "%H"},
      {"DATE", "%d %b %Y %H:%M:%S,%l"}, {"ABSOLUTE", "%H:%M:%S,%l"},
      {"%Q%Q%i", "%Y-%m-%d %H:%M:%S,%l"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.pattern, LogFormattedTime(c.arg).pattern()) << c.arg;
  }
}

TEST(LogFormat, SharedLayouts) {
  EXPECT_EQ("%m%n", LogFormat::defaultFormat()->pattern());
  EXPECT_EQ("%R %p %c %m%n", LogFormat::basicLayout()->pattern());
  EXPECT_EQ("%-8p: %m%n", LogFormat::simpleLayout()->pattern());
  Str out;
  LogFormat::simpleLayout()->apply(out, LogMsgMetadata(&gLogger, LOGLEVEL_ERROR), Str("x"));
  EXPECT_EQ("ERROR   : x\n", out);
}

}  // namespace
