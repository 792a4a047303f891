#include "libbundle/PropertyPages.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/DeletabilityCache.h"
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

TEST(PropertyPagesTree, ActingUserAndItsRefusals) {
  Tree t;
  t.write("apps/search/default/props.conf", "[x]\na = 1\n");
  const PropertyPagesContext alice(t.setup, User("alice"), "search");
  const PropertyPagesContext nobody(t.setup, User("nobody"), "search");
  const PropertyPagesContext none(t.setup, User(), "search");
  User acting;
  PropertyPages::getUserToActAs(none, acting);
  EXPECT_TRUE(acting.empty());
  EXPECT_EQ("Cannot get user to act as: No user info provider registered " + alice.toString(),
            thrownText<PropertyPagesException>([&] { PropertyPages::getUserToActAs(alice, acting); }));

  TestUserInfo info;
  ScopedProvider provider(&info);
  PropertyPages::getUserToActAs(alice, acting);  // no current user: the context's stands
  EXPECT_EQ("alice", acting.name());
  info.current = "ALICE";
  PropertyPages::getUserToActAs(alice, acting);
  EXPECT_EQ("alice", acting.name());
  info.current = "carol";
  PropertyPages::getUserToActAs(nobody, acting);  // may not act for others: acts as herself
  EXPECT_EQ("carol", acting.name());
  EXPECT_EQ("User 'carol' could not act as: alice",
            thrownText<PropertyPagesImpersonationException>(
                [&] { PropertyPages::getUserToActAs(alice, acting); }));
  EXPECT_THROW(PropertyPages::canContextBeUsed(alice), PropertyPagesException);
  info.admins.insert("carol");
  PropertyPages::canContextBeUsed(alice);
  PropertyPages::getUserToActAs(nobody, acting);
  EXPECT_EQ("nobody", acting.name());
}

TEST(PropertyPagesTree, RefusedContexts) {
  Tree t;
  t.write("apps/search/default/props.conf", "[x]\na = 1\n");
  t.write("apps/off/default/app.conf", "[install]\nstate = disabled\n");
  TestUserInfo info;
  info.current = "alice";
  ScopedProvider provider(&info);
  EXPECT_EQ("Application is disabled: off",
            thrownText<PropertyPagesContextException>([&] { t.page("props", "alice", "off"); }));
  EXPECT_EQ("Application is disabled: missing",
            thrownText<PropertyPagesContextException>([&] { t.page("props", "", "missing"); }));
  EXPECT_NE(nullptr, t.page("app", "alice", "off"));  // the page "app" may see it
  const Str text =
      thrownText<PropertyPagesContextException>([&] { t.page("props", "alice", ""); });
  EXPECT_NE(Str::npos, text.find(": Invalid configuration context: Missing app context")) << text;
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

}  // namespace
