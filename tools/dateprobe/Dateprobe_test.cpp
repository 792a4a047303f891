// End to end: the built dateprobe binary run with its arguments against the
// staged install tree, its standard output and exit status checked byte for
// byte. Each shape of argument list is classified and run in the unit tests
// of the front; here one or two of each show that the binary wires them up.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fstream>

#include <gtest/gtest.h>

#include "loaderinfo/LoaderInfo.h"
#include "framework/DateprobeBack.h"
#include "framework/LineProbe.h"
#include "util/testing/RunProgram.h"
#include "util/testing/ScopedTz.h"
#include "util/testing/XmlTestInit.h"

#include "tools/dateprobe/DateprobeTestDoubles.h"
#include "tools/dateprobe/SelfTestCase.h"
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

// Runs the binary with `words` in `zone` (null: TZ unset), by default a
// zone three hours behind UTC; standard error goes to `errorsTo` when that
// is not empty.
Outcome runDateprobe(const std::vector<std::string>& words, HomeSetting home = {},
                     const std::string& errorsTo = "", const char* zone = "XST3") {
  const char* bin = getenv("DATEPROBE_BIN");
  EXPECT_NE(nullptr, bin) << "DATEPROBE_BIN is not set";
  if (bin == nullptr) return {};
  const ProgramOutcome child = runProgram(bin, words, [&] {
    if (zone == nullptr) unsetenv("TZ");
    if (zone != nullptr) setenv("TZ", zone, 1);
    if (home.replace && home.value == nullptr) unsetenv("KESTRO_HOME");
    if (home.replace && home.value != nullptr) setenv("KESTRO_HOME", home.value, 1);
    if (!errorsTo.empty() && freopen(errorsTo.c_str(), "w", stderr) == nullptr) _exit(126);
  });
  EXPECT_NE(-1, child.status) << "the program did not exit normally";
  Outcome outcome;
  outcome.status = child.status;
  outcome.output = child.output;
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

const std::string PASS_LINE = std::string(56, '*') + "\n";

TEST(Dateprobe, ArgumentsThatAskForNoModeGetTheUsage) {
  expectEach({{}, {"file", "a", "b", "c"}, {"a", "b", "c"}}, 1, kDateprobeUsage);
}

// Every row passes in every zone: the rows with a zone_offset of -1 are
// read and judged in the machine's own zone.
TEST(Dateprobe, FullTestRunPassesEveryRowInEveryZone) {
  size_t nothingRows = 0;
  for (const SelfTestCase& row : selfTestCases) nothingRows += row.year == 0;
  ASSERT_EQ(11u, nothingRows);
  std::string want;
  for (size_t i = nothingRows; i < SELF_TEST_CASE_COUNT; ++i) want += PASS_LINE;
  want += "\nPASSED 92 / 92\n";
  for (const char* zone : {static_cast<const char*>(nullptr), "UTC", "America/Los_Angeles",
                           "Australia/Sydney", "Asia/Kolkata", "XST3"}) {
    SCOPED_TRACE(zone != nullptr ? zone : "TZ unset");
    const Outcome o = runDateprobe({"test"}, {}, "", zone);
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(want, o.output);
  }
}

// Rows that expect nothing pass silently, so a run from any of them ends
// at row 11, the first that is compared; past the table nothing runs.
TEST(Dateprobe, SingleRowRunPrintsOneLine) {
  expectEach({{"test", "abc"}, {"test", "10"}, {"test", "12"}, {"test", "91"}}, 0, PASS_LINE);
  expectEach({{"test", "92"}, {"test", "99999999999999999999"}}, 0, "");
}

TEST(Dateprobe, StringModePrintsWhatItFound) {
  expectEach({{"10/11/2009 12:11:13"}, {"10/11/2009 12:11:13", "syslog"}}, 0,
             "From:\t10/11/2009 12:11:13\n"
             "Parsed:\tSun Oct 11 12:11:13 2009\n"
             "UTC Time:\t1255273873\n"
             "Time Region:\t11-19\n"
             "Date Region:\t0-10\n");
  expectEach({{"2009-10-11 12:11:13.25 +0100 x"}}, 0,
             "From:\t2009-10-11 12:11:13.25 +0100 x\n"
             "Parsed:\tSun Oct 11 08:11:13 2009\n"
             "UTC Time:\t1255259473\n"
             "Time Region:\t11-28\n"
             "Date Region:\t0-10\n"
             "Subseconds:\t0.25\n");
  expectEach({{"file"}}, 0, "Unable to parse 'file'\n");
  expectEach({{"no time here", "host::a"}}, 0, "Unable to parse 'no time here'\n");
}

TEST(Dateprobe, FileModeFallsBackToThePreviousTimeAndCounts) {
  TestTempDir dir;
  const std::string path = std::string(dir / "in.log");
  writeTestFile(dir / "in.log", "first\r\n2009-10-11 12:11:13 second\n\nlast");
  expectEach({{"file", path}, {"file", path, "syslog"}}, 0,
             "Unable to parse 'first'\n"
             "From:\t2009-10-11 12:11:13 second\n"
             "Parsed:\tSun Oct 11 12:11:13 2009\n"
             "UTC Time:\t1255273873\n"
             "Time Region:\t11-19\n"
             "Date Region:\t0-10\n"
             "From:\t\n"
             "Parsed:\tSun Oct 11 12:11:13 2009\n"
             "UTC Time:\t1255273873\n"
             "Time Region:\t-1--1\n"
             "Date Region:\t-1--1\n"
             "From:\tlast\n"
             "Parsed:\tSun Oct 11 12:11:13 2009\n"
             "UTC Time:\t1255273873\n"
             "Time Region:\t-1--1\n"
             "Date Region:\t-1--1\n"
             "count=4\n");
  expectEach({{"file", "/nonexistent", "syslog"}}, 4, "Cannot open file \"/nonexistent\"!");
}

// The date in the file's name completes lines that carry only a time.
TEST(Dateprobe, FileModeTakesTheDateFromTheFileName) {
  TestTempDir dir;
  const std::string path = std::string(dir / "app-2026-06-10.log");
  writeTestFile(Pathname(path), "11:58:01 tick\n23:59:59 tock\n");
  const Outcome o = runDateprobe({"file", path}, {}, "", "UTC");
  EXPECT_EQ(0, o.status);
  EXPECT_EQ("From:\t11:58:01 tick\n"
            "Parsed:\tWed Jun 10 11:58:01 2026\n"
            "UTC Time:\t1781092681\n"
            "Time Region:\t0-8\n"
            "Date Region:\t-1--1\n"
            "From:\t23:59:59 tock\n"
            "Parsed:\tWed Jun 10 23:59:59 2026\n"
            "UTC Time:\t1781135999\n"
            "Time Region:\t0-8\n"
            "Date Region:\t-1--1\n"
            "count=2\n",
            o.output);
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

// The log lines of the timestamp corpus, in file order.
std::vector<std::string> corpusLines() {
  std::ifstream in(std::string(KESTRO_SOURCE_DIR) +
                   "/tools/dateprobe/testdata/timestamp_corpus.tsv");
  std::vector<std::string> lines;
  for (std::string text; std::getline(in, text);) {
    if (text.empty() || text[0] == '#') continue;
    size_t at = 0;
    for (int tab = 0; tab < 5 && at != std::string::npos; ++tab) at = text.find('\t', at) + 1;
    lines.push_back(text.substr(at));
  }
  return lines;
}

// The binary over the corpus prints what the library prints for the same
// file in this process, line for line, with the progress lines of a long
// file. Both read the clock, which only the date guesses of lines without
// a year or a date depend on, and both run within the same second.
TEST(Dateprobe, FileModeOverTheCorpusPrintsWhatTheLibraryFinds) {
  const std::vector<std::string> lines = corpusLines();
  ASSERT_GE(lines.size(), 460u);
  TestTempDir dir;
  const Pathname path = dir / "corpus.log";
  std::string content;
  size_t count = 0;
  while (count < 2500) {
    for (const std::string& line : lines) {
      if (count++ == 2500) break;
      content += line + "\n";
    }
  }
  writeTestFile(path, content);

  const Outcome o = runDateprobe({"file", std::string(path), "syslog"}, {}, "", "UTC");
  EXPECT_EQ(0, o.status);

  ScopedTz zone("UTC");
  LoaderInfo::getInstance().populateFromEnvironment();
  const Pathname home = LoaderInfo::getInstance().getKestroHome();
  DateprobeBack back(propsPagesFiller(), home);
  back.setUp("syslog");
  char* buffer = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buffer, &size);
  ASSERT_EQ(0, probeFile(back, Str(std::string(path)), "syslog", out));
  fclose(out);
  const std::string expected(buffer, size);
  free(buffer);
  EXPECT_EQ(expected, o.output);

  EXPECT_NE(std::string::npos, o.output.find("\n1000 lines\n"));
  EXPECT_NE(std::string::npos, o.output.find("\n2000 lines\n"));
  EXPECT_EQ(o.output.size() - 11, o.output.rfind("count=2500\n"));
  // Only lines ahead of the first dated one find nothing; after it, every
  // line has at least the previous time.
  const size_t firstDated = o.output.find("From:\t");
  EXPECT_EQ(std::string::npos, o.output.find("Unable to parse", firstDated));
}

}  // namespace
