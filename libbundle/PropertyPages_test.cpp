#include "libbundle/PropertyPages.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>

#include "libbundle/BaseConfCache.h"
#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/DeletabilityCache.h"
#include "libbundle/IniFile.h"
#include "libbundle/UserInfoProvider.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

// Answers for the identity layer, set by each test.
class TestUserInfo : public IUserInfoProvider {
 public:
  bool getCurrentUser(User& out) const override {
    if (current.empty()) return false;
    out = User(current);
    return true;
  }
  bool getRoles(const User& user, std::set<Str>& out) const override {
    const auto it = roles.find(user.name());
    if (it == roles.end()) return false;
    out = it->second;
    return true;
  }
  bool mayActForOthers(const User& user) const override { return admins.count(user.name()) != 0; }

  Str current;
  std::map<Str, std::set<Str>> roles;
  std::set<Str> admins;
};

class ScopedProvider {
 public:
  explicit ScopedProvider(const IUserInfoProvider* p) : _p(p) {
    UserInfoProviderRegistry::registerProvider(p);
  }
  ~ScopedProvider() { UserInfoProviderRegistry::unregisterProvider(_p); }

 private:
  const IUserInfoProvider* _p;
};

// A configuration root of its own in a temporary directory, with the
// install's bootstrap file unless another is given.
class Tree {
 public:
  explicit Tree(const char* bootstrap = nullptr)
      : tree(bootstrap), root(tree.root()), setup(tree.setup()) {}
  void write(const char* relative, const char* text) { tree.put(relative, text); }
  std::string read(const char* relative) const { return tree.read(relative); }
  PropertyPages* page(const char* name, const char* user = "", const char* app = "") {
    return PropertyPages::instance(name, PropertyPagesContext(setup, User(user), app));
  }

  BundleTree tree;
  Pathname root;
  BundlesSetup setup;
};

// The same stanza in the system's and an application's default and local
// layers, a pattern stanza, and "default".
void writeLayers(Tree& t) {
  t.write("system/default/props.conf",
          "[default]\nd = sysdefault\nk = sysdefault\n"
          "[syslog]\na = sysdefault\nb = sysdefault\nc = sysdefault\n");
  t.write("system/local/props.conf", "[syslog]\na = syslocal\n");
  t.write("apps/search/default/props.conf",
          "[syslog]\nb = appdefault\nc = appdefault\n"
          "[source::/var/log/*.log]\ns = pattern\nk = pattern\n");
  t.write("apps/search/local/props.conf", "[syslog]\nc = applocal\n");
}

// Every user has the one role "user".
class EveryoneAUser : public TestUserInfo {
 public:
  bool getRoles(const User&, std::set<Str>& out) const override {
    out = {"user"};
    return true;
  }
};

// What fillLayers gives for `key`, with the stanza it came from.
std::string layered(PropertyPages* page, const char* context, const char* key,
                    bool patternMatch = true) {
  PropertiesMap out;
  page->fillLayers(&out, context, patternMatch);
  const Property* p = out.getProperty(key);
  if (p == nullptr) return "<unset>";
  return std::string(p->value()) + " from " + std::string(p->sourceStanza());
}

// The system's layers are the lowest source type; an application's layer
// without metadata is visible in its own application and ranks above them.
Str fill(PropertyPages* page, const char* context, const char* key) {
  PropertiesMap out;
  page->fillLayers(&out, context, true);
  return out.get(key);
}

TEST(PropertyPagesTree, LegacyPageTakesFirstBundleAndDefaultLast) {
  Tree t;
  writeLayers(t);
  PropertyPages* page = t.page("props");
  const struct {
    const char* context;
    const char* key;
    const char* want;
  } kCases[] = {
      {"syslog", "a", "syslocal"},    // system local is the first bundle
      {"syslog", "b", "appdefault"},  // an application's default beats the system's
      {"syslog", "c", "applocal"},
      {"syslog", "d", "sysdefault"},  // from "default"
      {"syslog", "k", "sysdefault"},
      {"source::/var/log/x.log", "s", "pattern"},
      {"source::/var/log/x.log", "k", "pattern"},  // the pattern before "default"
      {"source::/var/log/x.log|syslog", "a", "syslocal"},
      {"source::/var/log/sub/x.log", "s", ""},
      {"nothing", "d", "sysdefault"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, fill(page, c.context, c.key)) << c.context;
  PropertiesMap out;
  page->fillLayers(&out, "syslog", true);
  EXPECT_EQ("syslog", out.getProperty("a")->sourceStanza());
  EXPECT_EQ("default", out.getProperty("d")->sourceStanza());
  EXPECT_EQ(SOURCE_SYSTEM_DEFAULT, out.getProperty("a")->sourceType());
}

TEST(PropertyPagesTree, UserPageMostSpecificSourceTypeWins) {
  Tree t;
  writeLayers(t);
  t.write("users/alice/search/local/props.conf", "[syslog]\na = alice\n");
  t.write("users/bob/search/local/props.conf", "[syslog]\na = bob\nb = bob\n");
  t.write("apps/other/default/props.conf", "[syslog]\ne = other\n[private]\nx = 1\n");
  t.write("apps/other/metadata/default.meta", "[props/syslog]\nexport = global\n");
  TestUserInfo info;
  info.current = "alice";
  ScopedProvider provider(&info);
  PropertyPages* page = t.page("props", "alice", "search");
  const struct {
    const char* key;
    const char* want;
  } kCases[] = {
      {"a", "alice"},       // the user's layer beats system local
      {"b", "appdefault"},  // application beats system, bob is not seen
      {"c", "applocal"},    // local before default within one application
      {"e", "other"},       // exported globally by another application
      {"d", "sysdefault"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, fill(page, "syslog", c.key)) << c.key;
  PropertiesMap out;
  page->fillLayers(&out, "syslog", true);
  EXPECT_EQ(SOURCE_USER, out.getProperty("a")->sourceType());
  EXPECT_EQ(SOURCE_APP, out.getProperty("c")->sourceType());
  EXPECT_EQ(SOURCE_GLOBAL_OTHER_APP, out.getProperty("e")->sourceType());
  EXPECT_FALSE(page->propsExist("private"));  // not exported
  EXPECT_TRUE(t.page("props")->propsExist("private"));
}

TEST(PropertyPagesTree, ReadingOperations) {
  Tree t;
  writeLayers(t);
  t.write("apps/search/local/props.conf", "[syslog]\nc = applocal\n[off]\ndisabled = true\n");
  PropertyPages* page = t.page("props");
  std::set<Str> names;
  page->keys(names);
  EXPECT_EQ((std::set<Str>{"default", "off", "source::/var/log/*.log", "syslog"}), names);
  PropertiesMap stanza;
  EXPECT_TRUE(page->getStanza("syslog", stanza));
  EXPECT_EQ("syslocal", stanza.get("a"));
  EXPECT_EQ("", stanza.get("d"));  // getStanza adds no "default"
  PropertiesMap none;
  EXPECT_FALSE(page->getStanza("absent", none));
  EXPECT_TRUE(none.empty());
  PropertiesMap off;
  EXPECT_FALSE(page->getEnabledProps("off", off));
  EXPECT_EQ("true", off.get("disabled"));
  PropertiesMap on;
  EXPECT_TRUE(page->getEnabledProps("syslog", on));
  EXPECT_FALSE(page->getEnabledProps("absent", on));
  EXPECT_TRUE(page->propsExist("source::/var/log/*.log"));
  EXPECT_FALSE(page->propsExist("source::/var/log/x.log"));

  StanzaCollection listed;
  page->propsObjByPrefixAndMode("s", PropertyPages::GET_BY_PREFIX, listed);
  EXPECT_EQ(2u, listed.size());
  page->propsObjByFilterAndMode("YSL", PropertyPages::GET_BY_PREFIX, listed);
  ASSERT_EQ(1u, listed.size());
  EXPECT_EQ("syslog", listed.begin()->first);
}

TEST(PropertyPagesTree, ChangesOnDiskAreSeenAfterRecompute) {
  Tree t;
  writeLayers(t);
  PropertyPages* page = t.page("props");
  EXPECT_EQ("syslocal", fill(page, "syslog", "a"));
  t.write("system/local/props.conf", "[syslog]\na = changed\n");
  PropertyPages::recomputeAllFromDisk(t.setup);
  EXPECT_EQ("changed", fill(page, "syslog", "a"));
}

TEST(PropertyPagesContext, OrdersBySetupApplicationThenCaselessUser) {
  const PropertyPagesContext a(User("Alice"), "search");
  const PropertyPagesContext b(User("alice"), "search");
  const PropertyPagesContext c(User("alice"), "zeta");
  const PropertyPagesContext d(User("bob"), "search");
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_TRUE(a < c);
  EXPECT_TRUE(d < c);  // application first
  EXPECT_TRUE(b < d);
  EXPECT_TRUE(a.hasUserContext() && a.hasApplicationContext());
  EXPECT_FALSE(PropertyPagesContext().hasUserContext());
}

TEST(PropertyPagesTree, OnePagePerNameContextAndCaselessActingUser) {
  Tree t;
  t.write("apps/search/default/props.conf", "[x]\na = 1\n");
  TestUserInfo info;
  info.current = "alice";
  ScopedProvider provider(&info);
  EXPECT_EQ(t.page("props", "alice", "search"), t.page("props", "alice", "search"));
  info.current = "ALICE";
  EXPECT_EQ(t.page("props", "alice", "search"), t.page("props", "Alice", "search"));
  EXPECT_NE(t.page("props", "alice", "search"), t.page("transforms", "alice", "search"));
  EXPECT_NE(t.page("props"), t.page("props", "", "search"));
  EXPECT_NE(nullptr, dynamic_cast<LegacyPropertyPages*>(t.page("props")));
  EXPECT_NE(nullptr, dynamic_cast<UserPropertyPages*>(t.page("props", "", "search")));
}

TEST(PropertyPagesTree, RoleChangeRebuildsThePagesOfThatUser) {
  Tree t;
  t.write("apps/search/default/props.conf", "[x]\na = 1\n");
  t.write("apps/search/metadata/default.meta", "[props/x]\naccess = read : [ admin ]\n");
  TestUserInfo info;
  info.current = "dave";
  info.roles["dave"] = {"user"};
  ScopedProvider provider(&info);
  EXPECT_FALSE(t.page("props", "dave", "search")->propsExist("x"));
  info.roles["dave"] = {"admin"};
  EXPECT_TRUE(t.page("props", "dave", "search")->propsExist("x"));
}

TEST(PropertyPagesWrite, WritesOnlyTheDifferenceToTheLocalLayer) {
  Tree t;
  writeLayers(t);
  PropertyPages* page = t.page("props");
  PropertiesMap desired;
  desired.put("a", "syslocal");    // already what the layers give
  desired.put("d", "sysdefault");  // given by "default"
  desired.put("n", "new");
  page->saveStanza("syslog", desired, false);
  EXPECT_EQ("[syslog]\na = syslocal\nn = new\n", t.read("system/local/props.conf"));
  PropertiesMap changed;
  changed.put("a", "changed");
  page->saveStanza("syslog", changed, false);
  EXPECT_EQ("[syslog]\na = changed\nn = new\n", t.read("system/local/props.conf"));
  PropertiesMap written;
  ASSERT_TRUE(page->getStanza("syslog", written));
  EXPECT_EQ("changed", written.get("a"));
  EXPECT_EQ("new", written.get("n"));
  // The other bundles are untouched.
  EXPECT_EQ("[syslog]\nc = applocal\n", t.read("apps/search/local/props.conf"));
}

TEST(PropertyPagesWrite, PutFormsGoToTheirApplicationsAndOverwriteAllReplaces) {
  Tree t;
  writeLayers(t);
  PropertyPages* page = t.page("props");
  PropertiesMap one;
  one.put("x", "1");
  one.put("y", "1");
  EXPECT_TRUE(page->putLocalNS("search", "fresh", &one, false));
  EXPECT_NE(std::string::npos, t.read("apps/search/local/props.conf").find("[fresh]"));
  EXPECT_TRUE(page->putLearned("learnt", &one));
  EXPECT_NE(std::string::npos, t.read("apps/learned/local/props.conf").find("[learnt]"));
  EXPECT_TRUE(page->putDefault("dflt", &one));
  EXPECT_NE(std::string::npos, t.read("system/local/props.conf").find("[dflt]"));

  PropertiesMap onlyY;
  onlyY.put("y", "2");
  EXPECT_TRUE(page->putLocal("dflt", &onlyY, true));
  PropertiesMap now;
  ASSERT_TRUE(page->getStanza("dflt", now));
  EXPECT_EQ("", now.get("x"));  // removed by overwriteAll
  EXPECT_EQ("2", now.get("y"));

  page->putAttribute("dflt", "z", "3");
  page->disableStanza("dflt");
  PropertiesMap enabled;
  EXPECT_FALSE(page->getEnabledProps("dflt", enabled));
  EXPECT_EQ("3", enabled.get("z"));
  page->deleteAttribute("dflt", "z");
  PropertiesMap afterDelete;
  page->getStanza("dflt", afterDelete);
  EXPECT_EQ("", afterDelete.get("z"));
  page->deleteStanza("dflt");
  EXPECT_FALSE(page->propsExist("dflt"));
  // A stanza of a default layer stays visible after its local part goes.
  TestUserInfo info;
  ScopedProvider provider(&info);
  PropertyPages* search = t.page("props", "", "search");
  search->putAttribute("syslog", "c", "mine");
  EXPECT_EQ("mine", fill(search, "syslog", "c"));
  EXPECT_EQ("mine", fill(page, "syslog", "c"));
  search->deleteStanza("syslog");
  EXPECT_EQ("appdefault", fill(search, "syslog", "c"));
  EXPECT_EQ("appdefault", fill(page, "syslog", "c"));
}

TEST(PropertyPagesWrite, FailuresAreLoggedAndLeaveFilesWhole) {
  Tree t;
  writeLayers(t);
  PropertyPages* page = t.page("props");
  const std::string before = t.read("system/local/props.conf");
  // A directory (not empty) where the file's temporary twin would go: the
  // rewrite cannot even start, whoever runs the test.
  const Pathname twin = t.root / Str().format("system/local/props.conf.%d.tmp", getpid());
  writeTestFile(twin / "blocker", "x");
  PropertiesMap m;
  m.put("a", "other");
  ScopedLogCapture capture("PropertyPages");
  const bool ok = page->putLocal("syslog", &m, false);
  const bool okDefault = page->putDefault("syslog", &m);
  const bool okNS = page->putLocalNS("system", "syslog", &m, false);
  EXPECT_FALSE(ok);
  EXPECT_FALSE(okDefault);
  EXPECT_FALSE(okNS);
  EXPECT_EQ(before, t.read("system/local/props.conf"));
  const std::string log = capture.text();
  EXPECT_NE(std::string::npos, log.find("ERROR Failed to save stanza [syslog] props: ")) << log;
  EXPECT_NE(std::string::npos, log.find("ERROR Failed to save stanza [syslog] props to default: "))
      << log;
  EXPECT_NE(std::string::npos,
            log.find("ERROR Failed to save stanza [syslog] props to app system: "))
      << log;
}

TEST(PropertyPagesWrite, SharingNeedsAnEntityAndChangesMetadata) {
  Tree t;
  writeLayers(t);
  t.write("apps/other/default/props.conf", "[mine]\nx = 1\n");
  TestUserInfo info;
  info.current = "alice";
  ScopedProvider provider(&info);
  PropertyPages* other = t.page("props", "", "other");
  EXPECT_EQ("No entity 'absent' exists and is eligible for an access control",
            thrownText<ConfPathException>([&] { other->shareWithSystem("absent"); }));
  EXPECT_EQ("No entity 'mine/nokey' exists and is eligible for an access control",
            thrownText<ConfPathException>(
                [&] { other->chmodAttr("mine", "nokey", ConfPathPermissions()); }));
  PropertyPages* search = t.page("props", "alice", "search");
  EXPECT_FALSE(search->propsExist("mine"));
  other->shareWithSystem("mine");
  EXPECT_NE(std::string::npos, t.read("apps/other/metadata/local.meta").find("export = global"));
  EXPECT_TRUE(search->propsExist("mine"));
  other->unshare("mine");
  EXPECT_FALSE(search->propsExist("mine"));
}

TEST(PropertyPagesWrite, ConcurrentReaderNeverSeesHalfAWrite) {
  Tree t;
  t.write("system/local/props.conf", "[pair]\nx = 0\ny = 0\n");
  PropertyPages* page = t.page("props");
  std::atomic<bool> done{false};
  std::atomic<int> mismatches{0};
  std::thread reader([&] {
    while (!done) {
      PropertiesMap out;
      page->fillLayers(&out, "pair", false);
      if (out.get("x") != out.get("y")) ++mismatches;
    }
  });
  for (int i = 1; i <= 30; ++i) {
    PropertiesMap both;
    both.put("x", Str().format("%d", i));
    both.put("y", Str().format("%d", i));
    page->saveStanza("pair", both, false);
  }
  done = true;
  reader.join();
  EXPECT_EQ(0, mismatches.load());
  EXPECT_EQ("30", fill(page, "pair", "x"));
}

TEST(PropertyPagesWrite, AnotherProcessNeverSeesHalfAFile) {
  Tree t;
  t.write("system/local/props.conf", "[pair]\nx = 0\ny = 0\n");
  const Pathname file = t.root / "system/local/props.conf";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child reads the raw file while the parent rewrites it: every
    // read must be one whole version.
    int bad = 0;
    for (int i = 0; i < 2000; ++i) {
      const std::string text = readTestFile(file);
      const size_t x = text.find("x = ");
      const size_t y = text.find("y = ");
      if (x == std::string::npos || y == std::string::npos ||
          text.substr(x + 4, text.find('\n', x) - x - 4) !=
              text.substr(y + 4, text.find('\n', y) - y - 4)) {
        ++bad;
      }
    }
    _exit(bad == 0 ? 0 : 1);
  }
  PropertyPages* page = t.page("props");
  for (int i = 1; i <= 40; ++i) {
    PropertiesMap both;
    both.put("x", Str().format("%d", i));
    both.put("y", Str().format("%d", i));
    page->saveStanza("pair", both, false);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(PropertyPagesWrite, CanDeleteOnlyWhatALocalLayerHolds) {
  Tree t;
  writeLayers(t);
  PropertyPages* page = t.page("props");
  EXPECT_TRUE(page->canDelete("syslog", "a"));       // in system/local
  EXPECT_FALSE(page->canDelete("syslog", "d"));      // only in a default layer
  EXPECT_FALSE(page->canDelete("nothing", ""));
}

TEST(PropertyPagesList, StanzasPerContextFilteredByUserApplicationAndPermission) {
  Tree t;
  writeLayers(t);
  t.write("users/alice/search/local/props.conf", "[syslog]\na = alice\n");
  t.write("users/bob/other/local/props.conf", "[bobs]\nx = 1\n");
  t.write("apps/other/default/props.conf", "[o]\nx = 1\n");
  TestUserInfo info;
  info.current = "alice";
  ScopedProvider provider(&info);
  PropertyPages* page = t.page("props", "alice", "search");
  auto names = [](const ContextPropertiesVector& v) {
    std::set<std::string> out;
    for (const ContextProperties& cp : v) {
      out.insert(std::string(cp.user().name()) + "/" + std::string(cp.application()) + "/" +
                 std::string(cp.name()));
    }
    return out;
  };
  ContextPropertiesVector all;
  page->propsWithContext({}, {}, all);
  // Another user's layer is never listed: bob's stanza is not there.
  EXPECT_EQ((std::set<std::string>{"alice/search/syslog", "nobody/other/o",
                                   "nobody/search/source::/var/log/*.log", "nobody/search/syslog",
                                   "nobody/system/default", "nobody/system/syslog"}),
            names(all));
  for (const ContextProperties& cp : all) {
    if (cp.user().name() == "alice") {
      EXPECT_EQ("alice", cp.map().get("a"));
      EXPECT_EQ(SOURCE_USER, cp.map().getProperty("a")->sourceType());
    }
  }
  ContextPropertiesVector onlyAlice;
  page->propsWithContext({"alice"}, {}, onlyAlice);
  EXPECT_EQ((std::set<std::string>{"alice/search/syslog"}), names(onlyAlice));
  ContextPropertiesVector onlyOther;
  page->propsWithContext({}, {"other"}, onlyOther);
  EXPECT_EQ((std::set<std::string>{"nobody/other/o"}), names(onlyOther));

  // The same page asked while another user is current: alice's context
  // can no longer be used, and is skipped.
  info.current = "carol";
  ScopedLogCapture capture("PropertyPages");
  ContextPropertiesVector asCarol;
  page->propsWithContext({}, {}, asCarol);
  EXPECT_EQ(0u, names(asCarol).count("alice/search/syslog"));
  EXPECT_EQ(1u, names(asCarol).count("nobody/system/syslog"));
  EXPECT_NE(std::string::npos,
            capture.text().find("Skipping entities from context: " +
                                std::string(PropertyPagesContext(t.setup, User("alice"), "search")
                                                .toString()) +
                                ": User 'carol' could not act as: alice"))
      << capture.text();
}

TEST(PropertyPagesList, DeletabilityFollowsTheWritableLayer) {
  Tree t;
  writeLayers(t);
  TestUserInfo info;
  ScopedProvider provider(&info);
  PropertyPages* page = t.page("props", "", "search");
  PropertiesMap mine;
  mine.put("x", "1");
  page->saveStanza("mine", mine, false);
  const PropertyPagesContext here(t.setup, ConfPath::getDefaultUser(), "search");
  DeletableStanzasCache stanzas("props");
  stanzas.init(*page);
  EXPECT_TRUE(stanzas.isInitialized());
  EXPECT_TRUE(stanzas.isStanzaDeletable(here, "mine"));
  EXPECT_FALSE(stanzas.isStanzaDeletable(here, "source::/var/log/*.log"));  // default layer
  DeletablePropertiesCache properties("props");
  properties.init(*page);
  EXPECT_FALSE(properties.isPropertyDeletable(here, "source::/var/log/*.log", "s"));
  // A page without user or application caches nothing.
  DeletableStanzasCache legacy("props");
  legacy.init(*t.page("props"));
  EXPECT_TRUE(legacy.isInitialized());
  EXPECT_FALSE(legacy.isStanzaDeletable(here, "mine"));
}

TEST(PropertyPagesPolling, PooledCachesPollForChangesAtTheirInterval) {
  TestTempDir poolDir;
  const Pathname pool = poolDir.path();
  std::string bootstrap =
      readTestFile(Pathname(KESTRO_SOURCE_DIR) / "home/etc/system/default/conf.conf");
  const size_t state = bootstrap.find("state = disabled");
  ASSERT_NE(std::string::npos, state);
  bootstrap.replace(state, 16, "state = enabled\nstorage = " + std::string(pool));
  Tree t(bootstrap.c_str());
  writeTestFile(pool / "etc/apps/search/default/props.conf", "[syslog]\na = 1\n");
  ScopedFixedClock clock(Timeval(1000000, 0));
  PropertyPages* page = t.page("props");
  EXPECT_EQ("1", fill(page, "syslog", "a"));
  writeTestFile(pool / "etc/apps/search/default/props.conf", "[syslog]\na = 22\n");
  ScopedLogCapture capture("BaseConfCache");
  clock.set(Timeval(1000005, 0));
  EXPECT_EQ("1", fill(page, "syslog", "a"));  // the interval has not passed
  clock.set(Timeval(1000011, 0));
  EXPECT_EQ("22", fill(page, "syslog", "a"));
  EXPECT_NE(std::string::npos,
            capture.text().find("INFO [" + std::string(pool / "etc/apps/search/default") +
                                "] detected change in type props " +
                                std::string(t.setup.toString())))
      << capture.text();
  clock.set(Timeval(999000, 0));
  fill(page, "syslog", "a");
  EXPECT_NE(std::string::npos,
            capture.text().find("WARN Current time (999000.000000) precedes previous poll time "
                                "(1000011.000000)."))
      << capture.text();
}

TEST(PropertyPagesList, ExpandedNamesComeFromTheBundleRoot) {
  Tree t;
  t.write("apps/search/default/inputs.conf", "[monitor://./logs]\nindex = a\n");
  t.write("apps/zeta/default/inputs.conf", "[monitor://./logs]\nindex = z\n[plain]\nx = 1\n");
  ScopedLogCapture capture("BaseConfCacheBuilder");
  PropertyPages* page = t.page("inputs");
  StanzaCollection written;
  page->propsObjByPrefixAndMode("", PropertyPages::GET_BY_PREFIX, written);
  EXPECT_EQ(2u, written.size());
  StanzaCollection expanded;
  page->propsObjByPrefixAndMode("", PropertyPages::GET_EXPANDED_NAMES, expanded);
  // The first application in trie order gives the expansion; the second's
  // is refused with a warning.
  const Str first = "monitor://" + t.root + "/apps/search/logs";
  EXPECT_EQ(1u, expanded.count(first));
  EXPECT_EQ(1u, expanded.count("plain"));
  EXPECT_EQ(2u, expanded.size());
  EXPECT_NE(std::string::npos,
            capture.text().find("WARN Stanza has an expansion [" + std::string(first) +
                                "], ignoring alternate expansion [monitor://" +
                                std::string(t.root) + "/apps/zeta/logs] in inputs.conf"))
      << capture.text();
}

TEST(PropertyPagesLayers, ContextOrderBeatsSourceTypeAndPriority) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[default]\nk = dflt\nonly = dflt\n"
             "[a]\nk = sys-a\n"
             "[source::/var/log/*.log]\nk = sys-pattern\npriority = 900\n");
  r.tree.put("apps/search/default/props.conf",
             "[b]\nk = app-b\npriority = 900\n"
             "[host::web*]\nk = app-host\n");
  PropertyPages* page = r.page("props");
  const struct {
    const char* context;
    const char* want;
  } kCases[] = {
      {"a|b", "sys-a from a"},  // a lower type and priority, yet the earlier context
      {"b|a", "app-b from b"},
      {"source::/var/log/x.log|host::web01", "sys-pattern from source::/var/log/*.log"},
      {"host::web01|source::/var/log/x.log", "app-host from host::web*"},
      {"nothing|a", "sys-a from a"},
      {"|a", "sys-a from a"},  // an empty piece matches nothing but keeps its place
      {"a|", "sys-a from a"},
      {"nothing", "dflt from default"},
      {"", "dflt from default"},
      {"|", "dflt from default"},
  };
  for (const auto& c : kCases) EXPECT_EQ(c.want, layered(page, c.context, "k")) << c.context;
  // "default" is there under every context, last.
  for (const auto& c : kCases) {
    EXPECT_EQ("dflt from default", layered(page, c.context, "only")) << c.context;
  }
}

TEST(PropertyPagesLayers, SourceTypeBeatsPriorityThenPriorityBeatsName) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[source::/var/log/*]\nk = sys\nt = sys\npriority = 1000\n"
             "[source::/var/log/x*]\nn = sys-x\n");
  r.tree.put("system/local/props.conf",
             "[source::/var/....log]\np = local-ellipsis\npriority = 5\n");
  r.tree.put("apps/search/default/props.conf",
             "[source::/var/log/*.log]\nk = app\nn = app-star\np = app-star\n"
             "[source::/var/log/a*]\nn = app-a\nq = app-a\n"
             "[source::/var/log/z*]\nq = app-z\npriority = 1\n");
  PropertyPages* page = r.page("props");
  const struct {
    const char* context;
    const char* key;
    const char* want;
  } kCases[] = {
      // An application's pattern without priority over the system's at 1000.
      {"source::/var/log/x.log", "k", "app from source::/var/log/*.log"},
      {"source::/var/log/x.log", "t", "sys from source::/var/log/*"},
      {"source::/var/log/x.log", "n", "app-star from source::/var/log/*.log"},
      // Equal type and priority: "*" (0x2a) sorts before "a".
      {"source::/var/log/a.log", "n", "app-star from source::/var/log/*.log"},
      // A higher priority beats a lower name.
      {"source::/var/log/za.log", "q", "app-z from source::/var/log/z*"},
      {"source::/var/log/a.txt", "q", "app-a from source::/var/log/a*"},
      {"source::/var/log/zz.txt", "q", "app-z from source::/var/log/z*"},
      // Whatever the system's local layer says, an application ranks above it.
      {"source::/var/log/x.log", "p", "app-star from source::/var/log/*.log"},
      {"source::/var/log/sub/x.log", "p", "local-ellipsis from source::/var/....log"},
      {"source::/var/log/sub/x.log", "k", "<unset>"},  // "*" stops at "/"
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, layered(page, c.context, c.key)) << c.context << " " << c.key;
  }
}

TEST(PropertyPagesLayers, ExactNameCountsAsPriorityHundred) {
  const struct {
    const char* patternPriority;
    const char* want;
  } kCases[] = {
      {"", "exact from source::/var/log/x.log"},  // no priority: 0
      {"99", "exact from source::/var/log/x.log"},
      {"100", "pattern from source::/var/log/*.log"},  // a tie goes to the lower name
      {"101", "pattern from source::/var/log/*.log"},
      {"200", "pattern from source::/var/log/*.log"},
      {"junk", "exact from source::/var/log/x.log"},  // no number: no priority
      {"-1", "exact from source::/var/log/x.log"},
      {"101abc", "exact from source::/var/log/x.log"},
      {"0x200", "exact from source::/var/log/x.log"},
      {"99999999999999999999", "exact from source::/var/log/x.log"},
      {"0200", "pattern from source::/var/log/*.log"},
  };
  for (const auto& c : kCases) {
    Tree r;
    std::string pattern = "[source::/var/log/*.log]\nk = pattern\n";
    if (*c.patternPriority != '\0') pattern += std::string("priority = ") + c.patternPriority + "\n";
    r.tree.put("apps/search/default/props.conf",
               pattern + "[source::/var/log/x.log]\nk = exact\n");
    EXPECT_EQ(c.want, layered(r.page("props"), "source::/var/log/x.log", "k"))
        << c.patternPriority;
  }
  // A pattern at 200 in the system's layer does not beat an application's
  // exact stanza.
  Tree r;
  r.tree.put("system/default/props.conf", "[source::/var/log/*.log]\nk = pattern\npriority = 200\n");
  r.tree.put("apps/search/default/props.conf", "[source::/var/log/x.log]\nk = exact\n");
  EXPECT_EQ("exact from source::/var/log/x.log",
            layered(r.page("props"), "source::/var/log/x.log", "k"));
}

// A host stanza without wildcard is a pattern too: by exact name it counts
// 100 and as a pattern 0, unless its own priority sets both.
TEST(PropertyPagesLayers, HostStanzaAppliesByNameAndAsPattern) {
  const struct {
    const char* exactPriority;  // "" for none
    const char* starPriority;
    const char* context;
    const char* want;
  } kCases[] = {
      {"", "60", "host::web01", "exact from host::web01"},
      {"", "60", "host::WEB01", "star from host::web*"},  // only as a pattern: 0
      {"", "0", "host::WEB01", "star from host::web*"},    // a tie: "*" sorts first
      {"50", "60", "host::web01", "star from host::web*"},
      {"70", "60", "host::WEB01", "exact from host::web01"},
      {"70", "60", "host::web01", "exact from host::web01"},
  };
  for (const auto& c : kCases) {
    Tree r;
    std::string text = "[host::web01]\nk = exact\n";
    if (*c.exactPriority != '\0') text += std::string("priority = ") + c.exactPriority + "\n";
    text += std::string("[host::web*]\nk = star\npriority = ") + c.starPriority + "\n";
    r.tree.put("system/default/props.conf", text);
    EXPECT_EQ(c.want, layered(r.page("props"), c.context, "k"))
        << c.exactPriority << " " << c.starPriority << " " << c.context;
  }
}

TEST(PropertyPagesLayers, HostIgnoresCaseSourceDoesNotPlainNamesAreExact) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[host::web*]\nh = star\n"
             "[host::web01]\ne = exact\n"
             "[source::/VAR/log/*.log]\ns = upper\n"
             "[access*]\na = literal\n"
             "[acc...]\nb = literal\n");
  PropertyPages* page = r.page("props");
  const struct {
    const char* context;
    const char* key;
    const char* want;
  } kCases[] = {
      {"host::WEB01", "h", "star from host::web*"},
      {"host::WEB01", "e", "exact from host::web01"},
      {"host::Web01", "e", "exact from host::web01"},
      {"host::web02", "e", "<unset>"},
      {"source::/var/log/x.log", "s", "<unset>"},
      {"source::/VAR/log/x.log", "s", "upper from source::/VAR/log/*.log"},
      {"access_log", "a", "<unset>"},
      {"access*", "a", "literal from access*"},
      {"access", "b", "<unset>"},
      {"acc...", "b", "literal from acc..."},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.want, layered(page, c.context, c.key)) << c.context << " " << c.key;
  }
  // Without pattern matching only the exact name counts, in any case
  // spelling of the host only when it is written so.
  EXPECT_EQ("<unset>", layered(page, "host::WEB01", "e", false));
  EXPECT_EQ("exact from host::web01", layered(page, "host::web01", "e", false));
  EXPECT_EQ("<unset>", layered(page, "host::web01", "h", false));
}

TEST(PropertyPagesLayers, DefaultIsLastAndNeverAPattern) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[default]\nk = dflt\nd = dflt\n"
             "[source::...]\nk = everything\n");
  PropertyPages* page = r.page("props");
  EXPECT_EQ("everything from source::...", layered(page, "source::/a/b", "k"));
  EXPECT_EQ("dflt from default", layered(page, "source::/a/b", "d"));
  EXPECT_EQ("dflt from default", layered(page, "sourcetype", "k"));
  // An empty root gives an empty map.
  Tree empty;
  PropertiesMap out;
  empty.page("props")->fillLayers(&out, "source::/a/b|x", true);
  EXPECT_TRUE(out.empty());
}

TEST(PropertyPagesLayers, UserLayerBeatsAnyPriorityBelowIt) {
  Tree r;
  EveryoneAUser users;
  users.current = "alice";
  ScopedProvider registered(&users);
  r.tree.put("system/default/props.conf",
             "[source::/var/log/*.log]\nk = sys\nu = sys\npriority = 900\n");
  r.tree.put("apps/search/default/props.conf", "[source::/var/log/*]\nk = app\npriority = 800\n");
  r.tree.put("users/alice/search/local/props.conf", "[source::/var/log/a*]\nk = user\n");
  PropertyPages* page = r.page("props", "alice", "search");
  EXPECT_EQ("user from source::/var/log/a*", layered(page, "source::/var/log/a.log", "k"));
  EXPECT_EQ("app from source::/var/log/*", layered(page, "source::/var/log/b.log", "k"));
  EXPECT_EQ("sys from source::/var/log/*.log", layered(page, "source::/var/log/a.log", "u"));
}

// ---- The acting user ----

TEST(PropertyPagesLayers, ActingUserForEveryKindOfContext) {
  EveryoneAUser users;
  users.admins = {"root"};
  ScopedProvider registered(&users);
  const struct {
    const char* current;  // "" for none
    const char* wanted;
    const char* actsAs;  // null: refused
  } kCases[] = {
      {"bob", "", ""},             // no user in the context
      {"", "alice", "alice"},      // no current user: the context's stands
      {"alice", "alice", "alice"},
      {"ALICE", "alice", "alice"},  // the same user in another case
      {"alice", "Alice", "Alice"},
      {"bob", "nobody", "bob"},  // "nobody" for a plain user is himself
      {"root", "nobody", "nobody"},
      {"root", "alice", "alice"},
      {"bob", "alice", nullptr},
  };
  for (const auto& c : kCases) {
    users.current = c.current;
    const PropertyPagesContext context(User(c.wanted), "search");
    if (c.actsAs != nullptr) {
      User out(Str("junk"));
      PropertyPages::getUserToActAs(context, out);
      EXPECT_EQ(Str(c.actsAs), out.name()) << c.current << " as " << c.wanted;
      EXPECT_NO_THROW(PropertyPages::canContextBeUsed(context));
    } else {
      User out;
      EXPECT_EQ(std::string("User '") + c.current + "' could not act as: " + c.wanted,
                thrownText<PropertyPagesImpersonationException>(
                    [&] { PropertyPages::getUserToActAs(context, out); }));
      EXPECT_THROW(PropertyPages::canContextBeUsed(context), PropertyPagesException);
    }
  }
}

TEST(PropertyPagesLayers, CanContextBeUsedPassesTheMissingProviderText) {
  ASSERT_EQ(nullptr, UserInfoProviderRegistry::getProvider());
  PropertyPages::canContextBeUsed(PropertyPagesContext(User(), "search"));
  const PropertyPagesContext context(User(Str("alice")), "search");
  EXPECT_EQ("Cannot get user to act as: No user info provider registered " +
                std::string(context.toString()),
            thrownText<PropertyPagesException>([&] { PropertyPages::canContextBeUsed(context); }));
}

// ---- Contexts a page refuses ----

TEST(PropertyPagesLayers, RefusesUnknownAndDisabledApplicationsAndUsersWithoutOne) {
  Tree r;
  EveryoneAUser users;
  users.current = "alice";
  ScopedProvider registered(&users);
  r.tree.put("apps/search/default/props.conf", "[x]\nk = v\n");
  r.tree.put("apps/off/default/app.conf", "[install]\nstate = disabled\n");
  r.tree.put("apps/relit/default/app.conf", "[install]\nstate = disabled\n");
  r.tree.put("apps/relit/local/app.conf", "[install]\nstate = enabled\n");
  const struct {
    const char* name;
    const char* user;
    const char* app;
    const char* refusal;  // "" when the page is given
  } kCases[] = {
      {"props", "", "search", ""},
      {"props", "", "relit", ""},  // local says enabled
      {"props", "", "missing", "Application is disabled: missing"},
      {"transforms", "", "off", "Application is disabled: off"},
      {"props", "alice", "off", "Application is disabled: off"},
      {"app", "", "missing", ""},  // page "app" serves any application
      {"app", "", "off", ""},
      {"props", "alice", "search", ""},
  };
  for (const auto& c : kCases) {
    const std::string got = thrownText<PropertyPagesContextException>(
        [&] { EXPECT_NE(nullptr, r.page(c.name, c.user, c.app)); });
    EXPECT_EQ(*c.refusal != '\0' ? c.refusal : "<nothing thrown>", got)
        << c.name << " " << c.user << " " << c.app;
  }
  const std::string noApp =
      thrownText<PropertyPagesContextException>([&] { r.page("props", "alice", ""); });
  const std::string suffix = ": Invalid configuration context: Missing app context";
  ASSERT_GE(noApp.size(), suffix.size()) << noApp;
  EXPECT_EQ(suffix, noApp.substr(noApp.size() - suffix.size())) << noApp;
  EXPECT_EQ(0u, noApp.find("PropertyPages(props")) << noApp;
}

// ---- Writes ----

// putDefault and putLearned compare with the layers too; putDefault of a
// page with an application goes to that application, never to "system".
TEST(PropertyPagesWrite, PutDefaultAndPutLearnedWriteOnlyTheDifference) {
  Tree r;
  r.tree.put("system/default/props.conf", "[default]\nd = 1\n[s]\na = 1\n");
  r.tree.put("apps/search/default/props.conf", "[t]\na = 1\n");
  PropertiesMap want;
  want.put("a", "1");
  want.put("b", "3");
  want.put("d", "1");
  PropertyPages* legacy = r.page("props");
  ASSERT_TRUE(legacy->putLearned("s", &want));
  const std::string learned = r.tree.read("apps/learned/local/props.conf");
  EXPECT_EQ("[s]\nb = 3\n", learned);
  EXPECT_EQ("3 from s", layered(legacy, "s", "b"));

  PropertyPages* app = r.page("props", "", "search");
  want.put("d", "");  // stated nowhere, so not written either
  ASSERT_TRUE(app->putDefault("t", &want));
  EXPECT_EQ("[t]\nb = 3\n", r.tree.read("apps/search/local/props.conf"));
  EXPECT_EQ("", r.tree.read("system/local/props.conf"));
}

TEST(PropertyPagesWrite, WritesLeaveOutWhatDefaultGivesAndKeepEmptyOverrides) {
  Tree r;
  r.tree.put("system/default/props.conf", "[default]\nd = 1\n[s]\ne = 2\n");
  PropertyPages* page = r.page("props");
  PropertiesMap want;
  want.put("d", "1");  // "default" already gives it
  want.put("e", "");   // an empty value over a set one must be stated
  want.put("f", "");   // an empty value over nothing states nothing
  want.put("g", "3");
  ASSERT_TRUE(page->putLocal("s", &want, false));
  const IniFile local(r.tree.path("system/local/props.conf"));
  const IniStanza* s = local.findStanza("s");
  ASSERT_NE(nullptr, s) << r.tree.read("system/local/props.conf");
  EXPECT_EQ(nullptr, s->find("d")) << r.tree.read("system/local/props.conf");
  EXPECT_NE(nullptr, s->find("e")) << r.tree.read("system/local/props.conf");
  EXPECT_EQ(nullptr, s->find("f")) << r.tree.read("system/local/props.conf");
  EXPECT_NE(nullptr, s->find("g")) << r.tree.read("system/local/props.conf");
  PropertiesMap out;
  page->fillLayers(&out, "s", false);
  EXPECT_EQ("", out.get("e"));
  EXPECT_EQ("3", out.get("g"));
  EXPECT_EQ("1", out.get("d"));
}

TEST(PropertyPagesWrite, UserPageWritesIntoTheUsersLayer) {
  Tree r;
  EveryoneAUser users;
  users.current = "alice";
  ScopedProvider registered(&users);
  r.tree.put("apps/search/default/props.conf", "[s]\na = 1\n");
  PropertyPages* page = r.page("props", "alice", "search");
  PropertiesMap want;
  want.put("a", "1");
  want.put("b", "2");
  ASSERT_TRUE(page->putLocal("s", &want, false));
  const std::string text = r.tree.read("users/alice/search/local/props.conf");
  EXPECT_NE(std::string::npos, text.find("[s]")) << text;
  EXPECT_EQ(std::string::npos, text.find("a =")) << text;
  EXPECT_NE(std::string::npos, text.find("b = 2")) << text;
  EXPECT_EQ("", r.tree.read("apps/search/local/props.conf"));
  PropertiesMap out;
  page->fillLayers(&out, "s", false);
  ASSERT_NE(nullptr, out.getProperty("b"));
  EXPECT_EQ(SOURCE_USER, out.getProperty("b")->sourceType());
  EXPECT_EQ("1", out.get("a"));
}

// Four source types in alice's page of application "own": the system's layer,
// a stanza another application exports to all, one that "own" exports to
// all, and one of "own" without export.
TEST(PropertyPagesLayers, ExportedStanzasRankBetweenSystemAndApplication) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[source::/var/log/*]\nk = sys\nm = sys\nn = sys\no = sys\npriority = 9000\n");
  r.tree.put("apps/shared/default/props.conf",
             "[source::/var/log/*.log]\nk = global\nm = global\no = global\npriority = 5000\n");
  r.tree.put("apps/shared/metadata/default.meta",
             "[props/source::%2Fvar%2Flog%2F*.log]\nexport = global\n");
  r.tree.put("apps/own/default/props.conf",
             "[source::/var/log/x*]\nk = own\n[source::/var/log/...]\nk = ownglobal\n"
             "m = ownglobal\nn = ownglobal\npriority = 1000\n");
  r.tree.put("apps/own/metadata/default.meta",
             "[props/source::%2Fvar%2Flog%2F...]\nexport = global\n");
  EveryoneAUser users;
  users.current = "alice";
  ScopedProvider registered(&users);
  PropertyPages* page = r.page("props", "alice", "own");
  PropertiesMap out;
  page->fillLayers(&out, "source::/var/log/x.log", true);
  const struct {
    const char* key;
    const char* value;
    PropertySourceType type;
  } kCases[] = {
      {"k", "own", SOURCE_APP},
      {"m", "ownglobal", SOURCE_GLOBAL_SAME_APP},
      {"n", "ownglobal", SOURCE_GLOBAL_SAME_APP},
      {"o", "global", SOURCE_GLOBAL_OTHER_APP},
  };
  for (const auto& c : kCases) {
    const Property* p = out.getProperty(c.key);
    ASSERT_NE(nullptr, p) << c.key;
    EXPECT_EQ(c.value, p->value()) << c.key;
    EXPECT_EQ(c.type, p->sourceType()) << c.key;
  }
}

TEST(PropertyPagesLayers, PrioritiesAreWideUnsignedNumbers) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[source::/a/*]\nk = small\npriority = 4294967295\n"
             "[source::/a/b*]\nk = large\npriority = 5000000000\n"
             "[source::/a/...]\nk = zero\npriority = 0\n");
  EXPECT_EQ("large from source::/a/b*", layered(r.page("props"), "source::/a/b", "k"));
}

TEST(PropertyPagesLayers, DefaultLayerBringsNoPermissions) {
  Tree r;
  r.tree.put("apps/search/default/props.conf", "[default]\nd = 1\n[s]\na = 1\n");
  r.tree.put("apps/search/metadata/default.meta",
             "[props/default]\naccess = read : [ * ], write : [ admin ]\n"
             "[props/s]\naccess = read : [ * ], write : [ power ]\n");
  PropertyPages* page = r.page("props", "", "search");
  PropertiesMap alone;
  page->fillLayers(&alone, "nothing", true);
  EXPECT_EQ("1", alone.get("d"));
  EXPECT_TRUE(alone.getMergedPermissions().empty());
  PropertiesMap withStanza;
  page->fillLayers(&withStanza, "s", true);
  EXPECT_EQ("1", withStanza.get("d"));
  EXPECT_FALSE(withStanza.getMergedPermissions().empty());
}

// A stanza that one bundle of an application touches takes the
// application's rank as a whole, with the priority the system's bundle set.
TEST(PropertyPagesLayers, StanzaRanksByItsMostSpecificSetting) {
  Tree r;
  r.tree.put("system/default/props.conf", "[source::/var/log/*.log]\nk = sys\npriority = 900\n");
  r.tree.put("apps/other/local/props.conf", "[source::/var/log/*.log]\nz = app\n");
  r.tree.put("apps/search/default/props.conf", "[source::/var/log/x*]\nk = app\npriority = 800\n");
  PropertyPages* page = r.page("props");
  EXPECT_EQ("sys from source::/var/log/*.log", layered(page, "source::/var/log/x.log", "k"));
  EXPECT_EQ("app from source::/var/log/*.log", layered(page, "source::/var/log/x.log", "z"));
}

// Without pooling a page learns of a change only when told; each way of
// telling marks exactly its own pages for a rebuild.
TEST(PropertyPagesLayers, RecomputeMarksOnlyTheNamedPages) {
  Tree r;
  EveryoneAUser users;
  users.current = "alice";
  users.admins = {"alice"};
  ScopedProvider registered(&users);
  r.tree.put("system/default/props.conf", "[s]\nk = 1\n");
  r.tree.put("system/default/transforms.conf", "[s]\nk = 1\n");
  r.tree.put("apps/search/default/app.conf", "[install]\nstate = enabled\n");
  Tree other;
  other.tree.put("system/default/props.conf", "[s]\nk = 1\n");
  PropertyPages* pages[] = {r.page("props"), r.page("transforms"),
                            r.page("props", "alice", "search"), r.page("props", "bob", "search"),
                            other.page("props")};
  // One letter per page, "d" when its cache waits for a rebuild; reading
  // each page brings it up to date.
  auto dirtyAndRead = [&] {
    std::string marks;
    for (PropertyPages* page : pages) {
      marks += dynamic_cast<BaseConfCache&>(page->cache()).isDirty() ? "d" : "-";
      EXPECT_EQ("1 from s", layered(page, "s", "k"));
    }
    return marks;
  };
  EXPECT_EQ("ddddd", dirtyAndRead());
  EXPECT_EQ("-----", dirtyAndRead());
  PropertyPages::updateRoleMappings(User(Str("ALICE")));
  EXPECT_EQ("--d--", dirtyAndRead());
  pages[3]->updateCache();  // every "props" page of the root, whoever acts
  EXPECT_EQ("d-dd-", dirtyAndRead());
  PropertyPages::recomputeAll(r.tree.setup());
  EXPECT_EQ("dddd-", dirtyAndRead());
}

TEST(PropertyPagesLayers, NoRoleChangeWithoutARealUser) {
  Tree r;
  r.tree.put("apps/search/default/props.conf", "[s]\nk = 1\n");
  EXPECT_FALSE(r.page("props")->roleChangeOccured());
  EXPECT_FALSE(r.page("props", "", "search")->roleChangeOccured());
  EveryoneAUser users;
  users.current = "root";
  users.admins = {"root"};
  {
    ScopedProvider registered(&users);
    PropertyPages* nobody = r.page("props", "nobody", "search");
    EXPECT_EQ(Str("nobody"), nobody->actingUser().name());
    EXPECT_FALSE(nobody->roleChangeOccured());
    PropertyPages* alice = r.page("props", "alice", "search");
    EXPECT_EQ(Str("alice"), alice->actingUser().name());
    UserInfoProviderRegistry::unregisterProvider(&users);
    EXPECT_FALSE(alice->roleChangeOccured());  // nobody to ask
  }
}

// A write compares with the stanza by its exact name and "default" only:
// what a pattern stanza gives still has to be written to hold for the name.
TEST(PropertyPagesWrite, WriteComparesWithoutPatterns) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[source::/var/log/*]\nk = 1\n[default]\nd = 1\n");
  PropertyPages* page = r.page("props");
  PropertiesMap want;
  want.put("k", "1");
  want.put("d", "1");
  ASSERT_TRUE(page->putLocal("source::/var/log/x.log", &want, false));
  const IniFile local(r.tree.path("system/local/props.conf"));
  const IniStanza* s = local.findStanza("source::/var/log/x.log");
  ASSERT_NE(nullptr, s) << r.tree.read("system/local/props.conf");
  EXPECT_NE(nullptr, s->find("k")) << r.tree.read("system/local/props.conf");
  EXPECT_EQ(nullptr, s->find("d")) << r.tree.read("system/local/props.conf");
}

// Without overwriteAll the comparison includes the writing layer itself;
// with it, the layer's stanza is gone first, so a value equal to a lower
// layer's is dropped rather than written.
TEST(PropertyPagesWrite, OverwriteAllComparesWithTheLayersBelow) {
  for (const bool overwriteAll : {false, true}) {
    Tree r;
    r.tree.put("system/default/props.conf", "[s]\nx = base\n");
    r.tree.put("system/local/props.conf", "[s]\nx = old\n");
    PropertyPages* page = r.page("props");
    PropertiesMap want;
    want.put("x", "base");
    ASSERT_TRUE(page->putLocal("s", &want, overwriteAll)) << overwriteAll;
    EXPECT_EQ("base from s", layered(page, "s", "x")) << overwriteAll;
    const std::string local = r.tree.read("system/local/props.conf");
    EXPECT_EQ(!overwriteAll, local.find("x = base") != std::string::npos)
        << overwriteAll << ": " << local;
    EXPECT_EQ(std::string::npos, local.find("old")) << overwriteAll << ": " << local;
  }
}

// Two applications export the same stanza: a page with an application
// takes the one whose name sorts last; a page without context takes the
// first bundle, which is the first application.
TEST(PropertyPagesLayers, EqualSourceTypesGoToTheLastApplicationInUserPages) {
  Tree r;
  EveryoneAUser users;
  users.current = "alice";
  ScopedProvider registered(&users);
  for (const char* app : {"aaa", "mmm", "zzz"}) {
    r.tree.put(std::string("apps/") + app + "/default/props.conf",
               std::string("[s]\nk = ") + app + "\n");
    r.tree.put(std::string("apps/") + app + "/metadata/default.meta",
               "[props/s]\nexport = global\n");
  }
  r.tree.put("apps/search/default/app.conf", "[install]\nstate = enabled\n");
  EXPECT_EQ("zzz from s", layered(r.page("props", "alice", "search"), "s", "k"));
  EXPECT_EQ("aaa from s", layered(r.page("props"), "s", "k"));
  // The page's own application is of a higher type than the others.
  EXPECT_EQ("mmm from s", layered(r.page("props", "alice", "mmm"), "s", "k"));
}

// The context is a view: only its own bytes count, whatever follows them.
TEST(PropertyPagesLayers, ContextIsTheViewNotTheBufferBehindIt) {
  Tree r;
  r.tree.put("system/default/props.conf",
             "[a]\nk = a\n[ab]\nk = ab\n[b]\nk = b\nj = b\n"
             "[source::/l/*]\nk = pat\n[default]\nd = 1\n");
  PropertyPages* page = r.page("props");
  const char buffer[] = "a|bc|source::/l/x/y";
  const struct {
    size_t length;
    const char* k;
    const char* j;
  } kCases[] = {
      {0, "", ""},   // the empty context: only "default"
      {1, "a", ""},  // "a", not "a|bc..."
      {2, "a", ""},  // "a" and ""
      {3, "a", "b"},  // "a|b"
      {4, "a", ""},  // "a|bc"
  };
  for (const auto& c : kCases) {
    PropertiesMap out;
    page->fillLayers(&out, StrSegment(buffer, c.length), true);
    EXPECT_EQ(c.k, out.get("k")) << c.length;
    EXPECT_EQ(c.j, out.get("j")) << c.length;
    EXPECT_EQ("1", out.get("d")) << c.length;
  }
  const char tail[] = "source::/l/x/y";
  PropertiesMap out;
  page->fillLayers(&out, StrSegment(tail, 12), true);  // "source::/l/x"
  EXPECT_EQ("pat", out.get("k"));
}

// A disabled application's bundles give no layers, its pattern stanzas
// included; its "local" saying "enabled" brings them back.
TEST(PropertyPagesLayers, DisabledApplicationsGiveNoLayers) {
  Tree r;
  r.tree.put("system/default/props.conf", "[s]\nk = sys\n[source::/l/*]\np = sys\n");
  for (const char* app : {"off", "relit"}) {
    r.tree.put(std::string("apps/") + app + "/default/app.conf", "[install]\nstate = disabled\n");
    r.tree.put(std::string("apps/") + app + "/default/props.conf",
               std::string("[s]\nk = ") + app + "\n[source::/l/x*]\np = " + app + "\n");
  }
  r.tree.put("apps/relit/local/app.conf", "[install]\nstate = enabled\n");
  PropertyPages* page = r.page("props");
  EXPECT_EQ("relit from s", layered(page, "s", "k"));
  EXPECT_EQ("relit from source::/l/x*", layered(page, "source::/l/x", "p"));
  r.tree.put("apps/relit/local/app.conf", "[install]\nstate = disabled\n");
  PropertyPages::recomputeAll(r.tree.setup());
  EXPECT_EQ("sys from s", layered(page, "s", "k"));
  EXPECT_EQ("sys from source::/l/*", layered(page, "source::/l/x", "p"));
}

}  // namespace
