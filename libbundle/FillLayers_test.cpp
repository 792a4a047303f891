#include "libbundle/FillLayers.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/testing/FixedConfCache.h"
#include "util/testing/LogCapture.h"

namespace {

struct StanzaSpec {
  const char* name;
  PropertySourceType type;
  const char* priority;  // null: no "priority" setting
  const char* k;         // the value of "k"; null: no "k"
};

PropertiesMap makeStanza(const StanzaSpec& s) {
  PropertiesMap map;
  if (s.k != nullptr) map.put("k", s.k);
  if (s.priority != nullptr) map.put("priority", s.priority);
  map.put("from", s.name);
  for (const char* key : {"k", "priority", "from"}) {
    if (Property* p = map.getProperty(key)) p->setSourceType(s.type);
  }
  map.getEmbeddedProperty().setSourceType(s.type);
  return map;
}

std::map<Str, PropertiesMap> makeStanzas(const std::vector<StanzaSpec>& specs) {
  std::map<Str, PropertiesMap> out;
  for (const StanzaSpec& s : specs) out[s.name] = makeStanza(s);
  return out;
}

const PropertySourceType SYS = SOURCE_SYSTEM_DEFAULT;
const PropertySourceType APP = SOURCE_APP;
const PropertySourceType USR = SOURCE_USER;

TEST(FillLayers, PrecedenceOfOneKey) {
  const struct {
    const char* why;
    std::vector<StanzaSpec> stanzas;
    const char* context;
    const char* wantK;  // "" when no stanza sets k
  } kCases[] = {
      {"earlier context beats type and priority",
       {{"a", SYS, nullptr, "a"}, {"b", USR, "500", "b"}}, "a|b", "a"},
      {"context order is the list's, not the names'",
       {{"a", USR, "500", "a"}, {"b", SYS, nullptr, "b"}}, "b|a", "b"},
      {"an earlier pattern context beats a later exact one",
       {{"source::/l/*", SYS, nullptr, "pat"}, {"st", USR, "900", "st"}}, "source::/l/x|st", "pat"},
      {"source type beats priority",
       {{"source::/l/*.log", USR, nullptr, "user"}, {"source::/l/x.*", SYS, "900", "sys"}},
       "source::/l/x.log", "user"},
      {"priority beats name",
       {{"source::/l/*", APP, "10", "p10"}, {"source::/l/x.*", APP, "20", "p20"}},
       "source::/l/x.log", "p20"},
      {"equal type and priority: the lower name",
       {{"source::/l/x.*", APP, nullptr, "x"}, {"source::/l/*", APP, nullptr, "star"}},
       "source::/l/x.log", "star"},
      {"exact name counts 100, above a pattern's 0",
       {{"source::/l/x", APP, nullptr, "exact"}, {"source::/l/*", APP, nullptr, "pat"}},
       "source::/l/x", "exact"},
      {"a pattern at 200 beats the exact name at 100",
       {{"source::/l/x", APP, nullptr, "exact"}, {"source::/l/*", APP, "200", "pat"}},
       "source::/l/x", "pat"},
      {"but not an exact name of a higher type",
       {{"source::/l/x", USR, nullptr, "exact"}, {"source::/l/*", APP, "200", "pat"}},
       "source::/l/x", "exact"},
      {"a priority that is no number counts as the default",
       {{"source::/l/x", APP, "high", "exact"}, {"source::/l/*", APP, "50", "pat"}},
       "source::/l/x", "exact"},
      {"* stops at /", {{"source::/var/*.log", USR, nullptr, "star"}}, "source::/var/log/x.log",
       ""},
      {"... crosses /", {{"source::/var/....log", USR, nullptr, "dots"}},
       "source::/var/log/x.log", "dots"},
      {"host stanzas ignore case", {{"host::web*", APP, nullptr, "web"}}, "host::WEB01", "web"},
      {"host stanzas without wildcard too", {{"host::web01", APP, nullptr, "web"}}, "host::WEB01",
       "web"},
      {"source stanzas keep case", {{"source::/l/*.log", APP, nullptr, "l"}}, "source::/L/x.log",
       ""},
      {"a name without :: is no pattern", {{"access*", APP, nullptr, "acc"}}, "access_combined",
       ""},
      {"but applies by its exact name", {{"access*", APP, nullptr, "acc"}}, "access*", "acc"},
      {"default is the last layer",
       {{"default", USR, nullptr, "dflt"}, {"source::/l/*", SYS, nullptr, "pat"}}, "source::/l/x",
       "pat"},
      {"default fills in when nothing matches", {{"default", SYS, nullptr, "dflt"}}, "nothing",
       "dflt"},
      {"an empty piece is a context of its own",
       {{"", APP, nullptr, "empty"}, {"b", APP, nullptr, "b"}}, "|b", "empty"},
  };
  for (const auto& c : kCases) {
    FixedConfCache cache;
    cache.set(makeStanzas(c.stanzas));
    PropertiesMap out;
    fillLayersImpl(cache, &out, c.context, true);
    EXPECT_EQ(c.wantK, out.get("k")) << c.why;
  }
}

TEST(FillLayers, WithoutPatternMatchingOnlyExactNamesAndDefault) {
  FixedConfCache cache;
  cache.set(makeStanzas({{"source::/l/x", APP, nullptr, nullptr},
                         {"source::/l/*", APP, nullptr, "pat"},
                         {"default", SYS, nullptr, "dflt"}}));
  PropertiesMap out;
  fillLayersImpl(cache, &out, "source::/l/x", false);
  EXPECT_EQ("dflt", out.get("k"));
  EXPECT_EQ("source::/l/x", out.get("from"));
}

TEST(FillLayers, LayerSourcesRecordedAndDefaultWithoutMetadata) {
  std::map<Str, PropertiesMap> stanzas =
      makeStanzas({{"st", APP, nullptr, "st"}, {"default", SYS, nullptr, "dflt"}});
  ConfPathPermissions perms;
  perms.allow(ConfPathPermissions::ALLOW_GET, "admin");
  stanzas["default"].mergePermissions(ConfPathPermissionsReference(perms));
  stanzas["default"].setExpandedName("expanded-default");
  stanzas["default"].put("only_default", "d");
  FixedConfCache cache;
  cache.set(stanzas);
  PropertiesMap out;
  fillLayersImpl(cache, &out, "st", true);
  EXPECT_EQ("st", out.get("k"));
  EXPECT_EQ("st", out.getProperty("k")->sourceStanza());
  EXPECT_EQ("d", out.get("only_default"));
  EXPECT_EQ("default", out.getProperty("only_default")->sourceStanza());
  EXPECT_TRUE(out.getMergedPermissions().empty());
  EXPECT_EQ("", out.getExpandedName());
}

TEST(FillLayers, KeysAlreadyInTheOutputStay) {
  FixedConfCache cache;
  cache.set(makeStanzas({{"st", USR, nullptr, "st"}}));
  PropertiesMap out;
  out.put("k", "caller");
  fillLayersImpl(cache, &out, "st", true);
  EXPECT_EQ("caller", out.get("k"));
  EXPECT_EQ("st", out.get("from"));
}

TEST(FillLayers, EmptyCacheAndEmptyContext) {
  FixedConfCache cache;
  PropertiesMap out;
  fillLayersImpl(cache, &out, "", true);
  EXPECT_TRUE(out.empty());
  cache.set(makeStanzas({{"source::*", APP, nullptr, "any"}, {"default", SYS, nullptr, "d"}}));
  fillLayersImpl(cache, &out, "", true);
  EXPECT_EQ("d", out.get("k"));  // "" is no "source::..."
}

TEST(FillLayers, LogsEachLayerWithItsPriority) {
  FixedConfCache cache;
  cache.set(makeStanzas({{"source::/l/x", APP, nullptr, "e"},
                         {"source::/l/*", APP, nullptr, "p"},
                         {"source::/l/x*", APP, "7", "q"}}));
  ScopedLogCapture capture("PropertyPages");
  PropertiesMap out;
  fillLayersImpl(cache, &out, "source::/l/x", true);
  EXPECT_EQ((std::vector<std::string>{
                "DEBUG Performing pattern matching for: source::/l/x",
                "DEBUG Pattern 'source::/l/x' matches with priority 100",
                "DEBUG Pattern 'source::/l/x*' matches with priority 7",
                "DEBUG Pattern 'source::/l/*' matches with lowest priority",
            }),
            capture.lines());
}

TEST(FillLayers, RebuildsOnlyWhenDirty) {
  FixedConfCache cache;
  cache.set(makeStanzas({{"st", APP, nullptr, "one"}}));
  PropertiesMap out;
  fillLayersImpl(cache, &out, "st", true);
  fillLayersImpl(cache, &out, "st", true);
  EXPECT_EQ(1, cache.rebuilds);
  cache.set(makeStanzas({{"st", APP, nullptr, "two"}}));
  PropertiesMap again;
  fillLayersImpl(cache, &again, "st", true);
  EXPECT_EQ(2, cache.rebuilds);
  EXPECT_EQ("two", again.get("k"));
}

}  // namespace
