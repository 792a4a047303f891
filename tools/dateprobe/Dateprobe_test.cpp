// End to end: the built dateprobe binary run with its arguments against the
// staged install tree or a copy with settings of the test's own, its
// standard output and exit status checked byte for byte: lines of many log
// shapes in string mode, the layered settings of a context, and file mode.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

// Runs the binary with `words` in `zone` against the install root `home`
// (empty: the staged one); standard error is dropped.
Outcome run(const std::vector<std::string>& words, const char* zone = "UTC",
            const std::string& home = "") {
  return runDateprobe(words, {!home.empty(), home.c_str()}, "/dev/null", zone);
}

// The "UTC Time" value printed for a line, or "none" when the output has no
// such line.
std::string utcSeconds(const std::string& output) {
  const std::string key = "UTC Time:\t";
  const size_t at = output.find(key);
  if (at == std::string::npos) return "none";
  const size_t end = output.find('\n', at);
  return output.substr(at + key.size(), end - at - key.size());
}

// A copy of the staged install tree with `localProps` as the system's local
// props.conf and `appProps` as the local props.conf of application "myapp".
class OwnHome {
 public:
  OwnHome(const std::string& localProps, const std::string& appProps = "") {
    std::filesystem::copy(getenv("KESTRO_HOME"), std::string(_dir.path()),
                          std::filesystem::copy_options::recursive);
    writeTestFile(_dir / "etc/system/local/props.conf", localProps);
    if (!appProps.empty()) writeTestFile(_dir / "etc/apps/myapp/local/props.conf", appProps);
  }
  std::string path() const { return std::string(_dir.path()); }
  Pathname operator/(const StrSegment& leaf) const { return _dir / leaf; }

 private:
  TestTempDir _dir;
};

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
                           "Australia/Sydney", "Asia/Kolkata", "XST3", "Asia/Kathmandu",
                           "America/St_Johns", "Pacific/Chatham", "Australia/Lord_Howe",
                           "Pacific/Kiritimati", "Etc/GMT+12"}) {
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
  // Dates in the other shapes that file names carry; the directory part of
  // the path counts too.
  for (const char* name : {"svc_20231012.log", "app.20231012.log", "access_log-20231012",
                           "app-2023.10.12.log", "2023-10-12/app.log"}) {
    SCOPED_TRACE(name);
    writeTestFile(dir / name, "14:32:52 time only\n");
    const Outcome shaped = run({"file", std::string(dir / name)});
    EXPECT_EQ(0, shaped.status);
    EXPECT_EQ(std::string("From:\t14:32:52 time only\n"
                          "Parsed:\tThu Oct 12 14:32:52 2023\n"
                          "UTC Time:\t1697121172\n"
                          "Time Region:\t0-8\n"
                          "Date Region:\t-1--1\n"
                          "count=1\n"),
              shaped.output);
  }
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

struct StringCase {
  const char* zone;
  const char* line;
  const char* output;
};

// Every printed line: the zone of the line or of the machine decides the
// UTC seconds, the machine's zone the "Parsed" text; regions are byte
// offsets, -1 when absent.
TEST(Dateprobe, StringModePrintsEveryLineOfTheResult) {
  const StringCase cases[] = {
      {"UTC", "2023-10-11T22:14:15.003+02:00 host app: started",
       "From:\t2023-10-11T22:14:15.003+02:00 host app: started\n"
       "Parsed:\tWed Oct 11 20:14:15 2023\n"
       "UTC Time:\t1697055255\n"
       "Time Region:\t11-29\n"
       "Date Region:\t0-10\n"
       "Subseconds:\t0.003\n"},
      {"Asia/Tokyo", "2023-10-11T22:14:15.003+02:00 host app: started",
       "From:\t2023-10-11T22:14:15.003+02:00 host app: started\n"
       "Parsed:\tThu Oct 12 05:14:15 2023\n"
       "UTC Time:\t1697055255\n"
       "Time Region:\t11-29\n"
       "Date Region:\t0-10\n"
       "Subseconds:\t0.003\n"},
      // No zone in the text: the machine's zone, daylight time in October.
      {"America/New_York", "2023-10-12 14:32:52 x",
       "From:\t2023-10-12 14:32:52 x\n"
       "Parsed:\tThu Oct 12 14:32:52 2023\n"
       "UTC Time:\t1697135572\n"
       "Time Region:\t11-19\n"
       "Date Region:\t0-10\n"},
      {"Asia/Kolkata", "2023-10-12 14:32:52 x",
       "From:\t2023-10-12 14:32:52 x\n"
       "Parsed:\tThu Oct 12 14:32:52 2023\n"
       "UTC Time:\t1697101372\n"
       "Time Region:\t11-19\n"
       "Date Region:\t0-10\n"},
      {"UTC", "192.0.2.1 - - [10/Oct/2023:13:55:36 -0700] \"GET / HTTP/1.0\" 200 2326",
       "From:\t192.0.2.1 - - [10/Oct/2023:13:55:36 -0700] \"GET / HTTP/1.0\" 200 2326\n"
       "Parsed:\tTue Oct 10 20:55:36 2023\n"
       "UTC Time:\t1696971336\n"
       "Time Region:\t27-41\n"
       "Date Region:\t15-26\n"},
      // An epoch has no date region.
      {"UTC", "1697121172 event happened",
       "From:\t1697121172 event happened\n"
       "Parsed:\tThu Oct 12 14:32:52 2023\n"
       "UTC Time:\t1697121172\n"
       "Time Region:\t0-10\n"
       "Date Region:\t-1--1\n"},
      // The minute without seconds: no subseconds line.
      {"UTC", "2023-10-12 14:32 minute only",
       "From:\t2023-10-12 14:32 minute only\n"
       "Parsed:\tThu Oct 12 14:32:00 2023\n"
       "UTC Time:\t1697121120\n"
       "Time Region:\t11-16\n"
       "Date Region:\t0-10\n"},
  };
  for (const StringCase& c : cases) {
    SCOPED_TRACE(std::string(c.zone) + " " + c.line);
    const Outcome o = run({c.line}, c.zone);
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(c.output, o.output);
  }
}

// The subseconds line carries exactly the digits of the text, up to six;
// none at all when the text has no fraction.
TEST(Dateprobe, SubsecondsLineOnlyWithDigits) {
  const struct {
    const char* line;
    const char* tail;  // the output after the Date Region line
    const char* utc = "1697121172";
  } cases[] = {
      {"2023-10-12T14:32:52.5Z one digit", "Subseconds:\t0.5\n"},
      {"2023-10-12 14:32:52.000 zero fraction", "Subseconds:\t0.000\n"},
      {"2023-10-12 14:32:52.12 spid12s Starting up", "Subseconds:\t0.12\n"},
      {"2023-10-12T14:32:52,987654Z comma", "Subseconds:\t0.987654\n"},
      {"2023-10-12T14:32:52.123456789Z nanos", "Subseconds:\t0.123456\n"},
      {"1697121172.123456 float epoch", "Subseconds:\t0.123456\n"},
      {"1697121172123 epoch in millis", "Subseconds:\t0.123\n"},
      {"2023-10-12 14:32:52 no fraction", ""},
      {"2023-10-12 14:32 no seconds", "", "1697121120"},
      {"1697121172 plain epoch", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const Outcome o = run({c.line});
    EXPECT_EQ(0, o.status);
    const size_t region = o.output.find("Date Region:\t");
    ASSERT_NE(std::string::npos, region);
    const size_t end = o.output.find('\n', region);
    ASSERT_NE(std::string::npos, end);
    EXPECT_EQ(c.tail, o.output.substr(end + 1));
    EXPECT_EQ(c.utc, utcSeconds(o.output));
  }
}

// A line with nothing to find prints one line and still ends with status
// 0; the line is printed as it is, format characters included.
TEST(Dateprobe, LinesWithoutTimestampsAreUnparsable) {
  for (const char* line :
       {"", "no time here", "100% done %s %d %n",
        "Errors in file /u01/app/db/trace/db_ora_1234.trc:", "2023-10-12 25:00:00 bad hour"}) {
    SCOPED_TRACE(line);
    const Outcome o = run({line});
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(std::string("Unable to parse '") + line + "'\n", o.output);
  }
}

// Log lines that carry their year, as the server sees them from many
// sources, and the instant each must yield in UTC.
TEST(Dateprobe, RealisticLinesYieldTheirInstant) {
  const struct {
    const char* line;
    const char* utc;
  } cases[] = {
      {"<165>1 2023-10-11T22:14:15.003Z host.example.com evntslog - ID47 - message",
       "1697062455"},
      {"2023-10-11T22:14:15+05:30 job finished", "1697042655"},
      {"2023-10-11 22:14:15,123 INFO  [main] com.example.App - Starting", "1697062455"},
      {"2023-10-11 22:14:15.123456 UTC [1234] LOG:  database system is ready", "1697062455"},
      {"2023-10-11 22:14:15.123 CEST [1234] LOG:  checkpoint starting", "1697055255"},
      {"[Wed Oct 11 14:32:52.123456 2023] [core:error] [pid 35708] E00126: Invalid URI",
       "1697034772"},
      {"2023/10/11 14:32:52 [error] 1234#0: *5 open() failed", "1697034772"},
      {"2023-10-11 14:32:52 192.0.2.5 GET /default.htm - 80 - 192.0.2.1 Agent/5.0 200 0 0 15",
       "1697034772"},
      {"#Date: 2023-10-11 14:32:52", "1697034772"},
      {"10/11/2023 2:32:52 PM Information Service started", "1697034772"},
      {"Information\t10/12/2023 2:32:52 PM\tService Control Manager\t7036\tNone", "1697121172"},
      {"Oct 11, 2023 2:32:52 PM org.example.startup.Main start", "1697034772"},
      {"11-Oct-2023 14:32:52.123 INFO [main] org.example.Server.start Server startup",
       "1697034772"},
      {"2023-10-11 14:32:52,123 - myapp - INFO - message", "1697034772"},
      {"[2023-10-11 14:32:52,123] INFO Broker version: 3.5.0", "1697034772"},
      {"time=\"2023-10-11T14:32:52Z\" level=info msg=\"Starting server\"", "1697034772"},
      {"{\"level\":\"info\",\"ts\":1697035972.1234,\"msg\":\"started\"}", "1697035972"},
      {"{\"timestamp\":\"2023-10-11T14:32:52.123Z\",\"level\":\"INFO\"}", "1697034772"},
      {"{\"t\":{\"$date\":\"2023-10-11T14:32:52.123+00:00\"},\"s\":\"I\"}", "1697034772"},
      {"2023-10-11T14:32:52.123456Z 0 [Note] dbd: ready for connections.", "1697034772"},
      {"231011 14:32:52 [Note] Engine: Starting shutdown", "1697034772"},
      {"2023-10-11 14:32:52.123 +00:00 [INF] Application started", "1697034772"},
      {"Wed, 11 Oct 2023 14:32:52 GMT", "1697034772"},
      {"Wed Oct 11 14:32:52 UTC 2023", "1697034772"},
      {"Thu Oct 12 2023 14:32:52 GMT+0000 (Coordinated Universal Time)", "1697121172"},
      {"20231011T143252Z compact", "1697034772"},
      {"11.10.2023 14:32:52 day first with dots", "1697034772"},
      {"2023-10-11T14:32:52.123-04:00 negative offset", "1697049172"},
      {"[11/Oct/2023 14:32:52] \"GET / HTTP/1.1\" 200 1234", "1697034772"},
      {"Oct 12 14:32:52 2023 host: year after the time", "1697121172"},
      {"[2023-10-12T14:32:52.123+01:00] production.ERROR: failure", "1697117572"},
      {"ERROR 2023-10-12 14:32:52,123 [main] level first", "1697121172"},
      {"[12-Oct-2023 14:32:52 UTC] Warning: something", "1697121172"},
      {"2023-10-12 14:32:52 +0200 [info]: collector", "1697113972"},
      {"2023-10-12 14:32:52 PST something", "1697149972"},
      {"2023-10-12 14:32:52 JST something", "1697088772"},
      {"10/12/2023 12:00:00 AM midnight", "1697068800"},
      {"10/12/2023 12:00:00 PM noon", "1697112000"},
      {"2024-02-29 10:00:00 leap day", "1709200800"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const Outcome o = run({c.line});
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(c.utc, utcSeconds(o.output)) << o.output;
  }
}

// Zoned lines keep their instant whatever the machine's zone.
TEST(Dateprobe, ZonedLinesDoNotDependOnTheMachineZone) {
  for (const char* zone : {"Asia/Kathmandu", "America/St_Johns", "Pacific/Chatham"}) {
    SCOPED_TRACE(zone);
    EXPECT_EQ("1697055255", utcSeconds(run({"2023-10-11T22:14:15.003+02:00 x"}, zone).output));
    EXPECT_EQ("1696971336", utcSeconds(run({"[10/Oct/2023:13:55:36 -0700] x"}, zone).output));
    EXPECT_EQ("1697034772", utcSeconds(run({"Wed, 11 Oct 2023 14:32:52 GMT"}, zone).output));
  }
}

const char kLocalProps[] =
    "[mytype]\n"
    "TZ = Asia/Tokyo\n"
    "\n"
    "[prefixed]\n"
    "TIME_PREFIX = at=\n"
    "\n"
    "[short]\n"
    "MAX_TIMESTAMP_LOOKAHEAD = 10\n"
    "\n"
    "[fmt]\n"
    "TIME_FORMAT = %d|%m|%Y %H-%M-%S\n"
    "\n"
    "[source::*.log]\n"
    "TZ = America/New_York\n"
    "\n"
    "[source::/srv/logs/*.txt]\n"
    "TZ = Asia/Kolkata\n"
    "\n"
    "[host::box*]\n"
    "TZ = Europe/Berlin\n"
    "\n"
    "[altcfg]\n"
    "DATETIME_CONFIG = /etc/alt.xml\n"
    "TZ = Asia/Tokyo\n"
    "\n"
    "[missingcfg]\n"
    "DATETIME_CONFIG = /etc/nonexistent.xml\n";

const char kAppProps[] =
    "[apptype]\n"
    "TZ = Australia/Sydney\n"
    "TIME_PREFIX = ts:\n";

// A pattern file that knows only one odd time shape.
const char kAltPatterns[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<datetime>\n"
    "  <define name=\"odd_time\" extract=\"hour, minute, second\">\n"
    "    <text>(\\d\\d)h(\\d\\d)m(\\d\\d)s</text>\n"
    "  </define>\n"
    "  <timePatterns>\n"
    "    <use name=\"odd_time\"/>\n"
    "  </timePatterns>\n"
    "  <datePatterns>\n"
    "  </datePatterns>\n"
    "</datetime>\n";

// The settings of the context count as the server would apply them: by
// sourcetype, by source and host pattern, from an application's layer, and
// the earlier context of a "|" list first.
TEST(Dateprobe, SettingsOfTheContextCount) {
  OwnHome home(kLocalProps, kAppProps);
  const std::string plain = "2023-10-12 14:32:52 x";
  const struct {
    const char* line;
    const char* context;
    const char* utc;
  } cases[] = {
      {plain.c_str(), "*", "1697121172"},
      {plain.c_str(), "mytype", "1697088772"},
      {plain.c_str(), "MYTYPE", "1697121172"},  // sourcetype names are exact
      {plain.c_str(), "source::x.log", "1697135572"},
      {plain.c_str(), "source::/var/log/a.log", "1697121172"},  // "*" stops at "/"
      {plain.c_str(), "source::/srv/logs/a.txt", "1697101372"},
      {plain.c_str(), "source::/srv/logs/sub/a.txt", "1697121172"},
      {plain.c_str(), "host::BOX1", "1697113972"},  // host patterns ignore case
      {plain.c_str(), "host::other", "1697121172"},
      {plain.c_str(), "mytype|source::x.log", "1697088772"},
      {plain.c_str(), "source::x.log|mytype", "1697135572"},
      {"id 2023-10-12 14:32:52 at=2020-01-02 03:04:05", "prefixed", "1577934245"},
      {"a 2023-10-12 14:32:52 ts: 2021-01-02 03:04:05", "apptype", "1609517045"},
      {plain.c_str(), "apptype", "none"},  // the prefix is missing
      {"xxxxxxxxxxxxxxx 2023-10-12 14:32:52", "short", "none"},
      {"xxxxxxxxxxxxxxx 2023-10-12 14:32:52", "*", "1697121172"},
      {"12|10|2023 14-32-52 rest", "fmt", "1697121172"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.context) + " " + c.line);
    const Outcome o = run({c.line, c.context}, "UTC", home.path());
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(c.utc, utcSeconds(o.output)) << o.output;
  }
}

// DATETIME_CONFIG is overridden by the stock pattern file, while the
// other settings of the stanza still count.
TEST(Dateprobe, StockPatternsOverrideTheChosenPatternFile) {
  OwnHome home(kLocalProps);
  writeTestFile(home / "etc/alt.xml", kAltPatterns);
  EXPECT_EQ("1697088772", utcSeconds(run({"2023-10-12 14:32:52 x", "altcfg"}, "UTC",
                                         home.path()).output));
  const Outcome odd = run({"14h32m52s x", "altcfg"}, "UTC", home.path());
  EXPECT_EQ(0, odd.status);
  EXPECT_EQ("Unable to parse '14h32m52s x'\n", odd.output);
}

// A pattern file that cannot be read is an exception of the start-up,
// reported on one line, with status 0.
TEST(Dateprobe, AnUnreadablePatternFileIsReported) {
  OwnHome home(kLocalProps);
  const Outcome o = run({"2023-10-12 14:32:52 x", "missingcfg"}, "UTC", home.path());
  EXPECT_EQ(0, o.status);
  EXPECT_EQ(0u, o.output.rfind("Exception hit ", 0)) << o.output;
  EXPECT_NE(std::string::npos, o.output.find("nonexistent.xml")) << o.output;
  EXPECT_EQ('\n', o.output.back());
  EXPECT_EQ(1, std::count(o.output.begin(), o.output.end(), '\n'));
}

// In file mode the settings come from the context argument; the file's
// own name picks no stanza.
TEST(Dateprobe, FileModeTakesSettingsFromTheContextArgument) {
  OwnHome home(kLocalProps);
  TestTempDir dir;
  const std::string path = std::string(dir / "y.log");
  writeTestFile(dir / "y.log", "2023-10-12 14:32:52 x\n");
  EXPECT_EQ("1697121172", utcSeconds(run({"file", path}, "UTC", home.path()).output));
  EXPECT_EQ("1697088772", utcSeconds(run({"file", path, "mytype"}, "UTC", home.path()).output));
  EXPECT_EQ("1697135572",
            utcSeconds(run({"file", path, "source::y.log"}, "UTC", home.path()).output));
}

// The count comes at the end, the progress line only after each full
// thousand.
TEST(Dateprobe, FileModeCountsLines) {
  TestTempDir dir;
  for (const int lines : {0, 1, 999, 1000, 1001, 3000}) {
    SCOPED_TRACE(lines);
    std::string text;
    for (int i = 0; i < lines; ++i) text += "nothing here\n";
    const Pathname path = dir / "n.txt";
    writeTestFile(path, text);
    const Outcome o = run({"file", std::string(path)});
    EXPECT_EQ(0, o.status);
    std::string want;
    for (int i = 1; i <= lines; ++i) {
      want += "Unable to parse 'nothing here'\n";
      if (i % 1000 == 0) want += std::to_string(i) + " lines\n";
    }
    want += "count=" + std::to_string(lines) + "\n";
    EXPECT_EQ(want, o.output);
  }
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
