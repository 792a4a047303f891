#include "framework/SessionManager.h"

#include <gtest/gtest.h>

#include <set>

#include "util/testing/FixedClock.h"

namespace {

TEST(SessionManager, TokensAre128RandomBitsInHex) {
  SessionManager sessions;
  std::set<Str> seen;
  for (int i = 0; i < 50; ++i) {
    const Str token = sessions.beginSession("admin");
    ASSERT_EQ(32u, token.size());
    EXPECT_EQ(Str::npos, token.find_first_not_of("0123456789abcdef")) << token;
    EXPECT_TRUE(seen.insert(token).second) << token;
  }
  EXPECT_EQ(50u, sessions.size());
}

TEST(SessionManager, IdleExpiryRestartsOnUse) {
  ScopedFixedClock clock(Timeval(1000000, 0));
  SessionManager sessions(600);
  const Str token = sessions.beginSession("bob");
  SessionInfo info;
  const struct {
    int64_t at;
    bool found;
  } kSteps[] = {
      {1000600, true},   // exactly the timeout: still alive, and used now
      {1001200, true},   // 600 s after that use
      {1001801, false},  // 601 s idle: gone
      {1000000, false},  // and it stays gone when the clock goes back
  };
  for (const auto& s : kSteps) {
    clock.set(Timeval(s.at, 0));
    EXPECT_EQ(s.found, sessions.getSessionInfo(token, info)) << s.at;
  }
  EXPECT_EQ(0u, sessions.size());
}

TEST(SessionManager, ForgedAndOtherUsersTokens) {
  SessionManager sessions;
  const Str bob = sessions.beginSession("bob");
  const Str eve = sessions.beginSession("eve");
  SessionInfo info;
  ASSERT_TRUE(sessions.getSessionInfo(eve, info));
  EXPECT_EQ("eve", info.user);  // a token is one user's, never another's
  ASSERT_TRUE(sessions.getSessionInfo(bob, info));
  EXPECT_EQ("bob", info.user);
  Str flipped = bob;
  flipped[31] = flipped[31] == '0' ? '1' : '0';
  for (const Str& forged : {flipped, Str(bob.substr(0, 31)), Str(std::string(bob) + "0"), Str(), Str("BOB")}) {
    SessionInfo untouched;
    untouched.user = "unchanged";
    EXPECT_FALSE(sessions.getSessionInfo(forged, untouched)) << forged;
    EXPECT_EQ("unchanged", untouched.user);
  }
  EXPECT_TRUE(sessions.endSession(bob));
  EXPECT_FALSE(sessions.getSessionInfo(bob, info));
  EXPECT_FALSE(sessions.endSession(bob));
}

TEST(SessionManager, ExpireIdleSweepsOnlyTheIdle) {
  ScopedFixedClock clock(Timeval(5000, 0));
  SessionManager sessions(10);
  const Str old = sessions.beginSession("a");
  clock.set(Timeval(5008, 0));
  const Str fresh = sessions.beginSession("b");
  clock.set(Timeval(5015, 0));
  EXPECT_EQ(1u, sessions.expireIdle());
  SessionInfo info;
  EXPECT_FALSE(sessions.getSessionInfo(old, info));
  EXPECT_TRUE(sessions.getSessionInfo(fresh, info));
}

}  // namespace
