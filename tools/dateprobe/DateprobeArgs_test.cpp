#include "tools/dateprobe/DateprobeArgs.h"

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/dateprobe/DateprobeTestDoubles.h"

namespace {

DateprobeArgs classify(const std::vector<const char*>& words) {
  std::vector<const char*> argv = {"dateprobe"};
  argv.insert(argv.end(), words.begin(), words.end());
  return classifyDateprobeArgs(static_cast<int>(argv.size()), argv.data());
}

std::string describe(const std::vector<const char*>& words) {
  std::string out;
  for (const char* w : words) out += std::string("[") + w + "]";
  return out;
}

TEST(DateprobeArgs, ClassifiesEachForm) {
  const auto kOne = DateprobeMode::ONE_STRING, kTest = DateprobeMode::SELF_TEST;
  const struct {
    std::vector<const char*> words;
    DateprobeMode mode;
    const char *text, *context;
    bool hasStartRow;
    long startRow;
  } kCases[] = {
      {{"file", "a.log"}, DateprobeMode::FILE_LINES, "a.log", "*", false, 0},
      {{"file", "a.log", "syslog"}, DateprobeMode::FILE_LINES, "a.log", "syslog", false, 0},
      // "file" alone is a line of text.
      {{"file"}, kOne, "file", "*", false, 0},
      {{"test"}, kTest, "", "*", false, 0}, {{"test", "5"}, kTest, "", "*", true, 5},
      {{"test", "-3"}, kTest, "", "*", true, -3}, {{"test", "92"}, kTest, "", "*", true, 92},
      {{"test", "abc"}, kTest, "", "*", true, 0},  // no number is 0
      {{"test", "12abc"}, kTest, "", "*", true, 12}, {{"test", " 7"}, kTest, "", "*", true, 7},
      {{"test", "0x10"}, kTest, "", "*", true, 0},  // base 10 only
      {{"test", "010"}, kTest, "", "*", true, 10},
      {{"test", "99999999999999999999"}, kTest, "", "*", true, LONG_MAX},
      // <n> is read only as the last of three.
      {{"test", "5", "x"}, kTest, "", "*", false, 0},
      {{"test", "a", "b", "c", "d"}, kTest, "", "*", false, 0},
      {{"10/11/2009 12:11:13"}, kOne, "10/11/2009 12:11:13", "*", false, 0},
      {{"10/11/2009 12:11:13", "syslog"}, kOne, "10/11/2009 12:11:13", "syslog", false, 0},
      {{"line", "host::host-a"}, kOne, "line", "host::host-a", false, 0},
      // The words are matched exactly.
      {{"FILE", "x"}, kOne, "FILE", "x", false, 0}, {{"Test"}, kOne, "Test", "*", false, 0},
      {{"testing", "5"}, kOne, "testing", "5", false, 0}, {{""}, kOne, "", "*", false, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(describe(c.words));
    const DateprobeArgs args = classify(c.words);
    EXPECT_EQ(c.mode, args.mode);
    EXPECT_EQ(c.text, args.text);
    EXPECT_EQ(c.context, args.context);
    EXPECT_EQ(c.hasStartRow, args.hasStartRow);
    EXPECT_EQ(c.startRow, args.startRow);
  }
}

TEST(DateprobeArgs, RefusesListsThatAskForNoMode) {
  const std::vector<const char*> kCases[] = {
      {}, {"file", "a", "b", "c"}, {"file", "a", "b", "c", "d"}, {"a", "b", "c"},
      {"syslog", "line", "more", "words"}, {"a", "b", "c", "d", "e"}, {"files", "a", "b"}};
  for (const auto& words : kCases) {
    EXPECT_EQ(DateprobeMode::USAGE, classify(words).mode) << describe(words);
  }
  EXPECT_EQ(DateprobeMode::USAGE, classifyDateprobeArgs(0, nullptr).mode);
}

TEST(DateprobeArgs, UsageTextIsExact) {
  CapturedOutput out;
  printDateprobeUsage(out.file());
  EXPECT_EQ(kDateprobeUsage, out.text());
}

}  // namespace
