#include "framework/UserManager.h"

#include <gtest/gtest.h>

#include "framework/PasswordHash.h"
#include "framework/ScopedUserContext.h"
#include "framework/testing/RestTree.h"

namespace {

TEST(UserManager, UsersRolesAndCapabilities) {
  RestTree t("");
  t.tree.put("system/local/authorize.conf",
             "[role_user]\nlist_all = enabled\nedit_all = disabled\n"
             "[role_power]\nimportRoles = user; admin\nschedule = enabled\n"
             "[role_admin]\nimportRoles = power\nEdit_All = enabled\n");  // a cycle
  const UserManager& users = *t.users;
  const struct {
    const char* name;
    bool exists;
    const char* configured;
    const char* capabilities;
  } kCases[] = {
      {"admin", true, "admin", "edit_all list_all schedule "},
      {"ADMIN", true, "admin", "edit_all list_all schedule "},  // names match in any case
      {"bob", true, "bob", "list_all "},
      {"gone", true, "gone", "edit_all list_all schedule "},
      {"ghost", false, "", ""},
      {"", false, "", ""},
  };
  for (const auto& c : kCases) {
    UserInfo info;
    EXPECT_EQ(c.exists, users.userExists(c.name)) << c.name;
    ASSERT_EQ(c.exists, users.getUserInfo(c.name, info)) << c.name;
    Str caps;
    for (const Str& cap : info.capabilities) caps += std::string(cap) + " ";
    EXPECT_EQ(c.configured, info.name) << c.name;
    EXPECT_EQ(c.capabilities, caps) << c.name;
  }
  UserInfo admin;
  users.getUserInfo("admin", admin);
  EXPECT_EQ("Europe/Paris", admin.tz);
  EXPECT_TRUE(users.hasCapability("admin", "LIST_ALL", "test"));
  EXPECT_FALSE(users.hasCapability("bob", "edit_all", "test"));
  EXPECT_FALSE(users.hasCapability("gone", "list_all", "test"));  // disabled
  EXPECT_FALSE(users.hasCapability("ghost", "list_all", "test"));
}

TEST(UserManager, PasswordsAndWritingUsers) {
  RestTree t("");
  UserManager& users = *t.users;
  const struct {
    const char* name;
    const char* password;
    bool ok;
  } kCases[] = {
      {"admin", RestTree::PASSWORD, true},
      {"Admin", RestTree::PASSWORD, true},
      {"admin", "s3cret PW", false},
      {"admin", "", false},
      {"gone", RestTree::PASSWORD, false},  // disabled
      {"ghost", RestTree::PASSWORD, false},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.ok, users.checkPassword(c.name, c.password)) << c.name << " " << c.password;
  }

  ASSERT_TRUE(users.addUser("carol", "new pw", "user"));
  const std::string written = t.tree.read("system/local/users.conf");
  EXPECT_EQ(std::string::npos, written.find("new pw"));  // only the hash is stored
  EXPECT_NE(std::string::npos, written.find("[carol]"));
  EXPECT_TRUE(users.checkPassword("carol", "new pw"));
  EXPECT_FALSE(users.checkPassword("carol", "new"));
  EXPECT_TRUE(PasswordHash::isWellFormed(UserManager::hashPassword("x")));
}

TEST(UserManager, InfoProviderFollowsTheUserContext) {
  RestTree t("");
  const UserManager& users = *t.users;
  User current;
  EXPECT_FALSE(users.getCurrentUser(current));
  {
    ScopedUserContext outer(User("bob"), "");
    {
      ScopedUserContext inner(User("admin"), "tok");
      ASSERT_TRUE(users.getCurrentUser(current));
      EXPECT_EQ("admin", current.name());
      EXPECT_EQ("tok", ScopedUserContext::getCurrentSessionToken());
    }
    ASSERT_TRUE(users.getCurrentUser(current));
    EXPECT_EQ("bob", current.name());
  }
  EXPECT_FALSE(users.getCurrentUser(current));
  std::set<Str> roles;
  EXPECT_TRUE(users.getRoles(User("admin"), roles));
  EXPECT_EQ(std::set<Str>{"admin"}, roles);
  EXPECT_FALSE(users.getRoles(User("ghost"), roles));
  EXPECT_TRUE(users.mayActForOthers(User("admin")));
  EXPECT_FALSE(users.mayActForOthers(User("bob")));
}

}  // namespace
