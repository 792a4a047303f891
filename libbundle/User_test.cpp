#include "libbundle/User.h"

#include <gtest/gtest.h>

TEST(User, NamesCompareWithoutCaseWhereAsked) {
  EXPECT_EQ("nobody", User::NOBODY_USER.name());
  EXPECT_TRUE(User::EMPTY_USER.empty());
  EXPECT_TRUE(User("Bob").isSameUser(User("bOB")));
  EXPECT_FALSE(User("Bob") == User("bob"));
  EXPECT_FALSE(User("bob").isSameUser(User("bobby")));
  EXPECT_EQ(0, User("\xc3\x84rger").compareIgnoreCase(User("\xc3\xa4RGER")));
  EXPECT_GT(0, User("a").compareIgnoreCase(User("B")));
  EXPECT_EQ("Bob", User("Bob").name());  // kept as given
}
