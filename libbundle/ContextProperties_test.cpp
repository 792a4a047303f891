#include "libbundle/ContextProperties.h"

#include <gtest/gtest.h>

namespace {

PropertiesMap mapWith(const char* value) {
  PropertiesMap m;
  m.put("k", value);
  return m;
}

}  // namespace

// Only values count: the same value from another source is equal.
TEST(ContextProperties, EqualityIgnoresTheCaseOfTheUserOnly) {
  const ContextProperties base("st", User("Admin"), "search", mapWith("1"));
  PropertiesMap otherSource = mapWith("1");
  otherSource.getProperty("k")->setSourceType(SOURCE_USER);
  otherSource.getProperty("k")->setSourceStanza("other");
  otherSource.getEmbeddedProperty().setSourceType(SOURCE_APP);
  PropertiesMap otherEmbedded = mapWith("1");
  otherEmbedded.getEmbeddedProperty().setValue("f");
  PropertiesMap extraEmpty = mapWith("1");
  extraEmpty.put("j", "");
  const struct {
    const char* name;
    ContextProperties other;
    bool equal;
  } kCases[] = {
      {"identical", ContextProperties("st", User("Admin"), "search", mapWith("1")), true},
      {"user in another case", ContextProperties("st", User("aDMIN"), "search", mapWith("1")),
       true},
      {"another user", ContextProperties("st", User("admins"), "search", mapWith("1")), false},
      {"name in another case", ContextProperties("ST", User("Admin"), "search", mapWith("1")),
       false},
      {"application in another case",
       ContextProperties("st", User("Admin"), "Search", mapWith("1")), false},
      {"another value", ContextProperties("st", User("Admin"), "search", mapWith("2")), false},
      {"another source", ContextProperties("st", User("ADMIN"), "search", otherSource), true},
      {"another embedded value", ContextProperties("st", User("Admin"), "search", otherEmbedded),
       false},
      {"an extra empty entry", ContextProperties("st", User("Admin"), "search", extraEmpty), false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.equal, base == c.other) << c.name;
    EXPECT_EQ(c.equal, c.other == base) << c.name;
    EXPECT_EQ(!c.equal, base != c.other) << c.name;
  }
}

TEST(ContextProperties, DebugStringsAndTheirJoin) {
  const ContextProperties a("st", User("bob"), "search", PropertiesMap());
  EXPECT_EQ("(user: bob, application: search, name: st)", a.toDebugString());
  EXPECT_EQ("(user: , application: , name: )", ContextProperties().toDebugString());
  ContextPropertiesVector v;
  EXPECT_EQ("", v.getNamesString());
  v.push_back(a);
  EXPECT_EQ("(user: bob, application: search, name: st)", v.getNamesString());
  v.push_back(ContextProperties("x", User::NOBODY_USER, "system", PropertiesMap()));
  v.push_back(ContextProperties());
  EXPECT_EQ(
      "(user: bob, application: search, name: st), "
      "(user: nobody, application: system, name: x), "
      "(user: , application: , name: )",
      v.getNamesString());
}
