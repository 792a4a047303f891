// Logger::initialize from configuration files, end to end. Initialising
// happens once per process, so each case runs in a child process of its own.
#include "util/Logger.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "util/testing/TestTempDir.h"

namespace {

std::string readFile(const Pathname& path) {
  std::ifstream in(std::string(path), std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  return all.str();
}

void writeFile(const Pathname& path, const std::string& text) {
  std::ofstream(std::string(path), std::ios::binary) << text;
}

// Runs `scenario` in a child whose standard error goes to `stderrFile`, and
// returns its exit status (-1 when it did not exit normally).
int runInChild(const std::function<int()>& scenario, const Pathname& stderrFile) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int fd = ::open(stderrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::dup2(fd, 2) < 0) ::_exit(100);
    ::_exit(scenario());
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(LoggerInitialize, ReadsTheFileAndItsLocalCompanion) {
  TestTempDir dir;
  const Pathname config = dir / "log.cfg";
  writeFile(config,
            "rootCategory = INFO, fileApp\n"
            "appender.fileApp.fileName = ${LOGDIR}/main.log\n"
            "appender.fileApp.layout = PatternLayout\n"
            "appender.fileApp.layout.ConversionPattern = %p %c %m%n\n"
            "category.InitQuiet = ERROR\n"
            "nonsense here\n");
  writeFile(dir / "log-local.cfg", "category.InitQuiet = DEBUG\n");
  const int status = runInChild(
      [&] {
        Logger pending("InitQuiet");  // made before the configuration
        if (!Logger::initialize(config, nullptr, {{"LOGDIR", dir.path()}}, true)) return 1;
        pending.debug("from pending");
        Logger other("InitOther");
        other.debug("hidden by the root's INFO");
        other.info("other");
        return 0;
      },
      dir / "stderr");
  ASSERT_EQ(0, status) << readFile(dir / "stderr");
  EXPECT_EQ("WARN Logger " + std::string(config) + ":6: Parse error at \"nonsense here\"\n" +
                "DEBUG InitQuiet from pending\n"
                "INFO InitOther other\n",
            readFile(dir / "main.log"));
  EXPECT_EQ("", readFile(dir / "stderr"));
}

TEST(LoggerInitialize, AMissingFileStillStartsLoggingOnStandardError) {
  TestTempDir dir;
  const Pathname config = dir / "absent.cfg";
  const int status = runInChild(
      [&] {
        if (Logger::initialize(config, nullptr, {}, true)) return 1;
        if (!Logger::isInitialized()) return 2;
        Logger("InitAfter").info("still logging");
        return 0;
      },
      dir / "stderr");
  ASSERT_EQ(0, status);
  EXPECT_EQ("Couldn't open log file configuration \"" + std::string(config) +
                "\": No such file or directory\nstill logging\n",
            readFile(dir / "stderr"));
}

TEST(LoggerInitialize, ASectionSelectsItsLines) {
  TestTempDir dir;
  const Pathname config = dir / "log.cfg";
  writeFile(config,
            "appender.rootAppender.layout.ConversionPattern = %c:%p %m%n\n"
            "[first]\n"
            "rootCategory = ERROR\n"
            "[Second]\n"
            "rootCategory = DEBUG\n");
  const int status = runInChild(
      [&] {
        Logger::initialize(config, "second", {}, true);
        Logger("InitSection").debug("shown");
        return 0;
      },
      dir / "stderr");
  ASSERT_EQ(0, status);
  EXPECT_EQ("InitSection:DEBUG shown\n", readFile(dir / "stderr"));
}

TEST(LoggerInitialize, UnlessQuietTheRootAppenderNeedsAFile) {
  TestTempDir dir;
  const Pathname config = dir / "log.cfg";
  writeFile(config, "rootCategory = DEBUG\n");
  const int status = runInChild(
      [&] {
        Logger::initialize(config, nullptr, {}, false);
        Logger("InitLoud").error("nowhere to go");
        return 0;
      },
      dir / "stderr");
  ASSERT_EQ(0, status);
  EXPECT_EQ("", readFile(dir / "stderr"));
}

TEST(LoggerInitialize, TheShippedCommandLineConfigurationShowsWarningsAndWorse) {
  TestTempDir dir;
  const Pathname shipped(
      (std::filesystem::path(__FILE__).parent_path().parent_path() / "home/etc/log-cmdline.cfg")
          .string());
  const int status = runInChild(
      [&] {
        if (!Logger::initialize(shipped, nullptr, {{"KESTRO_HOME", dir.path()}}, true)) return 1;
        Logger tool("DateParser");
        tool.debug("debug");
        tool.info("info");
        tool.warn("warn");
        tool.error("error");
        return 0;
      },
      dir / "stderr");
  ASSERT_EQ(0, status);
  EXPECT_EQ("WARN DateParser - warn\nERROR DateParser - error\n", readFile(dir / "stderr"));
}

}  // namespace
