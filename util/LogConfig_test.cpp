#include "util/LogConfig.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "util/LogAppender.h"
#include "util/testing/LogCapture.h"
#include "util/LogChannel.h"
#include "util/LogFormat.h"
#include "util/testing/IconvOracle.h"
#include "util/testing/TestTempDir.h"

namespace {

const std::map<Str, Pathname> kNoVariables;

// Puts the root channel back as it was after a test that configures it.
class ScopedRootChannel {
 public:
  ScopedRootChannel()
      : _level(LogChannel::root().level()), _appenders(LogChannel::root().appenders()) {}
  ~ScopedRootChannel() {
    LogChannel::root().setLevel(static_cast<LogLevel>(_level));
    LogChannel::root().setAppenders(_appenders);
  }

 private:
  int _level;
  std::vector<LogAppender*> _appenders;
};

// "line:kind" for each error, kind P (parse) or U (unterminated comment).
std::vector<std::string> errorSummary(const LogConfigReader& reader) {
  std::vector<std::string> out;
  for (const auto& e : reader.errors()) {
    out.push_back(std::to_string(e.line) + (e.unterminatedComment ? ":U" : ":P"));
  }
  return out;
}

TEST(LogConfigReader, LocalCompanionNames) {
  const struct { const char* config; const char* local; } kCases[] = {
      {"etc/log-cmdline.cfg", "etc/log-cmdline-local.cfg"},
      {"/k/etc/log.cfg", "/k/etc/log-local.cfg"},
      {"/k/etc/log", "/k/etc/log-local"},
      {"/k/a.b/log", "/k/a.b/log-local"},  // a dot in a directory is not the leaf's
      {"log.tar.cfg", "log.tar-local.cfg"},  // the last dot
      {".cfg", "-local.cfg"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.local, LogConfigReader::localCompanion(c.config)) << c.config;
  }
}

TEST(LogConfigReader, FindsParseErrorsByLine) {
  const struct { const char* name; const char* text; std::vector<std::string> errors; } kCases[] = {
      {"empty", "", {}},
      {"comments and blanks", "# a comment\n\n   \t\n  # indented\n", {}},
      {"trailing comment", "category.CfgA = INFO # and why\n", {}},
      {"unknown key", "\nfoo = bar\n", {"2:P"}},
      {"root without =", "rootCategory WARN\n", {"1:P"}},
      {"root with blanks before =", "rootCategory   = WARN\n", {}},
      {"appender without attribute or =", "appender.CfgB\n", {"1:P"}},
      {"bare appender with =", "appender.CfgB =\n", {}},
      {"appender without a name", "appender..fileName = x\n", {"1:P"}},
      {"unknown attribute", "appender.CfgB.colour = red\n", {"1:P"}},
      {"attribute without =", "appender.CfgB.maxFileSize 10\n", {"1:P"}},
      {"bad number", "appender.CfgB.maxFileSize = 010\n", {"1:P"}},
      {"good attribute", "appender.CfgB.maxFileSize = 10\n", {}},
      {"unterminated section", "[oops\n", {"1:P"}},
      {"keyword needs its dot", "category = INFO\nappender = x\n", {"1:P", "2:P"}},
      {"xml comment on one line", "<!-- all of it -->\n", {}},
      {"xml comment inside a line", "category.<!-- x -->CfgC = INFO\n", {}},
      {"xml comment over lines", "<!-- one\nfoo = bar\n-->\nfoo\n", {"4:P"}},
      {"unterminated xml comment", "ok.no\n\n<!-- never closed\nfoo\n", {"1:P", "3:U"}},
      {"hash cuts a comment opener", "# <!--\nfoo\n", {"2:P"}},
      {"crlf line ends", "category.CfgD = INFO\r\nbad\r\n", {"2:P"}},
      {"last line without a line feed", "bad", {"1:P"}},
  };
  for (const auto& c : kCases) {
    LogConfigReader reader(nullptr, kNoVariables);
    reader.readText("t.cfg", c.text);
    EXPECT_EQ(c.errors, errorSummary(reader)) << c.name;
  }
}

TEST(LogConfigReader, SectionsSelectLines) {
  const char* text =
      "category.SecAll = ERROR\n"
      "[server]\n"
      "category.SecServer = DEBUG\n"
      "nonsense in server\n"
      "[other]\n"
      "category.SecOther = DEBUG\n"
      "nonsense in other\n"
      "[SERVER]\n"
      "category.SecServer2 = INFO\n";
  {
    LogConfigReader reader("Server", kNoVariables);
    reader.readText("s.cfg", text);
    reader.applyChannels();
    EXPECT_EQ(std::vector<std::string>({"4:P"}), errorSummary(reader));
    EXPECT_EQ(LOGLEVEL_ERROR, LogChannel::find("SecAll")->level());
    EXPECT_EQ(LOGLEVEL_DEBUG, LogChannel::find("SecServer")->level());
    EXPECT_EQ(LOGLEVEL_INFO, LogChannel::find("SecServer2")->level());
    EXPECT_FALSE(LogChannel::find("SecOther")->isLevelExplicit());
  }
  {
    // Without a section name every line counts.
    LogConfigReader reader(nullptr, kNoVariables);
    reader.readText("s.cfg", text);
    reader.applyChannels();
    EXPECT_EQ(std::vector<std::string>({"4:P", "7:P"}), errorSummary(reader));
    EXPECT_EQ(LOGLEVEL_DEBUG, LogChannel::find("SecOther")->level());
    EXPECT_TRUE(LogChannel::find("SecOther")->isLevelExplicit());
  }
}

TEST(LogConfigReader, AppliesRootThenCategoriesAndLaterLinesWin) {
  ScopedRootChannel keepRoot;
  TestTempDir dir;
  const std::map<Str, Pathname> vars = {{"LOGDIR", dir.path()}};
  LogConfigReader reader(nullptr, vars);
  reader.readText("a.cfg",
                  "appender.CfgFile.fileName = ${LOGDIR}/a.log\n"
                  "appender.CfgFile.layout.ConversionPattern = %p %c: %m%n\n"
                  "rootCategory = ERROR\n"
                  "rootCategory = WARN, nosuchappender\n"  // the last one wins
                  "category.CfgLevels = DEBUG\n"
                  "category.CfgLevels = INFO, CfgFile\n"
                  "category.CfgBad = LOUD\n"
                  "category.CfgNoEquals\n"
                  "category.CfgTwo \t= NOTICE,CfgFile,rootAppender\n");
  EXPECT_TRUE(reader.errors().empty());
  reader.applyChannels();
  EXPECT_EQ(std::vector<std::string>({"4:P", "7:P", "8:P"}), errorSummary(reader));
  EXPECT_EQ(LOGLEVEL_WARN, LogChannel::root().level());  // the level stands
  LogAppender* file = LogAppender::find("CfgFile", false);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(dir / "a.log", file->fileName());
  EXPECT_EQ("%p %c: %m%n", file->format()->pattern());
  LogChannel* levels = LogChannel::find("CfgLevels");
  EXPECT_EQ(LOGLEVEL_INFO, levels->level());
  EXPECT_EQ(std::vector<LogAppender*>({file}), levels->appenders());
  LogChannel* two = LogChannel::find("CfgTwo");
  EXPECT_EQ(LOGLEVEL_NOTICE, two->level());
  EXPECT_EQ(std::vector<LogAppender*>({file, &LogAppender::root()}), two->appenders());
  EXPECT_EQ(reader.errors()[0].text, "rootCategory = WARN, nosuchappender");
}

TEST(LogConfigReader, ReportsErrorsOnceTheLoggingSystemIsUp) {
  LogConfigReader reader(nullptr, kNoVariables);
  reader.readText("/k/etc/log.cfg", "bad line = 1\n<!-- open\n");
  ScopedLogCapture root(nullptr, "%p %m%n");
  reader.reportErrors();
  EXPECT_EQ(std::vector<std::string>(
                {"WARN /k/etc/log.cfg:1: Parse error at \"bad line = 1\"",
                 "ERROR /k/etc/log.cfg:2: Unterminated XML comment started"}),
            root.lines());
}

TEST(LogConfigReader, ReadsFilesWithOrWithoutAByteOrderMark) {
  TestTempDir dir;
  const Pathname plain = dir / "plain.cfg", marked = dir / "marked.cfg";
  std::ofstream(std::string(plain)) << "category.BomPlain = ERROR\n";
  std::ofstream(std::string(marked)) << "\xEF\xBB\xBF" << "category.BomMarked = ERROR\nbad\n";
  LogConfigReader reader(nullptr, kNoVariables);
  ASSERT_TRUE(reader.readFile(plain));
  ASSERT_TRUE(reader.readFile(marked));
  reader.applyChannels();
  EXPECT_EQ(LOGLEVEL_ERROR, LogChannel::find("BomPlain")->level());
  EXPECT_EQ(LOGLEVEL_ERROR, LogChannel::find("BomMarked")->level());
  ASSERT_EQ(1u, reader.errors().size());
  EXPECT_EQ(marked, reader.errors()[0].file);
  EXPECT_EQ(2u, reader.errors()[0].line);

  errno = 0;
  EXPECT_FALSE(reader.readFile(dir / "absent.cfg"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(1u, reader.errors().size());  // nothing recorded for a missing file
}

TEST(LogConfigReader, ReadsUtf16AndUtf32FilesThatCarryAMark) {
  const struct {
    const char* encoding;
    const char* mark;
    size_t markLen;
  } kCases[] = {
      {"UTF-16LE", "\xFF\xFE", 2},
      {"UTF-16BE", "\xFE\xFF", 2},
      {"UTF-32LE", "\xFF\xFE\0\0", 4},
      {"UTF-32BE", "\0\0\xFE\xFF", 4},
  };
  TestTempDir dir;
  for (const auto& c : kCases) {
    const std::string channel = std::string("Wide") + c.encoding;
    const Pathname path = dir / (channel + ".cfg");
    writeTestFile(path, std::string(c.mark, c.markLen) +
                            iconvFromUtf8("# caf\xC3\xA9\r\ncategory." + channel +
                                              " = CRIT\r\nno good\r\n",
                                          c.encoding));
    LogConfigReader reader(nullptr, kNoVariables);
    ASSERT_TRUE(reader.readFile(path)) << c.encoding;
    reader.applyChannels();
    EXPECT_EQ(LOGLEVEL_CRIT, LogChannel::find(Str(channel))->level()) << c.encoding;
    EXPECT_EQ(std::vector<std::string>{"3:P"}, errorSummary(reader)) << c.encoding;
    ASSERT_EQ(1u, reader.errors().size());
    EXPECT_EQ("no good", reader.errors()[0].text) << c.encoding;
  }
}

TEST(LogConfigReader, DropsTheFormatsOldKeyPrefix) {
  ScopedRootChannel keepRoot;
  TestTempDir dir;
  const Pathname path = dir / "prefixed.cfg";
  writeTestFile(path,
                "log4cpp.rootCategory = DEBUG\n"
                "log4cpp.category.PrefixedChannel = ERROR\n"
                "log4cpp.appender.prefixed.fileName = " + std::string(dir / "p.log") + "\n"
                "log4cpp.appender.prefixed.layout = PatternLayout\n"
                "log4cpp.appender.prefixed.layout.ConversionPattern = %p %m%n\n"
                "category.PrefixedToo = WARN, prefixed\n"
                "log4cpp.nonsense = 1\n"
                "log4cpp.log4cpp.category.Twice = ERROR\n");
  LogConfigReader reader(nullptr, kNoVariables);
  ASSERT_TRUE(reader.readFile(path));
  reader.applyChannels();
  EXPECT_EQ(LOGLEVEL_DEBUG, LogChannel::root().level());
  EXPECT_EQ(LOGLEVEL_ERROR, LogChannel::find("PrefixedChannel")->level());
  EXPECT_EQ(LOGLEVEL_WARN, LogChannel::find("PrefixedToo")->level());
  EXPECT_EQ(std::vector<LogAppender*>({LogAppender::find("prefixed", false)}),
            LogChannel::find("PrefixedToo")->appenders());
  // Only one prefix goes; errors quote the line as it was written.
  EXPECT_EQ(std::vector<std::string>({"7:P", "8:P"}), errorSummary(reader));
  ASSERT_EQ(2u, reader.errors().size());
  EXPECT_EQ("log4cpp.nonsense = 1", reader.errors()[0].text);
}

TEST(LogConfigReader, TheShippedCommandLineConfigurationParsesCleanly) {
  ScopedRootChannel keepRoot;
  const std::filesystem::path shipped =
      std::filesystem::path(KESTRO_SOURCE_DIR) / "home/etc/log-cmdline.cfg";
  LogConfigReader reader(nullptr, {{"KESTRO_HOME", "/opt/kestro"}});
  ASSERT_TRUE(reader.readFile(Pathname(shipped.string())));
  reader.applyChannels();
  EXPECT_TRUE(reader.errors().empty());
  EXPECT_EQ(LOGLEVEL_WARN, LogChannel::root().level());
  EXPECT_EQ(std::vector<LogAppender*>({&LogAppender::root()}), LogChannel::root().appenders());
}

}  // namespace
