// Which bundles of a root get a mapper, in what order, and which bundle a
// write goes to.

#include "libbundle/ConfPathMapperCollection.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/GlobalConfSettings.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/LogCapture.h"
#include "util/testing/ThrownText.h"

namespace {

bool logHas(const ScopedLogCapture& log, const std::string& text) {
  return log.text().find(text) != std::string::npos;
}

// "rel handler" for every mapper, in the order the caches read them.
std::vector<std::string> mapperList(const BundleTree& tree) {
  std::vector<std::string> out;
  const std::string root = std::string(tree.root()) + "/";
  for (auto m = ConfPathMapperManager::instance().getMappers(tree.setup()); !m.isDone(); m.next()) {
    std::string p = m.data()->cpmPath();
    if (p.compare(0, root.size(), root) == 0) p = p.substr(root.size());
    out.push_back(p + " " + std::string(m.data()->cpmHandlerName()));
  }
  return out;
}

// Restores the process-wide switches a test changes.
struct ScopedGlobals {
  ~ScopedGlobals() {
    GlobalConfSettings::clearWhitelists();
    GlobalConfSettings::setUseAllConfData(true);
  }
};

TEST(MapperOrder, PatternOrderThenPathOrderFirstPatternKeepsAPath) {
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
  EXPECT_EQ(mapperList(tree), (std::vector<std::string>{
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

TEST(CallHandler, AcceptRulesInOrder) {
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
    ScopedGlobals restore;
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
      EXPECT_TRUE(logHas(log, want)) << want << "\n" << log.text();
    }
    // Only the first rule that refuses speaks.
    for (const char* rule : kRuleTexts) {
      const bool expected = (c.log != nullptr && std::string(c.log).rfind(rule, 0) == 0) ||
                            (c.mapper && std::string(rule) == "Added IConfPathMapper: ");
      if (!expected) {
        EXPECT_FALSE(logHas(log, rule)) << rule << "\n" << log.text();
      }
    }
  }
}

TEST(CallHandler, LegacyBundleOverriddenByAnApplication) {
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
    EXPECT_TRUE(logHas(log, "Overridden bundle: " + legacy + ", by: " +
                                std::string(tree.path("apps/search"))))
        << log.text();
    EXPECT_TRUE(logHas(log, "Skipping path in overridden application: " + legacy)) << log.text();
    EXPECT_FALSE(logHas(log, "Overridden bundle: " + std::string(tree.path("bundles/other"))));
  }
}

TEST(MapperOrder, UserRestrictionLimitsTheUsersLoaded) {
  BundleTree tree;
  for (const char* u : {"alice", "bob"}) tree.put(std::string("users/") + u + "/a/local/x.conf", "");
  GlobalConfSettings::setUserRestrictionPattern("alice");
  const std::vector<std::string> list = mapperList(tree);
  GlobalConfSettings::setUserRestrictionPattern("*");
  bool alice = false;
  for (const std::string& m : list) {
    if (m == "users/alice/a/local conf") alice = true;
    EXPECT_EQ(m.find("users/bob/"), std::string::npos) << m;
  }
  EXPECT_TRUE(alice);
}

TEST(MapperOrder, PatternVariablesOfNoPathAreEmpty) {
  // A pattern is realized for a path with no segments: ${app}, ${user} and
  // ${type} give nothing.
  BundleTree tree(
      "[bootstrap]\n"
      "system/loc${app}al = conf\n"
      "system/${type}default = conf\n"
      "system/${nosuchvariable} = conf\n");
  tree.put("system/local/x.conf", "");
  tree.put("system/default/x.conf", "");
  EXPECT_EQ(mapperList(tree), (std::vector<std::string>{"system/local conf", "system/default conf"}));
}

TEST(MapperOrder, NewBundlesJoinInTheirPatternsPlace) {
  BundleTree tree(
      "[bootstrap]\n"
      "${apps-base}/*/local = conf\n"
      "system/default = conf\n");
  tree.put("apps/b/local/x.conf", "");
  tree.put("system/default/x.conf", "");
  EXPECT_EQ(mapperList(tree), (std::vector<std::string>{"apps/b/local conf", "system/default conf"}));
  IConfPathMapper* before = ConfPathMapperManager::instance().getUpdateMapper(
      tree.setup(), tree.path("apps/b/local"));
  tree.put("apps/a/local/x.conf", "");
  tree.put("apps/c/local/x.conf", "");
  EXPECT_TRUE(ConfPathMapperManager::instance().setupNewMappers(tree.setup()));
  const std::vector<std::string> after = mapperList(tree);
  // The old mapper stays; the new ones come with their pattern, ahead of the
  // system's default.
  EXPECT_EQ(ConfPathMapperManager::instance().getUpdateMapper(tree.setup(), tree.path("apps/b/local")),
            before);
  ASSERT_EQ(after.size(), 4u);
  EXPECT_EQ(after.back(), "system/default conf");
}

TEST(MapperOrder, PooledApplicationsAndUsersComeFromTheStorage) {
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

TEST(ToMapperPath, InstallWritesTable) {
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
      EXPECT_TRUE(logHas(log, "Searching for write configuration for: " + key + "\n"))
          << key << "\n" << log.text();
    }
  });
}

TEST(ToMapperPath, ExactKeyFirstThenFirstRealizedKeyInFileOrder) {
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

TEST(ToMapperPath, NoWriteConfiguration) {
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
    EXPECT_TRUE(logHas(log, "No write configuration for: ")) << log.text();
    const std::string what = thrownText<ConfPathHasNoWriter>([&] {
      ConfPathMapperManager::instance().getWriteMapper(
          tree.setup(), ConfPathBase{User("nobody"), "search", "props"}, 0);
    });
    EXPECT_NE(what, "<nothing thrown>");
  }
}

TEST(GetWriteMapper, EachKindOfWriterGetsItsHandler) {
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
    EXPECT_TRUE(logHas(log, line)) << line << "\n" << log.text();
    // Asked again, the same writer.
    EXPECT_EQ(&ConfPathMapperManager::instance().getWriteMapper(tree.setup(), path, c.flags), &m);
  }
}

}  // namespace
