// End to end: the built dateprobe binary run with its arguments, its
// standard output and exit status checked byte for byte. The back behind it
// finds no timestamp yet, so every row that expects one fails at time 0.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/dateprobe/SelfTestCase.h"

namespace {

const char kUsage[] =
    "Usage: \n"
    "\tdateprobe \"<string>\" [\"<sourcetype>|source::<filename>|host::<hostname>\"]\n"
    "\tdateprobe file <filename> [\"<sourcetype>|host::<hostname>\"]\n"
    "For example:\n"
    "\tdateprobe \"10/11/2009 12:11:13\" \"syslog\"\n"
    "\tdateprobe file \"foo.log\" \"syslog\"\n";

struct Outcome {
  int status = -1;
  std::string output;
};

// Runs the binary with `words` in a zone three hours behind UTC.
Outcome runDateprobe(const std::vector<std::string>& words) {
  const char* bin = getenv("DATEPROBE_BIN");
  EXPECT_NE(nullptr, bin) << "DATEPROBE_BIN is not set";
  if (bin == nullptr) return {};
  setenv("TZ", "XST3", 1);
  tzset();
  std::vector<char*> argv = {const_cast<char*>(bin)};
  for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
  argv.push_back(nullptr);

  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    execv(bin, argv.data());
    _exit(127);
  }
  close(fds[1]);
  Outcome outcome;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) outcome.output.append(buffer, n);
  close(fds[0]);
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  EXPECT_TRUE(WIFEXITED(wstatus));
  outcome.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return outcome;
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += "[" + w + "]";
  return out;
}

// The C library's reading of time 0 in the row's view, as the RESULT line
// shows it.
std::string timeZeroFor(const SelfTestCase& row) {
  tm broken = {};
  if (row.zone_offset == -1) {
    const time_t zero = 0;
    localtime_r(&zero, &broken);
  } else {
    const time_t shifted = static_cast<time_t>(row.zone_offset);
    gmtime_r(&shifted, &broken);
  }
  char text[32];
  asctime_r(&broken, text);
  return std::string(text, 24);
}

std::string failureBlock(size_t index) {
  const SelfTestCase& row = selfTestCases[index];
  char expected[128];
  snprintf(expected, sizeof expected, "%d/%d/%d %d:%d:%d", row.month, row.day, row.year,
           row.hour, row.minute, row.second);
  return "--------------------BEGIN-------------------\n"
         "**   FAILED: test " + std::to_string(index) + "\n"
         "**     LINE: " + row.line + "\n"
         "** PATTERNS: \n"
         "** EXPECTED: " + expected + "\n"
         "**   RESULT: " + timeZeroFor(row) + "\n";
}

std::string fullRun() {
  std::string out;
  for (size_t i = 0; i < SELF_TEST_CASE_COUNT; ++i) {
    if (selfTestCases[i].year != 0) out += failureBlock(i);
  }
  return out + "\nPASSED 11 / 92\n";
}

TEST(Dateprobe, ArgumentsThatAskForNoModeGetTheUsage) {
  const std::vector<std::string> kCases[] = {
      {},
      {"file", "a", "b", "c"},
      {"a", "b", "c"},
      {"syslog", "10/11/2009 12:11:13", "x"},
      {"files", "a", "b"},
      {"FILE", "a", "b"},
      {"a", "b", "c", "d", "e"},
  };
  for (const auto& words : kCases) {
    SCOPED_TRACE(joined(words));
    const Outcome o = runDateprobe(words);
    EXPECT_EQ(1, o.status);
    EXPECT_EQ(kUsage, o.output);
  }
}

TEST(Dateprobe, FullTestRunFailsEveryRowThatExpectsATime) {
  size_t nothingRows = 0;
  for (const SelfTestCase& row : selfTestCases) nothingRows += row.year == 0;
  ASSERT_EQ(11u, nothingRows);
  // Spot checks of the expected text itself, independent of the table.
  const std::string want = fullRun();
  ASSERT_NE(std::string::npos, want.find("**   FAILED: test 11\n"
                                         "**     LINE: Mar 14 09:26:53 host-a authd[2231]: "
                                         "session opened for user-b\n"
                                         "** PATTERNS: \n"
                                         "** EXPECTED: 3/14/-1 9:26:53\n"
                                         "**   RESULT: Wed Dec 31 21:00:00 1969\n"));
  ASSERT_NE(std::string::npos, want.find("**   FAILED: test 91\n"
                                         "**     LINE: 2008-09-30T15:01:02Z logType=audit\n"
                                         "** PATTERNS: \n"
                                         "** EXPECTED: 9/30/2008 15:1:2\n"
                                         "**   RESULT: Thu Jan  1 00:00:00 1970\n"
                                         "\nPASSED 11 / 92\n"));
  ASSERT_NE(std::string::npos, want.find("**   RESULT: Wed Dec 31 16:00:00 1969\n"));
  ASSERT_EQ(std::string::npos, want.find("FAILED: test 10\n"));
  for (const auto& words : std::vector<std::vector<std::string>>{
           {"test"}, {"test", "-3"}, {"test", "5", "x"}, {"test", "a", "b", "c"}}) {
    SCOPED_TRACE(joined(words));
    const Outcome o = runDateprobe(words);
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(want, o.output);
  }
}

TEST(Dateprobe, SingleRowRunPrintsOneBlock) {
  const struct {
    const char* n;
    size_t row;
  } kCases[] = {
      {"abc", 11},  // no number is row 0; rows expecting nothing pass silently
      {"0", 11},
      {"5", 11},
      {"10", 11},
      {"11", 11},
      {"12", 12},
      {"47", 47},
      {"91", 91},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.n);
    const Outcome o = runDateprobe({"test", c.n});
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(failureBlock(c.row), o.output);
  }
}

TEST(Dateprobe, StartRowPastTheTableRunsNothing) {
  for (const char* n : {"92", "93", "1000", "99999999999999999999"}) {
    const Outcome o = runDateprobe({"test", n});
    EXPECT_EQ(0, o.status) << n;
    EXPECT_EQ("", o.output) << n;
  }
}

TEST(Dateprobe, StringModeReportsWhatItFound) {
  const struct {
    std::vector<std::string> words;
    const char* output;
  } kCases[] = {
      {{"10/11/2009 12:11:13"}, "Unable to parse '10/11/2009 12:11:13'\n"},
      {{"10/11/2009 12:11:13", "syslog"}, "Unable to parse '10/11/2009 12:11:13'\n"},
      {{"file"}, "Unable to parse 'file'\n"},
      {{"test line", "host::host-a"}, "Unable to parse 'test line'\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(joined(c.words));
    const Outcome o = runDateprobe(c.words);
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(c.output, o.output);
  }
}

TEST(Dateprobe, FileModeReadsEachLine) {
  char path[] = "/tmp/dateprobe_test.XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const std::string content = "first 12:00\r\nsecond\n\nlast";
  ASSERT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
  close(fd);
  for (const auto& words : std::vector<std::vector<std::string>>{{"file", path},
                                                                 {"file", path, "syslog"}}) {
    SCOPED_TRACE(joined(words));
    const Outcome o = runDateprobe(words);
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(
        "Unable to parse 'first 12:00'\n"
        "Unable to parse 'second'\n"
        "Unable to parse ''\n"
        "Unable to parse 'last'\n"
        "count=4\n",
        o.output);
  }
  unlink(path);
}

TEST(Dateprobe, UnreadableFileExitsFour) {
  for (const auto& words : std::vector<std::vector<std::string>>{
           {"file", "/nonexistent"}, {"file", "/nonexistent", "syslog"}}) {
    SCOPED_TRACE(joined(words));
    const Outcome o = runDateprobe(words);
    EXPECT_EQ(4, o.status);
    EXPECT_EQ("Cannot open file \"/nonexistent\"!", o.output);
  }
}

}  // namespace
