#include "libbundle/PropertiesMap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "libbundle/ContextProperties.h"
#include "libbundle/IniFile.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"

namespace {

using Settings = std::vector<std::pair<const char*, const char*>>;

// One layer as the configuration cache hands it out: the settings of one
// stanza, every value and the stanza itself carrying the same provenance.
PropertiesMap makeLayer(const char* stanza, PropertySourceType type, const Settings& settings,
                        const char* application = "search", const char* user = "nobody") {
  PropertiesMap m;
  auto stamp = [&](Property& p) {
    p.setSourceType(type);
    p.setSourceApplication(application);
    p.setSourceUser(User(user));
    p.setSourceStanza(stanza);
  };
  for (const auto& [key, value] : settings) {
    m.put(key, value);
    stamp(*m.getProperty(key));
  }
  stamp(m.getEmbeddedProperty());
  return m;
}

ConfPathPermissionsReference permissionsFor(const char* role) {
  ConfPathPermissions p;
  p.allow(ConfPathPermissions::ALLOW_GET, role);
  return ConfPathPermissionsReference(p);
}

std::vector<std::string> keysOf(const PropertiesMap& m) {
  std::vector<std::string> keys;
  for (const auto& entry : m) keys.push_back(entry.first);
  return keys;
}

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

}  // namespace

TEST(PropertiesMap, AbsentAndEmptyReadAlike) {
  PropertiesMap m;
  m.put("set", "v");
  m.put("empty", "");
  EXPECT_EQ("v", m.get("set"));
  for (const char* key : {"empty", "absent"}) {
    EXPECT_EQ(&Str::EMPTY_STR, &m.get(key)) << key;
    Str out = "kept";
    EXPECT_FALSE(m.fill(key, out)) << key;
    EXPECT_EQ("kept", out) << key;
  }
  Str out;
  EXPECT_TRUE(m.fill("set", out));
  EXPECT_EQ("v", out);
  EXPECT_NE(nullptr, m.getProperty("empty"));  // present, unlike "absent"
  EXPECT_EQ(nullptr, m.getProperty("absent"));
}

// A stanza read from a file becomes a map of its trimmed settings, with
// default provenance.
TEST(PropertiesMap, FromAStanzaOfAFile) {
  TestTempDir dir;
  writeTestFile(dir.path() / "props.conf",
                "[syslog]\n"
                "TIME_FORMAT =  %b %d %H:%M:%S \t\n"
                "\tMAX_TIMESTAMP_LOOKAHEAD\t=32\n"
                "EMPTY =\n"
                "# a comment\n"
                "TZ=UTC\n");
  IniFile file(dir.path() / "props.conf");
  const IniStanza* stanza = file.stanzas().get(Str("syslog"));
  ASSERT_NE(nullptr, stanza);
  const PropertiesMap map(*stanza);
  EXPECT_EQ("%b %d %H:%M:%S", map.get("TIME_FORMAT"));
  EXPECT_EQ("32", map.get("MAX_TIMESTAMP_LOOKAHEAD"));
  EXPECT_EQ("UTC", map.get("TZ"));
  Str out("kept");
  EXPECT_FALSE(map.fill("EMPTY", out));
  EXPECT_EQ("kept", out);
  EXPECT_EQ(SOURCE_UNSET, map.getHighestPriorityProperty().sourceType());
}

TEST(PropertiesMap, KeysSortBytewiseUnsignedWithCase) {
  PropertiesMap m;
  for (const char* key : {"b", "\xc3\xa9", "a", "ab", "B", "a b", "a"}) m.put(key, "1");
  EXPECT_EQ(std::vector<std::string>({"B", "a", "a b", "ab", "b", "\xc3\xa9"}), keysOf(m));
  EXPECT_EQ(
      "\tAttr:B\t1\n\tAttr:a\t1\n\tAttr:a b\t1\n\tAttr:ab\t1\n\tAttr:b\t1\n"
      "\tAttr:\xc3\xa9\t1\n",
      m.toString());
  EXPECT_EQ("", PropertiesMap().toString());
}

TEST(PropertiesMap, PutChangesTheValueAndKeepsTheProvenance) {
  PropertiesMap m = makeLayer("s", SOURCE_USER, {{"k", "1"}}, "app", "bob");
  m.put("k", "2");
  const Property& p = *m.getProperty("k");
  EXPECT_EQ("2", p.value());
  EXPECT_EQ(SOURCE_USER, p.sourceType());
  EXPECT_EQ("bob", p.sourceUser().name());
  EXPECT_EQ("s", p.sourceStanza());
  m.put("new", LStrContainer("MiXeD \xc3\x84"));
  const Property& fresh = *m.getProperty("new");
  EXPECT_EQ("mixed \xc3\xa4", fresh.value());
  EXPECT_EQ(SOURCE_UNSET, fresh.sourceType());
  EXPECT_EQ("nobody", fresh.sourceUser().name());
  EXPECT_EQ("system", fresh.sourceApplication());
  EXPECT_EQ("", fresh.sourceStanza());
  EXPECT_FALSE(fresh.isSourceRemovable());
  EXPECT_EQ(Timeval(), fresh.sourceModTime());
  EXPECT_TRUE(fresh.permissions().empty());
}

TEST(PropertiesMap, DisabledReadsThroughToBool) {
  EXPECT_FALSE(PropertiesMap().isDisabled());
  const struct {
    const char* value;
    bool disabled;
  } kCases[] = {
      {"1", true}, {"0", false}, {"true", true}, {"FALSE", false}, {"", false},
      {"maybe", true},  // text that is no boolean reads as true
  };
  for (const auto& c : kCases) {
    PropertiesMap m;
    m.put("disabled", c.value);
    EXPECT_EQ(c.disabled, m.isDisabled()) << c.value;
  }
  PropertiesMap m;
  m.setDisabled(true);
  EXPECT_EQ("1", m.get(Property::DISABLED_KEY));
  EXPECT_TRUE(m.isDisabled());
  m.setDisabled(false);
  EXPECT_EQ("0", m.get("disabled"));
  EXPECT_FALSE(m.isDisabled());
}

TEST(PropertiesMap, RemoveValuesErasesExactMatchesOnly) {
  PropertiesMap m;
  for (const auto& [k, v] : Settings{{"a", "1"}, {"b", "2"}, {"c", "1"}, {"d", ""}, {"e", "1 "}})
    m.put(k, v);
  m.removeValues("1");
  EXPECT_EQ(std::vector<std::string>({"b", "d", "e"}), keysOf(m));
  m.removeValues("");
  EXPECT_EQ(std::vector<std::string>({"b", "e"}), keysOf(m));
  m.removeValues("absent");
  EXPECT_EQ(2u, m.size());
}

TEST(PropertiesMap, MergePermissionsKeepsTheFirstNonEmptySet) {
  const ConfPathPermissionsReference none;
  const ConfPathPermissionsReference emptySet{ConfPathPermissions()};
  const ConfPathPermissionsReference admin = permissionsFor("admin");
  const ConfPathPermissionsReference power = permissionsFor("power");
  const struct {
    const char* name;
    std::vector<const ConfPathPermissionsReference*> offers;
    const ConfPathPermissionsReference* kept;
  } kCases[] = {
      {"nothing offered", {}, &none},
      {"one set", {&admin}, &admin},
      {"second set changes nothing", {&admin, &power}, &admin},
      {"no reference does not count", {&none, &power}, &power},
      {"a set without roles does not count", {&emptySet, &power}, &power},
      {"empty after a set", {&admin, &none, &emptySet}, &admin},
  };
  for (const auto& c : kCases) {
    PropertiesMap m;
    for (const auto* offer : c.offers) m.mergePermissions(*offer);
    EXPECT_TRUE(m.getMergedPermissions().get() == c.kept->get()) << c.name;
    if (!c.kept->empty()) {
      EXPECT_TRUE(m.getMergedPermissions().isSameObject(*c.kept)) << c.name;
    }
  }
}

TEST(PropertiesMap, CopiesShareThePermissionObject) {
  const ConfPathPermissionsReference admin = permissionsFor("admin");
  PropertiesMap m = makeLayer("s", SOURCE_APP, {{"k", "1"}});
  m.mergePermissions(admin);
  m.getProperty("k")->setPermissions(admin);
  m.setExpandedName("expanded");
  const long before = admin.useCount();
  const PropertiesMap copy(m);
  EXPECT_EQ(before + 2, admin.useCount());
  EXPECT_TRUE(copy.getMergedPermissions().isSameObject(admin));
  EXPECT_TRUE(copy.getProperty("k")->permissions().isSameObject(admin));
  EXPECT_EQ("expanded", copy.getExpandedName());
  EXPECT_EQ("s", copy.getEmbeddedProperty().sourceStanza());
  m.put("k", "changed");
  EXPECT_EQ("1", copy.get("k"));  // the entries themselves are copied
}

// ---- Layers ----

TEST(PropertiesMapLayers, TheFirstLayerThatHasAKeyDecidesIt) {
  // Layers are named after their stanzas and added in the order given.
  struct Layer {
    const char* stanza;
    Settings settings;
  };
  const struct {
    const char* name;
    std::vector<Layer> layers;
    bool present;
    const char* value;
    const char* stanza;
  } kCases[] = {
      {"one layer", {{"A", {{"k", "1"}}}}, true, "1", "A"},
      {"earlier wins", {{"A", {{"k", "1"}}}, {"B", {{"k", "2"}}}}, true, "1", "A"},
      {"a gap falls through", {{"A", {{"j", "1"}}}, {"B", {{"k", "2"}}}}, true, "2", "B"},
      {"empty masks", {{"A", {{"k", ""}}}, {"B", {{"k", "1"}}}}, true, "", "A"},
      {"empty masks deeper too",
       {{"A", {}}, {"B", {{"k", ""}}}, {"C", {{"k", "3"}}}},
       true, "", "B"},
      {"nobody sets it", {{"A", {{"j", "1"}}}, {"B", {}}}, false, "", ""},
      {"no layers", {}, false, "", ""},
  };
  for (const auto& c : kCases) {
    PropertiesMap merged;
    for (const Layer& l : c.layers) {
      makeLayer(l.stanza, SOURCE_APP, l.settings).addLayerTo(merged, true);
    }
    const Property* p = merged.getProperty("k");
    ASSERT_EQ(c.present, p != nullptr) << c.name;
    EXPECT_EQ(c.value, merged.get("k")) << c.name;
    if (p != nullptr) {
      EXPECT_EQ(c.stanza, p->sourceStanza()) << c.name;
    }
  }
}

TEST(PropertiesMapLayers, TheWinnerKeepsAllItsProvenance) {
  PropertiesMap user = makeLayer("u", SOURCE_USER, {{"k", "mine"}}, "search", "bob");
  user.getProperty("k")->setSourceRemovable(true);
  user.getProperty("k")->setSourceModTime(Timeval(1234, 5));
  user.getProperty("k")->setPermissions(permissionsFor("bob"));
  const PropertiesMap system = makeLayer("s", SOURCE_SYSTEM_DEFAULT, {{"k", "theirs"}}, "system");
  PropertiesMap merged;
  user.addLayerTo(merged, false);
  system.addLayerTo(merged, false);
  const Property& p = *merged.getProperty("k");
  EXPECT_EQ("mine", p.value());
  EXPECT_EQ(SOURCE_USER, p.sourceType());
  EXPECT_EQ("bob", p.sourceUser().name());
  EXPECT_EQ("search", p.sourceApplication());
  EXPECT_EQ("u", p.sourceStanza());
  EXPECT_TRUE(p.isSourceRemovable());
  EXPECT_EQ(Timeval(1234, 5), p.sourceModTime());
  EXPECT_TRUE(p.permissions().get().isAllowed(ConfPathPermissions::ALLOW_GET, "bob"));
}

TEST(PropertiesMapLayers, TheRecordedStanzaIsTheEmbeddedOnesElseTheGivenName) {
  const struct {
    const char* embeddedStanza;
    const char* given;
    const char* recorded;
  } kCases[] = {
      {"own", "given", "own"},
      {"", "given", "given"},
      {"", "", ""},
      {"own", "", "own"},
  };
  for (const auto& c : kCases) {
    PropertiesMap layer = makeLayer(c.embeddedStanza, SOURCE_APP, {{"k", "1"}});
    layer.getProperty("k")->setSourceStanza("stale");  // overwritten on the way in
    PropertiesMap merged;
    layer.addLayerTo(merged, false, c.given);
    EXPECT_EQ(c.recorded, merged.getProperty("k")->sourceStanza()) << c.given;
    EXPECT_EQ(c.recorded, merged.getEmbeddedProperty().sourceStanza()) << c.given;
  }
}

TEST(PropertiesMapLayers, TheEmbeddedPropertyComesFromTheFirstLayerThatSetsOne) {
  PropertiesMap unset;  // a layer whose stanza node has no value of its own
  unset.getEmbeddedProperty().setValue("ignored");
  PropertiesMap app = makeLayer("B", SOURCE_APP, {});
  app.getEmbeddedProperty().setValue("from B");
  PropertiesMap user = makeLayer("C", SOURCE_USER, {});
  user.getEmbeddedProperty().setValue("from C");
  PropertiesMap merged;
  unset.addLayerTo(merged, false, "A");
  EXPECT_EQ("ignored", merged.getEmbeddedProperty().value());  // taken, still unset
  EXPECT_EQ("A", merged.getEmbeddedProperty().sourceStanza());
  app.addLayerTo(merged, false, "x");
  user.addLayerTo(merged, false);
  EXPECT_EQ("from B", merged.getEmbeddedProperty().value());
  EXPECT_EQ(SOURCE_APP, merged.getEmbeddedProperty().sourceType());
  EXPECT_EQ("B", merged.getEmbeddedProperty().sourceStanza());
}

TEST(PropertiesMapLayers, MetadataTakesTheFirstPermissionsAndTheLastExpandedName) {
  const struct {
    const char* name;
    const char* roles[3];  // "" for none
    bool withMetadata[3];
    const char* role;      // of the merged permissions, "" for none
    const char* expanded;
  } kCases[] = {
      {"all with metadata", {"", "admin", "power"}, {true, true, true}, "admin", "e2"},
      {"the last without", {"admin", "power", "x"}, {true, true, false}, "admin", "e1"},
      {"the first without", {"admin", "power", ""}, {false, true, true}, "power", "e2"},
      {"none with metadata", {"admin", "power", "x"}, {false, false, false}, "", ""},
  };
  for (const auto& c : kCases) {
    PropertiesMap merged;
    for (int i = 0; i < 3; ++i) {
      PropertiesMap layer = makeLayer("s", SOURCE_APP, {{"k", "1"}});
      if (*c.roles[i]) layer.mergePermissions(permissionsFor(c.roles[i]));
      layer.setExpandedName("e" + std::to_string(i));
      layer.addLayerTo(merged, c.withMetadata[i]);
    }
    const ConfPathPermissions& got = merged.getMergedPermissions().get();
    if (*c.role) {
      EXPECT_TRUE(got.isAllowed(ConfPathPermissions::ALLOW_GET, c.role)) << c.name;
      EXPECT_EQ(1u, got.roles(ConfPathPermissions::ALLOW_GET).size()) << c.name;
    } else {
      EXPECT_TRUE(got.empty()) << c.name;
    }
    EXPECT_EQ(c.expanded, merged.getExpandedName()) << c.name;
  }
}

TEST(PropertiesMapLayers, KeyNewToAFilledTargetArrivesWithAllItsProvenance) {
  PropertiesMap high, low, target;
  putWith(high, {"k", "a", SOURCE_APP, "orig", "nobody", "appA"});
  putWith(low, {"k", "b", SOURCE_USER, "", "bob", "appB"}).setSourceRemovable(true);
  Property& only = putWith(low, {"only", "z", SOURCE_GLOBAL_SAME_APP, "x", "carol", "appC"});
  only.setSourceRemovable(true);
  only.setSourceModTime(Timeval(1234, 5));
  only.setPermissions(permissionsFor("power"));

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

TEST(PropertiesMapLayers, KeyAlreadyInTargetKeepsTargetsProvenance) {
  PropertiesMap target;
  putWith(target, {"k", "t", SOURCE_GLOBAL_OTHER_APP, "tStanza", "tuser", "tapp"});
  PropertiesMap layer;
  Property& l = putWith(layer, {"k", "l", SOURCE_USER, "lStanza", "luser", "lapp"});
  l.setSourceRemovable(true);
  l.setPermissions(permissionsFor("admin"));
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

TEST(PropertiesMapLayers, EmbeddedPropertyIsTakenWhole) {
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
  e.setPermissions(permissionsFor("r2"));
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

TEST(PropertiesMapLayers, ExpandedNameIsSetEvenToNothing) {
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

TEST(PropertiesMapLayers, RandomStacksAgreeWithAFirstMatchModel) {
  std::mt19937 rng(20261123);
  const char* const kKeys[] = {"a", "b", "c", "d", "e", "f"};
  for (int round = 0; round < 300; ++round) {
    std::vector<std::map<std::string, std::string>> layers(1 + rng() % 5);
    PropertiesMap merged;
    for (size_t i = 0; i < layers.size(); ++i) {
      PropertiesMap layer;
      for (const char* k : kKeys) {
        if (rng() % 2) continue;
        const std::string v = rng() % 4 == 0 ? "" : std::to_string(rng() % 3);
        layers[i][k] = v;
        layer.put(k, v);
      }
      layer.addLayerTo(merged, true, "L" + std::to_string(i));
    }
    for (const char* k : kKeys) {
      size_t first = layers.size();
      for (size_t i = 0; i < layers.size() && first == layers.size(); ++i)
        if (layers[i].count(k)) first = i;
      const Property* p = merged.getProperty(k);
      ASSERT_EQ(first < layers.size(), p != nullptr) << "round " << round << " key " << k;
      if (p == nullptr) continue;
      EXPECT_EQ(layers[first][k], p->value()) << "round " << round << " key " << k;
      EXPECT_EQ("L" + std::to_string(first), p->sourceStanza()) << "round " << round;
    }
  }
}

// ---- Provenance ----

TEST(PropertiesMapProvenance, HighestPriorityPropertyTable) {
  struct Entry {
    const char* key;
    PropertySourceType type;
    const char* stanza;
  };
  const struct {
    const char* name;
    PropertySourceType embeddedType;
    const char* embeddedStanza;
    std::vector<Entry> entries;
    const char* winner;  // "" for the embedded property
  } kCases[] = {
      {"empty map", SOURCE_APP, "x", {}, ""},
      {"greater entry", SOURCE_SYSTEM_DEFAULT, "x", {{"a", SOURCE_GLOBAL_OTHER_APP, "x"}}, "a"},
      {"a tie goes to the embedded", SOURCE_APP, "x", {{"a", SOURCE_APP, "x"}}, ""},
      {"ties among entries go to the first key", SOURCE_SYSTEM_DEFAULT, "x",
       {{"b", SOURCE_GLOBAL_SAME_APP, "x"}, {"a", SOURCE_GLOBAL_SAME_APP, "x"}}, "a"},
      {"the greatest type", SOURCE_SYSTEM_DEFAULT, "x",
       {{"a", SOURCE_GLOBAL_OTHER_APP, "x"}, {"b", SOURCE_USER, "x"}, {"c", SOURCE_APP, "x"}},
       "b"},
      {"default entries skipped under a named stanza", SOURCE_SYSTEM_DEFAULT, "x",
       {{"a", SOURCE_USER, "default"}, {"b", SOURCE_GLOBAL_OTHER_APP, "x"}}, "b"},
      {"all from default: the embedded speaks", SOURCE_UNSET, "x",
       {{"a", SOURCE_USER, "default"}, {"b", SOURCE_APP, "default"}}, ""},
      {"embedded from default: none skipped", SOURCE_SYSTEM_DEFAULT, "default",
       {{"a", SOURCE_USER, "default"}}, "a"},
      {"embedded without stanza: none skipped", SOURCE_SYSTEM_DEFAULT, "",
       {{"a", SOURCE_USER, "default"}}, "a"},
      {"case counts in the stanza name", SOURCE_SYSTEM_DEFAULT, "Default",
       {{"a", SOURCE_USER, "default"}, {"b", SOURCE_APP, "DEFAULT"}}, "b"},
  };
  for (const auto& c : kCases) {
    PropertiesMap m;
    m.getEmbeddedProperty().setSourceType(c.embeddedType);
    m.getEmbeddedProperty().setSourceStanza(c.embeddedStanza);
    for (const Entry& e : c.entries) {
      m.put(e.key, "v");
      m.getProperty(e.key)->setSourceType(e.type);
      m.getProperty(e.key)->setSourceStanza(e.stanza);
    }
    const Property* expected = *c.winner ? m.getProperty(c.winner) : &m.getEmbeddedProperty();
    EXPECT_EQ(expected, &m.getHighestPriorityProperty()) << c.name;
  }
}

TEST(PropertiesMapProvenance, SourceNamesTheUserOnlyForUserLayers) {
  const struct {
    PropertySourceType type;
    const char* name;
  } kCases[] = {
      {SOURCE_UNSET, "search"},           {SOURCE_SYSTEM_DEFAULT, "search"},
      {SOURCE_GLOBAL_OTHER_APP, "search"}, {SOURCE_GLOBAL_SAME_APP, "search"},
      {SOURCE_APP, "search"},             {SOURCE_USER, "Bob"},
  };
  for (const auto& c : kCases) {
    const PropertiesMap m = makeLayer("st", c.type, {{"k", "1"}}, "search", "Bob");
    Str name;
    EXPECT_EQ(c.type, m.getSource(name)) << c.type;
    EXPECT_EQ(c.name, name) << c.type;
    EXPECT_EQ("st", m.getSourceStanza());
    EXPECT_EQ("search", m.getSourceApplication());
    EXPECT_EQ("Bob", m.getSourceUser().name());
  }
  Str name = "stale";
  EXPECT_EQ(SOURCE_UNSET, PropertiesMap().getSource(name));
  EXPECT_EQ("system", name);  // a new property's application
}

// ---- Difference and comparison ----

TEST(PropertiesMapDifference, StatesWhatThisMapAddsOverTheOther) {
  const struct {
    const char* name;
    Settings mine;
    Settings other;
    Settings out;
  } kCases[] = {
      {"same values", {{"a", "1"}}, {{"a", "1"}}, {}},
      {"changed value", {{"a", "1"}}, {{"a", "2"}}, {{"a", "1"}}},
      {"emptied value", {{"a", ""}}, {{"a", "2"}}, {{"a", ""}}},
      {"mine only", {{"a", "1"}}, {}, {{"a", "1"}}},
      {"mine only and empty", {{"a", ""}}, {}, {}},
      {"other only", {}, {{"a", "1"}}, {}},
      {"exact comparison", {{"a", "x"}}, {{"a", "x "}}, {{"a", "x"}}},
      {"interleaved",
       {{"b", "1"}, {"d", "2"}, {"f", ""}, {"g", "4"}},
       {{"a", "0"}, {"b", "1"}, {"c", "9"}, {"d", "3"}, {"f", "5"}},
       {{"d", "2"}, {"f", ""}, {"g", "4"}}},
  };
  for (const auto& c : kCases) {
    PropertiesMap mine, other, out;
    for (const auto& [k, v] : c.mine) mine.put(k, v);
    for (const auto& [k, v] : c.other) other.put(k, v);
    mine.difference(other, out);
    std::vector<std::string> expectedKeys;
    for (const auto& [k, v] : c.out) {
      expectedKeys.push_back(k);
      EXPECT_EQ(v, out.get(k)) << c.name << " key " << k;
    }
    EXPECT_EQ(expectedKeys, keysOf(out)) << c.name;
  }
}

TEST(PropertiesMapDifference, AgainstItselfIsEmptyAndProvenancePlaysNoPart) {
  PropertiesMap m = makeLayer("s", SOURCE_USER, {{"a", "1"}, {"b", ""}});
  PropertiesMap out;
  m.difference(m, out);
  EXPECT_TRUE(out.empty());
  const PropertiesMap sameValues = makeLayer("t", SOURCE_SYSTEM_DEFAULT, {{"a", "1"}, {"b", ""}});
  m.difference(sameValues, out);
  EXPECT_TRUE(out.empty());
  m.put("c", "3");
  m.getProperty("c")->setSourceType(SOURCE_USER);
  m.difference(sameValues, out);
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ(SOURCE_USER, out.getProperty("c")->sourceType());  // copied whole
}

TEST(PropertiesMapDifference, TheDifferenceOverTheOtherRebuildsThisMap) {
  // Written as a layer above `other`, the difference must read back as this
  // map for every key this map has, and as `other` for the rest.
  std::mt19937 rng(7);
  const char* const kKeys[] = {"a", "b", "c", "d", "e", "f", "g"};
  for (int round = 0; round < 300; ++round) {
    PropertiesMap mine, other;
    for (const char* k : kKeys) {
      const unsigned pick = rng() % 9;
      auto value = [&] { return rng() % 3 == 0 ? Str() : Str(std::to_string(rng() % 2)); };
      if (pick < 3 || pick >= 6) mine.put(k, value());
      if (pick >= 3) other.put(k, value());
    }
    PropertiesMap diff, merged;
    mine.difference(other, diff);
    diff.addLayerTo(merged, false);
    other.addLayerTo(merged, false);
    for (const char* k : kKeys) {
      const Str& expected = mine.getProperty(k) ? mine.get(k) : other.get(k);
      EXPECT_EQ(expected, merged.get(k)) << "round " << round << " key " << k;
    }
  }
}

TEST(PropertiesMapDifference, WalksKeysInTheMapsOwnOrder) {
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

TEST(PropertiesMapDifference, ReplacesSameKeyInOutAndKeepsTheRest) {
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

TEST(PropertiesMapCompare, EqualityLooksAtValuesOnly) {
  const PropertiesMap base = makeLayer("s", SOURCE_APP, {{"a", "1"}, {"b", "2"}});
  PropertiesMap sameValues = makeLayer("t", SOURCE_USER, {{"a", "1"}, {"b", "2"}}, "x", "y");
  sameValues.mergePermissions(permissionsFor("r"));
  sameValues.setExpandedName("other");
  const struct {
    const char* name;
    std::function<void(PropertiesMap&)> change;
    bool equal;
  } kCases[] = {
      {"provenance, permissions and expanded name", [](PropertiesMap&) {}, true},
      {"a value", [](PropertiesMap& m) { m.put("b", "3"); }, false},
      {"an emptied value", [](PropertiesMap& m) { m.put("b", ""); }, false},
      {"an extra key", [](PropertiesMap& m) { m.put("c", "3"); }, false},
      {"a missing key", [](PropertiesMap& m) { m.removeValues("2"); }, false},
      {"a renamed key", [](PropertiesMap& m) { m.removeValues("2"); m.put("c", "2"); }, false},
      {"the embedded value", [](PropertiesMap& m) { m.getEmbeddedProperty().setValue("e"); },
       false},
  };
  for (const auto& c : kCases) {
    PropertiesMap m = sameValues;
    c.change(m);
    EXPECT_EQ(c.equal, base == m) << c.name;
    EXPECT_EQ(c.equal, m == base) << c.name;
    EXPECT_EQ(!c.equal, m != base) << c.name;
  }
}

TEST(PropertiesMapCompare, EachComparisonLogsAtDebugLevel) {
  ScopedLogCapture capture("PropertiesMap");
  PropertiesMap x, y;
  x.getEmbeddedProperty().setValue("e");
  y.getEmbeddedProperty().setValue("e");
  for (PropertiesMap* m : {&x, &y}) m->put("a", "1");
  x.put("b", "2");
  y.put("b", "3");
  y.put("c", "4");  // never reached: sizes differ after the embedded check
  EXPECT_FALSE(x == y);
  y.removeValues("4");
  EXPECT_FALSE(x == y);
  x.getEmbeddedProperty().setValue("f");
  EXPECT_FALSE(x == y);
  EXPECT_EQ(std::vector<std::string>({
                "DEBUG (_embedded, e) == (_embedded, e)",
                "DEBUG (_embedded, e) == (_embedded, e)",
                "DEBUG (a, 1) == (a, 1)",
                "DEBUG (b, 2) != (b, 3)",
                "DEBUG (_embedded, f) != (_embedded, e)",
            }),
            capture.lines());
}

TEST(PropertiesMapCompare, LessComparesEmbeddedValuesThenEntries) {
  auto make = [](const char* embedded, const Settings& settings) {
    PropertiesMap m;
    m.getEmbeddedProperty().setValue(embedded);
    for (const auto& [k, v] : settings) m.put(k, v);
    return m;
  };
  const struct {
    const char* name;
    PropertiesMap x, y;
    bool xLess, yLess;
  } kCases[] = {
      {"equal", make("e", {{"a", "1"}}), make("e", {{"a", "1"}}), false, false},
      {"by value", make("e", {{"a", "1"}}), make("e", {{"a", "2"}}), true, false},
      {"by key", make("e", {{"a", "9"}}), make("e", {{"b", "0"}}), true, false},
      {"a prefix first", make("e", {{"a", "1"}}), make("e", {{"a", "1"}, {"b", ""}}), true, false},
      {"by embedded value", make("a", {}), make("b", {}), true, false},
      {"keys compare unsigned", make("e", {{"a", "1"}}), make("e", {{"\xff", "1"}}), true, false},
      {"embedded values compare unsigned", make("\x80", {{"k", "1"}}), make("a", {}), false,
       true},
      // The quirk kept on purpose: each is less than the other.
      {"embedded less, entries greater", make("a", {{"k", "2"}}), make("b", {{"k", "1"}}), true,
       true},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.xLess, c.x < c.y) << c.name;
    EXPECT_EQ(c.yLess, c.y < c.x) << c.name;
  }
}

TEST(PropertiesMapCompare, ProvenanceDoesNotOrder) {
  PropertiesMap a, b;
  putWith(a, {"k", "1", SOURCE_USER, "s", "u", "x"});
  putWith(b, {"k", "1", SOURCE_SYSTEM_DEFAULT, "t", "v", "y"});
  a.getEmbeddedProperty().setSourceType(SOURCE_APP);
  a.mergePermissions(permissionsFor("r"));
  a.setExpandedName("expanded");
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
}

TEST(PropertiesMapCompare, PercentSignsInTextStayText) {
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

// ---- Typed reading ----

namespace {

// Runs tryToX for the type word on the key "k", starting from 77, and
// gives the output as text.
bool tryTyped(const PropertiesMap& m, const std::string& type, std::string& out) {
  auto run = [&](auto value, auto tryTo) {
    const bool ok = (m.*tryTo)("k", value);
    out = std::to_string(value);
    return ok;
  };
  if (type == "bool") {
    bool b = true;
    const bool ok = m.tryToBool("k", b);
    out = b ? "true(77)" : "false";
    return ok;
  }
  if (type == "int") return run(int{77}, &PropertiesMap::tryToInt);
  if (type == "unsigned") return run(unsigned{77}, &PropertiesMap::tryToUnsigned);
  if (type == "size_t") return run(size_t{77}, &PropertiesMap::tryToSizet);
  if (type == "unsigned long long")
    return run(77ULL, &PropertiesMap::tryToUnsignedLongLong);
  if (type == "unsigned long") return run(77UL, &PropertiesMap::tryToUnsignedLong);
  if (type == "long") return run(77L, &PropertiesMap::tryToLong);
  ADD_FAILURE() << "no such type " << type;
  return false;
}

// The toX of the type with the default 77 (false for bool), as text.
std::string toTyped(const PropertiesMap& m, const std::string& type) {
  if (type == "bool") return m.toBool("k", false) ? "true(77)" : "false";
  if (type == "int") return std::to_string(m.toInt("k", 77));
  if (type == "unsigned") return std::to_string(m.toUnsigned("k", 77));
  if (type == "size_t") return std::to_string(m.toSizet("k", 77));
  if (type == "unsigned long long") return std::to_string(m.toUnsignedLongLong("k", 77));
  if (type == "unsigned long") return std::to_string(m.toUnsignedLong("k", 77));
  if (type == "long") return std::to_string(m.toLong("k", 77));
  return "no such type";
}

}  // namespace

TEST(PropertiesMapTyped, TryWarnsOnceAndLeavesTheOutputAloneWhereToIsSilent) {
  const struct {
    const char* type;
    const char* value;
    bool ok;
    const char* out;  // the output after tryToX, which starts at 77
  } kCases[] = {
      {"bool", "yes", true, "true(77)"},
      {"bool", "0", true, "false"},
      {"bool", "F", true, "false"},
      {"bool", "on", false, "true(77)"},
      {"bool", " ", false, "true(77)"},   // blanks are a value, not an empty one
      {"int", "12", true, "12"},
      {"int", "-3", true, "-3"},
      {"int", "12x", false, "77"},
      {"int", "12 ", false, "77"},
      {"int", "0x10", false, "77"},        // base 10 only
      {"int", "010", true, "10"},          // no octal either
      {"int", "2147483648", false, "77"},
      {"int", "-2147483648", true, "-2147483648"},
      {"unsigned", "4294967295", true, "4294967295"},
      {"unsigned", "4294967296", false, "77"},
      {"unsigned", "-1", false, "77"},
      {"size_t", "18446744073709551615", true, "18446744073709551615"},
      {"size_t", "-1", false, "77"},
      {"unsigned long long", "18446744073709551615", true, "18446744073709551615"},
      {"unsigned long long", "18446744073709551616", false, "77"},  // the converter writes first
      {"unsigned long long", "1 ", false, "77"},
      {"unsigned long", "7", true, "7"},
      {"unsigned long", "-0", false, "77"},
      {"long", "-9223372036854775808", true, "-9223372036854775808"},
      {"long", "9223372036854775808", false, "77"},
      {"long", "1.5", false, "77"},
  };
  for (const auto& c : kCases) {
    ScopedLogCapture capture("PropertiesMap");
    PropertiesMap m;
    m.put("k", c.value);
    std::string out;
    EXPECT_EQ(c.ok, tryTyped(m, c.type, out)) << c.type << " " << c.value;
    EXPECT_EQ(c.out, out) << c.type << " " << c.value;
    // toX reads the same text silently; for bool, text that is no boolean
    // reads as true whatever the default.
    const bool isBool = std::string(c.type) == "bool";
    EXPECT_EQ(c.ok ? c.out : isBool ? "true(77)" : "77", toTyped(m, c.type))
        << c.type << " " << c.value;
    std::vector<std::string> expected;
    if (!c.ok) {
      expected.push_back(std::string("WARN Cannot convert string \"") + c.value + "\" into " +
                         c.type + " for \"k\"");
    }
    EXPECT_EQ(expected, capture.lines()) << c.type << " " << c.value;
  }
}

TEST(PropertiesMapTyped, EmptyAndAbsentValuesGiveFalseSilently) {
  ScopedLogCapture capture("PropertiesMap");
  PropertiesMap withEmpty, absent;
  withEmpty.put("k", "");
  for (const PropertiesMap* m : {&withEmpty, &absent}) {
    for (const char* type : {"bool", "int", "unsigned", "size_t", "unsigned long long",
                             "unsigned long", "long"}) {
      std::string out;
      EXPECT_FALSE(tryTyped(*m, type, out)) << type;
      EXPECT_EQ(std::string(type) == "bool" ? "true(77)" : "77", out) << type;
      EXPECT_EQ(std::string(type) == "bool" ? "false" : "77", toTyped(*m, type)) << type;
    }
  }
  EXPECT_TRUE(capture.lines().empty());
}

TEST(PropertiesMapTyped, TimeSpansGoThroughTheTimeParserSilently) {
  ScopedLogCapture capture("PropertiesMap");
  const struct {
    const char* value;
    bool ok;
    unsigned long long msec;
  } kCases[] = {
      {"5m", true, 300000}, {"30", true, 30000}, {"1.5s", true, 1500},
      {"", false, 77},      {"5 weeks", false, 77}, {"-1s", false, 77},
  };
  for (const auto& c : kCases) {
    PropertiesMap m;
    m.put("k", c.value);
    unsigned long long msec = 77;
    EXPECT_EQ(c.ok, m.tryToTimeSpan("k", msec)) << c.value;
    EXPECT_EQ(c.msec, msec) << c.value;
    EXPECT_EQ(c.msec, m.toTimeSpan("k", 77)) << c.value;
  }
  unsigned long long msec = 77;
  EXPECT_FALSE(PropertiesMap().tryToTimeSpan("k", msec));
  EXPECT_EQ(77u, msec);
  EXPECT_TRUE(capture.lines().empty());
}

TEST(PropertiesMapTyped, LowerCaseTextAndEnvironmentPaths) {
  PropertiesMap m;
  m.put("mixed", "MiXeD \xc3\x84");
  m.put("empty", "");
  LStrContainer folded(Str("kept"));
  EXPECT_TRUE(m.tryToLStr("mixed", folded));
  EXPECT_EQ("mixed \xc3\xa4", folded.str());
  EXPECT_FALSE(m.tryToLStr("empty", folded));
  EXPECT_FALSE(m.tryToLStr("absent", folded));
  EXPECT_EQ("mixed \xc3\xa4", folded.str());

  setenv("KT_PROPS_HOME", "/opt/kestro", 1);
  unsetenv("KT_PROPS_UNSET");
  const struct {
    const char* value;
    bool result;
    const char* out;  // starts as "/old"
  } kCases[] = {
      {"$KT_PROPS_HOME/etc/datetime.xml", true, "/opt/kestro/etc/datetime.xml"},
      {"${KT_PROPS_HOME}", true, "/opt/kestro"},
      {"/plain/path", true, "/plain/path"},
      {"$KT_PROPS_UNSET", true, "/old"},  // true, though nothing is assigned
      {"", false, "/old"},
  };
  for (const auto& c : kCases) {
    PropertiesMap p;
    p.put("DATETIME_CONFIG", c.value);
    Pathname out("/old");
    EXPECT_EQ(c.result, p.expandEnvironmentVariables("DATETIME_CONFIG", out)) << c.value;
    EXPECT_EQ(c.out, out) << c.value;
  }
  Pathname out("/old");
  EXPECT_FALSE(PropertiesMap().expandEnvironmentVariables("DATETIME_CONFIG", out));
  unsetenv("KT_PROPS_HOME");
}

TEST(PropertiesMapTyped, EveryFailureWarnsNoneIsHeldBack) {
  ScopedLogCapture capture("PropertiesMap");
  const PropertiesMap m = mapOf({{"k", "x"}});
  for (int i = 0; i < 130; ++i) {
    int out = 0;
    EXPECT_FALSE(m.tryToInt("k", out));
  }
  EXPECT_EQ(130u, capture.lines().size());
}

TEST(PropertiesMapTyped, LeadingBlanksAndPlusSignConvertSilently) {
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

TEST(PropertiesMapTyped, ToBoolEmptyGivesDefaultJunkGivesTrue) {
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

TEST(PropertiesMapTyped, SilentFormsWriteNothingAnywhere) {
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

TEST(Property, InitResetsEveryField) {
  Property p;
  p.setValue("v");
  p.setSourceType(SOURCE_USER);
  p.setSourceUser(User(Str("who")));
  p.setSourceApplication("app");
  p.setSourceStanza("s");
  p.setSourceRemovable(true);
  p.setSourceModTime(Timeval(5, 0));
  p.setPermissions(permissionsFor("r"));
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
