#include "libbundle/StanzaCollection.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "libbundle/ExpandedStanzaName.h"

namespace {

TEST(ExpandedStanzaName, ReplacesFirstMarkerThenEnvironment) {
  setenv("KESTRO_TEST_ESN", "/env/dir", 1);
  unsetenv("KESTRO_TEST_ESN_UNSET");
  const struct {
    const char* name;
    const char* root;
    const char* want;
  } kCases[] = {
      {"monitor://./logs", "/k/apps/a", "monitor:///k/apps/a/logs"},
      {"a://./b://./c", "/r", "a:///r/b://./c"},  // the first marker only
      {"monitor://$KESTRO_TEST_ESN/x", "/r", "monitor:///env/dir/x"},
      {"monitor://./$KESTRO_TEST_ESN", "/r", "monitor:///r//env/dir"},
      {"monitor://${KESTRO_TEST_ESN_UNSET}/x", "/r", "monitor:///x"},
      {"monitor:/./x", "/r", "monitor:/./x"},  // no "://./"
      {"plain", "/r", "plain"},
      {"", "/r", ""},
  };
  for (const auto& c : kCases) {
    const ExpandedStanzaName expanded(c.name, Pathname(c.root));
    EXPECT_EQ(c.want, expanded.str()) << c.name;
    EXPECT_EQ(Str(c.want) != c.name, expanded.isExpanded()) << c.name;
  }
}

PropertiesMap stanza(std::initializer_list<std::pair<const char*, const char*>> kv,
                     const char* expanded) {
  PropertiesMap map;
  for (const auto& [k, v] : kv) map.put(k, v);
  if (expanded != nullptr) map.setExpandedName(expanded);
  return map;
}

TEST(StanzaCollection, MovesStanzasToExpandedNamesAndMergesCollisions) {
  StanzaCollection stanzas;
  stanzas["monitor://./a"] = stanza({{"x", "1"}, {"y", "1"}}, "monitor:///r/a");
  stanzas["monitor:///r/a"] = stanza({{"y", "2"}, {"z", "2"}}, nullptr);
  stanzas["monitor://./b"] = stanza({{"x", "3"}}, "monitor:///r/b");
  stanzas["same"] = stanza({{"x", "4"}}, "same");
  stanzas["none"] = stanza({{"x", "5"}}, nullptr);
  std::map<Str, Str> reverse;
  stanzas.expandStanzaNames(&reverse);

  EXPECT_EQ((std::map<Str, Str>{{"monitor:///r/a", "monitor://./a"},
                                {"monitor:///r/b", "monitor://./b"}}),
            reverse);
  ASSERT_EQ(4u, stanzas.size());
  const PropertiesMap& merged = stanzas.at("monitor:///r/a");
  EXPECT_EQ("1", merged.get("x"));  // gained
  EXPECT_EQ("2", merged.get("y"));  // kept its own
  EXPECT_EQ("2", merged.get("z"));
  EXPECT_EQ("3", stanzas.at("monitor:///r/b").get("x"));
  EXPECT_EQ("4", stanzas.at("same").get("x"));
  EXPECT_EQ("5", stanzas.at("none").get("x"));
  EXPECT_EQ(0u, stanzas.count("monitor://./a"));

  StanzaCollection again(stanzas);
  again.expandStanzaNames(nullptr);
  EXPECT_EQ(stanzas.size(), again.size());
}

}  // namespace
