#include "loaderinfo/SetupHelper.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "loaderinfo/LoaderInfo.h"
#include "util/Logger.h"
#include "util/testing/TestTempDir.h"

namespace {

// Each case runs in a child of its own: initCommon starts logging, which
// happens once per process.
TEST(SetupHelperDeathTest, WithoutAHomeItStopsWithStatus255) {
  for (const char* value : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EXIT(
        {
          if (value == nullptr) unsetenv("KESTRO_HOME"); else setenv("KESTRO_HOME", value, 1);
          SetupHelper::initCommon(false, nullptr);
          std::exit(0);
        },
        testing::ExitedWithCode(255), "^KESTRO_HOME must be set.  Stopping.\n$");
    EXPECT_EXIT(
        {
          if (value == nullptr) unsetenv("KESTRO_HOME"); else setenv("KESTRO_HOME", value, 1);
          SetupHelper::initCommon(std::map<Str, Pathname>{{Str("KESTRO_HOME"), "/x"}}, true,
                                  "other.cfg");
          std::exit(0);
        },
        testing::ExitedWithCode(255), "^KESTRO_HOME must be set.  Stopping.\n$");
  }
}

TEST(SetupHelperDeathTest, SaysWhichLoggingConfigurationItReadsUnlessQuiet) {
  TestTempDir dir;
  const std::string home = dir.path() / "home";
  writeTestFile(dir.path() / "home/etc/log-probe.cfg", "rootCategory=WARN\n");
  EXPECT_EXIT(
      {
        setenv("KESTRO_HOME", (home + "//").c_str(), 1);
        SetupHelper::initCommon(false, "log-probe.cfg");
        const bool ok = Logger::isInitialized() && LoaderInfo::getInstance().getKestroHome() == home;
        std::exit(ok ? 3 : 4);
      },
      testing::ExitedWithCode(3), "^Using logging configuration at " + home + "/etc/log-probe.cfg.\n$");
  EXPECT_EXIT(
      {
        setenv("KESTRO_HOME", home.c_str(), 1);
        SetupHelper::initCommon(true, "log-probe.cfg");
        std::exit(Logger::isInitialized() ? 3 : 4);
      },
      testing::ExitedWithCode(3), "^$");
  // Without a name, the command-line file; the root as home gives no
  // doubled separator (and no file there, which is said after).
  writeTestFile(dir.path() / "home/etc/log-cmdline.cfg", "rootCategory=WARN\n");
  for (const std::string& h : {home, std::string("/")}) {
    const std::string file = (h == "/" ? "" : h) + "/etc/log-cmdline.cfg";
    EXPECT_EXIT(
        {
          setenv("KESTRO_HOME", h.c_str(), 1);
          SetupHelper::initCommon(false, nullptr);
          std::exit(LoaderInfo::getInstance().getKestroHome() == h ? 3 : 4);
        },
        testing::ExitedWithCode(3), "^Using logging configuration at " + file + "\\.\n");
  }
}

}  // namespace
