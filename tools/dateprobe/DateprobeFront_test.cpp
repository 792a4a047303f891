#include "tools/dateprobe/DateprobeFront.h"

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/dateprobe/DateprobeTestDoubles.h"
#include "tools/dateprobe/SelfTestCase.h"
#include "util/testing/FixedClock.h"
#include "util/testing/ScopedTz.h"

namespace {

// 2031-06-01 12:00:00 UTC.
const Timeval kClock(1938081600, 0);

int run(FakeDateprobeBack& back, CapturedOutput& out, const std::vector<const char*>& words) {
  std::vector<const char*> argv = {"dateprobe"};
  argv.insert(argv.end(), words.begin(), words.end());
  return runDateprobe(static_cast<int>(argv.size()), argv.data(), back, out.file());
}

TEST(DateprobeFront, UsageLeavesBeforeSetUp) {
  for (const auto& words : std::vector<std::vector<const char*>>{
           {}, {"file", "a", "b", "c"}, {"a", "b", "c"}}) {
    FakeDateprobeBack back;
    CapturedOutput out;
    EXPECT_EQ(1, run(back, out, words));
    EXPECT_EQ(kDateprobeUsage, out.text());
    EXPECT_EQ(1, back.initCalls);
    EXPECT_TRUE(back.setUpContexts.empty());
  }
}

TEST(DateprobeFront, SetsUpForTheContextThenRunsTheMode) {
  const struct {
    std::vector<const char*> words;
    int status;
    const char* context;
    const char* output;
  } kCases[] = {
      {{"some line"}, 0, "*", "Unable to parse 'some line'\n"},
      {{"some line", "syslog"}, 0, "syslog", "Unable to parse 'some line'\n"},
      {{"file"}, 0, "*", "Unable to parse 'file'\n"},
      {{"test", "92"}, 0, "*", ""},
      {{"file", "/nonexistent/in.log", "host::host-a"}, 4, "host::host-a",
       "Cannot open file \"/nonexistent/in.log\"!"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.words[0]);
    FakeDateprobeBack back;
    CapturedOutput out;
    EXPECT_EQ(c.status, run(back, out, c.words));
    EXPECT_EQ(c.output, out.text());
    EXPECT_EQ(1, back.initCalls);
    EXPECT_EQ(std::vector<std::string>{c.context}, back.setUpContexts);
  }
}

// The first row without a year passes only when its year is the clock's
// local year or the one before.
TEST(DateprobeFront, TestModeTakesTheCurrentYearFromTheClock) {
  ScopedTz zone("XST3");
  ScopedFixedClock clock(kClock);
  const SelfTestCase& first = selfTestCases[11];
  ASSERT_EQ(-1, first.year);
  ASSERT_EQ(3, first.month);
  ASSERT_EQ(14, first.day);
  for (const int year : {2031, 2030, 2029, 2032}) {
    SCOPED_TRACE(year);
    FakeDateprobeBack back;
    back.patternName = "syslog-date";
    tm wall = {};
    wall.tm_year = year - 1900;
    wall.tm_mon = first.month - 1;
    wall.tm_mday = first.day;
    wall.tm_hour = first.hour;
    wall.tm_min = first.minute;
    wall.tm_sec = first.second;
    wall.tm_isdst = -1;
    back.answer(first.line, Timeval(mktime(&wall), 0));
    char asctimeText[32];
    asctime_r(&wall, asctimeText);
    const bool passes = year == 2030 || year == 2031;
    CapturedOutput out;
    EXPECT_EQ(0, run(back, out, {"test", "11"}));
    EXPECT_EQ(passes ? kSelfTestPassed
                     : selfTestFailure(11, first.line, "syslog-date", "3/14/-1 9:26:53",
                                       std::string(asctimeText, 24)),
              out.text());
    ASSERT_EQ(1u, back.parsedNows.size());
    EXPECT_EQ(kClock, back.parsedNows[0]);
  }
}

TEST(DateprobeFront, ExceptionsPassToTheEntrysHandler) {
  FakeDateprobeBack back;
  back.setUpFailure = "no pattern file";
  CapturedOutput out;
  EXPECT_THROW(run(back, out, {"test"}), std::runtime_error);
  EXPECT_EQ("", out.text());
  EXPECT_TRUE(back.parsedLines.empty());
}

TEST(DateprobeFront, HandlerPrintsTheTextAndExitsZero) {
  CapturedOutput out;
  EXPECT_EQ(0, reportDateprobeException(std::runtime_error("bad file \"x\""), out.file()));
  EXPECT_EQ("Exception hit bad file \"x\"\n", out.text());
}

}  // namespace
