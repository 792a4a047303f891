#include "libbundle/ConfPathTrie.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libbundle/ConfPathPruners.h"
#include "libbundle/IniFile.h"

namespace {

ConfPathBase P(const char* u, const char* a = "", const char* t = "", const char* s = "",
               const char* k = "") {
  return ConfPathBase(User(u), a, t, s, k);
}

TEST(ConfPathBase, LevelsAndDefaults) {
  const struct {
    ConfPathBase path;
    size_t level;
    bool userDefault;
    bool appDefault;
    const char* text;
  } kCases[] = {
      {ConfPathBase(), 0, true, true, "/"},
      {P("nobody"), 1, true, true, "/nobody"},
      {P("NoBody", "system"), 2, true, true, "/NoBody/system"},
      {P("alice", "search", "props"), 3, false, false, "/alice/search/props"},
      {P("nobody", "", "props"), 3, true, true, "/nobody//props"},  // empty app kept inside
      {P("a", "b", "c", "d", "e"), 5, false, false, "/a/b/c/d/e"},
      {P("a", "b", "", "", ""), 2, false, false, "/a/b"},  // trailing empties dropped
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.level, c.path.level()) << c.text;
    EXPECT_EQ(c.userDefault, c.path.isUserDefault()) << c.text;
    EXPECT_EQ(c.appDefault, c.path.isApplicationDefault()) << c.text;
    EXPECT_EQ(c.text, c.path.toString());
  }
  EXPECT_TRUE(P("a", "b", "c").startsWith(P("a", "b")));
  EXPECT_FALSE(P("a", "b").startsWith(P("a", "b", "c")));
  EXPECT_EQ(P("a", "b"), P("a", "b", "c").parent());
}

TEST(ConfPathTrie, MergeKeepsOwnValueAndTakesOnlyMissingOnes) {
  ConfPathTrie first;
  first.setValue(P("nobody", "search", "props", "syslog", "TZ"), "UTC", true);
  ConfPathTrie second;
  second.setValue(P("nobody", "search", "props", "syslog", "TZ"), "PST");
  second.setValue(P("nobody", "search", "props", "syslog", "LINE"), "1");
  ConfPathMetadata md;
  md.setExport(ConfPathMetadata::EXPORT_GLOBAL);
  second.setMetadata(P("nobody", "search", "props"), md);
  first.merge(second);
  const auto* tz = first.find(P("nobody", "search", "props", "syslog", "TZ"));
  ASSERT_NE(nullptr, tz);
  EXPECT_EQ("UTC", tz->value());
  EXPECT_TRUE(tz->isValueRemovable());
  EXPECT_EQ("1", first.find(P("nobody", "search", "props", "syslog", "LINE"))->value());
  EXPECT_TRUE(first.find(P("nobody", "search", "props"))->hasMetadata());
  // The source is left as it was.
  EXPECT_EQ("PST", second.find(P("nobody", "search", "props", "syslog", "TZ"))->value());
}

TEST(ConfPathTrie, WalkIsPreOrderAndBytewise) {
  ConfPathTrie trie;
  for (const char* s : {"b", "B", "a", "\xc3\xa9", "aa"}) trie.setValue(P("u", "a", "t", s), s);
  std::vector<std::string> seen;
  trie.walk([&](const ConfPathBase& p, const ConfPathTrie::Node&) {
    seen.push_back(p.toString());
    return true;
  });
  const std::vector<std::string> expected = {"/u",       "/u/a",      "/u/a/t",
                                             "/u/a/t/B", "/u/a/t/a",  "/u/a/t/aa",
                                             "/u/a/t/b", "/u/a/t/\xc3\xa9"};
  EXPECT_EQ(expected, seen);
  // A visitor that declines a node skips its children.
  size_t visits = 0;
  trie.walk([&](const ConfPathBase& p, const ConfPathTrie::Node&) {
    ++visits;
    return p.level() < 2;
  });
  EXPECT_EQ(2u, visits);
}

TEST(ConfPathTrie, CutRemoveAndCopy) {
  ConfPathTrie trie;
  trie.setValue(P("u", "a", "t", "s"), "");
  trie.setValue(P("u", "a", "t", "s", "k"), "v");
  trie.setValue(P("u", "a", "t", "s2", "k"), "v");
  ConfPathTrie copy(trie);
  trie.cut(ConfPathBase::LEVEL_STANZA);
  EXPECT_EQ(nullptr, trie.find(P("u", "a", "t", "s", "k")));
  EXPECT_NE(nullptr, trie.find(P("u", "a", "t", "s2")));
  EXPECT_EQ(5u, trie.size()) << trie.toString();  // u, a, t, s, s2
  EXPECT_TRUE(copy.remove(P("u", "a", "t", "s")));
  EXPECT_FALSE(copy.remove(P("u", "a", "t", "s")));
  EXPECT_EQ("/u/a/t/s2/k = v\n", copy.toString());
  EXPECT_TRUE(copy.remove(ConfPathBase()));
  EXPECT_TRUE(copy.empty());
}

TEST(ConfPathTrie, PrunedNodesGoWithTheirSubtrees) {
  ConfPathTrie trie;
  trie.setValue(P("nobody", "keep", "t", "s", "k"), "1");
  trie.setValue(P("nobody", "drop", "t", "s", "k"), "2");
  size_t asked = 0;
  FunctionPruner pruner([&](const ConfPathBase& p, const ConfPathTrie::Node&) {
    ++asked;
    return p.application() != "drop";
  });
  trie.prune(pruner);
  EXPECT_EQ("/nobody/keep/t/s/k = 1\n", trie.toString());
  // root's child, two applications, and the three nodes below "keep".
  EXPECT_EQ(6u, asked);
}

TEST(ConfPathPruners, DanglingMetadataAndData) {
  ConfPathTrie trie;
  ConfPathMetadata owned;
  owned.setOwner(User("alice"));
  ConfPathMetadata plain;
  plain.setExport(ConfPathMetadata::EXPORT_APP);
  trie.setMetadata(P("nobody", "search", "props"), plain);                // type: kept
  trie.setMetadata(P("nobody", "search", "props", "gone"), plain);        // no data: dropped
  trie.setMetadata(P("nobody", "search", "props", "here"), plain);
  trie.setValue(P("nobody", "search", "props", "here", "k"), "v");
  trie.setValue(P("nobody", "system", "props", "mine", "k"), "v");
  trie.setMetadata(P("nobody", "system", "props", "mine"), owned);        // dangling data
  trie.setValue(P("nobody", "system", "props", "ours", "k"), "v");
  DanglingMetadataPruner meta;
  trie.prune(meta);
  DanglingDataPruner data;
  trie.prune(data);
  EXPECT_EQ(
      "/nobody/search/props @meta\n/nobody/search/props/here @meta\n"
      "/nobody/search/props/here/k = v\n/nobody/system/props/ours/k = v\n",
      trie.toString());
}

TEST(ConfPathPruners, PermissionsAreInheritedFromTheNearestNodeThatHasThem) {
  ConfPathPermissions adminOnly;
  adminOnly.allow(ConfPathPermissions::ALLOW_GET, "admin");
  ConfPathPermissions everyone;
  everyone.allow(ConfPathPermissions::ALLOW_GET, "*");
  ConfPathMetadata app;
  app.setPermissions(ConfPathPermissionsReference(adminOnly));
  ConfPathMetadata open;
  open.setPermissions(ConfPathPermissionsReference(everyone));
  ConfPathTrie base;
  base.setMetadata(P("nobody", "search"), app);
  base.setValue(P("nobody", "search", "props", "secret", "k"), "1");
  base.setMetadata(P("nobody", "search", "props", "public"), open);
  base.setValue(P("nobody", "search", "props", "public", "k"), "2");
  base.setValue(P("nobody", "free", "props", "s", "k"), "3");
  base.setValue(P("bob", "free", "props", "s", "k"), "4");
  base.setValue(P("Alice", "free", "props", "s", "k"), "5");
  const struct {
    const char* user;
    std::set<Str> roles;
    const char* values;  // the values left, in walk order
  } kCases[] = {
      // Walk order: Alice, bob, nobody/free, nobody/search/public, .../secret.
      {"alice", {"user"}, "532"},
      {"alice", {"admin"}, "5321"},
      {"bob", {"user", "power"}, "432"},
      {"", {}, "54321"},  // the system sees everything
  };
  for (const auto& c : kCases) {
    ConfPathTrie trie(base);
    PermissionPruner pruner{User(c.user), c.roles};
    trie.prune(pruner);
    std::string values;
    trie.walk([&](const ConfPathBase&, const ConfPathTrie::Node& n) {
      if (n.hasValue()) values += n.value();
      return true;
    });
    EXPECT_EQ(c.values, values) << c.user << " " << c.roles.size();
  }
}

TEST(ConfPathPruners, ContextSeesItsAppSystemAndWhatOthersExportGlobally) {
  ConfPathMetadata global;
  global.setExport(ConfPathMetadata::EXPORT_GLOBAL);
  ConfPathTrie trie;
  trie.setValue(P("nobody", "search", "props", "s", "k"), "own");
  trie.setValue(P("nobody", "system", "props", "s", "k"), "sys");
  trie.setValue(P("nobody", "other", "props", "hidden", "k"), "no");
  trie.setMetadata(P("nobody", "other", "props", "shared"), global);
  trie.setValue(P("nobody", "other", "props", "shared", "k"), "shared");
  trie.setMetadata(P("nobody", "third"), global);
  trie.setValue(P("nobody", "third", "props", "s", "k"), "third");
  trie.setValue(P("alice", "search", "props", "s", "k"), "alice");
  trie.setValue(P("bob", "search", "props", "s", "k"), "bob");
  SingleUserAppContextPruner pruner(User("ALICE"), "search");
  trie.prune(pruner);
  std::string values;
  trie.walk([&](const ConfPathBase&, const ConfPathTrie::Node& n) {
    if (n.hasValue()) values += std::string(n.value()) + " ";
    return true;
  });
  EXPECT_EQ("alice shared own sys third ", values);
}

TEST(ConfPathMetadata, StanzaNamesRoundTripAndRejectBadEscapes) {
  const std::vector<std::vector<Str>> kCases = {
      {}, {"props"}, {"props", "source::/var/log/*.log"}, {"t", "100%", "k"}, {"t", "", "k"}};
  for (const auto& segments : kCases) {
    const Str name = ConfPathMetadata::encodeStanzaName(segments);
    std::vector<Str> back{"x"};
    ASSERT_TRUE(ConfPathMetadata::decodeStanzaName(name, back)) << name;
    EXPECT_EQ(segments, back) << name;
  }
  EXPECT_EQ("props/source::%2Fvar%2Flog", ConfPathMetadata::encodeStanzaName(
                                               {"props", "source::/var/log"}));
  for (const char* bad : {"a%", "a%2", "a%41", "%zz/b"}) {
    std::vector<Str> out{"keep"};
    EXPECT_FALSE(ConfPathMetadata::decodeStanzaName(bad, out)) << bad;
    EXPECT_EQ(std::vector<Str>{"keep"}, out) << bad;
  }
}

TEST(ConfPathMetadata, AccessTextRoundTripsThroughThePermissionsOwnFormat) {
  ConfPathPermissions p;
  p.allow(ConfPathPermissions::ALLOW_GET, "*");
  p.allow(ConfPathPermissions::ALLOW_GET, "admin");
  p.allow(ConfPathPermissions::ALLOW_SET, "admin");
  ConfPathPermissions back;
  ASSERT_TRUE(ConfPathMetadata::parsePermissions(p.toString(), back)) << p.toString();
  EXPECT_TRUE(p == back);
  ASSERT_TRUE(ConfPathMetadata::parsePermissions("write:[a]", back));
  EXPECT_TRUE(back.isAllowed(ConfPathPermissions::ALLOW_SET, "a"));
  EXPECT_TRUE(back.roles(ConfPathPermissions::ALLOW_GET).empty());
  for (const char* bad : {"", "read", "read : a", "read : [ a", "delete : [ a ]",
                          "read : [ a ] write : [ b ]"}) {
    ConfPathPermissions out;
    out.allow(ConfPathPermissions::ALLOW_GET, "untouched");
    EXPECT_FALSE(ConfPathMetadata::parsePermissions(bad, out)) << bad;
    EXPECT_TRUE(out.isAllowed(ConfPathPermissions::ALLOW_GET, "untouched")) << bad;
  }
}

TEST(ConfPathMetadata, StanzaKeysReadAndWrittenBack) {
  IniStanza stanza;
  stanza.insert("export", " global ");
  stanza.insert("owner", "alice");
  stanza.insert("app", "search");
  stanza.insert("access", "read : [ * ], write : [ admin ]");
  stanza.insert("modtime", "1700000000.000250");
  stanza.insert("unknown", "ignored");
  const ConfPathMetadata md(stanza);
  EXPECT_EQ(ConfPathMetadata::EXPORT_GLOBAL, md.exportTo());
  EXPECT_EQ("alice", md.owner().name());
  EXPECT_EQ("search", md.application());
  EXPECT_TRUE(md.permissions().get().isAllowed(ConfPathPermissions::ALLOW_SET, "admin"));
  EXPECT_EQ(1700000000, md.modTime().tv_sec);
  EXPECT_EQ(250, md.modTime().tv_usec);
  std::vector<std::pair<Str, Str>> settings;
  md.toSettings(settings);
  IniStanza again;
  for (const auto& [k, v] : settings) again.insert(k, v);
  const ConfPathMetadata back(again);
  EXPECT_EQ(md.exportTo(), back.exportTo());
  EXPECT_EQ(md.owner().name(), back.owner().name());
  EXPECT_TRUE(md.permissions().get() == back.permissions().get());
  EXPECT_EQ(md.modTime().tv_usec, back.modTime().tv_usec);
  EXPECT_FALSE(md.isStub());
  EXPECT_TRUE(ConfPathMetadata().isStub());
}

}  // namespace
