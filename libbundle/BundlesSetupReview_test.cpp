// The layout of a configuration root, who owns a bundle path, and the
// registered bundle lists that iterators walk.

#include "libbundle/BundlesSetup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "libbundle/BundleHandlerData.h"
#include "libbundle/BundlesIterator.h"
#include "libbundle/ConfPath.h"
#include "libbundle/ConfSettings.h"
#include "libbundle/UsernameMapper.h"
#include "libbundle/testing/BundleTree.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/ReaddirCache.h"
#include "util/testing/LogCapture.h"

namespace {

bool logHas(const ScopedLogCapture& log, const std::string& text) {
  return log.text().find(text) != std::string::npos;
}

// Points KESTRO_HOME at a fresh directory for the whole program, so that the
// default root is a directory we own.
class HomeEnv : public ::testing::Environment {
 public:
  void SetUp() override {
    ::setenv("KESTRO_HOME", std::string(_home.path()).c_str(), 1);
    LoaderInfo::getInstance().populateFromEnvironment();
  }
  TestTempDir _home;
};
HomeEnv* const gHome =
    static_cast<HomeEnv*>(::testing::AddGlobalTestEnvironment(new HomeEnv));

TEST(BundlesSetupIdentity, UnexpandedRootOfTheHomeItself) {
  const Pathname home = gHome->_home.path();
  const struct {
    Pathname root;
    Pathname want;
  } kCases[] = {
      {home, "$KESTRO_HOME"},  // the home itself
      {"$KESTRO_HOME/conf3", "$KESTRO_HOME/conf3"},  // substituted, then put back
  };
  for (const auto& c : kCases) EXPECT_EQ(BundlesSetup(c.root).getUnexpandedRoot(), c.want) << c.root;
}

TEST(BundlesSetupValidity, DefaultRootWithoutABootstrapFileIsInvalid) {
  // This program's install has no bootstrap file, so the default setup
  // fails, leaves no mappers, and every spelling of the root says so.
  EXPECT_FALSE(BundlesSetup(BundlesSetup::commonConfigPath()).valid());
  const BundlesSetup byDefault;
  EXPECT_FALSE(byDefault.valid());
  EXPECT_FALSE(BundlesSetup("$KESTRO_HOME/etc").valid());
  EXPECT_EQ(ConfPathMapperManager::instance().getMappers(byDefault).size(), 0u);
}

TEST(BundlesSetupIdentity, EnvironmentIsSubstitutedInAnyRoot) {
  const BundlesSetup s("$KESTRO_HOME/other");
  EXPECT_EQ(s.getRoot(), gHome->_home.path() / "other");
  EXPECT_EQ(s.getApps(), gHome->_home.path() / "other/apps");
}

TEST(ConfSettingsReview, PoolingStanzaValues) {
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
  EXPECT_EQ(cs.getPoolingStorage(), gHome->_home.path() / "pool");
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
    EXPECT_TRUE(logHas(log, line)) << line << log.text();
  }
}

TEST(ConfSettingsReview, DisabledOrStoragelessIsNoPool) {
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

// ----- whose bundle a path is -----

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
  EXPECT_TRUE(logHas(log, "Failed to look up real username for: ")) << log.text();
}

// ----- registered bundle lists -----

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
  EXPECT_TRUE(logHas(log, "Skipping path into disabled app: " + std::string(off))) << log.text();
  BundlesIterator::clearIteratorPaths(s);
}

}  // namespace
