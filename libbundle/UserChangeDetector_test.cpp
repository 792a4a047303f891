#include "libbundle/UserChangeDetector.h"

#include <gtest/gtest.h>

#include "libbundle/UserInfoProvider.h"

namespace {

TEST(UserChangeDetector, ReportsChangesAfterFirstSightCaselessly) {
  UserChangeDetector& d = UserChangeDetector::instance();
  const struct {
    const char* user;
    std::set<Str> roles;
    bool changed;
  } kSteps[] = {
      {"ucd_erin", {"user"}, false},           // first sight
      {"ucd_erin", {"user"}, false},           // the same roles
      {"UCD_Erin", {"user", "power"}, true},   // the same user in other case
      {"ucd_erin", {"user", "power"}, false},
      {"ucd_erin", {}, true},
      {"ucd_frank", {}, false},                // another user is new
  };
  for (const auto& s : kSteps) {
    EXPECT_EQ(s.changed, d.hasChanged(User(s.user), s.roles)) << s.user;
    EXPECT_EQ(s.roles, d.getRoles(User(s.user))) << s.user;
  }
  EXPECT_TRUE(d.getRoles(User("ucd_never_seen")).empty());
}

class NullProvider : public IUserInfoProvider {
 public:
  bool getCurrentUser(User&) const override { return false; }
  bool getRoles(const User&, std::set<Str>&) const override { return false; }
  bool mayActForOthers(const User&) const override { return false; }
};

TEST(UserInfoProviderRegistry, OnlyTheRegisteredProviderUnregisters) {
  NullProvider a;
  NullProvider b;
  EXPECT_EQ(nullptr, UserInfoProviderRegistry::getProvider());
  UserInfoProviderRegistry::registerProvider(&a);
  UserInfoProviderRegistry::registerProvider(&b);
  EXPECT_EQ(&b, UserInfoProviderRegistry::getProvider());
  UserInfoProviderRegistry::unregisterProvider(&a);  // not the registered one
  EXPECT_EQ(&b, UserInfoProviderRegistry::getProvider());
  UserInfoProviderRegistry::unregisterProvider(&b);
  EXPECT_EQ(nullptr, UserInfoProviderRegistry::getProvider());
}

}  // namespace
