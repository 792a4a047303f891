#include "util/Logger.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "util/HashedStr.h"
#include "util/LogAudit.h"
#include "util/testing/LogCapture.h"
#include "util/LogChannel.h"
#include "util/testing/TestTempDir.h"

namespace {

// Points descriptor 2 at a file of a temporary directory while it lives.
class ScopedStderrCapture {
 public:
  ScopedStderrCapture() : _saved(::dup(2)) {
    const int fd = ::open((_dir / "stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, 2);
    ::close(fd);
  }
  ~ScopedStderrCapture() {
    ::dup2(_saved, 2);
    ::close(_saved);
  }
  std::string text() const { return readTestFile(_dir / "stderr"); }

 private:
  TestTempDir _dir;
  int _saved;
};

// What happened before Logger::initialize(), recorded by the environment
// below and checked by the tests.
std::string gEarlyOutput;    // a logger used before its constructor ran
std::string gPendingOutput;  // a constructed logger before initialize()

extern Logger gLateLogger;
// Static initialisation runs in the order of definition: this uses
// gLateLogger before its constructor.
const bool gUsedEarly = [] {
  ScopedStderrCapture capture;
  gLateLogger.warn("early %d", 1);
  gEarlyOutput = capture.text();
  return true;
}();
Logger gLateLogger("LateLogger");
Logger gLogger("LoggerTest");

class BeforeInitialize : public ::testing::Environment {
 public:
  void SetUp() override {
    ScopedStderrCapture capture;
    gLogger.info("pending %s", "info");
    gLogger.debug("pending debug");  // below the root's INFO
    gPendingOutput = capture.text();
    Logger::initialize();
  }
};
const auto* const gEnvironment = ::testing::AddGlobalTestEnvironment(new BeforeInitialize);

TEST(Logger, ALoggerUsedBeforeItsConstructorWritesStraightToStandardError) {
  EXPECT_TRUE(gUsedEarly);
  EXPECT_EQ("WARN - early 1\n", gEarlyOutput);
}

TEST(Logger, PendingLoggersUseTheRootChannelUntilInitialized) {
  EXPECT_EQ("pending info\n", gPendingOutput);  // root appender, "%m%n"
  EXPECT_TRUE(Logger::isInitialized());
  EXPECT_EQ(LogChannel::find("LoggerTest"), gLogger.channel());
  EXPECT_NE(&LogChannel::root(), gLogger.channel());
  Logger later("LoggerMadeLater");
  EXPECT_EQ(LogChannel::find("LoggerMadeLater"), later.channel());
}

TEST(Logger, LevelsFilterEachForm) {
  ScopedLogCapture capture("LoggerTest");
  LogChannel* ch = LogChannel::find("LoggerTest");
  ch->setLevel(LOGLEVEL_WARN);
  gLogger.debug("d");
  gLogger.info("i");
  gLogger.warn("w");
  gLogger.error("e");
  gLogger.crit("c");
  gLogger.fatal("f");
  gLogger.log(LOGLEVEL_NOTICE, "n");
  gLogger.log(LOGLEVEL_EMERG, "m");
  gLogger.info() << "stream info";
  gLogger.error() << "stream error";
  gLogger.info(std::runtime_error("exc info"));
  gLogger.fatal(std::runtime_error("exc fatal"));
  EXPECT_FALSE(gLogger.isDebugEnabled());
  EXPECT_TRUE(gLogger.isEnabled(LOGLEVEL_WARN));
  EXPECT_FALSE(gLogger.isEnabled(LOGLEVEL_NOTICE));
  EXPECT_EQ(std::vector<std::string>({"WARN w", "ERROR e", "CRIT c", "FATAL f", "EMERG m",
                                      "ERROR stream error", "FATAL exc fatal"}),
            capture.lines());
}

TEST(Logger, ErrnoIsTheSameAfterEveryKindOfCall) {
  // One failing appender among them: the write error inside must not leak.
  ScopedLogCapture capture("LoggerTest");
  ScopedLogCapture reports(nullptr);
  LogAppender* full = LogAppender::find("loggerTestFull", true);
  ASSERT_TRUE(full->setAttribute("fileName", "/dev/full", {}));
  LogChannel* ch = LogChannel::find("LoggerTest");
  ch->setAppenders({ch->appenders()[0], full});
  const struct { const char* name; std::function<void()> call; } kCases[] = {
      {"printf", [] { gLogger.warn("x %d", 1); }},
      {"printf with %m", [] { gLogger.warn("open: %m"); }},
      {"disabled printf", [] { gLogger.debug("x"); }},
      {"stream", [] { gLogger.warn() << "x" << 1; }},
      {"exception", [] { gLogger.error(std::runtime_error("x")); }},
      {"format", [] {
         Str s;
         Logger::format(s, ENOENT, "%m");
       }},
      {"audit", [] { gLogger.auditInfo("who=%s", "me"); }},
  };
  for (const auto& c : kCases) {
    errno = EXDEV;
    c.call();
    EXPECT_EQ(EXDEV, errno) << c.name;
  }
  EXPECT_EQ("WARN open: Invalid cross-device link", capture.lines()[1]);
  EXPECT_EQ(6u, reports.lines().size());  // every enabled call met the full device
}

TEST(Logger, FormatRewritesPercentMWithTheErrorText) {
  const struct { int errnum; const char* fmt; const char* want; } kCases[] = {
      {ENOENT, "open: %m", "open: No such file or directory"}, {0, "%m", "Success"},
      {EACCES, "%m and %m", "Permission denied and Permission denied"},
      {ENOENT, "%%m stays", "%m stays"}, {ENOENT, "100%% %m", "100% No such file or directory"},
      {ENOENT, "no directive", "no directive"}, {123456, "%m", "Unknown error 123456"},
  };
  for (const auto& c : kCases) {
    Str out("old");
    EXPECT_EQ(c.want, Logger::format(out, c.errnum, c.fmt)) << c.fmt;
  }
  Str out;
  errno = EPERM;
  EXPECT_EQ("5 Operation not permitted", Logger::format(out, "%d %m", 5));
}

// Counts how often it is printed: a disabled stream must not print it.
struct Probe {
  int* printed;
};
std::ostream& operator<<(std::ostream& os, const Probe& p) {
  ++*p.printed;
  return os << "probe";
}

TEST(LoggerStream, ADisabledLevelFormatsNothing) {
  ScopedLogCapture capture("LoggerTest");
  LogChannel::find("LoggerTest")->setLevel(LOGLEVEL_INFO);
  int printed = 0;
  gLogger.debug() << "a" << Probe{&printed} << 1.5 << Probe{&printed};
  EXPECT_EQ(0, printed);
  EXPECT_FALSE(gLogger.debug().isEnabled());
  gLogger.info() << "a " << Probe{&printed};
  EXPECT_EQ(1, printed);
  EXPECT_EQ(std::vector<std::string>({"INFO a probe"}), capture.lines());
}

TEST(LoggerStream, InsertsEachType) {
  ScopedLogCapture capture("LoggerTest", "%m%n");
  static const HashedStr key("hashed");  // never freed, by design
  const char* nullText = nullptr;
  gLogger.warn() << "c" << Str("S") << StrSegment("seg") << key << std::string("std") << '!';
  gLogger.warn() << -5 << ' ' << -6L << ' ' << -7LL << ' ' << 8u << ' ' << 9UL << ' '
                 << 18446744073709551615ULL;
  gLogger.warn() << 1.5 << ' ' << 1e20 << ' ' << nullText << ' ' << true;
  gLogger.warn();  // an empty message is a message
  EXPECT_EQ(std::vector<std::string>({"cSseghashedstd!", "-5 -6 -7 8 9 18446744073709551615",
                                      "1.5 1e+20 (null) 1", ""}),
            capture.lines());
}

TEST(Logger, ChannelLevelsAtRunTime) {
  EXPECT_TRUE(Logger::setChannelLevel("LoggerRuntime", "ERROR"));
  EXPECT_FALSE(Logger::setChannelLevel("LoggerRuntime", "error"));
  EXPECT_FALSE(Logger::setChannelLevel("LoggerRuntime", "VERBOSE"));
  std::map<Str, Str> all;
  Logger::getAllChannels(all);
  EXPECT_EQ("ERROR", all["LoggerRuntime"]);
  EXPECT_EQ(1u, all.count("LoggerTest"));
}

class FixedSigner : public MAuditSigner {
 public:
  bool sign(const Str& text, Str* signature) const override {
    *signature = "sig(" + text + ")";
    return true;
  }
};
class RefusingSigner : public MAuditSigner {
 public:
  bool sign(const Str&, Str*) const override { return false; }
};

TEST(Logger, AuditRecords) {
  ScopedLogCapture capture("LoggerTest");
  LogChannel::find("LoggerTest")->setLevel(LOGLEVEL_INFO);
  const FixedSigner signer;
  const RefusingSigner refusing;
  gLogger.auditInfo(&signer, "action=login");
  gLogger.auditInfo(&refusing, "action=logout");
  gLogger.auditInfo("user=%s", "admin");
  gLogger.auditInfo(std::runtime_error("failed"));
  EXPECT_EQ(std::vector<std::string>(
                {"INFO Audit:[action=login, signature=sig(action=login)]",
                 "INFO Audit:[action=logout, signature=encryption error - not valid]",
                 "INFO Audit:[user=admin, signature=encryption error - not valid]",
                 "INFO Audit:[failed, signature=encryption error - not valid]"}),
            capture.lines());
}

TEST(LoggerDeathTest, InitializeRunsOnce) {
  EXPECT_DEATH(Logger::initialize(), "Assertion failed: !logger_initialized");
}

}  // namespace
