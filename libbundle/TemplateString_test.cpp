#include "libbundle/TemplateString.h"

#include <gtest/gtest.h>

#include "libbundle/UsernameMapper.h"

namespace {

TEST(TemplateString, RealizesKnownVariablesAndKeepsTheRest) {
  const TemplateString::Variables vars = {
      {"apps-base", "/r/apps"}, {"app", "search"}, {"empty", ""}, {"dollar", "${app}"}};
  const struct {
    const char* text;
    const char* out;
    bool ok;
  } kCases[] = {
      {"${apps-base}/*/local", "/r/apps/*/local", true},
      {"${app}${app}", "searchsearch", true},
      {"a${empty}b", "ab", true},
      {"${dollar}", "${app}", true},  // values are not rescanned
      {"$app/${app", "$app/${app", true},
      {"${nope}/${app}", "${nope}/search", false},
      {"", "", true},
      {"${}", "${}", false},
  };
  for (const auto& c : kCases) {
    Str out("old");
    EXPECT_EQ(c.ok, TemplateString::realize(c.text, vars, out)) << c.text;
    EXPECT_EQ(c.out, out) << c.text;
  }
}

TEST(UsernameMapper, SafeNamesAndTheReservedDirectory) {
  const UsernameMapper m;
  for (const char* safe : {"admin", "Alice", "a.b-c_d@x", "0"}) {
    EXPECT_TRUE(m.isSafeUsername(safe)) << safe;
  }
  for (const char* unsafe : {"", ".alice", "a/b", "a b", "_encoded", "_ENCODED", "\xc3\xa9"}) {
    EXPECT_FALSE(m.isSafeUsername(unsafe)) << unsafe;
  }
  EXPECT_EQ("_encoded", UsernameMapper::getReservedUsername());
  EXPECT_EQ("_encoded/u612f62", m.getSafeUsername("A/b"));
}

TEST(UsernameMapper, SafeFormsRoundTripFoldedToLowerCase) {
  const UsernameMapper m;
  for (const char* name : {"a/b", "Bob Smith", "\xc3\xa9t\xc3\xa9", "x", "_encoded"}) {
    const Str safe = m.getSafeUsername(name);
    Str lower(name);
    lower.toLowercase();
    User back;
    ASSERT_TRUE(m.getRealUsername(safe, back)) << safe;
    EXPECT_EQ(lower, back.name()) << safe;
    ASSERT_TRUE(m.getRealUsername(safe.substr(safe.find('/') + 1), back)) << safe;
    EXPECT_EQ(lower, back.name()) << safe;
  }
  for (const char* bad : {"", "u", "u6", "x61", "u6g", "U61", "other/u61"}) {
    User back(Str("keep"));
    EXPECT_FALSE(m.getRealUsername(bad, back)) << bad;
    EXPECT_EQ("keep", back.name()) << bad;
  }
}

}  // namespace
