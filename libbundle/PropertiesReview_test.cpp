// Properties as a caller sees them: layers added to a target that already
// holds entries, the typed readers on blank and percent-bearing text,
// difference and comparison over high bytes, and the summed-up metadata
// of stanzas whose entries disagree.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "libbundle/ConfPathPermissions.h"
#include "libbundle/ContextProperties.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertiesMapMetadata.h"
#include "libbundle/Property.h"
#include "libbundle/PropertySourceType.h"
#include "libbundle/User.h"
#include "util/Str.h"
#include "util/Timeval.h"
#include "util/testing/LogCapture.h"

namespace {

struct Entry {
  const char* key;
  const char* value;
  PropertySourceType type;
  const char* stanza;
  const char* user;
  const char* app;
};

// Puts `key` and dresses its Property with the given provenance.
Property& putWith(PropertiesMap& m, const Entry& e) {
  m.put(e.key, e.value);
  Property* p = m.getProperty(e.key);
  p->setSourceType(e.type);
  p->setSourceStanza(e.stanza);
  p->setSourceUser(User(Str(e.user)));
  p->setSourceApplication(e.app);
  return *p;
}

typedef std::vector<std::pair<std::string, std::string>> Entries;

PropertiesMap mapOf(const Entries& kv, const char* embedded = "") {
  PropertiesMap m;
  for (const auto& [k, v] : kv) m.put(k, v);
  m.getEmbeddedProperty().setValue(embedded);
  return m;
}

// The (key, value) entries, in the map's order.
Entries entriesOf(const PropertiesMap& m) {
  Entries out;
  for (const auto& [k, p] : m) out.emplace_back(k, p.value());
  return out;
}

ConfPathPermissionsReference permsWith(const char* readRole) {
  ConfPathPermissions p;
  p.allow(ConfPathPermissions::ALLOW_GET, readRole);
  return ConfPathPermissionsReference(p);
}

}  // namespace

// ---- Adding layers to a target that already holds entries ----

TEST(PropertiesLayers, KeyNewToAFilledTargetArrivesWithAllItsProvenance) {
  PropertiesMap high, low, target;
  putWith(high, {"k", "a", SOURCE_APP, "orig", "nobody", "appA"});
  putWith(low, {"k", "b", SOURCE_USER, "", "bob", "appB"}).setSourceRemovable(true);
  Property& only = putWith(low, {"only", "z", SOURCE_GLOBAL_SAME_APP, "x", "carol", "appC"});
  only.setSourceRemovable(true);
  only.setSourceModTime(Timeval(1234, 5));
  only.setPermissions(permsWith("power"));

  high.addLayerTo(target, false, "sHigh");
  low.addLayerTo(target, false, "sLow");

  ASSERT_EQ(2u, target.size());
  const Property* k = target.getProperty("k");
  EXPECT_EQ("a", k->value());
  EXPECT_EQ("sHigh", k->sourceStanza());
  EXPECT_FALSE(k->isSourceRemovable());

  const Property* o = target.getProperty("only");
  ASSERT_NE(nullptr, o);
  EXPECT_EQ("z", o->value());
  EXPECT_EQ(SOURCE_GLOBAL_SAME_APP, o->sourceType());
  EXPECT_EQ("carol", o->sourceUser().name());
  EXPECT_EQ("appC", o->sourceApplication());
  EXPECT_EQ("sLow", o->sourceStanza());  // the recorded stanza, not the entry's "x"
  EXPECT_TRUE(o->isSourceRemovable());
  EXPECT_EQ(Timeval(1234, 5), o->sourceModTime());
  EXPECT_TRUE(o->permissions().isSameObject(only.permissions()));
}

TEST(PropertiesLayers, KeyAlreadyInTargetKeepsTargetsProvenance) {
  PropertiesMap target;
  putWith(target, {"k", "t", SOURCE_GLOBAL_OTHER_APP, "tStanza", "tuser", "tapp"});
  PropertiesMap layer;
  Property& l = putWith(layer, {"k", "l", SOURCE_USER, "lStanza", "luser", "lapp"});
  l.setSourceRemovable(true);
  l.setPermissions(permsWith("admin"));
  layer.getEmbeddedProperty().setSourceStanza("emb");
  layer.addLayerTo(target, true, "arg");
  const Property* k = target.getProperty("k");
  EXPECT_EQ("t", k->value());
  EXPECT_EQ(SOURCE_GLOBAL_OTHER_APP, k->sourceType());
  EXPECT_EQ("tStanza", k->sourceStanza());
  EXPECT_EQ("tuser", k->sourceUser().name());
  EXPECT_EQ("tapp", k->sourceApplication());
  EXPECT_FALSE(k->isSourceRemovable());
  EXPECT_TRUE(k->permissions().empty());
}

TEST(PropertiesLayers, EmbeddedPropertyIsTakenWhole) {
  PropertiesMap target;
  PropertiesMap first;  // still unset: taken, and replaced by the next layer
  first.getEmbeddedProperty().setValue("v1");
  first.getEmbeddedProperty().setSourceUser(User(Str("u1")));
  first.addLayerTo(target, false, "s1");
  EXPECT_EQ("u1", target.getEmbeddedProperty().sourceUser().name());

  PropertiesMap second;
  Property& e = second.getEmbeddedProperty();
  e.setValue("v2");
  e.setSourceType(SOURCE_GLOBAL_SAME_APP);
  e.setSourceUser(User(Str("u2")));
  e.setSourceApplication("app2");
  e.setSourceRemovable(true);
  e.setSourceModTime(Timeval(77, 8));
  e.setPermissions(permsWith("r2"));
  second.addLayerTo(target, false, "s2");
  const Property& t = target.getEmbeddedProperty();
  EXPECT_EQ("v2", t.value());
  EXPECT_EQ(SOURCE_GLOBAL_SAME_APP, t.sourceType());
  EXPECT_EQ("u2", t.sourceUser().name());
  EXPECT_EQ("app2", t.sourceApplication());
  EXPECT_TRUE(t.isSourceRemovable());
  EXPECT_EQ(Timeval(77, 8), t.sourceModTime());
  EXPECT_TRUE(t.permissions().isSameObject(e.permissions()));
  EXPECT_EQ("s2", t.sourceStanza());
}

TEST(PropertiesLayers, ExpandedNameIsSetEvenToNothing) {
  PropertiesMap target;
  PropertiesMap named;
  named.setExpandedName("e1");
  named.addLayerTo(target, true, "s");
  EXPECT_EQ("e1", target.getExpandedName());
  PropertiesMap ignored;
  ignored.setExpandedName("ignored");
  ignored.addLayerTo(target, false, "s");
  EXPECT_EQ("e1", target.getExpandedName());
  PropertiesMap unnamed;
  unnamed.addLayerTo(target, true, "s");
  EXPECT_EQ("", target.getExpandedName());
}

// ---- Typed readers ----

TEST(PropertiesTypedReaders, EveryFailureWarnsNoneIsHeldBack) {
  ScopedLogCapture capture("PropertiesMap");
  const PropertiesMap m = mapOf({{"k", "x"}});
  for (int i = 0; i < 130; ++i) {
    int out = 0;
    EXPECT_FALSE(m.tryToInt("k", out));
  }
  EXPECT_EQ(130u, capture.lines().size());
}

TEST(PropertiesTypedReaders, LeadingBlanksAndPlusSignConvertSilently) {
  ScopedLogCapture capture("PropertiesMap");
  const PropertiesMap m =
      mapOf({{"lead", "  42"}, {"plus", "+5"}, {"big", "18446744073709551615"}});
  int i = 0;
  EXPECT_TRUE(m.tryToInt("lead", i));
  EXPECT_EQ(42, i);
  EXPECT_TRUE(m.tryToInt("plus", i));
  EXPECT_EQ(5, i);
  unsigned u = 0;
  EXPECT_TRUE(m.tryToUnsigned("lead", u));
  EXPECT_EQ(42u, u);
  unsigned long ul = 0;
  EXPECT_TRUE(m.tryToUnsignedLong("big", ul));
  EXPECT_EQ(18446744073709551615ul, ul);
  EXPECT_EQ(42l, m.toLong("lead", 0));
  EXPECT_EQ("", capture.text());
}

TEST(PropertiesTypedReaders, ToBoolEmptyGivesDefaultJunkGivesTrue) {
  const struct {
    const char* value;
    bool dflt;
    bool expected;
  } kCases[] = {
      {"", true, true},    {"", false, false},     {"junk", false, true}, {"on", false, true},
      {"no", true, false}, {"FALSE", true, false}, {"00", false, true},
  };
  ScopedLogCapture capture("PropertiesMap");
  for (const auto& c : kCases) {
    const PropertiesMap m = mapOf({{"k", c.value}});
    EXPECT_EQ(c.expected, m.toBool("k", c.dflt)) << '"' << c.value << "\" " << c.dflt;
  }
  EXPECT_TRUE(PropertiesMap().toBool("absent", true));
  EXPECT_EQ("", capture.text());
}

TEST(PropertiesTypedReaders, SilentFormsWriteNothingAnywhere) {
  const PropertiesMap m =
      mapOf({{"a", "5 weeks"}, {"b", "-5s"}, {"c", "99999999999999999999d"}, {"d", "12x"}});
  testing::internal::CaptureStderr();
  unsigned long long msec = 1;
  for (const char* k : {"a", "b", "c", "d"}) {
    EXPECT_FALSE(m.tryToTimeSpan(k, msec)) << k;
    EXPECT_EQ(2ull, m.toTimeSpan(k, 2)) << k;
    EXPECT_EQ(4, m.toInt(k, 4)) << k;
  }
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ(1ull, msec);
}

// ---- Provenance ----

TEST(PropertyDefaults, InitResetsEveryField) {
  Property p;
  p.setValue("v");
  p.setSourceType(SOURCE_USER);
  p.setSourceUser(User(Str("who")));
  p.setSourceApplication("app");
  p.setSourceStanza("s");
  p.setSourceRemovable(true);
  p.setSourceModTime(Timeval(5, 0));
  p.setPermissions(permsWith("r"));
  p.init();
  EXPECT_EQ("", p.value());
  EXPECT_EQ(SOURCE_UNSET, p.sourceType());
  EXPECT_TRUE(p.sourceUser() == User::NOBODY_USER);
  EXPECT_EQ(Property::DEFAULT_APPLICATION, p.sourceApplication());
  EXPECT_EQ("system", Property::DEFAULT_APPLICATION);
  EXPECT_EQ("", p.sourceStanza());
  EXPECT_FALSE(p.isSourceRemovable());
  EXPECT_EQ(Timeval(), p.sourceModTime());
  EXPECT_EQ(0, p.permissions().useCount());

  for (const auto& [stanza, isDefault] : std::vector<std::pair<const char*, bool>>{
           {"default", true}, {"Default", false}, {"", false}, {"default ", false}}) {
    Property q;
    q.setSourceStanza(stanza);
    EXPECT_EQ(isDefault, q.isPropertySourceStanzaDefault()) << '"' << stanza << '"';
  }
}

TEST(PropertiesProvenance, EnumValuesAreFixed) {
  static_assert(std::is_same_v<std::underlying_type_t<PropertySourceType>, int32_t>);
  static_assert(std::is_same_v<std::underlying_type_t<PropertiesMapMetadata::ShareLevel>, int32_t>);
  const int kSources[] = {SOURCE_UNSET,
                          SOURCE_SYSTEM_DEFAULT,
                          SOURCE_GLOBAL_OTHER_APP,
                          SOURCE_GLOBAL_SAME_APP,
                          SOURCE_APP,
                          SOURCE_USER};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(i, kSources[i]);
  const int kLevels[] = {PropertiesMapMetadata::SHARE_USER, PropertiesMapMetadata::SHARE_APP,
                         PropertiesMapMetadata::SHARE_GLOBAL, PropertiesMapMetadata::SHARE_SYSTEM};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(i, kLevels[i]);
}

// ---- Difference ----

TEST(PropertiesDifference, WalksKeysInTheMapsOwnOrder) {
  const struct {
    Entries mine;
    Entries other;
    Entries expected;
  } kCases[] = {
      {{{"k", "A"}}, {{"k", "a"}}, {{"k", "A"}}},
      {{{"K", "1"}}, {{"k", "1"}}, {{"K", "1"}}},
      // high bytes sort after ASCII; a walk that read them as signed would
      // pair the wrong keys
      {{{"\xff", "1"}, {"a", "2"}}, {{"a", "2"}, {"\xff", "1"}}, {}},
      {{{"\x80", "1"}, {"b", "2"}, {"z", ""}},
       {{"a", "0"}, {"b", "3"}, {"\xfe", "1"}},
       {{"b", "2"}, {"\x80", "1"}}},
      {{{"a", "1"}, {"ab", "2"}}, {{"a", "1"}, {"a\x01", "2"}}, {{"ab", "2"}}},
  };
  int row = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(row++);
    PropertiesMap out;
    mapOf(c.mine).difference(mapOf(c.other), out);
    EXPECT_EQ(c.expected, entriesOf(out));
  }
}

TEST(PropertiesDifference, ReplacesSameKeyInOutAndKeepsTheRest) {
  PropertiesMap mine;
  putWith(mine, {"changed", "new", SOURCE_USER, "s1", "u1", "a1"}).setSourceRemovable(true);
  PropertiesMap other = mapOf({{"changed", "old"}});
  PropertiesMap out = mapOf({{"changed", "stale"}, {"kept", "k"}});
  mine.difference(other, out);
  EXPECT_EQ((Entries{{"changed", "new"}, {"kept", "k"}}), entriesOf(out));
  const Property* p = out.getProperty("changed");
  EXPECT_EQ(SOURCE_USER, p->sourceType());
  EXPECT_EQ("s1", p->sourceStanza());
  EXPECT_TRUE(p->isSourceRemovable());
}

// ---- Comparison ----

TEST(PropertiesCompare, ProvenanceDoesNotOrder) {
  PropertiesMap a, b;
  putWith(a, {"k", "1", SOURCE_USER, "s", "u", "x"});
  putWith(b, {"k", "1", SOURCE_SYSTEM_DEFAULT, "t", "v", "y"});
  a.getEmbeddedProperty().setSourceType(SOURCE_APP);
  a.mergePermissions(permsWith("r"));
  a.setExpandedName("expanded");
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
}

TEST(PropertiesCompare, PercentSignsInTextStayText) {
  ScopedLogCapture capture("PropertiesMap");
  const PropertiesMap a = mapOf({{"k%s", "50%d"}}, "x%s");
  const PropertiesMap b = mapOf({}, "y");
  EXPECT_FALSE(a == b);
  EXPECT_EQ(std::vector<std::string>({"DEBUG (_embedded, x%s) != (_embedded, y)"}),
            capture.lines());
  EXPECT_EQ("\tAttr:k%s\t50%d\n", a.toString());
  const ContextProperties c("n%s", User(Str("u%s")), "a%d", a);
  EXPECT_EQ("(user: u%s, application: a%d, name: n%s)", c.toDebugString());
}

// ---- Metadata ----

TEST(PropertiesMetadata, FreshStateBeforeInitFrom) {
  const PropertiesMapMetadata fresh;
  EXPECT_FALSE(fresh.isInitialized());
  EXPECT_EQ(PropertiesMapMetadata::SHARE_SYSTEM, fresh.sharing());
  EXPECT_EQ("system", fresh.getSharingAsStr());
  EXPECT_FALSE(fresh.isRemovable());
  EXPECT_EQ("", fresh.owner());
  EXPECT_EQ("", fresh.application());
  EXPECT_TRUE(fresh.permissions().empty());
}

TEST(PropertiesMetadata, SharingFollowsTheBestSourceTypeOnEitherSide) {
  const struct {
    PropertySourceType type;
    PropertiesMapMetadata::ShareLevel sharing;
    const char* owner;
    const char* app;
  } kCases[] = {
      {SOURCE_UNSET, PropertiesMapMetadata::SHARE_SYSTEM, "system", "system"},
      {SOURCE_SYSTEM_DEFAULT, PropertiesMapMetadata::SHARE_SYSTEM, "ann", "appx"},
      {SOURCE_GLOBAL_OTHER_APP, PropertiesMapMetadata::SHARE_GLOBAL, "ann", "appx"},
      {SOURCE_GLOBAL_SAME_APP, PropertiesMapMetadata::SHARE_GLOBAL, "ann", "appx"},
      {SOURCE_APP, PropertiesMapMetadata::SHARE_APP, "ann", "appx"},
      {SOURCE_USER, PropertiesMapMetadata::SHARE_USER, "ann", "appx"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.type);
    PropertiesMap onEntry;
    putWith(onEntry, {"k", "v", c.type, "s", "ann", "appx"});
    PropertiesMap onEmbedded;
    Property& e = onEmbedded.getEmbeddedProperty();
    e.setSourceType(c.type);
    e.setSourceUser(User(Str("ann")));
    e.setSourceApplication("appx");
    for (const PropertiesMap* m : {&onEntry, &onEmbedded}) {
      PropertiesMapMetadata md;
      md.initFrom(*m);
      EXPECT_EQ(c.sharing, md.sharing());
      EXPECT_EQ(c.owner, md.owner());
      EXPECT_EQ(c.app, md.application());
    }
  }
}

TEST(PropertiesMetadata, RemovableFromEmbeddedOnlyAndLaterInitFromOverwrites) {
  PropertiesMap r;
  putWith(r, {"k", "v", SOURCE_USER, "s", "u", "a"}).setSourceRemovable(true);
  r.mergePermissions(permsWith("reader"));
  PropertiesMapMetadata md;
  md.initFrom(r);
  EXPECT_FALSE(md.isRemovable());
  EXPECT_EQ("u", md.owner());
  EXPECT_EQ(PropertiesMapMetadata::SHARE_USER, md.sharing());

  md.initFrom(PropertiesMap());
  EXPECT_EQ("system", md.owner());
  EXPECT_EQ("system", md.application());
  EXPECT_EQ(PropertiesMapMetadata::SHARE_SYSTEM, md.sharing());
  EXPECT_TRUE(md.permissions().empty());
}

// ---- Context properties ----

TEST(ContextPropertiesReview, MapsCompareByValuesOnly) {
  const PropertiesMap base = mapOf({{"k", "1"}}, "e");
  PropertiesMap sameValues;
  putWith(sameValues, {"k", "1", SOURCE_USER, "other", "x", "y"});
  sameValues.getEmbeddedProperty().setValue("e");
  sameValues.getEmbeddedProperty().setSourceType(SOURCE_APP);
  const ContextProperties ref("stanza", User(Str("Admin")), "search", base);
  const struct {
    const char* name;
    ContextProperties other;
    bool equal;
  } kCases[] = {
      {"provenance differs", ContextProperties("stanza", User(Str("ADMIN")), "search", sameValues),
       true},
      {"embedded value differs",
       ContextProperties("stanza", User(Str("Admin")), "search", mapOf({{"k", "1"}}, "f")), false},
      {"an extra empty entry",
       ContextProperties("stanza", User(Str("Admin")), "search",
                         mapOf({{"k", "1"}, {"j", ""}}, "e")),
       false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.equal, ref == c.other) << c.name;
    EXPECT_EQ(c.equal, c.other == ref) << c.name;
    EXPECT_EQ(!c.equal, ref != c.other) << c.name;
  }
}
