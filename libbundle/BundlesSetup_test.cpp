#include "libbundle/BundlesSetup.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <regex>
#include <string>

#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfSettings.h"
#include "libbundle/GlobalConfSettings.h"
#include "libbundle/ScopedConfMutex.h"
#include "libbundle/testing/BundleTree.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/testing/LogCapture.h"

namespace {

// KESTRO_HOME for the whole binary: an install whose etc has the install's
// bootstrap file and one application.
class InstallHome : public ::testing::Environment {
 public:
  void SetUp() override {
    _dir = new TestTempDir;
    writeTestFile(home() / "etc/system/default/conf.conf",
                  readTestFile(Pathname(KESTRO_SOURCE_DIR) /
                               "home/etc/system/default/conf.conf"));
    writeTestFile(home() / "etc/apps/search/default/props.conf", "[s]\nk = v\n");
    setenv("KESTRO_HOME", home().c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  static Pathname home() { return _dir->path(); }

 private:
  static TestTempDir* _dir;
};
TestTempDir* InstallHome::_dir = nullptr;
const auto* const gInstall = ::testing::AddGlobalTestEnvironment(new InstallHome);

TEST(BundlesSetup, CommonConfigPathIsTheDefaultRoot) {
  const BundlesSetup dflt;
  const struct {
    std::string root;
  } kSpellings[] = {
      {InstallHome::home() / "etc"},
      {InstallHome::home() / "etc/"},
      {"$KESTRO_HOME/etc"},
      {"${KESTRO_HOME}//etc"},
  };
  for (const auto& c : kSpellings) {
    const BundlesSetup s{Pathname(c.root)};
    EXPECT_TRUE(s.isDefaultRoot()) << c.root;
    EXPECT_TRUE(s == dflt) << c.root;
    EXPECT_FALSE(s < dflt || dflt < s) << c.root;
    EXPECT_TRUE(s.valid()) << c.root;
  }
  EXPECT_EQ(InstallHome::home() / "etc", dflt.getRoot());
  EXPECT_EQ("$KESTRO_HOME/etc", dflt.getUnexpandedRoot());
  // The default root's mappers come from the install's own bootstrap file.
  auto m = ConfPathMapperManager::instance().getMappers(dflt);
  ASSERT_FALSE(m.isDone());
  EXPECT_EQ(InstallHome::home() / "etc/apps/search/default", m.data()->cpmPath());
}

TEST(BundlesSetup, UnexpandedRootReplacesOnlyAWholeLeadingHome) {
  const Pathname home = InstallHome::home();
  const struct {
    std::string root;
    std::string unexpanded;
  } kCases[] = {
      {home / "conf2", "$KESTRO_HOME/conf2"},
      {home + "x/etc", home + "x/etc"},  // the home's text, not its directory
      {"/elsewhere/etc", "/elsewhere/etc"},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.unexpanded, BundlesSetup(Pathname(c.root)).getUnexpandedRoot()) << c.root;
  }
}

TEST(BundlesSetup, EveryPathOfARootWithoutPooling) {
  BundleTree t;
  const BundlesSetup s = t.setup();
  const Pathname r = t.root();
  const struct {
    Pathname got;
    Pathname want;
  } kCases[] = {
      {s.getRoot(), r},
      {s.getSystem(), r / "system"},
      {s.getSystemDefault(), r / "system/default"},
      {s.getSystemLocal(), r / "system/local"},
      {s.getBootstrapConf(), r / "system/default/conf.conf"},
      {BundlesSetup::getFallbackBootstrapConf(),
       InstallHome::home() / "etc/system/default/conf.conf"},
      {s.getLegacy(), r / "bundles"},
      {s.getLegacyDefault(), r / "bundles/default"},
      {s.getPooledStorageOrRoot(), r},
      {s.getApps(), r / "apps"},
      {s.getUsers(), r / "users"},
      {s.getSentinel(), r / "apps/sentinel.txt"},
      {s.getLookupStagingArea(), r / "lookup_tmp"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, c.got);
  EXPECT_FALSE(s.isDefaultRoot());
  try {
    s.getPoolingInfo();
    FAIL() << "pooling info without a pool";
  } catch (const ConfPathException& e) {
    EXPECT_EQ("No pooling configured for: " + r, e.what());
  }
}

std::string poolingBootstrap(const Pathname& storage, const char* extra = "") {
  return "[bootstrap]\n${apps-base}/*/local = conf\n[writes]\n[pooling]\nstate = enabled\n"
         "storage = " + storage + "\nlock.timeout = 1ms\npoll.interval.check = 2s\n"
         "poll.interval.rebuild = 1m\npoll.blacklist.a = \\.swp$\npoll.blacklist.b = ([\n" +
         extra;
}

TEST(BundlesSetup, PoolingMovesApplicationsAndUsersToTheStorage) {
  TestTempDir pool;
  BundleTree t(poolingBootstrap(pool.path()).c_str());
  const BundlesSetup s = t.setup();
  EXPECT_EQ(pool.path() / "etc", s.getPooledStorageOrRoot());
  EXPECT_EQ(pool.path() / "etc/apps", s.getApps());
  EXPECT_EQ(pool.path() / "etc/users", s.getUsers());
  EXPECT_EQ(pool.path() / "etc/apps/sentinel.txt", s.getSentinel());
  EXPECT_EQ(pool.path() / "etc/pooling/pooling.ini", s.getPoolingInfo());
  EXPECT_EQ(pool.path() / "etc/lookup_tmp", s.getLookupStagingArea());
  EXPECT_EQ(t.root() / "system", s.getSystem());  // the system stays in the root
  const auto settings = ConfSettings::forSetup(s);
  EXPECT_TRUE(settings->isPoolingEnabled());
  EXPECT_EQ(1u, settings->getLockTimeout());
  EXPECT_EQ(2000u, settings->getStatInterval());
  EXPECT_EQ(60000u, settings->getPollingInterval());
  EXPECT_FALSE(settings->shouldLogToSentinel());
  // "([" does not compile and is ignored; the other one applies.
  EXPECT_FALSE(settings->shouldWatchPath("/x/local/props.conf.swp"));
  EXPECT_TRUE(settings->shouldWatchPath("/x/local/props.conf"));
}

TEST(ConfSettings, NonDefaultRootFallsBackOnTheInstallsBootstrap) {
  BundleTree t;
  t.path("system/default/conf.conf").unlink();
  const auto settings = ConfSettings::forSetup(t.setup());
  EXPECT_EQ(BundlesSetup::getFallbackBootstrapConf(), settings->bootstrapIni().path());
  EXPECT_NE(nullptr, settings->bootstrapIni().findStanza("bootstrap"));
  EXPECT_EQ(30000u, settings->getLockTimeout());  // the install's "30s"
}

TEST(ConfSettings, NoBootstrapAnywhereIsLoggedAndGivesDefaults) {
  BundleTree t;
  t.path("system/default/conf.conf").unlink();
  const Pathname fallback = BundlesSetup::getFallbackBootstrapConf();
  ASSERT_TRUE(fallback.renameTo(fallback + ".away"));
  ScopedLogCapture log("ConfSettings");
  const ConfSettings settings(t.setup());
  ASSERT_TRUE((fallback + ".away").renameTo(fallback));
  EXPECT_NE(std::string::npos,
            log.text().find("No bootstrap configuration available for: " + t.root()));
  EXPECT_FALSE(settings.isPoolingEnabled());
  EXPECT_EQ(ConfSettings::DEFAULT_LOCK_TIMEOUT_MSEC, settings.getLockTimeout());
}

TEST(ScopedConfMutex, DoesNothingWithoutPooling) {
  BundleTree t;
  {
    ScopedConfMutex lock(t.setup(), "writing");
    EXPECT_FALSE(lock.isLocked());
    ScopedConfMutex second(t.setup(), "writing too");  // no exclusion either
    EXPECT_FALSE(second.isLocked());
  }
  EXPECT_FALSE(t.setup().getSentinel().exists());
}

TEST(ScopedConfMutex, WithPoolingLocksTheSentinelAndLogsStartAndFinish) {
  TestTempDir pool;
  BundleTree t(poolingBootstrap(pool.path(), "lock.logging = true\n").c_str());
  GlobalConfSettings::setConfSystemGuid("guid-1");
  const Pathname sentinel = t.setup().getSentinel();
  {
    ScopedConfMutex lock(t.setup(), "writing props");
    EXPECT_TRUE(lock.isLocked());
    // Another holder, in this process or another, waits out the timeout.
    EXPECT_THROW(ScopedConfMutex(t.setup(), "second"), FileBasedMutexException);
    lock.logToLockedFile("in between");
  }
  const std::string text = readTestFile(sentinel);
  const std::regex shape(
      "\\[[^\\]]+\\] guid-1 starts writing props\n"
      "\\[[^\\]]+\\] guid-1 in between\n"
      "\\[[^\\]]+\\] guid-1 finishes writing props\n");
  EXPECT_TRUE(std::regex_match(text, shape)) << text;
  // Free again.
  ScopedConfMutex again(t.setup(), "third");
  EXPECT_TRUE(again.isLocked());
}

TEST(ScopedConfMutex, SentinelThatCannotBeOpenedIsLoggedAndIgnored) {
  TestTempDir pool;
  BundleTree t(poolingBootstrap(pool.path(), "lock.logging = true\n").c_str());
  const Pathname sentinel = t.setup().getSentinel();
  ASSERT_TRUE(sentinel.mkdir_p(Pathname::MKDIR_PRIVATE));
  ScopedLogCapture log("ScopedConfMutex");
  ScopedConfMutex::logToSentinelFile(t.setup(), "text");
  EXPECT_NE(std::string::npos,
            log.text().find("Cannot update sentinel file " + sentinel + " with debug info: Is a directory"))
      << log.text();
}

}  // namespace
