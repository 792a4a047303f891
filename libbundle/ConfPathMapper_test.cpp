#include "libbundle/ConfPathMapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "libbundle/ConfObjectManager.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfPathPruners.h"
#include "libbundle/ConfPathTrie.h"
#include "libbundle/testing/BundleTree.h"

namespace {

ConfPathBase P(const char* u, const char* a = "", const char* t = "", const char* s = "",
               const char* k = "") {
  return ConfPathBase(User(u), a, t, s, k);
}

// Every mapper of the tree searched into one trie, first mapper first.
ConfPathTrie searchAll(const BundleTree& t, const ConfPathBase& query) {
  ConfPathTrie out;
  for (auto m = ConfPathMapperManager::instance().getMappers(t.setup()); !m.isDone(); m.next()) {
    m.data()->cpmSearch(query, out);
  }
  return out;
}

const ConfPathTrie::Node* at(const ConfPathTrie& trie, const ConfPathBase& path) {
  return trie.find(path);
}

void buildLayers(const BundleTree& t) {
  t.put("system/default/props.conf", "[syslog]\nTZ = UTC\nLINE = 1\nSYS = s\n");
  t.put("system/local/props.conf", "[syslog]\nLINE = 2\n");
  t.put("apps/search/default/props.conf", "[syslog]\nTZ = EST\n[access]\nA = 1\n");
  t.put("apps/search/local/props.conf",
        "# kept comment\n[syslog]\n# about TZ\nTZ = PST\nOTHER = o\n");
  t.put("apps/off/default/props.conf", "[syslog]\nTZ = OFF\n");
  t.put("apps/off/local/app.conf", "[install]\nstate = disabled\n");
  t.put("users/Alice/search/local/props.conf", "[syslog]\nTZ = alice\n");
}

TEST(ConfPathMapper, SearchKeepsTheFirstMappersValueWithItsRemovableFlag) {
  BundleTree t;
  buildLayers(t);
  const ConfPathTrie trie = searchAll(t, P("nobody", "", "props"));
  const struct {
    ConfPathBase path;
    const char* value;
    bool removable;
  } kCases[] = {
      {P("nobody", "search", "props", "syslog", "TZ"), "PST", true},    // local beats default
      {P("nobody", "search", "props", "syslog", "OTHER"), "o", true},
      {P("nobody", "search", "props", "access", "A"), "1", false},
      {P("nobody", "system", "props", "syslog", "LINE"), "2", true},
      {P("nobody", "system", "props", "syslog", "SYS"), "s", false},
      {P("nobody", "off", "props", "syslog", "TZ"), "OFF", false},
  };
  for (const auto& c : kCases) {
    const auto* n = at(trie, c.path);
    ASSERT_NE(nullptr, n) << c.path.toString();
    EXPECT_EQ(c.value, n->value()) << c.path.toString();
    EXPECT_EQ(c.removable, n->isValueRemovable()) << c.path.toString();
  }
  // The user's layer is not in the default user's search.
  EXPECT_EQ(nullptr, at(trie, P("alice")));
  // A stanza carries an empty embedded value: it exists in that layer.
  ASSERT_NE(nullptr, at(trie, P("nobody", "search", "props", "access")));
  EXPECT_TRUE(at(trie, P("nobody", "search", "props", "access"))->hasValue());
  // Narrow queries: one stanza, one setting.
  const ConfPathTrie one = searchAll(t, P("", "search", "props", "syslog", "TZ"));
  EXPECT_EQ("/alice/search/props/syslog = \n/alice/search/props/syslog/TZ = alice\n"
            "/nobody/search/props/syslog = \n/nobody/search/props/syslog/TZ = PST\n",
            one.toString());
  DisabledApplicationPruner disabled(t.setup());
  ConfPathTrie pruned(trie);
  pruned.prune(disabled);
  EXPECT_EQ(nullptr, at(pruned, P("nobody", "off")));
  EXPECT_NE(nullptr, at(pruned, P("nobody", "search")));
}

TEST(ConfPathMapper, WriteThenReadBackChangesOnlyWhatTheTrieHolds) {
  BundleTree t;
  buildLayers(t);
  ConfPathTrie changes;
  changes.setValue(P("nobody", "search", "props", "syslog", "TZ"), "CET");
  changes.setValue(P("nobody", "search", "props", "fresh"), "");
  changes.setValue(P("nobody", "search", "props", "fresh", "K"), "v");
  ConfPath(t.setup(), P("nobody", "search", "props")).cmergeNoLock(changes);
  EXPECT_EQ("# kept comment\n[syslog]\n# about TZ\nTZ = CET\nOTHER = o\n\n[fresh]\nK = v\n",
            t.read("apps/search/local/props.conf"));
  EXPECT_EQ("[syslog]\nTZ = EST\n[access]\nA = 1\n", t.read("apps/search/default/props.conf"));
  const ConfPathTrie back = searchAll(t, P("nobody", "search", "props"));
  EXPECT_EQ("CET", at(back, P("nobody", "search", "props", "syslog", "TZ"))->value());
  EXPECT_EQ("v", at(back, P("nobody", "search", "props", "fresh", "K"))->value());
}

TEST(ConfPathMapper, WritesOfNewUsersAndApplicationsMakeTheirBundles) {
  BundleTree t;
  buildLayers(t);
  ConfPathTrie changes;
  changes.setValue(P("Carol", "newapp", "inputs", "monitor", "index"), "main");
  changes.setValue(P("nobody", "newapp", "inputs", "monitor", "index"), "other");
  ConfPathMetadata md;
  md.setExport(ConfPathMetadata::EXPORT_GLOBAL);
  md.setOwner(User("carol"));
  changes.setMetadata(P("nobody", "newapp", "inputs", "monitor"), md);
  ConfPath(t.setup(), ConfPathBase()).cmergeNoLock(changes);
  EXPECT_EQ("[monitor]\nindex = main\n", t.read("users/Carol/newapp/local/inputs.conf"));
  EXPECT_EQ("[monitor]\nindex = other\n", t.read("apps/newapp/local/inputs.conf"));
  EXPECT_EQ("[inputs/monitor]\nexport = global\nowner = carol\n",
            t.read("apps/newapp/metadata/local.meta"));
  const ConfPathTrie back = searchAll(t, P("", "newapp", "inputs"));
  const auto* node = at(back, P("nobody", "newapp", "inputs", "monitor"));
  ASSERT_NE(nullptr, node);
  ASSERT_TRUE(node->hasMetadata());
  EXPECT_EQ(ConfPathMetadata::EXPORT_GLOBAL, node->metadata().exportTo());
  EXPECT_TRUE(node->metadata().isRemovable());
  EXPECT_EQ("main", at(back, P("carol", "newapp", "inputs", "monitor", "index"))->value());
}

TEST(ConfPathMapper, ReaderNeverSeesHalfAFile) {
  BundleTree t;
  std::string big = "[s]\n";
  for (int i = 0; i < 400; ++i) big += "key" + std::to_string(i) + " = 0\n";
  t.put("apps/search/local/props.conf", big);
  const Pathname file = t.path("apps/search/local/props.conf");
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::atomic<int> reads{0};
  std::thread reader([&] {
    while (!done.load()) {
      const std::string text = readTestFile(file);
      if (text.empty()) continue;  // between unlink and rename cannot happen; counted below
      size_t lines = 0;
      for (char c : text) lines += c == '\n';
      if (lines != 401) ++torn;
      ++reads;
    }
  });
  IConfPathMapper* m = ConfPathMapperManager::instance().getUpdateMapper(
      t.setup(), t.path("apps/search/local"));
  ASSERT_NE(nullptr, m);
  for (int round = 1; round <= 30; ++round) {
    ConfPathTrie changes;
    for (int i = 0; i < 400; ++i) {
      changes.setValue(P("nobody", "search", "props", "s", ("key" + std::to_string(i)).c_str()),
                       std::to_string(round));
    }
    m->cpmMerge(changes);
  }
  done = true;
  reader.join();
  EXPECT_EQ(0, torn.load());
  EXPECT_GT(reads.load(), 0);
  EXPECT_NE(std::string::npos, readTestFile(file).find("key399 = 30\n"));
}

TEST(ConfPathMapper, ChangeDetectionAndRemoval) {
  BundleTree t;
  buildLayers(t);
  IConfPathMapper* m = ConfPathMapperManager::instance().getUpdateMapper(
      t.setup(), t.path("apps/search/local"));
  ASSERT_NE(nullptr, m);
  IConfPathMapper::State props = m->cpmNewState("props");
  IConfPathMapper::State all = m->cpmNewState("");
  EXPECT_FALSE(m->cpmHasChangedSince("props", props));
  ConfPathTrie before;
  m->cpmSearch(P("nobody", "search", "props"), before);
  t.put("apps/search/local/props.conf", "[syslog]\nTZ = edited-on-disk-longer\n");
  EXPECT_TRUE(m->cpmHasChangedSince("props", props));
  EXPECT_FALSE(m->cpmHasChangedSince("props", props));  // the state moved on
  t.put("apps/search/local/inputs.conf", "[x]\n");
  EXPECT_TRUE(m->cpmHasChangedSince("", all));
  ConfPathTrie after;
  m->cpmSearch(P("nobody", "search", "props"), after);
  EXPECT_EQ("edited-on-disk-longer", at(after, P("nobody", "search", "props", "syslog", "TZ"))->value());

  t.put("apps/search/local/props.conf", "[a]\nk = 1\nj = 2\n[b]\nk = 3\n");
  EXPECT_TRUE(m->cpmChangeNotify(t.path("apps/search/local/props.conf")));
  EXPECT_TRUE(m->cpmRemoveLayer(P("nobody", "search", "props", "a", "j")));
  EXPECT_FALSE(m->cpmRemoveLayer(P("nobody", "search", "props", "a", "j")));
  EXPECT_TRUE(m->cpmRemoveLayer(P("nobody", "search", "props", "b")));
  EXPECT_EQ("[a]\nk = 1\n", t.read("apps/search/local/props.conf"));
  EXPECT_TRUE(m->cpmRemoveLayer(P("nobody", "search", "props")));
  EXPECT_FALSE(t.path("apps/search/local/props.conf").exists());
  // Default layers take no writes.
  IConfPathMapper* d = ConfPathMapperManager::instance().getUpdateMapper(
      t.setup(), t.path("apps/search/default"));
  ASSERT_NE(nullptr, d);
  try {
    d->cpmRemoveLayer(P("nobody", "search", "props", "access"));
    FAIL() << "a default bundle took a write";
  } catch (const ConfPathException& e) {
    EXPECT_EQ("Cannot write to a read-only bundle: " + t.path("apps/search/default"), e.what());
  }
}

TEST(ConfPathMapper, MetadataRemovalTakesChildrenWithIt) {
  BundleTree t;
  t.put("apps/search/metadata/local.meta",
        "[]\naccess = read : [ * ]\n[props/a]\nexport = global\n[props/a/k]\nowner = x\n"
        "[props/b]\nexport = app\n");
  IConfPathMapper* m = ConfPathMapperManager::instance().getUpdateMapper(
      t.setup(), t.path("apps/search/metadata/local.meta"));
  ASSERT_NE(nullptr, m);
  ConfPathTrie all;
  EXPECT_TRUE(m->cpmSearch(P("nobody", "search"), all));
  EXPECT_EQ("/nobody/search @meta\n/nobody/search/props/a @meta\n"
            "/nobody/search/props/a/k @meta\n/nobody/search/props/b @meta\n",
            all.toString());
  EXPECT_TRUE(m->cpmRemoveMetadata(P("nobody", "search", "props", "a")));
  EXPECT_EQ("[]\naccess = read : [ * ]\n\n[props/b]\nexport = app\n",
            t.read("apps/search/metadata/local.meta"));
  EXPECT_FALSE(m->cpmRemoveMetadata(P("nobody", "search", "props", "a")));
}

TEST(ConfPath, PermissionChecksOnModifyAndRemove) {
  BundleTree t;
  buildLayers(t);
  t.put("apps/search/metadata/default.meta",
        "[]\naccess = read : [ * ], write : [ admin ]\n[props/access]\naccess = write : [ * ]\n");
  const struct {
    ConfPathBase path;
    const char* user;
    std::set<Str> roles;
    const char* error;  // null: allowed
  } kCases[] = {
      {P("nobody", "search", "props", "syslog"), "", {}, nullptr},  // the system itself
      {P("nobody", "search", "props", "syslog"), "bob", {"admin"}, nullptr},
      {P("nobody", "search", "props", "syslog"), "bob", {"user"}, "Permission denied to modify: "},
      {P("nobody", "search", "props", "access"), "bob", {"user"}, nullptr},  // own permissions
      {P("alice", "search", "props", "syslog"), "ALICE", {}, nullptr},
      {P("alice", "search", "props", "syslog"), "bob", {"admin"},
       "Cannot modify another user's configuration: "},
      {P("nobody", "system", "props", "syslog"), "bob", {}, nullptr},  // no permissions at all
  };
  for (const auto& c : kCases) {
    ConfPath path(t.setup(), c.path);
    path.sudo(User(c.user), c.roles);
    try {
      path.verifyCanModify();
      EXPECT_EQ(nullptr, c.error) << c.path.toString() << " " << c.user;
    } catch (const ConfPathPermissionException& e) {
      ASSERT_NE(nullptr, c.error) << c.path.toString() << " " << c.user << ": " << e.what();
      EXPECT_EQ(c.error + c.path.toString(), e.what());
    }
  }
  // Only what the writable layer holds can be removed.
  ConfPath(t.setup(), P("nobody", "search", "props", "syslog", "TZ")).verifyCanRemove();
  try {
    ConfPath(t.setup(), P("nobody", "search", "props", "access", "A")).verifyCanRemove();
    FAIL() << "removed a default setting";
  } catch (const ConfPathPermissionException& e) {
    EXPECT_STREQ("Cannot remove: /nobody/search/props/access/A", e.what());
  }
}

TEST(FileConfPathMappers, LookupAndDocumentBundlesHoldFiles) {
  BundleTree t;
  t.put("apps/search/lookups/hosts.csv", "host,owner\r\nweb01,ops\r\n");
  t.put("apps/search/lookups/.hidden.csv", "x");
  t.put("apps/search/default/data/views/home.xml", "<view>\n</view>\n");
  t.put("apps/search/default/data/views/notes.txt", "ignored");
  const ConfPathTrie found = searchAll(t, P("nobody", "search"));
  EXPECT_EQ("/nobody/search/lookups/hosts.csv = " + t.path("apps/search/lookups/hosts.csv") +
                "\n/nobody/search/views/home = <view>\n</view>\n",
            found.toString());
  IConfPathMapper& w = ConfPathMapperManager::instance().getWriteMapper(
      t.setup(), P("nobody", "search", "lookups"), ConfPath::WRITE_PACK);
  ConfPathTrie changes;
  changes.setValue(P("nobody", "search", "lookups", "new.csv"), "a,b\n1,2\n");
  w.cpmMerge(changes);
  EXPECT_EQ("a,b\n1,2\n", t.read("apps/search/lookups/new.csv"));
  EXPECT_FALSE(t.path("apps/search/lookups/new.csv.tmp").exists());
  EXPECT_TRUE(w.cpmRemoveLayer(P("nobody", "search", "lookups", "new.csv")));
  EXPECT_FALSE(t.path("apps/search/lookups/new.csv").exists());
}

}  // namespace
