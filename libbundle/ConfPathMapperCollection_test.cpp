#include "libbundle/ConfPathMapperCollection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "libbundle/BundlesIterator.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/GlobalConfSettings.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/LogCapture.h"

namespace {

// Puts the process-wide switches back however a test ends.
struct ScopedGlobalSettings {
  ~ScopedGlobalSettings() {
    GlobalConfSettings::clearWhitelists();
    GlobalConfSettings::setUseAllConfData(true);
    GlobalConfSettings::setUserRestrictionPattern("*");
  }
};

// The install tree that most tests read: system, three applications (one
// disabled, one hidden), two users (one in mixed case, one whose name is
// no directory name), and legacy bundles, one of them overridden.
void buildInstall(const BundleTree& t) {
  const char* props = "[syslog]\nTZ = UTC\n";
  for (const char* rel :
       {"system/default/props.conf", "system/local/props.conf", "apps/search/default/props.conf",
        "apps/search/local/props.conf", "apps/.hidden/default/props.conf",
        "apps/disabledapp/default/props.conf", "users/Alice/search/local/props.conf",
        "users/_encoded/u626f6220736d697468/search/local/props.conf",
        "bundles/default/props.conf", "bundles/search/props.conf", "bundles/oldapp/props.conf"}) {
    t.put(rel, props);
  }
  t.put("apps/disabledapp/local/app.conf", "[install]\nstate = disabled\n");
  t.put("apps/search/metadata/local.meta", "[props]\nexport = global\n");
  t.put("apps/search/metadata/default.meta", "[]\naccess = read : [ * ]\n");
  t.put("system/metadata/default.meta", "[props]\nexport = global\n");
  t.put("apps/search/lookups/hosts.csv", "host,owner\n");
  t.put("apps/search/default/data/views/home.xml", "<view/>\n");
}

// "handler rel-path" for every mapper, in order.
std::vector<std::string> mapperList(const BundleTree& t) {
  std::vector<std::string> out;
  for (auto m = ConfPathMapperManager::instance().getMappers(t.setup()); !m.isDone(); m.next()) {
    out.push_back(std::string(m.data()->cpmHandlerName()) + " " +
                  std::string(m.data()->cpmPath().substr(t.root().size() + 1)));
  }
  return out;
}

bool hasLine(const ScopedLogCapture& log, const std::string& text) {
  const std::string all = log.text();
  return all.find(text) != std::string::npos;
}

TEST(ConfPathMapperCollection, InstallTreeGivesMappersInBootstrapThenPathOrder) {
  ScopedGlobalSettings restore;
  BundleTree t;
  buildInstall(t);
  const std::vector<std::string> expected = {
      "conf users/Alice/search/local",
      "conf users/_encoded/u626f6220736d697468/search/local",
      "conf apps/disabledapp/local",
      "conf apps/search/local",
      "conf apps/disabledapp/default",
      "conf apps/search/default",
      "conf bundles/default",
      "conf bundles/oldapp",
      "conf system/local",
      "conf system/default",
      "confdb apps/search/metadata/local.meta",
      "confdb apps/search/metadata/default.meta",
      "confdb system/metadata/default.meta",
      "xml apps/search/default/data",
      "lookups apps/search/lookups",
  };
  EXPECT_EQ(expected, mapperList(t));
}

TEST(ConfPathMapperCollection, EachAcceptRuleLogsItsText) {
  ScopedGlobalSettings restore;
  BundleTree t;
  buildInstall(t);
  ScopedLogCapture log("ConfPathMapperCollection");
  ConfPathMapperManager::instance().getMappers(t.setup());
  const struct {
    std::string text;
  } kLines[] = {
      {"Ignoring dot file: " + t.path("apps/.hidden/default")},
      {"Overridden bundle: " + t.path("bundles/search") + ", by: " + t.path("apps/search")},
      {"Skipping path in overridden application: " + t.path("bundles/search")},
      {"Added IConfPathMapper: " + t.path("system/default")},
  };
  for (const auto& c : kLines) EXPECT_TRUE(hasLine(log, c.text)) << c.text << "\n" << log.text();
}

TEST(ConfPathMapperCollection, UserAndApplicationOfEachBundle) {
  ScopedGlobalSettings restore;
  BundleTree t;
  buildInstall(t);
  const struct {
    const char* rel;
    const char* user;
    const char* app;
    const char* root;
    bool writable;
  } kCases[] = {
      {"users/Alice/search/local", "alice", "search", "users/Alice/search", true},
      {"users/_encoded/u626f6220736d697468/search/local", "bob smith", "search",
       "users/_encoded/u626f6220736d697468/search", true},
      {"apps/search/default", "nobody", "search", "apps/search", false},
      {"system/local", "nobody", "system", "system", true},
      {"bundles/oldapp", "nobody", "system", "bundles/oldapp", false},
      {"apps/search/metadata/local.meta", "nobody", "search", "apps/search", true},
      {"apps/search/metadata/default.meta", "nobody", "search", "apps/search", false},
  };
  for (const auto& c : kCases) {
    IConfPathMapper* m =
        ConfPathMapperManager::instance().getUpdateMapper(t.setup(), t.path(c.rel));
    ASSERT_NE(nullptr, m) << c.rel;
    EXPECT_EQ(c.user, m->cpmUser().name()) << c.rel;
    EXPECT_EQ(c.app, m->cpmApplication()) << c.rel;
    EXPECT_EQ(t.path(c.root), m->cpmBundleRoot()) << c.rel;
    EXPECT_EQ(c.writable, m->cpmIsWritable()) << c.rel;
  }
}

TEST(ConfPathMapperCollection, PathOutsideEveryBundleAreaIsTheDefaultsAndFalse) {
  BundleTree t;
  BundlesSetup setup = t.setup();
  UsernameMapper usernames;
  ReaddirCache readdir;
  const struct {
    std::string path;
    bool result;
    const char* user;
    const char* app;
  } kCases[] = {
      {t.path("apps/x/local"), true, "nobody", "x"},
      {t.path("system"), true, "nobody", "system"},
      {t.path("users/Bob/x/local"), true, "bob", "x"},
      {t.path("users/_encoded/zz/x/local"), true, "", "x"},  // undecodable safe name
      {t.path("bundles/old"), true, "nobody", "system"},
      {"/elsewhere/x", false, "nobody", "system"},
  };
  for (const auto& c : kCases) {
    BundleHandlerData data(setup, c.path, IniStanza(), usernames, readdir);
    Pathname root;
    User user;
    Str app;
    EXPECT_EQ(c.result, get_user_app_from_path(data, root, user, app)) << c.path;
    EXPECT_EQ(c.user, user.name()) << c.path;
    EXPECT_EQ(c.app, app) << c.path;
  }
}

TEST(ConfPathMapperCollection, RelativeHandlerPathIsRefused) {
  BundleTree t;
  BundlesSetup setup = t.setup();
  UsernameMapper usernames;
  ReaddirCache readdir;
  try {
    BundleHandlerData data(setup, "apps/x", IniStanza(), usernames, readdir);
    FAIL() << "accepted a relative path";
  } catch (const ConfPathException& e) {
    EXPECT_STREQ("BundleHandlerData given a relative path: apps/x", e.what());
  }
}

TEST(ConfPathMapperCollection, WhitelistsOmitApplicationsAndUsers) {
  ScopedGlobalSettings restore;
  BundleTree t;
  buildInstall(t);
  GlobalConfSettings::setAppWhitelist({"disabledapp"});
  GlobalConfSettings::setUserWhitelist({"CAROL"});
  ScopedLogCapture log("ConfPathMapperCollection");
  const std::vector<std::string> mappers = mapperList(t);
  EXPECT_TRUE(hasLine(log, "Skipping path in omitted application: " + t.path("apps/search/local")));
  // Alice's bundle is in "search", which goes first.
  EXPECT_TRUE(hasLine(log, "Skipping path in omitted application: " +
                               t.path("users/Alice/search/local")));
  for (const std::string& m : mappers) {
    EXPECT_EQ(std::string::npos, m.find("search")) << m;
  }
  EXPECT_NE(mappers.end(), std::find(mappers.begin(), mappers.end(), "conf apps/disabledapp/default"));
}

TEST(ConfPathMapperCollection, UserWhitelistIsCaseless) {
  ScopedGlobalSettings restore;
  BundleTree t;
  buildInstall(t);
  GlobalConfSettings::setUserWhitelist({"ALICE"});
  ScopedLogCapture log("ConfPathMapperCollection");
  const std::vector<std::string> mappers = mapperList(t);
  EXPECT_EQ("conf users/Alice/search/local", mappers.front());
  EXPECT_TRUE(hasLine(log, "Skipping path for omitted user: " +
                               t.path("users/_encoded/u626f6220736d697468/search/local")));
}

TEST(ConfPathMapperCollection, MinimalInitLoadsOnlyDefaultUserConfBundles) {
  ScopedGlobalSettings restore;
  BundleTree t;
  buildInstall(t);
  GlobalConfSettings::setUseAllConfData(false);
  ScopedLogCapture log("ConfPathMapperCollection");
  const std::vector<std::string> mappers = mapperList(t);
  const std::vector<std::string> expected = {
      "conf apps/disabledapp/local", "conf apps/search/local", "conf apps/disabledapp/default",
      "conf apps/search/default",   "conf bundles/default",
      "conf bundles/oldapp",        "conf system/local",
      "conf system/default",        "confdb system/metadata/default.meta",
  };
  EXPECT_EQ(expected, mappers);
  EXPECT_TRUE(hasLine(log, "Skipping user-specific data during minimal init: " +
                               t.path("users/Alice/search/local")));
  EXPECT_TRUE(hasLine(log, "Skipping non-conf app data during minimal init: " +
                               t.path("apps/search/metadata/local.meta")));
}

TEST(ConfPathMapperCollection, FirstPatternKeepsABundleAndUnknownHandlerStopsOnlyItsPath) {
  BundleTree t(
      "[bootstrap]\n"
      "system/local = ignore\n"
      "system/* = conf\n"
      "apps/one = nosuchhandler\n"
      "apps/* = conf\n"
      "apps/two/metadata/* = confdb\n");
  t.put("apps/two/metadata/notes.txt", "not metadata\n");
  t.put("apps/two/metadata/local.meta", "[]\n");
  t.put("system/local/props.conf", "[a]\nk = 1\n");
  t.put("apps/one/props.conf", "[a]\nk = 2\n");
  t.put("apps/two/props.conf", "[a]\nk = 3\n");
  ScopedLogCapture log("ConfPathMapperCollection");
  const std::vector<std::string> expected = {"conf system/default", "conf apps/two",
                                             "confdb apps/two/metadata/local.meta"};
  EXPECT_EQ(expected, mapperList(t));
  EXPECT_TRUE(hasLine(log, "Skipping non-meta file: " + t.path("apps/two/metadata/notes.txt")));
  EXPECT_TRUE(hasLine(log, "Unrecognized handler name 'nosuchhandler' for path: " +
                               t.path("apps/one")));
}

TEST(ConfPathMapperCollection, MissingBootstrapOrStanzaLeavesNoMappers) {
  {
    BundleTree t("[writes]\n");
    ScopedLogCapture log("ConfPathMapperCollection");
    EXPECT_FALSE(ConfPathMapperManager::instance().setupMappers(t.setup()));
    EXPECT_TRUE(hasLine(log, "Could not find 'bootstrap' stanza in bootstrapping conf: " +
                                 t.path("system/default/conf.conf")));
    EXPECT_TRUE(mapperList(t).empty());
  }
  {
    BundleTree t("[bootstrap]\n");
    t.path("system/default/conf.conf").unlink();
    // A non-default root without its own file falls back on the install's,
    // which this test process does not have either.
    ScopedLogCapture log("ConfPathMapperCollection");
    EXPECT_FALSE(ConfPathMapperManager::instance().setupMappers(t.setup()));
    EXPECT_TRUE(hasLine(log, "Could not read bootstrap configuration: "));
  }
}

TEST(ConfPathMapperCollection, ToMapperPathTakesExactThenRealizedKeyElseNone) {
  BundleTree t(
      "[bootstrap]\n"
      "system/local = conf\n"
      "[writes]\n"
      "data:${user}:${app}:${type} = ${users-base}/${user-case-handler}/${app}/local\n"
      "data:nobody:${app}:${type} = ${apps-base}/${app}/local\n"
      "data:nobody:system:props = system/local\n"
      "meta:nobody:${app}:${type} = ${apps-base}/${app}/metadata/local.meta\n"
      "pack:nobody:${app}:${type} = ${apps-base}/${app}/lookups\n");
  const struct {
    ConfPathBase path;
    unsigned flags;
    const char* out;  // under the root; null: no write configuration
  } kCases[] = {
      // The exact key wins although an earlier key realizes to it too.
      {ConfPathBase(User("nobody"), "system", "props", "s"), ConfPath::WRITE_DATA, "system/local"},
      // The first realized key in file order: the user template.
      {ConfPathBase(User("nobody"), "search", "props"), ConfPath::WRITE_DATA,
       "users/nobody/search/local"},
      {ConfPathBase(User("Al/ice"), "search", "props"), ConfPath::WRITE_DATA,
       "users/_encoded/u616c2f696365/search/local"},
      {ConfPathBase(User("nobody"), "search", "props"), ConfPath::WRITE_META,
       "apps/search/metadata/local.meta"},
      // Pack wins over meta.
      {ConfPathBase(User("nobody"), "search", "lookups"),
       ConfPath::WRITE_PACK | ConfPath::WRITE_META, "apps/search/lookups"},
      {ConfPathBase(User("alice"), "search", "lookups"), ConfPath::WRITE_PACK, nullptr},
      {ConfPathBase(User("alice"), "search", "props"), ConfPath::WRITE_META, nullptr},
  };
  ScopedLogCapture log("ConfPathMapperCollection");
  for (const auto& c : kCases) {
    Pathname out("unchanged");
    const bool ok = ConfPathMapperManager::instance().withCollection(
        t.setup(), [&](ConfPathMapperCollection& coll) {
          return coll.toMapperPath(c.path, c.flags, out);
        });
    EXPECT_EQ(c.out != nullptr, ok) << c.path.toString();
    if (c.out != nullptr) {
      EXPECT_EQ(t.path(c.out), out) << c.path.toString();
    }
  }
  EXPECT_TRUE(hasLine(log, "No write configuration for: pack:alice:search:lookups"));
  EXPECT_TRUE(hasLine(log, "No write configuration for: meta:alice:search:props"));
}

TEST(ConfPathMapperCollection, WriteMapperIsMadeOnDemandInItsPatternsPlace) {
  BundleTree t;
  buildInstall(t);
  ConfPathMapperManager& manager = ConfPathMapperManager::instance();
  IConfPathMapper& w =
      manager.getWriteMapper(t.setup(), ConfPathBase(User("Carol"), "search", "props"), 0);
  EXPECT_EQ(t.path("users/Carol/search/local"), w.cpmPath());
  EXPECT_EQ("carol", w.cpmUser().name());
  const std::vector<std::string> mappers = mapperList(t);
  // Among the users' bundles, in path order, before every application.
  EXPECT_EQ("conf users/Carol/search/local", mappers[1]) << mappers[1];
  // A write that no bundle takes.
  BundleTree none("[bootstrap]\nsystem/local = conf\n[writes]\n");
  EXPECT_THROW(manager.getWriteMapper(none.setup(), ConfPathBase(User("x"), "y", "z"), 0),
               ConfPathHasNoWriter);
}

TEST(BundlesIterator, SkipsDisabledApplicationsAndBundlesWithoutTheFile) {
  BundleTree t;
  buildInstall(t);
  t.put("apps/search/default/datetime.xml", "<d/>");
  t.put("apps/disabledapp/default/datetime.xml", "<d/>");
  t.put("system/default/datetime.xml", "<d/>");
  ConfPathMapperManager::instance().getMappers(t.setup());
  ScopedLogCapture log("BundlesIterator");
  BundleFilesBySuffixIterator it(t.setup(), "default/datetime.xml");
  std::vector<std::string> found;
  for (Pathname p; it.getNext(p);) found.push_back(p.substr(t.root().size() + 1));
  // apps/* in path order (the dot directory is ignored), then system;
  // "oldapp" has no such file.
  const std::vector<std::string> expected = {"apps/search/default/datetime.xml",
                                             "system/default/datetime.xml"};
  EXPECT_EQ(expected, found);
  EXPECT_TRUE(hasLine(log, "Skipping path into disabled app: " + t.path("apps/disabledapp")));
  BundlesIterator::clearIteratorPaths(t.setup());
}

}  // namespace
