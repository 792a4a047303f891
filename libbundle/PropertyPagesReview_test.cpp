// Pages over real configuration roots in temporary directories: the order of
// layers that fillLayers gives across contexts, source types, priorities and
// names; the acting user and the contexts a page refuses; and writes.
#include "libbundle/PropertyPages.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "libbundle/BaseConfCache.h"
#include "libbundle/ConfPath.h"
#include "libbundle/IniFile.h"
#include "libbundle/UserInfoProvider.h"
#include "libbundle/testing/BundleTree.h"
#include "util/testing/ThrownText.h"

namespace {

class FakeUsers : public IUserInfoProvider {
 public:
  bool getCurrentUser(User& out) const override {
    if (current.empty()) return false;
    out = User(current);
    return true;
  }
  bool getRoles(const User&, std::set<Str>& out) const override {
    out = {"user"};
    return true;
  }
  bool mayActForOthers(const User& user) const override { return admins.count(user.name()) != 0; }

  Str current;
  std::set<Str> admins;
};

class RegisteredUsers {
 public:
  explicit RegisteredUsers(const IUserInfoProvider* p) : _p(p) {
    UserInfoProviderRegistry::registerProvider(p);
  }
  ~RegisteredUsers() { UserInfoProviderRegistry::unregisterProvider(_p); }

 private:
  const IUserInfoProvider* _p;
};

struct Root {
  BundleTree tree;
  PropertyPages* page(const char* name, const char* user = "", const char* app = "") {
    return PropertyPages::instance(name, PropertyPagesContext(tree.setup(), User(user), app));
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
TEST(PropertyPagesReview, ContextOrderBeatsSourceTypeAndPriority) {
  Root r;
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

TEST(PropertyPagesReview, SourceTypeBeatsPriorityThenPriorityBeatsName) {
  Root r;
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

TEST(PropertyPagesReview, ExactNameCountsAsPriorityHundred) {
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
    Root r;
    std::string pattern = "[source::/var/log/*.log]\nk = pattern\n";
    if (*c.patternPriority != '\0') pattern += std::string("priority = ") + c.patternPriority + "\n";
    r.tree.put("apps/search/default/props.conf",
               pattern + "[source::/var/log/x.log]\nk = exact\n");
    EXPECT_EQ(c.want, layered(r.page("props"), "source::/var/log/x.log", "k"))
        << c.patternPriority;
  }
  // A pattern at 200 in the system's layer does not beat an application's
  // exact stanza.
  Root r;
  r.tree.put("system/default/props.conf", "[source::/var/log/*.log]\nk = pattern\npriority = 200\n");
  r.tree.put("apps/search/default/props.conf", "[source::/var/log/x.log]\nk = exact\n");
  EXPECT_EQ("exact from source::/var/log/x.log",
            layered(r.page("props"), "source::/var/log/x.log", "k"));
}

// A host stanza without wildcard is a pattern too: by exact name it counts
// 100 and as a pattern 0, unless its own priority sets both.
TEST(PropertyPagesReview, HostStanzaAppliesByNameAndAsPattern) {
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
    Root r;
    std::string text = "[host::web01]\nk = exact\n";
    if (*c.exactPriority != '\0') text += std::string("priority = ") + c.exactPriority + "\n";
    text += std::string("[host::web*]\nk = star\npriority = ") + c.starPriority + "\n";
    r.tree.put("system/default/props.conf", text);
    EXPECT_EQ(c.want, layered(r.page("props"), c.context, "k"))
        << c.exactPriority << " " << c.starPriority << " " << c.context;
  }
}

TEST(PropertyPagesReview, HostIgnoresCaseSourceDoesNotPlainNamesAreExact) {
  Root r;
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

TEST(PropertyPagesReview, DefaultIsLastAndNeverAPattern) {
  Root r;
  r.tree.put("system/default/props.conf",
             "[default]\nk = dflt\nd = dflt\n"
             "[source::...]\nk = everything\n");
  PropertyPages* page = r.page("props");
  EXPECT_EQ("everything from source::...", layered(page, "source::/a/b", "k"));
  EXPECT_EQ("dflt from default", layered(page, "source::/a/b", "d"));
  EXPECT_EQ("dflt from default", layered(page, "sourcetype", "k"));
  // An empty root gives an empty map.
  Root empty;
  PropertiesMap out;
  empty.page("props")->fillLayers(&out, "source::/a/b|x", true);
  EXPECT_TRUE(out.empty());
}

TEST(PropertyPagesReview, UserLayerBeatsAnyPriorityBelowIt) {
  Root r;
  FakeUsers users;
  users.current = "alice";
  RegisteredUsers registered(&users);
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

TEST(PropertyPagesReview, ActingUserForEveryKindOfContext) {
  FakeUsers users;
  users.admins = {"root"};
  RegisteredUsers registered(&users);
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

TEST(PropertyPagesReview, CanContextBeUsedPassesTheMissingProviderText) {
  ASSERT_EQ(nullptr, UserInfoProviderRegistry::getProvider());
  PropertyPages::canContextBeUsed(PropertyPagesContext(User(), "search"));
  const PropertyPagesContext context(User(Str("alice")), "search");
  EXPECT_EQ("Cannot get user to act as: No user info provider registered " +
                std::string(context.toString()),
            thrownText<PropertyPagesException>([&] { PropertyPages::canContextBeUsed(context); }));
}

// ---- Contexts a page refuses ----

TEST(PropertyPagesReview, RefusesUnknownAndDisabledApplicationsAndUsersWithoutOne) {
  Root r;
  FakeUsers users;
  users.current = "alice";
  RegisteredUsers registered(&users);
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
TEST(PropertyPagesReview, PutDefaultAndPutLearnedWriteOnlyTheDifference) {
  Root r;
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

TEST(PropertyPagesReview, WritesLeaveOutWhatDefaultGivesAndKeepEmptyOverrides) {
  Root r;
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

TEST(PropertyPagesReview, UserPageWritesIntoTheUsersLayer) {
  Root r;
  FakeUsers users;
  users.current = "alice";
  RegisteredUsers registered(&users);
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
TEST(PropertyPagesReview, ExportedStanzasRankBetweenSystemAndApplication) {
  Root r;
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
  FakeUsers users;
  users.current = "alice";
  RegisteredUsers registered(&users);
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

TEST(PropertyPagesReview, PrioritiesAreWideUnsignedNumbers) {
  Root r;
  r.tree.put("system/default/props.conf",
             "[source::/a/*]\nk = small\npriority = 4294967295\n"
             "[source::/a/b*]\nk = large\npriority = 5000000000\n"
             "[source::/a/...]\nk = zero\npriority = 0\n");
  EXPECT_EQ("large from source::/a/b*", layered(r.page("props"), "source::/a/b", "k"));
}

TEST(PropertyPagesReview, DefaultLayerBringsNoPermissions) {
  Root r;
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
TEST(PropertyPagesReview, StanzaRanksByItsMostSpecificSetting) {
  Root r;
  r.tree.put("system/default/props.conf", "[source::/var/log/*.log]\nk = sys\npriority = 900\n");
  r.tree.put("apps/other/local/props.conf", "[source::/var/log/*.log]\nz = app\n");
  r.tree.put("apps/search/default/props.conf", "[source::/var/log/x*]\nk = app\npriority = 800\n");
  PropertyPages* page = r.page("props");
  EXPECT_EQ("sys from source::/var/log/*.log", layered(page, "source::/var/log/x.log", "k"));
  EXPECT_EQ("app from source::/var/log/*.log", layered(page, "source::/var/log/x.log", "z"));
}

// Without pooling a page learns of a change only when told; each way of
// telling marks exactly its own pages for a rebuild.
TEST(PropertyPagesReview, RecomputeMarksOnlyTheNamedPages) {
  Root r;
  FakeUsers users;
  users.current = "alice";
  users.admins = {"alice"};
  RegisteredUsers registered(&users);
  r.tree.put("system/default/props.conf", "[s]\nk = 1\n");
  r.tree.put("system/default/transforms.conf", "[s]\nk = 1\n");
  r.tree.put("apps/search/default/app.conf", "[install]\nstate = enabled\n");
  Root other;
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

TEST(PropertyPagesReview, NoRoleChangeWithoutARealUser) {
  Root r;
  r.tree.put("apps/search/default/props.conf", "[s]\nk = 1\n");
  EXPECT_FALSE(r.page("props")->roleChangeOccured());
  EXPECT_FALSE(r.page("props", "", "search")->roleChangeOccured());
  FakeUsers users;
  users.current = "root";
  users.admins = {"root"};
  {
    RegisteredUsers registered(&users);
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
TEST(PropertyPagesReview, WriteComparesWithoutPatterns) {
  Root r;
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
TEST(PropertyPagesReview, OverwriteAllComparesWithTheLayersBelow) {
  for (const bool overwriteAll : {false, true}) {
    Root r;
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
TEST(PropertyPagesReview, EqualSourceTypesGoToTheLastApplicationInUserPages) {
  Root r;
  FakeUsers users;
  users.current = "alice";
  RegisteredUsers registered(&users);
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
TEST(PropertyPagesReview, ContextIsTheViewNotTheBufferBehindIt) {
  Root r;
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
TEST(PropertyPagesReview, DisabledApplicationsGiveNoLayers) {
  Root r;
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
