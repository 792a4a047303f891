#include "libbundle/ContextProperties.h"

#include <gtest/gtest.h>

namespace {

PropertiesMap mapWith(const char* value) {
  PropertiesMap m;
  m.put("k", value);
  return m;
}

}  // namespace

TEST(ContextProperties, EqualityIgnoresTheCaseOfTheUserOnly) {
  const ContextProperties base("st", User("Admin"), "search", mapWith("1"));
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
