#include "libbundle/ConfPathMapperCollection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "libbundle/BundlesIterator.h"
#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/GlobalConfSettings.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/LogCapture.h"
#include "util/testing/ThrownText.h"

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

// "rel handler" for every mapper, in the order the caches read them.
std::vector<std::string> pathsAndHandlers(const BundleTree& tree) {
  std::vector<std::string> out;
  const std::string root = std::string(tree.root()) + "/";
  for (auto m = ConfPathMapperManager::instance().getMappers(tree.setup()); !m.isDone(); m.next()) {
    std::string p = m.data()->cpmPath();
    if (p.compare(0, root.size(), root) == 0) p = p.substr(root.size());
    out.push_back(p + " " + std::string(m.data()->cpmHandlerName()));
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
  EXPECT_TRUE(ConfPathMapperManager::instance().setupMappers(t.setup()));
  EXPECT_TRUE(t.setup().valid());
  const std::vector<std::string> expected = {
      "conf system/local",
      "conf users/Alice/search/local",
      "conf users/_encoded/u626f6220736d697468/search/local",
      "conf apps/disabledapp/local",
      "conf apps/search/local",
      "conf apps/disabledapp/default",
      "conf apps/search/default",
      "conf bundles/default",
      "conf bundles/oldapp",
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
  EXPECT_EQ("conf users/Alice/search/local", mappers[1]);
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
      "conf system/local",          "conf apps/disabledapp/local",
      "conf apps/search/local",     "conf apps/disabledapp/default",
      "conf apps/search/default",   "conf bundles/default",
      "conf bundles/oldapp",        "conf system/default",
      "confdb system/metadata/default.meta",
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
    EXPECT_TRUE(t.setup().valid());  // nothing tried yet
    EXPECT_FALSE(ConfPathMapperManager::instance().setupMappers(t.setup()));
    EXPECT_FALSE(t.setup().valid());
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
  // Among the users' bundles, in path order, after the system's local
  // layer and before every application.
  EXPECT_EQ("conf users/Carol/search/local", mappers[2]) << mappers[2];
  // A write that no bundle takes.
  BundleTree none("[bootstrap]\nsystem/local = conf\n[writes]\n");
  EXPECT_THROW(manager.getWriteMapper(none.setup(), ConfPathBase(User("x"), "y", "z"), 0),
               ConfPathHasNoWriter);
}

TEST(ConfPathMapperCollection, PatternOrderThenPathOrderFirstPatternKeepsAPath) {
  BundleTree tree(
      "[bootstrap]\n"
      "${apps-base}/*/local = conf\n"
      "system/local = conf\n"
      "${apps-base}/beta/local = xml\n"  // already taken by the first line
      "${apps-base}/*/default = conf\n"
      "system/default = conf\n");
  for (const char* app : {"gamma", "alpha", "beta"}) {
    tree.put(std::string("apps/") + app + "/local/x.conf", "");
    tree.put(std::string("apps/") + app + "/default/x.conf", "");
  }
  tree.put("system/local/x.conf", "");
  EXPECT_EQ(pathsAndHandlers(tree), (std::vector<std::string>{
                                  "apps/alpha/local conf",
                                  "apps/beta/local conf",
                                  "apps/gamma/local conf",
                                  "system/local conf",
                                  "apps/alpha/default conf",
                                  "apps/beta/default conf",
                                  "apps/gamma/default conf",
                                  "system/default conf",
                              }));
  ConfPathMapperManager::instance().withCollection(tree.setup(), [&](ConfPathMapperCollection& c) {
    // Patterns are kept in file order, realized.
    std::vector<Pathname> keys;
    for (auto it = c.patterns().begin(); it != c.patterns().end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (std::vector<Pathname>{tree.path("apps/*/local"), tree.path("system/local"),
                                           tree.path("apps/beta/local"),
                                           tree.path("apps/*/default"),
                                           tree.path("system/default")}));
    const PatternMatches* beta = c.patterns().get(tree.path("apps/beta/local"));
    EXPECT_TRUE(beta != nullptr && beta->mappers.empty());
    IConfPathMapper* local = c.getUpdateMapper(tree.path("apps/beta/local"));
    IConfPathMapper* def = c.getUpdateMapper(tree.path("apps/beta/default"));
    ASSERT_TRUE(local != nullptr && def != nullptr);
    EXPECT_TRUE(local->cpmIsWritable());
    EXPECT_FALSE(def->cpmIsWritable());
    EXPECT_EQ(local->cpmApplication(), "beta");
  });
}

// One call of the accept rules against a fresh tree.
struct Accept {
  const char* name;
  const char* handler;
  const char* rel;           // the path offered, under the root
  std::vector<const char*> make;  // files to make first
  bool allData;
  std::set<Str> apps;        // application whitelist, empty for none
  std::set<Str> users;       // user whitelist, empty for none
  bool mapper;               // whether a mapper results
  const char* log;           // expected text, with %s for the path; null for none
};

TEST(ConfPathMapperCollection, CallHandlerAppliesTheAcceptRulesInOrder) {
  const Accept kCases[] = {
      {"dot leaf", "conf", "apps/a/.local", {"apps/a/.local/x.conf"}, true, {}, {}, false,
       "Ignoring dot file: %s"},
      // A dot leaf is refused before the whitelist is asked.
      {"dot before whitelist", "conf", "apps/.b", {"apps/.b/x"}, true, {"a"}, {}, false,
       "Ignoring dot file: %s"},
      {"omitted app", "conf", "apps/b/local", {"apps/b/local/x.conf"}, true, {"a"}, {}, false,
       "Skipping path in omitted application: %s"},
      {"whitelisted app", "conf", "apps/a/local", {"apps/a/local/x.conf"}, true, {"a"}, {}, true,
       "Added IConfPathMapper: %s"},
      {"omitted user", "conf", "users/bob/a/local", {"users/bob/a/local/x.conf"}, true, {},
       {"alice"}, false, "Skipping path for omitted user: %s"},
      // The whitelist is asked before minimal init is.
      {"omitted user in minimal init", "conf", "users/bob/a/local", {"users/bob/a/local/x"}, false,
       {}, {"alice"}, false, "Skipping path for omitted user: %s"},
      {"whitelisted user", "conf", "users/alice/a/local", {"users/alice/a/local/x.conf"}, true, {},
       {"alice"}, true, nullptr},
      {"default handler", "default", "apps/a", {"apps/a/x"}, true, {}, {}, false, nullptr},
      {"ignore handler", "ignore", "apps/a", {"apps/a/x"}, true, {}, {}, false, nullptr},
      {"user in minimal init", "conf", "users/bob/a/local", {"users/bob/a/local/x.conf"}, false, {},
       {}, false, "Skipping user-specific data during minimal init: %s"},
      {"app conf in minimal init", "conf", "apps/a/local", {"apps/a/local/x.conf"}, false, {}, {},
       true, nullptr},
      {"app xml in minimal init", "xml", "apps/a/local/data", {"apps/a/local/data/x"}, false, {},
       {}, false, "Skipping non-conf app data during minimal init: %s"},
      {"system lookups in minimal init", "lookups", "system/lookups", {"system/lookups/x.csv"},
       false, {}, {}, true, nullptr},
      {"confdb meta", "confdb", "apps/a/metadata/local.meta", {"apps/a/metadata/local.meta"}, true,
       {}, {}, true, nullptr},
      {"confdb other", "confdb", "apps/a/metadata/local.txt", {"apps/a/metadata/local.txt"}, true,
       {}, {}, false, "Skipping non-meta file: %s"},
      {"xml", "xml", "apps/a/local/data", {"apps/a/local/data/x"}, true, {}, {}, true, nullptr},
      {"lookups", "lookups", "apps/a/lookups", {"apps/a/lookups/x.csv"}, true, {}, {}, true, nullptr},
      {"searchscripts", "searchscripts", "apps/a/bin", {"apps/a/bin/x"}, true, {}, {}, true, nullptr},
      {"history", "history", "users/alice/a/history", {"users/alice/a/history/x"}, true, {}, {}, true,
       nullptr},
      {"unknown", "bogus", "apps/a/local", {"apps/a/local/x"}, true, {}, {}, false,
       "Unrecognized handler name 'bogus' for path: %s"},
      // The system's own layer is always whitelisted.
      {"system under app whitelist", "conf", "system/local", {"system/local/x.conf"}, true, {"a"},
       {"alice"}, true, nullptr},
      // Users are whitelisted without regard to case.
      {"user whitelist caseless", "conf", "users/alice/a/local", {"users/alice/a/local/x"}, true,
       {}, {"ALICE"}, true, nullptr},
      // Handlers that do nothing are asked before minimal init.
      {"default handler for a user in minimal init", "default", "users/bob/a",
       {"users/bob/a/x"}, false, {}, {}, false, nullptr},
      // Minimal init refuses before confdb looks at the file name.
      {"confdb other in minimal init", "confdb", "apps/a/metadata/local.txt",
       {"apps/a/metadata/local.txt"}, false, {}, {}, false,
       "Skipping non-conf app data during minimal init: %s"},
      {"system confdb in minimal init", "confdb", "system/metadata/local.meta",
       {"system/metadata/local.meta"}, false, {}, {}, true, nullptr},
      {"legacy local", "conf", "bundles/local", {"bundles/local/x.conf"}, true, {}, {}, true,
       nullptr},
  };
  const char* const kRuleTexts[] = {
      "Ignoring dot file: ",
      "Skipping path in omitted application: ",
      "Skipping path for omitted user: ",
      "Skipping path in overridden application: ",
      "Skipping user-specific data during minimal init: ",
      "Skipping non-conf app data during minimal init: ",
      "Skipping non-meta file: ",
      "Unrecognized handler name ",
      "Added IConfPathMapper: ",
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ScopedGlobalSettings restore;
    BundleTree tree("[bootstrap]\nsystem/nothing = conf\n");
    for (const char* f : c.make) tree.put(f, "");
    GlobalConfSettings::setUseAllConfData(c.allData);
    if (!c.apps.empty()) GlobalConfSettings::setAppWhitelist(c.apps);
    if (!c.users.empty()) GlobalConfSettings::setUserWhitelist(c.users);
    ScopedLogCapture log("ConfPathMapperCollection");
    BundlesSetup setup = tree.setup();
    const Pathname path = tree.path(c.rel);
    ConfPathMapperManager::instance().withCollection(setup, [&](ConfPathMapperCollection& col) {
      ReaddirCache readdir;
      BundleHandlerData data(setup, path, IniStanza(), col.usernameMapper(), readdir);
      const bool ok = col.callHandler(c.handler, path, data);
      IConfPathMapper* m = col.getUpdateMapper(path);
      EXPECT_EQ(m != nullptr, c.mapper);
      if (m != nullptr) {
        EXPECT_TRUE(ok);
        EXPECT_EQ(m->cpmHandlerName(), c.handler);
        EXPECT_EQ(m->cpmPath(), path);
      }
      if (std::string(c.handler) == "bogus") {
        EXPECT_FALSE(ok);
      }
      // A second offer of a path that has its mapper is accepted at once.
      if (m != nullptr) {
        EXPECT_TRUE(col.callHandler("bogus", path, data));
      }
    });
    if (c.log != nullptr) {
      Str want;
      want.format(c.log, std::string(path).c_str());
      EXPECT_TRUE(hasLine(log, want)) << want << "\n" << log.text();
    }
    // Only the first rule that refuses speaks.
    for (const char* rule : kRuleTexts) {
      const bool expected = (c.log != nullptr && std::string(c.log).rfind(rule, 0) == 0) ||
                            (c.mapper && std::string(rule) == "Added IConfPathMapper: ");
      if (!expected) {
        EXPECT_FALSE(hasLine(log, rule)) << rule << "\n" << log.text();
      }
    }
  }
}

TEST(ConfPathMapperCollection, CallHandlerSkipsALegacyBundleOverriddenByAnApplication) {
  for (const char* handler : {"conf", "ignore"}) {
    SCOPED_TRACE(handler);
    BundleTree tree("[bootstrap]\nsystem/nothing = conf\n");
    tree.put("bundles/search/x.conf", "");
    tree.put("apps/search/default/x.conf", "");
    tree.put("bundles/other/x.conf", "");
    ScopedLogCapture log("ConfPathMapperCollection");
    BundlesSetup setup = tree.setup();
    ConfPathMapperManager::instance().withCollection(setup, [&](ConfPathMapperCollection& col) {
      ReaddirCache readdir;
      for (const char* rel : {"bundles/search", "bundles/other"}) {
        BundleHandlerData data(setup, tree.path(rel), IniStanza(), col.usernameMapper(), readdir);
        col.callHandler(handler, tree.path(rel), data);
      }
      EXPECT_EQ(col.getUpdateMapper(tree.path("bundles/search")), nullptr);
      EXPECT_EQ(col.getUpdateMapper(tree.path("bundles/other")) != nullptr,
                std::string(handler) == "conf");
    });
    const std::string legacy = tree.path("bundles/search");
    EXPECT_TRUE(hasLine(log, "Overridden bundle: " + legacy + ", by: " +
                                std::string(tree.path("apps/search"))))
        << log.text();
    EXPECT_TRUE(hasLine(log, "Skipping path in overridden application: " + legacy)) << log.text();
    EXPECT_FALSE(hasLine(log, "Overridden bundle: " + std::string(tree.path("bundles/other"))));
  }
}

TEST(ConfPathMapperCollection, UserRestrictionLimitsTheUsersLoaded) {
  BundleTree tree;
  for (const char* u : {"alice", "bob"}) tree.put(std::string("users/") + u + "/a/local/x.conf", "");
  GlobalConfSettings::setUserRestrictionPattern("alice");
  const std::vector<std::string> list = pathsAndHandlers(tree);
  GlobalConfSettings::setUserRestrictionPattern("*");
  bool alice = false;
  for (const std::string& m : list) {
    if (m == "users/alice/a/local conf") alice = true;
    EXPECT_EQ(m.find("users/bob/"), std::string::npos) << m;
  }
  EXPECT_TRUE(alice);
}

TEST(ConfPathMapperCollection, PatternVariablesOfNoPathAreEmpty) {
  // A pattern is realized for a path with no segments: ${app}, ${user} and
  // ${type} give nothing.
  BundleTree tree(
      "[bootstrap]\n"
      "system/loc${app}al = conf\n"
      "system/${type}default = conf\n"
      "system/${nosuchvariable} = conf\n");
  tree.put("system/local/x.conf", "");
  tree.put("system/default/x.conf", "");
  EXPECT_EQ(pathsAndHandlers(tree), (std::vector<std::string>{"system/local conf", "system/default conf"}));
}

TEST(ConfPathMapperCollection, NewBundlesJoinInTheirPatternsPlace) {
  BundleTree tree(
      "[bootstrap]\n"
      "${apps-base}/*/local = conf\n"
      "system/default = conf\n");
  tree.put("apps/b/local/x.conf", "");
  tree.put("system/default/x.conf", "");
  EXPECT_EQ(pathsAndHandlers(tree), (std::vector<std::string>{"apps/b/local conf", "system/default conf"}));
  IConfPathMapper* before = ConfPathMapperManager::instance().getUpdateMapper(
      tree.setup(), tree.path("apps/b/local"));
  tree.put("apps/a/local/x.conf", "");
  tree.put("apps/c/local/x.conf", "");
  EXPECT_TRUE(ConfPathMapperManager::instance().setupNewMappers(tree.setup()));
  const std::vector<std::string> after = pathsAndHandlers(tree);
  // The old mapper stays; the new ones come with their pattern, ahead of the
  // system's default.
  EXPECT_EQ(ConfPathMapperManager::instance().getUpdateMapper(tree.setup(), tree.path("apps/b/local")),
            before);
  ASSERT_EQ(after.size(), 4u);
  EXPECT_EQ(after.back(), "system/default conf");
}

TEST(ConfPathMapperCollection, PooledApplicationsAndUsersComeFromTheStorage) {
  TestTempDir storage;
  BundleTree tree((std::string("[bootstrap]\n"
                               "${apps-base}/*/local = conf\n"
                               "${users-base}/*/*/local = conf\n"
                               "bundles/* = conf\n"
                               "system/default = conf\n"
                               "[pooling]\nstate = enabled\nstorage = ") +
                   std::string(storage.path()) + "\n")
                      .c_str());
  const Pathname pool = storage.path() / "etc";
  writeTestFile(pool / "apps/a/local/x.conf", "");
  writeTestFile(pool / "users/Bob/a/local/x.conf", "");
  tree.put("apps/b/local/x.conf", "");  // the root's own apps are not read
  tree.put("bundles/a/x.conf", "");     // overridden by the pooled application
  tree.put("bundles/b/x.conf", "");
  tree.put("system/default/x.conf", "");
  std::vector<std::string> got;
  for (auto m = ConfPathMapperManager::instance().getMappers(tree.setup()); !m.isDone(); m.next()) {
    got.push_back(std::string(m.data()->cpmPath()) + " " + std::string(m.data()->cpmUser().name()) +
                  ":" + std::string(m.data()->cpmApplication()));
  }
  EXPECT_EQ(got, (std::vector<std::string>{
                     std::string(pool / "apps/a/local") + " nobody:a",
                     std::string(pool / "users/Bob/a/local") + " bob:a",
                     std::string(tree.path("bundles/b")) + " nobody:system",
                     std::string(tree.path("system/default")) + " nobody:system",
                 }));
}

// ----- where writes go -----

struct Write {
  const char* user;
  const char* app;
  const char* type;
  unsigned flags;
  const char* want;  // under the root, or absolute
};

TEST(ConfPathMapperCollection, ToMapperPathOverTheInstallWritesTable) {
  BundleTree tree;
  const Write kCases[] = {
      {"nobody", "system", "props", 0, "system/local"},
      {"nobody", "search", "props", 0, "apps/search/local"},
      {"alice", "search", "props", 0, "users/alice/search/local"},
      // A safe name keeps its case; an unsafe one is encoded.
      {"Alice", "search", "props", 0, "users/Alice/search/local"},
      {"a/b", "search", "props", 0, "users/_encoded/u612f62/search/local"},
      {"nobody", "system", "props", ConfPath::WRITE_META, "system/metadata/local.meta"},
      {"nobody", "search", "props", ConfPath::WRITE_META, "apps/search/metadata/local.meta"},
      {"alice", "search", "props", ConfPath::WRITE_META, "users/alice/search/metadata/local.meta"},
      {"nobody", "system", "lookups", ConfPath::WRITE_PACK, "system/lookups"},
      {"nobody", "search", "lookups", ConfPath::WRITE_PACK, "apps/search/lookups"},
      // Both bits: the pack prefix wins.
      {"alice", "search", "lookups", ConfPath::WRITE_PACK | ConfPath::WRITE_META,
       "users/alice/search/lookups"},
      // No type at all.
      {"nobody", "search", "", 0, "apps/search/local"},
  };
  ConfPathMapperManager::instance().withCollection(tree.setup(), [&](ConfPathMapperCollection& c) {
    for (const auto& w : kCases) {
      ScopedLogCapture log("ConfPathMapperCollection");
      const ConfPathBase path{User(w.user), w.app, w.type};
      Pathname out;
      EXPECT_TRUE(c.toMapperPath(path, w.flags, out)) << w.user << ":" << w.app << " " << w.flags;
      EXPECT_EQ(out, tree.path(w.want)) << w.user << ":" << w.app << " " << w.flags;
      const char* prefix = (w.flags & 2) ? "pack:" : (w.flags & 1) ? "meta:" : "data:";
      const std::string key = std::string(prefix) + w.user + ":" + w.app + ":" + w.type;
      EXPECT_TRUE(hasLine(log, "Searching for write configuration for: " + key + "\n"))
          << key << "\n" << log.text();
    }
  });
}

TEST(ConfPathMapperCollection, ToMapperPathKeepsAbsoluteTemplatesAndTrims) {
  BundleTree tree(
      "[bootstrap]\n"
      "system/local = conf\n"
      "[writes]\n"
      "data:nobody:${app}:${type} = generic/${app}\n"
      "data:nobody:${app}:props = second/${app}\n"  // equal too, but later
      "data:nobody:exact:props = exact/place\n"      // exact beats the earlier line
      "data:nobody:other:props = exact/${app}/${type}\n"
      "data:${user}:${app}:${type} = /abs/${user}/${app}\n"
      "meta:nobody:system:${type} = with spaces/x \n");
  ConfPathMapperManager::instance().withCollection(tree.setup(), [&](ConfPathMapperCollection& c) {
    const struct {
      const char* user;
      const char* app;
      const char* type;
      unsigned flags;
      Pathname want;
    } kCases[] = {
        {"nobody", "search", "props", 0, tree.path("generic/search")},
        {"nobody", "exact", "props", 0, tree.path("exact/place")},
        {"nobody", "exact", "transforms", 0, tree.path("generic/exact")},
        {"nobody", "other", "props", 0, tree.path("exact/other/props")},
        // An absolute template is kept as it is.
        {"bob", "search", "props", 0, "/abs/bob/search"},
        // Keys and values are trimmed.
        {"nobody", "system", "props", 1, tree.path("with spaces/x")},
    };
    for (const auto& w : kCases) {
      Pathname out;
      EXPECT_TRUE(c.toMapperPath(ConfPathBase{User(w.user), w.app, w.type}, w.flags, out))
          << w.user << ":" << w.app << ":" << w.type;
      EXPECT_EQ(out, w.want) << w.user << ":" << w.app << ":" << w.type;
    }
  });
}

TEST(ConfPathMapperCollection, NoWriteConfigurationHasNoWriter) {
  const char* const kBootstraps[] = {
      "[bootstrap]\nsystem/local = conf\n",  // no "writes" at all
  };
  for (const char* boot : kBootstraps) {
    SCOPED_TRACE(boot);
    BundleTree tree(boot);
    ScopedLogCapture log("ConfPathMapperCollection");
    ConfPathMapperManager::instance().withCollection(tree.setup(), [&](ConfPathMapperCollection& c) {
      Pathname out = "untouched";
      EXPECT_FALSE(c.toMapperPath(ConfPathBase{User("nobody"), "search", "props"}, 1, out));
    });
    EXPECT_TRUE(hasLine(log, "No write configuration for: ")) << log.text();
    const std::string what = thrownText<ConfPathHasNoWriter>([&] {
      ConfPathMapperManager::instance().getWriteMapper(
          tree.setup(), ConfPathBase{User("nobody"), "search", "props"}, 0);
    });
    EXPECT_NE(what, "<nothing thrown>");
  }
}

TEST(ConfPathMapperCollection, GetWriteMapperGivesEachKindOfWriterItsHandler) {
  BundleTree tree;
  tree.put("apps/search/default/x.conf", "");
  const struct {
    const char* user;
    unsigned flags;
    const char* path;
    const char* handler;
  } kCases[] = {
      {"nobody", ConfPath::WRITE_META, "apps/search/metadata/local.meta", "confdb"},
      {"nobody", ConfPath::WRITE_PACK, "apps/search/lookups", "lookups"},
      {"alice", ConfPath::WRITE_DATA, "users/alice/search/local", "conf"},
      {"alice", ConfPath::WRITE_META, "users/alice/search/metadata/local.meta", "confdb"},
  };
  for (const auto& c : kCases) {
    ScopedLogCapture log("ConfPathMapperManager");
    const ConfPathBase path{User(c.user), "search", "props"};
    IConfPathMapper& m = ConfPathMapperManager::instance().getWriteMapper(tree.setup(), path, c.flags);
    EXPECT_EQ(m.cpmPath(), tree.path(c.path)) << c.path;
    EXPECT_EQ(m.cpmHandlerName(), c.handler) << c.path;
    EXPECT_TRUE(m.cpmIsWritable()) << c.path;
    const std::string line = "Found writer IConfPathMapper for " + std::string(path.toString()) +
                             Str().format(" [%x]: ", c.flags) + std::string(tree.path(c.path));
    EXPECT_TRUE(hasLine(log, line)) << line << "\n" << log.text();
    // Asked again, the same writer.
    EXPECT_EQ(&ConfPathMapperManager::instance().getWriteMapper(tree.setup(), path, c.flags), &m);
  }
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
