// Logger::initialize from configuration files, end to end. Initialising
// happens once per process, so each case runs in a child process of its own.
#include "util/Logger.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "util/testing/TestTempDir.h"

namespace {

// Each test writes its configuration to _config and runs a scenario in a
// child process whose standard error goes to a file.
class LoggerInitialize : public ::testing::Test {
 protected:
  // The child's standard error; a failure when it does not exit with 0.
  std::string stderrOf(const std::function<int()>& scenario) {
    const Pathname stderrFile = _dir / "stderr";
    const pid_t pid = ::fork();
    if (pid == 0) {
      const int fd = ::open(stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || ::dup2(fd, 2) < 0) ::_exit(100);
      ::_exit(scenario());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readTestFile(stderrFile);
    return readTestFile(stderrFile);
  }

  TestTempDir _dir;
  const Pathname _config = _dir / "log.cfg";
};

TEST_F(LoggerInitialize, ReadsTheFileAndItsLocalCompanion) {
  writeTestFile(_config,
                "rootCategory = INFO, fileApp\n"
                "appender.fileApp.fileName = ${LOGDIR}/main.log\n"
                "appender.fileApp.layout = PatternLayout\n"
                "appender.fileApp.layout.ConversionPattern = %p %c %m%n\n"
                "category.InitQuiet = ERROR\n"
                "nonsense here\n");
  writeTestFile(_dir / "log-local.cfg", "category.InitQuiet = DEBUG\n");
  EXPECT_EQ("", stderrOf([&] {
              Logger pending("InitQuiet");  // made before the configuration
              if (!Logger::initialize(_config, nullptr, {{"LOGDIR", _dir.path()}}, true)) return 1;
              pending.debug("from pending");
              Logger other("InitOther");
              other.debug("hidden by the root's INFO");
              other.info("other");
              return 0;
            }));
  EXPECT_EQ("WARN Logger " + std::string(_config) + ":6: Parse error at \"nonsense here\"\n" +
                "DEBUG InitQuiet from pending\n"
                "INFO InitOther other\n",
            readTestFile(_dir / "main.log"));
}

TEST_F(LoggerInitialize, AMissingFileStillStartsLoggingOnStandardError) {
  EXPECT_EQ("Couldn't open log file configuration \"" + std::string(_config) +
                "\": No such file or directory\nstill logging\n",
            stderrOf([&] {
              if (Logger::initialize(_config, nullptr, {}, true)) return 1;
              if (!Logger::isInitialized()) return 2;
              Logger("InitAfter").info("still logging");
              return 0;
            }));
}

TEST_F(LoggerInitialize, ASectionSelectsItsLines) {
  writeTestFile(_config,
                "appender.rootAppender.layout.ConversionPattern = %c:%p %m%n\n"
                "[first]\n"
                "rootCategory = ERROR\n"
                "[Second]\n"
                "rootCategory = DEBUG\n");
  EXPECT_EQ("InitSection:DEBUG shown\n", stderrOf([&] {
              Logger::initialize(_config, "second", {}, true);
              Logger("InitSection").debug("shown");
              return 0;
            }));
}

TEST_F(LoggerInitialize, UnlessQuietTheRootAppenderNeedsAFile) {
  writeTestFile(_config, "rootCategory = DEBUG\n");
  EXPECT_EQ("", stderrOf([&] {
              Logger::initialize(_config, nullptr, {}, false);
              Logger("InitLoud").error("nowhere to go");
              return 0;
            }));
}

TEST_F(LoggerInitialize, TheShippedCommandLineConfigurationShowsWarningsAndWorse) {
  const Pathname shipped(
      (std::filesystem::path(KESTRO_SOURCE_DIR) / "home/etc/log-cmdline.cfg")
          .string());
  EXPECT_EQ("WARN DateParser - warn\nERROR DateParser - error\n", stderrOf([&] {
              if (!Logger::initialize(shipped, nullptr, {{"KESTRO_HOME", _dir.path()}}, true)) {
                return 1;
              }
              Logger tool("DateParser");
              tool.debug("debug");
              tool.info("info");
              tool.warn("warn");
              tool.error("error");
              return 0;
            }));
}

}  // namespace
