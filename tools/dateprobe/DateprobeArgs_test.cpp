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
  const struct {
    std::vector<const char*> words;
    DateprobeMode mode;
    const char* text;
    const char* context;
    bool hasStartRow;
    long startRow;
  } kCases[] = {
      {{"file", "a.log"}, DateprobeMode::FILE_LINES, "a.log", "*", false, 0},
      {{"file", "a.log", "syslog"}, DateprobeMode::FILE_LINES, "a.log", "syslog", false, 0},
      // "file" alone is a line of text.
      {{"file"}, DateprobeMode::ONE_STRING, "file", "*", false, 0},
      {{"test"}, DateprobeMode::SELF_TEST, "", "*", false, 0},
      {{"test", "5"}, DateprobeMode::SELF_TEST, "", "*", true, 5},
      {{"test", "-3"}, DateprobeMode::SELF_TEST, "", "*", true, -3},
      {{"test", "92"}, DateprobeMode::SELF_TEST, "", "*", true, 92},
      {{"test", "abc"}, DateprobeMode::SELF_TEST, "", "*", true, 0},  // no number is 0
      {{"test", "12abc"}, DateprobeMode::SELF_TEST, "", "*", true, 12},
      {{"test", " 7"}, DateprobeMode::SELF_TEST, "", "*", true, 7},
      {{"test", "0x10"}, DateprobeMode::SELF_TEST, "", "*", true, 0},  // base 10 only
      {{"test", "010"}, DateprobeMode::SELF_TEST, "", "*", true, 10},
      {{"test", "99999999999999999999"}, DateprobeMode::SELF_TEST, "", "*", true, LONG_MAX},
      // <n> is read only as the last of three.
      {{"test", "5", "x"}, DateprobeMode::SELF_TEST, "", "*", false, 0},
      {{"test", "a", "b", "c", "d"}, DateprobeMode::SELF_TEST, "", "*", false, 0},
      {{"10/11/2009 12:11:13"}, DateprobeMode::ONE_STRING, "10/11/2009 12:11:13", "*", false, 0},
      {{"10/11/2009 12:11:13", "syslog"}, DateprobeMode::ONE_STRING, "10/11/2009 12:11:13",
       "syslog", false, 0},
      {{"line", "host::host-a"}, DateprobeMode::ONE_STRING, "line", "host::host-a", false, 0},
      // The words are matched exactly.
      {{"FILE", "x"}, DateprobeMode::ONE_STRING, "FILE", "x", false, 0},
      {{"Test"}, DateprobeMode::ONE_STRING, "Test", "*", false, 0},
      {{"testing", "5"}, DateprobeMode::ONE_STRING, "testing", "5", false, 0},
      {{""}, DateprobeMode::ONE_STRING, "", "*", false, 0},
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
      {},
      {"file", "a", "b", "c"},
      {"file", "a", "b", "c", "d"},
      {"a", "b", "c"},
      {"syslog", "line", "more", "words"},
      {"files", "a", "b"},
  };
  for (const auto& words : kCases) {
    EXPECT_EQ(DateprobeMode::USAGE, classify(words).mode) << describe(words);
  }
  EXPECT_EQ(DateprobeMode::USAGE, classifyDateprobeArgs(0, nullptr).mode);
}

TEST(DateprobeArgs, UsageTextIsExact) {
  CapturedOutput out;
  printDateprobeUsage(out.file());
  EXPECT_EQ(
      "Usage: \n"
      "\tdateprobe \"<string>\" [\"<sourcetype>|source::<filename>|host::<hostname>\"]\n"
      "\tdateprobe file <filename> [\"<sourcetype>|host::<hostname>\"]\n"
      "For example:\n"
      "\tdateprobe \"10/11/2009 12:11:13\" \"syslog\"\n"
      "\tdateprobe file \"foo.log\" \"syslog\"\n",
      out.text());
}

}  // namespace
