#include "tools/dateprobe/SelfTestRun.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/dateprobe/DateprobeTestDoubles.h"
#include "util/testing/ScopedTz.h"

namespace {

// Tests run in local time three hours behind UTC, with no daylight saving,
// so that a mix of the local and the GMT view shows.
constexpr char kZoneBehindUtc[] = "XST3";

Timeval utc(int y, int mo, int d, int h, int mi, int s) {
  tm t = {};
  t.tm_year = y - 1900;
  t.tm_mon = mo - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  t.tm_min = mi;
  t.tm_sec = s;
  return Timeval(timegm(&t), 0);
}

// The same wall time in XST3.
Timeval local(int y, int mo, int d, int h, int mi, int s) {
  Timeval t = utc(y, mo, d, h, mi, s);
  t.tv_sec += 3 * 3600;
  return t;
}

const SelfTestCase kLocal = {2008, 2, 4, 13, 27, 9, -1, "local"};
const SelfTestCase kUtc = {2008, 9, 29, 20, 15, 0, 0, "utc"};
const SelfTestCase kPacific = {2008, 1, 17, 10, 21, 7, -28800, "pacific"};
const SelfTestCase kNoYear = {-1, 3, 14, 9, 26, 53, -1, "no year"};
const SelfTestCase kNoYearPacific = {-1, 12, 31, 22, 0, 0, -28800, "no year, pacific"};
const SelfTestCase kNothing = {0, 0, 0, 0, 0, 0, 0, "nothing"};

TEST(SelfTestRun, JudgesARowByItsView) {
  ScopedTz zone(kZoneBehindUtc);
  const auto kPass = SelfTestVerdict::PASSED, kFail = SelfTestVerdict::FAILED;
  const struct {
    const SelfTestCase* row;
    Timeval t;
    SelfTestVerdict verdict;
    std::array<int, 6> fields;  // the breakdown it leaves, year first
  } kCases[] = {
      {&kLocal, local(2008, 2, 4, 13, 27, 9), kPass, {2008, 2, 4, 13, 27, 9}},
      // A positive year is never compared.
      {&kLocal, local(2031, 2, 4, 13, 27, 9), kPass, {2031, 2, 4, 13, 27, 9}},
      {&kLocal, local(1999, 2, 4, 13, 27, 9), kPass, {1999, 2, 4, 13, 27, 9}},
      // The local view, not GMT.
      {&kLocal, utc(2008, 2, 4, 13, 27, 9), kFail, {2008, 2, 4, 10, 27, 9}},
      {&kLocal, local(2008, 3, 4, 13, 27, 9), kFail, {2008, 3, 4, 13, 27, 9}},
      {&kLocal, local(2008, 2, 5, 13, 27, 9), kFail, {2008, 2, 5, 13, 27, 9}},
      {&kLocal, local(2008, 2, 4, 14, 27, 9), kFail, {2008, 2, 4, 14, 27, 9}},
      {&kLocal, local(2008, 2, 4, 13, 28, 9), kFail, {2008, 2, 4, 13, 28, 9}},
      {&kLocal, local(2008, 2, 4, 13, 27, 10), kFail, {2008, 2, 4, 13, 27, 10}},
      // Microseconds play no part.
      {&kLocal, Timeval(local(2008, 2, 4, 13, 27, 9).tv_sec, 999999), kPass,
       {2008, 2, 4, 13, 27, 9}},
      // Offset 0: GMT, not the local view.
      {&kUtc, utc(2008, 9, 29, 20, 15, 0), kPass, {2008, 9, 29, 20, 15, 0}},
      {&kUtc, local(2008, 9, 29, 20, 15, 0), kFail, {2008, 9, 29, 23, 15, 0}},
      // The offset is added before the GMT breakdown.
      {&kPacific, utc(2008, 1, 17, 18, 21, 7), kPass, {2008, 1, 17, 10, 21, 7}},
      {&kPacific, utc(2008, 1, 17, 10, 21, 7), kFail, {2008, 1, 17, 2, 21, 7}},
      // Year -1: this year or the one before, no other.
      {&kNoYear, local(2031, 3, 14, 9, 26, 53), kPass, {2031, 3, 14, 9, 26, 53}},
      {&kNoYear, local(2030, 3, 14, 9, 26, 53), kPass, {2030, 3, 14, 9, 26, 53}},
      {&kNoYear, local(2029, 3, 14, 9, 26, 53), kFail, {2029, 3, 14, 9, 26, 53}},
      {&kNoYear, local(2032, 3, 14, 9, 26, 53), kFail, {2032, 3, 14, 9, 26, 53}},
      {&kNoYear, local(2031, 3, 14, 9, 26, 54), kFail, {2031, 3, 14, 9, 26, 54}},
      // ... taken in the row's own view: 2032 in UTC and locally, 2031 at -0800.
      {&kNoYearPacific, utc(2032, 1, 1, 6, 0, 0), kPass, {2031, 12, 31, 22, 0, 0}},
      // A row that wants nothing and gets a time fails on its zero fields.
      {&kNothing, utc(2008, 1, 1, 0, 0, 0), kFail, {2008, 1, 1, 0, 0, 0}},
      // A row that wants a time and gets none is judged at time 0.
      {&kLocal, Timeval(), kFail, {1969, 12, 31, 21, 0, 0}},
      {&kPacific, Timeval(), kFail, {1969, 12, 31, 16, 0, 0}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.row->line + " at " + std::to_string(c.t.tv_sec));
    StructTm b;
    EXPECT_EQ(c.verdict, judgeSelfTestRow(*c.row, c.t, 2031, &b));
    EXPECT_EQ(c.fields, (std::array<int, 6>{b.tm_year + 1900, b.tm_mon + 1, b.tm_mday, b.tm_hour,
                                            b.tm_min, b.tm_sec}));
  }
}

TEST(SelfTestRun, NothingFoundForNothingExpectedLeavesTheBreakdownAlone) {
  ScopedTz zone(kZoneBehindUtc);
  for (const Timeval t : {Timeval(), Timeval(0, 500000)}) {
    StructTm brokenDown;
    brokenDown.tm_mday = 99;
    EXPECT_EQ(SelfTestVerdict::NOTHING_EXPECTED, judgeSelfTestRow(kNothing, t, 2031, &brokenDown));
    EXPECT_EQ(99, brokenDown.tm_mday);
  }
}

const std::vector<SelfTestCase> kTable = {
    {0, 0, 0, 0, 0, 0, 0, "row zero"},
    {0, 0, 0, 0, 0, 0, 0, "row one"},
    {2008, 2, 4, 13, 27, 9, -1, "row two"},
    {-1, 3, 14, 9, 26, 53, -1, "row three"},
    {2008, 9, 29, 20, 15, 0, 0, "row four"},
};

const std::string kRowThreeFails =
    selfTestFailure(3, "row three", "pattern-b", "3/14/-1 9:26:53", "Fri Mar 14 09:26:53 2008");

// Rows two and four pass, row three gets a year too old.
struct ScriptedRun {
  ScopedTz zone{kZoneBehindUtc};
  FakeDateprobeBack back;
  CapturedOutput out;
  Timeval now = utc(2031, 6, 1, 12, 0, 0);

  ScriptedRun() {
    back.patternName = "pattern-b";
    back.answer("row two", local(2008, 2, 4, 13, 27, 9));
    back.answer("row three", local(2008, 3, 14, 9, 26, 53));
    back.answer("row four", utc(2008, 9, 29, 20, 15, 0));
  }
  int run(bool hasStartRow, long startRow) {
    return runSelfTest(back, kTable, hasStartRow, startRow, now, 2031, out.file());
  }
};

TEST(SelfTestRun, FullRunPrintsEachComparedRowAndTheSummary) {
  const std::string kWant =
      kSelfTestPassed + kRowThreeFails + kSelfTestPassed + "\nPASSED 4 / 5\n";
  for (const auto& [hasStartRow, startRow] : {std::pair{false, 0L}, {false, 7L}, {true, -3L},
                                              {true, -1L}}) {
    SCOPED_TRACE(std::to_string(hasStartRow) + " " + std::to_string(startRow));
    ScriptedRun r;
    EXPECT_EQ(4, r.run(hasStartRow, startRow));
    EXPECT_EQ(kWant, r.out.text());
    EXPECT_EQ((std::vector<std::string>{"row zero", "row one", "row two", "row three",
                                        "row four"}),
              r.back.parsedLines);
    for (const Timeval& now : r.back.parsedNows) EXPECT_EQ(r.now, now);
  }
}

TEST(SelfTestRun, SingleRowRunEndsAtTheFirstComparedRow) {
  const struct { long startRow; std::string want; size_t parses; } kCases[] = {
      {0, kSelfTestPassed, 3},  // rows zero and one pass silently
      {1, kSelfTestPassed, 2}, {2, kSelfTestPassed, 1}, {3, kRowThreeFails, 1},
      {4, kSelfTestPassed, 1}, {5, "", 0}, {1000, "", 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.startRow);
    ScriptedRun r;
    r.run(true, c.startRow);
    EXPECT_EQ(c.want, r.out.text());
    EXPECT_EQ(c.parses, r.back.parsedLines.size());
  }
}

TEST(SelfTestRun, RowThatFindsNothingIsJudgedAtTimeZero) {
  ScriptedRun r;
  r.back.results.clear();
  r.back.patternName = "";
  EXPECT_EQ(2, r.run(false, 0));
  const char* const kZeroHere = "Wed Dec 31 21:00:00 1969";  // time 0 in XST3
  EXPECT_EQ(selfTestFailure(2, "row two", "", "2/4/2008 13:27:9", kZeroHere) +
                selfTestFailure(3, "row three", "", "3/14/-1 9:26:53", kZeroHere) +
                selfTestFailure(4, "row four", "", "9/29/2008 20:15:0",
                                "Thu Jan  1 00:00:00 1970") +  // GMT for an offset of 0
                "\nPASSED 2 / 5\n",
            r.out.text());
}

TEST(SelfTestRun, RowExpectingNothingFailsWhenHandedATime) {
  ScriptedRun r;
  r.back.answer("row one", utc(2008, 1, 2, 3, 4, 5));
  r.run(true, 0);
  EXPECT_EQ(selfTestFailure(1, "row one", "pattern-b", "0/0/0 0:0:0", "Wed Jan  2 03:04:05 2008"),
            r.out.text());
}

TEST(SelfTestRun, SingleRunWithNothingLeftToCompareIsSilent) {
  ScriptedRun r;
  const std::vector<SelfTestCase> onlyNothing(kTable.begin(), kTable.begin() + 2);
  EXPECT_EQ(2, runSelfTest(r.back, onlyNothing, true, 0, r.now, 2031, r.out.file()));
  EXPECT_EQ("", r.out.text());
}

}  // namespace
