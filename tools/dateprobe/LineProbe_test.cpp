#include "framework/LineProbe.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/dateprobe/DateprobeTestDoubles.h"
#include "util/testing/FixedClock.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TestTempDir.h"

namespace {

// A file of `content` in `dir`, by its path.
std::string fileOf(const TestTempDir& dir, const std::string& content) {
  writeTestFile(dir / "in.log", content);
  return std::string(dir / "in.log");
}

DateprobeParse detail(Timeval time, int subsecDigits) {
  DateprobeParse p;
  p.time = time;
  p.timeStart = 11;
  p.timeEnd = 23;
  p.dateStart = 0;
  p.dateEnd = 10;
  p.subsecDigits = subsecDigits;
  return p;
}

TEST(LineProbe, PrintsWhatTheParserFound) {
  ScopedTz zone("XST3");
  // 2008-02-15 10:42:03.456 UTC, 07:42:03 in XST3.
  const Timeval t(1203072123, 456000);
  const std::string kHead =
      "From:\tthe line\n"
      "Parsed:\tFri Feb 15 07:42:03 2008\n"
      "UTC Time:\t1203072123\n"
      "Time Region:\t11-23\n"
      "Date Region:\t0-10\n";
  const struct { int subsecDigits; const char* tail; } kCases[] = {
      {9, "Subseconds:\t0.456000000\n"},  // padded past the sixth digit
      {-3, ""}, {-2, ""}, {-1, ""}, {0, ""}, {1, "Subseconds:\t0.4\n"},
      {3, "Subseconds:\t0.456\n"}, {6, "Subseconds:\t0.456000\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.subsecDigits);
    FakeDateprobeBack back;
    back.results["the line"] = detail(t, c.subsecDigits);
    CapturedOutput out;
    probeLine(back, "the line", out.file());
    EXPECT_EQ(kHead + c.tail, out.text());
  }
}

TEST(LineProbe, RegionsNotFoundPrintAsMinusOne) {
  ScopedTz zone("XST3");
  FakeDateprobeBack back;
  back.answer("x 12:00", Timeval(1203072123, 0));
  CapturedOutput out;
  probeLine(back, "x 12:00", out.file());
  EXPECT_EQ(
      "From:\tx 12:00\n"
      "Parsed:\tFri Feb 15 07:42:03 2008\n"
      "UTC Time:\t1203072123\n"
      "Time Region:\t-1--1\n"
      "Date Region:\t-1--1\n",
      out.text());
}

TEST(LineProbe, SaysSoWhenNothingIsFound) {
  FakeDateprobeBack back;
  CapturedOutput out;
  probeLine(back, "no time 'here'", out.file());
  EXPECT_EQ("Unable to parse 'no time 'here''\n", out.text());
}

TEST(LineProbe, ParsesAgainstTheClock) {
  ScopedFixedClock clock(Timeval(1234567890, 250000));
  FakeDateprobeBack back;
  CapturedOutput out;
  probeLine(back, "a", out.file());
  ASSERT_EQ(1u, back.parsedNows.size());
  EXPECT_EQ(Timeval(1234567890, 250000), back.parsedNows[0]);
}

TEST(LineProbe, FileModeProbesEveryLine) {
  const struct { const char* content; std::vector<std::string> lines; } kCases[] = {
      {"one", {"one"}},  // the last line needs no line end
      {"a\rb\r\r\n", {"a\rb\r"}},  // only the carriage return before the line feed goes
      {"", {}}, {"one\n", {"one"}}, {"one\r\ntwo\n\nthree", {"one", "two", "", "three"}},
      {"\n\n", {"", ""}},
  };
  TestTempDir dir;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.content);
    const std::string path = fileOf(dir, c.content);
    FakeDateprobeBack back;
    CapturedOutput out;
    EXPECT_EQ(0, probeFile(back, path, "syslog", out.file()));
    EXPECT_EQ(std::vector<std::string>{"source::" + path + "|syslog"}, back.sources);
    EXPECT_EQ(c.lines, back.parsedLines);
    std::string want;
    for (const std::string& line : c.lines) want += "Unable to parse '" + line + "'\n";
    want += "count=" + std::to_string(c.lines.size()) + "\n";
    EXPECT_EQ(want, out.text());
  }
}

TEST(LineProbe, FileModeCountsEachThousandLines) {
  TestTempDir dir;
  std::string content;
  for (int i = 0; i < 2500; ++i) content += "l\n";
  const std::string path = fileOf(dir, content);
  FakeDateprobeBack back;
  CapturedOutput out;
  EXPECT_EQ(0, probeFile(back, path, "*", out.file()));
  std::string want;
  for (int i = 1; i <= 2500; ++i) {
    want += "Unable to parse 'l'\n";
    if (i % 1000 == 0) want += std::to_string(i) + " lines\n";
  }
  want += "count=2500\n";
  EXPECT_EQ(want, out.text());
}

TEST(LineProbe, UnreadableFileGivesFourAndNoLineEnd) {
  TestTempDir dir;
  const std::string path = std::string(dir / "missing.log");
  FakeDateprobeBack back;
  CapturedOutput out;
  EXPECT_EQ(4, probeFile(back, path, "*", out.file()));
  EXPECT_EQ("Cannot open file \"" + path + "\"!", out.text());
  EXPECT_TRUE(back.sources.empty());
  EXPECT_TRUE(back.parsedLines.empty());
}

}  // namespace
