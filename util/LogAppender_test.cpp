#include "util/LogAppender.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "util/testing/LogCapture.h"
#include "util/LogFormat.h"
#include "util/Logger.h"
#include "util/testing/FixedClock.h"
#include "util/testing/TestTempDir.h"

namespace {

Logger gLogger("LogAppenderTest");
const std::map<Str, Pathname> kNoVariables;

// The lines of the file at `path`, without their line feeds.
std::vector<std::string> linesOf(const Pathname& path) {
  std::vector<std::string> out;
  std::istringstream in(readTestFile(path));
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// A new appender writing "%m%n" to `file`, with the given limits.
LogAppender* makeAppender(const char* name, const Pathname& file, const char* maxFileSize,
                          const char* maxBackupIndex) {
  LogAppender* a = LogAppender::find(name, true);
  EXPECT_TRUE(a->setAttribute("fileName", file, kNoVariables));
  EXPECT_TRUE(a->setAttribute("layout.ConversionPattern", "%m%n", kNoVariables));
  EXPECT_TRUE(a->setAttribute("maxFileSize", maxFileSize, kNoVariables));
  EXPECT_TRUE(a->setAttribute("maxBackupIndex", maxBackupIndex, kNoVariables));
  a->finalSetup(name, true);
  return a;
}

void writeLine(LogAppender* a, const std::string& text) {
  a->write(LogMsgMetadata(&gLogger, LOGLEVEL_INFO), Str(text));
}

TEST(LogAppender, FindMakesOnDemandAndKnowsTheRootByName) {
  EXPECT_EQ(nullptr, LogAppender::find("neverMade", false));
  LogAppender* made = LogAppender::find("madeOnce", true);
  ASSERT_NE(nullptr, made);
  EXPECT_EQ(made, LogAppender::find("madeOnce", false));
  EXPECT_EQ(made, LogAppender::find("madeOnce", true));
  EXPECT_EQ(&LogAppender::root(), LogAppender::find("rootAppender", false));
}

TEST(LogAppender, SetAttributeAcceptsAndRefuses) {
  const std::map<Str, Pathname> vars = {{"KESTRO_HOME", "/opt/k"}, {"X", "x"}};
  const struct { const char* name; const char* value; bool ok; } kCases[] = {
      {"maxFileSize", "100 \t", true},  // white space may follow
      {"maxFileSize", "010", false},     // no leading zero
      {"filename", "/tmp/x.log", false},  // names are exact
      {"maxFileSize", "0", true}, {"maxFileSize", "25000000", true},
      {"maxFileSize", "18446744073709551615", true}, {"maxFileSize", "18446744073709551616", false},
      {"maxFileSize", "00", false}, {"maxFileSize", "", false}, {"maxFileSize", " 5", false},
      {"maxFileSize", "5x", false}, {"maxFileSize", "5 x", false}, {"maxFileSize", "-1", false},
      {"maxBackupIndex", "4294967295", true}, {"maxBackupIndex", "4294967296", false},
      {"maxBackupIndex", "07", false}, {"layout", "BasicLayout", true},
      {"layout", "SimpleLayout", true}, {"layout", "PatternLayout", true},
      {"layout", "basiclayout", false}, {"layout", "XmlLayout", false},
      {"layout.ConversionPattern", "%d %m%n", true}, {"fileName", "/tmp/x.log", true},
      {"threshold", "WARN", false},
  };
  for (const auto& c : kCases) {
    LogAppender* a = LogAppender::find("attributes", true);
    EXPECT_EQ(c.ok, a->setAttribute(c.name, c.value, vars)) << c.name << "=" << c.value;
  }
}

TEST(LogAppender, SetAttributeStoresWhatItRead) {
  const std::map<Str, Pathname> vars = {{"KESTRO_HOME", "/opt/k"}, {"X", "x"}};
  LogAppender* a = LogAppender::find("stored", true);
  const struct { const char* value; const char* fileName; } kNames[] = {
      {"${KESTRO_HOME}/var/log/a.log", "/opt/k/var/log/a.log"},
      {"${X}${X}/${NOPE}/b", "xx/${NOPE}/b"},  // unknown keys stay as written
      {"${X", "${X"},
      {"$X/${}", "$X/${}"},
  };
  for (const auto& c : kNames) {
    ASSERT_TRUE(a->setAttribute("fileName", c.value, vars));
    EXPECT_EQ(c.fileName, a->fileName()) << c.value;
  }
  ASSERT_TRUE(a->setAttribute("maxFileSize", "123", vars));
  ASSERT_TRUE(a->setAttribute("maxBackupIndex", "7", vars));
  EXPECT_EQ(123u, a->maxFileSize());
  EXPECT_EQ(7u, a->maxBackupIndex());
  ASSERT_TRUE(a->setAttribute("layout", "SimpleLayout", vars));
  EXPECT_EQ("%-8p: %m%n", a->format()->pattern());
  ASSERT_TRUE(a->setAttribute("layout", "PatternLayout", vars));  // keeps it
  EXPECT_EQ("%-8p: %m%n", a->format()->pattern());
  ASSERT_TRUE(a->setAttribute("layout.ConversionPattern", "%c ${X}", vars));
  EXPECT_EQ("%c x", a->format()->pattern());
  EXPECT_FALSE(a->setAttribute("maxFileSize", "0x10", vars));
  EXPECT_EQ(123u, a->maxFileSize());  // a refused value changes nothing

  ASSERT_TRUE(a->setAttribute("fileName", "/v/log/k.log", kNoVariables));
  EXPECT_EQ("/v/log/k.log", a->filenameWithSuffix(0));
  EXPECT_EQ("/v/log/k.log.1", a->filenameWithSuffix(1));
  EXPECT_EQ("/v/log/k.log.12", a->filenameWithSuffix(12));
}

TEST(LogAppender, RotationKeepsExactlyMaxBackupIndexBackups) {
  TestTempDir dir;
  const Pathname file = dir / "app.log";
  LogAppender* a = makeAppender("rotating", file, "100", "3");
  std::vector<std::string> written;
  for (int i = 0; i < 200; ++i) {
    char line[16];
    std::snprintf(line, sizeof line, "line %03d", i);  // 9 bytes with the line feed
    written.push_back(line);
    writeLine(a, line);
  }
  EXPECT_TRUE(file.exists());
  for (unsigned n = 1; n <= 3; ++n) EXPECT_TRUE(a->filenameWithSuffix(n).exists()) << n;
  EXPECT_FALSE(a->filenameWithSuffix(4).exists());
  EXPECT_FALSE(a->filenameWithSuffix(0).isZeroLengthFile());
  // Oldest to newest, the files hold the last lines written, whole and in
  // order; each rotated file went just past the limit.
  std::vector<std::string> kept;
  for (unsigned n = 3; n >= 1; --n) {
    const size_t size = readTestFile(a->filenameWithSuffix(n)).size();
    EXPECT_GT(size, 100u) << n;
    EXPECT_LE(size, 109u) << n;
  }
  for (unsigned n = 4; n-- > 0;) {
    for (auto& l : linesOf(a->filenameWithSuffix(n))) kept.push_back(l);
  }
  ASSERT_FALSE(kept.empty());
  ASSERT_LE(kept.size(), written.size());
  const std::vector<std::string> tail(written.end() - kept.size(), written.end());
  EXPECT_EQ(tail, kept);
}

TEST(LogAppender, RotationWithNoBackupsStartsTheFileAfresh) {
  TestTempDir dir;
  const Pathname file = dir / "solo.log";
  LogAppender* a = makeAppender("noBackups", file, "50", "0");
  for (int i = 0; i < 30; ++i) writeLine(a, "0123456789");  // 11 bytes
  EXPECT_FALSE(a->filenameWithSuffix(1).exists());
  const std::string text = readTestFile(file);
  EXPECT_LE(text.size(), 50u);
  EXPECT_EQ(0u, text.size() % 11);
}

TEST(LogAppender, ZeroMaxFileSizeNeverRotates) {
  TestTempDir dir;
  const Pathname file = dir / "big.log";
  LogAppender* a = makeAppender("neverRotates", file, "0", "0");
  for (int i = 0; i < 1000; ++i) writeLine(a, "0123456789");
  EXPECT_EQ(11000u, readTestFile(file).size());
  EXPECT_FALSE(a->filenameWithSuffix(1).exists());
}

TEST(LogAppender, RotationFillsTheFirstFreeSuffix) {
  TestTempDir dir;
  const Pathname file = dir / "gap.log";
  LogAppender* a = makeAppender("gapped", file, "1000", "5");
  std::ofstream(std::string(a->filenameWithSuffix(3))) << "three\n";
  writeLine(a, "current");
  a->rotateFile(Timeval::now());
  EXPECT_EQ("current\n", readTestFile(a->filenameWithSuffix(1)));
  EXPECT_FALSE(a->filenameWithSuffix(2).exists());
  EXPECT_EQ("three\n", readTestFile(a->filenameWithSuffix(3)));  // untouched
  writeLine(a, "next");
  EXPECT_EQ("next\n", readTestFile(file));
}

TEST(LogAppender, NoticesAFileMovedAwayOrDeletedWithinFiveSeconds) {
  TestTempDir dir;
  const Pathname file = dir / "watched.log";
  const Pathname moved = dir / "moved.log";
  ScopedFixedClock clock(Timeval(1000000, 0));
  LogAppender* a = makeAppender("watched", file, "0", "0");
  writeLine(a, "a");
  ASSERT_TRUE(file.renameTo(moved));
  clock.set(Timeval(1000005, 0));  // not more than 5 s since the last check: not looked at
  writeLine(a, "b");
  clock.set(Timeval(1000006, 0));
  writeLine(a, "c");  // the path is gone: a new file
  EXPECT_EQ("a\nb\n", readTestFile(moved));
  EXPECT_EQ("c\n", readTestFile(file));

  ASSERT_TRUE(file.unlink());
  clock.set(Timeval(1000003, 0));  // the clock went back: checked at once
  writeLine(a, "d");
  EXPECT_EQ("d\n", readTestFile(file));

  // Replaced by another file under the same name: a different inode.
  ASSERT_TRUE(file.renameTo(moved));
  std::ofstream(std::string(file)) << "other\n";
  clock.set(Timeval(1000010, 0));
  writeLine(a, "e");
  EXPECT_EQ("other\ne\n", readTestFile(file));
}

TEST(LogAppender, LinesFromManyThreadsNeverInterleave) {
  TestTempDir dir;
  const Pathname file = dir / "threads.log";
  LogAppender* a = makeAppender("threaded", file, "65536", "1000");
  constexpr int kThreads = 8, kLines = 2000;
  const std::string payload(40, '=');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) {
        writeLine(a, "T" + std::to_string(t) + " " + std::to_string(i) + " " + payload);
      }
    });
  }
  for (auto& th : threads) th.join();

  // Read the backups oldest first, then the file: every line whole, every
  // thread's lines complete and in its own order.
  std::vector<std::string> lines;
  unsigned n = 1;
  while (a->filenameWithSuffix(n).exists()) ++n;
  while (n-- > 0) {
    for (auto& l : linesOf(a->filenameWithSuffix(n))) lines.push_back(l);
  }
  ASSERT_EQ(size_t(kThreads) * kLines, lines.size());
  int next[kThreads] = {};
  for (const std::string& l : lines) {
    int t = -1, i = -1;
    char rest[64] = {};
    ASSERT_EQ(3, std::sscanf(l.c_str(), "T%d %d %63s", &t, &i, rest)) << l;
    ASSERT_TRUE(t >= 0 && t < kThreads) << l;
    EXPECT_EQ(next[t], i) << l;
    EXPECT_EQ(payload, rest) << l;
    next[t] = i + 1;
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kLines, next[t]) << t;
}

TEST(LogAppender, AWriteErrorIsReportedElsewhereAndTheFileReopened) {
  ScopedLogCapture root(nullptr, "%p %c %m%n");
  LogAppender* a = makeAppender("full", "/dev/full", "0", "0");
  writeLine(a, "lost");
  writeLine(a, "lost too");
  const std::vector<std::string> lines = root.lines();
  ASSERT_EQ(2u, lines.size());  // once per closing: each line reopened
  for (const std::string& l : lines) {
    EXPECT_EQ("CRIT Logger Error writing to \"/dev/full\": No space left on device", l);
  }
}

TEST(LogAppender, FinalSetupSettlesTheConfiguration) {
  ScopedLogCapture root(nullptr, "%p %m%n");
  TestTempDir dir;
  const struct {
    const char* name;
    const char* fileName;  // null: none
    const char* maxFileSize;
    const char* maxBackupIndex;
    std::vector<std::string> reports;
  } kCases[] = {
      {"settledPlain", "ok.log", "10", "2", {}},
      {"settledNoFile", nullptr, "0", "0",
       {"WARN Appender \"settledNoFile\" has no filename, assuming stderr"}},
      {"settledNoFileLimits", nullptr, "10", "2",
       {"WARN Appender \"settledNoFileLimits\" has no filename, assuming stderr",
        "WARN Appender \"settledNoFileLimits\" has maxBackupIndex set without specifying a "
        "filename, ignoring",
        "WARN Appender \"settledNoFileLimits\" has maxFileSize set without specifying a filename, "
        "ignoring"}},
      {"settledNoSize", "nosize.log", "0", "4",
       {"WARN Appender \"settledNoSize\" has maxBackupIndex set without specifying maxFileSize, "
        "ignoring"}},
      {"settledBadPath", "missing/dir/x.log", "0", "0",
       {"ERROR Error opening \"" + std::string(dir.path()) +
        "/missing/dir/x.log\": No such file or directory"}},
  };
  size_t seen = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    LogAppender* a = LogAppender::find(c.name, true);
    if (c.fileName != nullptr) {
      ASSERT_TRUE(a->setAttribute("fileName", dir / c.fileName, kNoVariables));
    }
    ASSERT_TRUE(a->setAttribute("maxFileSize", c.maxFileSize, kNoVariables));
    ASSERT_TRUE(a->setAttribute("maxBackupIndex", c.maxBackupIndex, kNoVariables));
    a->finalSetup(c.name, true);
    const std::vector<std::string> lines = root.lines();
    ASSERT_GE(lines.size(), seen);
    EXPECT_EQ(c.reports, std::vector<std::string>(lines.begin() + seen, lines.end()));
    seen = lines.size();
    EXPECT_EQ("%m%n", a->format()->pattern());  // a missing format is the default
    EXPECT_FALSE(a->isDisabled());
    if (c.fileName == nullptr) {
      EXPECT_EQ(0u, a->maxFileSize());
      EXPECT_EQ(0u, a->maxBackupIndex());
    }
  }
  EXPECT_TRUE((dir / "ok.log").exists());  // opened once, so a bad path shows
  EXPECT_EQ(0u, LogAppender::find("settledNoSize", false)->maxBackupIndex());
}

TEST(LogAppender, TheRootPassWithNoFileDisables) {
  LogAppender* a = LogAppender::find("rootLike", true);
  a->finalSetup("rootLike", false);
  EXPECT_TRUE(a->isDisabled());
  writeLine(a, "nowhere");  // does nothing, and never touches a descriptor
}

}  // namespace
