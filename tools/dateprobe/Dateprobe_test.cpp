// End to end: the built dateprobe binary run with its arguments, its
// standard output and exit status checked byte for byte. The back behind it
// finds no timestamp yet, so every row that expects one fails at time 0.
// Each shape of argument list is classified and run in the unit tests of
// the front; here one or two of each show that the binary wires them up.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/dateprobe/DateprobeTestDoubles.h"
#include "tools/dateprobe/SelfTestCase.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/TestTempDir.h"

namespace {

struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;  // standard error, when asked for
};

// How the child's KESTRO_HOME is set: as the test's environment has it, or
// replaced (a null value unsets it).
struct HomeSetting {
  bool replace = false;
  const char* value = nullptr;
};

// Runs the binary with `words` in a zone three hours behind UTC; standard
// error goes to `errorsTo` when that is not empty.
Outcome runDateprobe(const std::vector<std::string>& words, HomeSetting home = {},
                     const std::string& errorsTo = "") {
  const char* bin = getenv("DATEPROBE_BIN");
  EXPECT_NE(nullptr, bin) << "DATEPROBE_BIN is not set";
  if (bin == nullptr) return {};
  ScopedTz zone("XST3");
  std::vector<char*> argv = {const_cast<char*>(bin)};
  for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
  argv.push_back(nullptr);

  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    if (home.replace && home.value == nullptr) unsetenv("KESTRO_HOME");
    if (home.replace && home.value != nullptr) setenv("KESTRO_HOME", home.value, 1);
    if (!errorsTo.empty() && freopen(errorsTo.c_str(), "w", stderr) == nullptr) _exit(126);
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
  if (!errorsTo.empty()) outcome.errors = readTestFile(Pathname(errorsTo));
  return outcome;
}

// Runs each word list and checks the status and output it must give.
void expectEach(const std::vector<std::vector<std::string>>& wordLists, int status,
                const std::string& output) {
  for (const auto& words : wordLists) {
    std::string joined;
    for (const std::string& w : words) joined += "[" + w + "]";
    SCOPED_TRACE(joined);
    const Outcome o = runDateprobe(words);
    EXPECT_EQ(status, o.status);
    EXPECT_EQ(output, o.output);
  }
}

// The failure block of table row `index`, judged at time 0 in the row's
// view (the C library's reading of it).
std::string failureBlock(size_t index) {
  const SelfTestCase& row = selfTestCases[index];
  ScopedTz zone("XST3");
  tm broken = {};
  const time_t zero = 0, shifted = static_cast<time_t>(row.zone_offset);
  if (row.zone_offset == -1) {
    localtime_r(&zero, &broken);
  } else {
    gmtime_r(&shifted, &broken);
  }
  char result[32];
  asctime_r(&broken, result);
  char expected[128];
  snprintf(expected, sizeof expected, "%d/%d/%d %d:%d:%d", row.month, row.day, row.year,
           row.hour, row.minute, row.second);
  return selfTestFailure(index, row.line, "", expected, std::string(result, 24));
}

TEST(Dateprobe, ArgumentsThatAskForNoModeGetTheUsage) {
  expectEach({{}, {"file", "a", "b", "c"}, {"a", "b", "c"}}, 1, kDateprobeUsage);
}

TEST(Dateprobe, FullTestRunFailsEveryRowThatExpectsATime) {
  size_t nothingRows = 0;
  for (const SelfTestCase& row : selfTestCases) nothingRows += row.year == 0;
  ASSERT_EQ(11u, nothingRows);
  std::string want;
  for (size_t i = 0; i < SELF_TEST_CASE_COUNT; ++i) {
    if (selfTestCases[i].year != 0) want += failureBlock(i);
  }
  want += "\nPASSED 11 / 92\n";
  // Spot checks of the expected text itself, independent of the table.
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
  expectEach({{"test"}, {"test", "a", "b", "c"}}, 0, want);
}

// Rows that expect nothing pass silently, so a run from any of them ends
// at row 11, the first that is compared; past the table nothing runs.
TEST(Dateprobe, SingleRowRunPrintsOneBlock) {
  expectEach({{"test", "abc"}, {"test", "10"}}, 0, failureBlock(11));
  expectEach({{"test", "12"}}, 0, failureBlock(12));
  expectEach({{"test", "91"}}, 0, failureBlock(91));
  expectEach({{"test", "92"}, {"test", "99999999999999999999"}}, 0, "");
}

TEST(Dateprobe, StringAndFileModesReportWhatTheyFound) {
  expectEach({{"10/11/2009 12:11:13"}, {"10/11/2009 12:11:13", "syslog"}}, 0,
             "Unable to parse '10/11/2009 12:11:13'\n");
  TestTempDir dir;
  const std::string path = std::string(dir / "in.log");
  writeTestFile(dir / "in.log", "first 12:00\r\nsecond\n\nlast");
  expectEach({{"file", path}, {"file", path, "syslog"}}, 0,
             "Unable to parse 'first 12:00'\n"
             "Unable to parse 'second'\n"
             "Unable to parse ''\n"
             "Unable to parse 'last'\n"
             "count=4\n");
  expectEach({{"file", "/nonexistent", "syslog"}}, 4, "Cannot open file \"/nonexistent\"!");
}

// The install root comes from KESTRO_HOME before anything else, usage
// errors included; it is cleaned of doubled and trailing separators.
TEST(Dateprobe, StartsOnlyWithAnInstallRoot) {
  TestTempDir dir;
  const std::string errors = dir / "stderr";
  for (const char* value : {static_cast<const char*>(nullptr), ""}) {
    for (const std::vector<std::string>& words : {std::vector<std::string>{"test"},
                                                  std::vector<std::string>{}}) {
      const Outcome o = runDateprobe(words, {true, value}, errors);
      EXPECT_EQ(255, o.status);
      EXPECT_EQ("", o.output);
      EXPECT_EQ("KESTRO_HOME must be set.  Stopping.\n", o.errors);
    }
  }
  const char* staged = getenv("KESTRO_HOME");
  ASSERT_NE(nullptr, staged);
  const std::string messy = std::string(staged) + "//";
  const Outcome o = runDateprobe({"test", "92"}, {true, messy.c_str()}, errors);
  EXPECT_EQ(0, o.status);
  EXPECT_EQ("Using logging configuration at " + std::string(staged) + "/etc/log-cmdline.cfg.\n",
            o.errors);
}

}  // namespace
