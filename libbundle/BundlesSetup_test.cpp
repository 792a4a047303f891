#include "libbundle/BundlesSetup.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <regex>
#include <string>
#include <vector>

#include "libbundle/BundleHandlerData.h"
#include "libbundle/BundlesIterator.h"
#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfSettings.h"
#include "libbundle/GlobalConfSettings.h"
#include "libbundle/ScopedConfMutex.h"
#include "libbundle/UsernameMapper.h"
#include "libbundle/testing/BundleTree.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/ReaddirCache.h"
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
      {home, "$KESTRO_HOME"},  // the home itself
      {"$KESTRO_HOME/conf3", "$KESTRO_HOME/conf3"},  // substituted, then put back
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.unexpanded, BundlesSetup(Pathname(c.root)).getUnexpandedRoot()) << c.root;
  }
  const BundlesSetup other("$KESTRO_HOME/other");
  EXPECT_EQ(home / "other", other.getRoot());
  EXPECT_EQ(home / "other/apps", other.getApps());
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

TEST(ConfSettings, PoolingStanzaValues) {
  TestTempDir storage;
  BundleTree tree((std::string("[bootstrap]\nsystem/local = conf\n[pooling]\n"
                               "state = enabled\n"
                               "storage = $KESTRO_HOME/pool\n"
                               "lock.timeout = 90s\n"
                               "lock.logging = true\n"
                               "poll.interval.check = 2m\n"
                               "poll.interval.rebuild = 250ms\n"
                               "poll.blacklist.tmp = \\.tmp$\n"
                               "poll.blacklist.bad = (\n"
                               "poll.blacklist.swap = /\\.[^/]*\\.swp$\n"))
                      .c_str());
  ConfSettings cs(tree.setup());
  EXPECT_TRUE(cs.isPoolingEnabled());
  EXPECT_EQ(cs.getPoolingStorage(), InstallHome::home() / "pool");
  EXPECT_EQ(cs.getLockTimeout(), 90000u);
  EXPECT_TRUE(cs.shouldLogToSentinel());
  EXPECT_EQ(cs.getStatInterval(), 120000u);
  EXPECT_EQ(cs.getPollingInterval(), 250u);
  ScopedLogCapture log("ConfSettings");
  const struct {
    const char* path;
    bool watched;
  } kCases[] = {
      {"/r/apps/a/local/props.conf", true},
      {"/r/apps/a/local/props.conf.tmp", false},
      {"/r/apps/a/local/.props.conf.swp", false},
      {"/r/apps/a/local/tmp", true},
      {"/r/apps/a/local/x.tmpl", true},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(cs.shouldWatchPath(c.path), c.watched) << c.path;
    const std::string line = std::string(c.watched ? "Watching path for updates: "
                                                   : "Not watching blacklisted path for updates: ") +
                             c.path + "\n";
    EXPECT_NE(std::string::npos, log.text().find(line)) << line << log.text();
  }
}

TEST(ConfSettings, DisabledOrStoragelessIsNoPool) {
  const char* const kStanzas[] = {
      "[pooling]\nstate = disabled\nstorage = /x\n",
      "[pooling]\nstate = enabled\n",
      "[pooling]\nstate = enabled\nstorage = \n",
      "",
  };
  for (const char* st : kStanzas) {
    BundleTree tree((std::string("[bootstrap]\nsystem/local = conf\n") + st).c_str());
    ConfSettings cs(tree.setup());
    EXPECT_FALSE(cs.isPoolingEnabled()) << st;
    EXPECT_TRUE(cs.getPoolingStorage().empty()) << st;
    EXPECT_FALSE(cs.shouldLogToSentinel()) << st;
    EXPECT_EQ(tree.setup().getApps(), tree.path("apps")) << st;
  }
}

struct Owner {
  bool result;
  Str user;
  Str app;
  Pathname root;
};

Owner ownerOf(BundleTree& tree, const Pathname& path) {
  BundlesSetup setup = tree.setup();
  UsernameMapper names;
  ReaddirCache readdir;
  BundleHandlerData data(setup, path, IniStanza(), names, readdir);
  Owner o{};
  User user;
  o.result = get_user_app_from_path(data, o.root, user, o.app);
  o.user = user.name();
  return o;
}

TEST(UserAppFromPath, EachKindOfBundle) {
  BundleTree tree;
  const Pathname r = tree.root();
  const Str nobody = ConfPath::getDefaultUser().name();
  const struct {
    Pathname path;
    bool result;
    Str user;
    Str app;
    Pathname root;
  } kCases[] = {
      {r / "apps/search/local", true, nobody, "search", r / "apps/search"},
      {r / "apps/search/metadata/local.meta", true, nobody, "search", r / "apps/search"},
      {r / "apps/search", true, nobody, "search", r / "apps/search"},
      {r / "system/local", true, nobody, "system", r / "system"},
      {r / "system/metadata/default.meta", true, nobody, "system", r / "system"},
      {r / "users/alice/search/local", true, "alice", "search", r / "users/alice/search"},
      // The user directory is folded to lower case; the application is not.
      {r / "users/BoB/Search/local", true, "bob", "Search", r / "users/BoB/Search"},
      // Unsafe names live encoded under the reserved directory.
      {r / "users/_encoded/u612f62/search/local", true, "a/b", "search",
       r / "users/_encoded/u612f62/search"},
      {r / "users/_ENCODED/u612f62/search/local", true, "a/b", "search",
       r / "users/_ENCODED/u612f62/search"},
      {r / "bundles/local", true, nobody, "system", r / "bundles/local"},
  };
  for (const auto& c : kCases) {
    const Owner o = ownerOf(tree, c.path);
    EXPECT_EQ(o.result, c.result) << c.path;
    EXPECT_EQ(o.user, c.user) << c.path;
    EXPECT_EQ(o.app, c.app) << c.path;
    EXPECT_EQ(o.root, c.root) << c.path;
  }
}

TEST(UserAppFromPath, UndecodableSafeNameLeavesTheUserEmpty) {
  BundleTree tree;
  ScopedLogCapture log("BundleHandlerData");
  const Owner o = ownerOf(tree, tree.path("users/_encoded/notanencoding/search/local"));
  EXPECT_TRUE(o.user.empty()) << o.user;
  EXPECT_EQ(o.app, "search");
  EXPECT_NE(std::string::npos, log.text().find("Failed to look up real username for: ")) << log.text();
}

std::vector<Pathname> drain(BundlesIterator& it) {
  std::vector<Pathname> out;
  Pathname p;
  while (it.getNext(p)) out.push_back(p);
  // At the end the output is left alone.
  const Pathname before = p;
  EXPECT_FALSE(it.getNext(p));
  EXPECT_EQ(p, before);
  return out;
}

TEST(BundlesIterator, FirstRegisteredOrderEachPathOnce) {
  BundleTree tree;
  const BundlesSetup s = tree.setup();
  BundlesIterator::clearIteratorPaths(s);
  ScopedLogCapture log("BundlesIterator");
  const Pathname a = tree.path("system/local"), b = tree.path("apps/zeta/default"),
                 c = tree.path("apps/alpha/default");
  for (const Pathname& p : {b, a, b, c, a}) BundlesIterator::registerIteratorPath(s, p);
  BundlesIterator it(s);
  // The iterator walks a snapshot: a later registration is not in it.
  BundlesIterator::registerIteratorPath(s, tree.path("apps/late/default"));
  EXPECT_EQ(drain(it), (std::vector<Pathname>{b, a, c}));
  const std::string text = log.text();
  for (const Pathname& p : {a, b, c}) {
    const std::string line = "Registered iterator path: " + std::string(p);
    const size_t first = text.find(line);
    EXPECT_NE(first, std::string::npos) << line;
    EXPECT_EQ(text.find(line + "\n", first + 1), std::string::npos) << "logged twice: " << line;
  }
  // Another root has its own list.
  BundleTree other;
  BundlesIterator::clearIteratorPaths(other.setup());
  BundlesIterator none(other.setup());
  EXPECT_TRUE(drain(none).empty());
  BundlesIterator::clearIteratorPaths(s);
}

TEST(BundlesIterator, SkipsDisabledApplicationsOnly) {
  BundleTree tree;
  const BundlesSetup s = tree.setup();
  BundlesIterator::clearIteratorPaths(s);
  tree.put("apps/off/default/app.conf", "[install]\nstate = disabled\n");
  tree.put("apps/on/default/app.conf", "[install]\nstate = enabled\n");
  // The local file speaks for the application when it says anything.
  tree.put("apps/back/default/app.conf", "[install]\nstate = disabled\n");
  tree.put("apps/back/local/app.conf", "[install]\nstate = enabled\n");
  tree.put("other/off/x", "");
  const Pathname off = tree.path("apps/off"), on = tree.path("apps/on"),
                 back = tree.path("apps/back"), outside = tree.path("other/off");
  for (const Pathname& p : {off, on, back, outside}) BundlesIterator::registerIteratorPath(s, p);
  ScopedLogCapture log("BundlesIterator");
  BundlesIterator it(s);
  // A path outside the applications is never an application's.
  EXPECT_EQ(drain(it), (std::vector<Pathname>{on, back, outside}));
  EXPECT_NE(std::string::npos, log.text().find("Skipping path into disabled app: " + std::string(off)))
      << log.text();
  BundlesIterator::clearIteratorPaths(s);
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
