// The built dateprobe binary driven as an operator drives it: lines of many
// log shapes in string mode, settings of the layered configuration written
// into install trees of the test's own, and file mode over files whose names
// carry dates. Output and exit status are checked byte for byte.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "util/testing/RunProgram.h"
#include "util/testing/TestTempDir.h"

namespace {

std::string exeDir() {
  char buffer[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return ".";
  return std::filesystem::path(std::string(buffer, n)).parent_path().string();
}

// The binary and the staged install tree: from the environment when the
// runner sets them, else beside this test in the build tree.
std::string dateprobeBin() {
  const char* bin = getenv("DATEPROBE_BIN");
  return bin != nullptr ? bin : exeDir() + "/dateprobe";
}

std::string stagedHome() {
  const char* home = getenv("KESTRO_HOME");
  if (home != nullptr && *home != '\0') return home;
  return std::filesystem::weakly_canonical(exeDir() + "/../../home").string();
}

typedef ProgramOutcome Outcome;

// Runs the binary with `words` in zone `zone` against install root `home`;
// standard error is dropped, standard output collected.
Outcome run(const std::vector<std::string>& words, const std::string& zone = "UTC",
            const std::string& home = stagedHome()) {
  return runProgram(dateprobeBin(), words, [&] {
    setenv("TZ", zone.c_str(), 1);
    setenv("KESTRO_HOME", home.c_str(), 1);
    if (freopen("/dev/null", "w", stderr) == nullptr) _exit(126);
  });
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
    std::filesystem::copy(stagedHome(), std::string(_dir.path()),
                          std::filesystem::copy_options::recursive);
    writeTestFile(_dir / "etc/system/local/props.conf", localProps);
    if (!appProps.empty()) writeTestFile(_dir / "etc/apps/myapp/local/props.conf", appProps);
  }
  std::string path() const { return std::string(_dir.path()); }
  Pathname operator/(const StrSegment& leaf) const { return _dir / leaf; }

 private:
  TestTempDir _dir;
};

struct StringCase {
  const char* zone;
  const char* line;
  const char* output;
};

// Every printed line: the zone of the line or of the machine decides the
// UTC seconds, the machine's zone the "Parsed" text; regions are byte
// offsets, -1 when absent.
TEST(DateprobeReview, StringModePrintsEveryLineOfTheResult) {
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
TEST(DateprobeReview, SubsecondsLineOnlyWithDigits) {
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
TEST(DateprobeReview, LinesWithoutTimestampsAreUnparsable) {
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
TEST(DateprobeReview, RealisticLinesYieldTheirInstant) {
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
TEST(DateprobeReview, ZonedLinesDoNotDependOnTheMachineZone) {
  for (const char* zone : {"Asia/Kathmandu", "America/St_Johns", "Pacific/Chatham"}) {
    SCOPED_TRACE(zone);
    EXPECT_EQ("1697055255", utcSeconds(run({"2023-10-11T22:14:15.003+02:00 x"}, zone).output));
    EXPECT_EQ("1696971336", utcSeconds(run({"[10/Oct/2023:13:55:36 -0700] x"}, zone).output));
    EXPECT_EQ("1697034772", utcSeconds(run({"Wed, 11 Oct 2023 14:32:52 GMT"}, zone).output));
  }
}

TEST(DateprobeReview, FullTestRunPassesInUnusualZones) {
  for (const char* zone : {"Asia/Kathmandu", "America/St_Johns", "Pacific/Chatham",
                           "Australia/Lord_Howe", "Pacific/Kiritimati", "Etc/GMT+12"}) {
    SCOPED_TRACE(zone);
    const Outcome o = run({"test"}, zone);
    EXPECT_EQ(0, o.status);
    ASSERT_GE(o.output.size(), 16u);
    EXPECT_EQ("\nPASSED 92 / 92\n", o.output.substr(o.output.size() - 16));
    EXPECT_EQ(std::string::npos, o.output.find("FAILED"));
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
TEST(DateprobeReview, SettingsOfTheContextCount) {
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
TEST(DateprobeReview, StockPatternsOverrideTheChosenPatternFile) {
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
TEST(DateprobeReview, AnUnreadablePatternFileIsReported) {
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
TEST(DateprobeReview, FileModeTakesSettingsFromTheContextArgument) {
  OwnHome home(kLocalProps);
  TestTempDir dir;
  const std::string path = std::string(dir / "y.log");
  writeTestFile(dir / "y.log", "2023-10-12 14:32:52 x\n");
  EXPECT_EQ("1697121172", utcSeconds(run({"file", path}, "UTC", home.path()).output));
  EXPECT_EQ("1697088772", utcSeconds(run({"file", path, "mytype"}, "UTC", home.path()).output));
  EXPECT_EQ("1697135572",
            utcSeconds(run({"file", path, "source::y.log"}, "UTC", home.path()).output));
}

// Dates in the shapes that file names carry complete lines with only a
// time; the directory part of the path counts too.
TEST(DateprobeReview, FileNameDatesCompleteTimeOnlyLines) {
  TestTempDir dir;
  for (const char* name : {"svc_20231012.log", "app.20231012.log", "access_log-20231012",
                           "app-2023.10.12.log", "2023-10-12/app.log"}) {
    SCOPED_TRACE(name);
    const Pathname path = dir / name;
    writeTestFile(path, "14:32:52 time only\n");
    const Outcome o = run({"file", std::string(path)});
    EXPECT_EQ(0, o.status);
    EXPECT_EQ(std::string("From:\t14:32:52 time only\n"
                          "Parsed:\tThu Oct 12 14:32:52 2023\n"
                          "UTC Time:\t1697121172\n"
                          "Time Region:\t0-8\n"
                          "Date Region:\t-1--1\n"
                          "count=1\n"),
              o.output);
  }
}

// The count comes at the end, the progress line only after each full
// thousand.
TEST(DateprobeReview, FileModeCountsLines) {
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

}  // namespace
