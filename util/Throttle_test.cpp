#include "util/Throttle.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

constexpr events_mask_t READ = 1, WRITE = 4;

// Records what the group gives back.
class FakeMember : public Throttleable {
 public:
  void unthrottleEvents(events_mask_t events) override { given.push_back(events); }
  std::vector<events_mask_t> given;
};

TEST(Throttleable, StartsInNotThrottledAndPassesEverything) {
  FakeMember m;
  EXPECT_EQ(&ThrottleGroup::not_throttled, m.group());
  EXPECT_EQ(~0u, m.checkThrottling(READ | WRITE, READ | WRITE));
  EXPECT_EQ(0u, m.throttledEvents());
}

TEST(Throttleable, CheckThrottlingCutsOnlyWhatTheGroupHolds) {
  const struct {
    events_mask_t groupMask, revents, registered;
    events_mask_t result, noted;
    bool listed;
  } kCases[] = {
      {READ, WRITE, READ | WRITE, ~0u, 0, false},  // nothing in common: no lock, no note
      {READ, READ, READ, ~READ, READ, true},
      {READ, READ | WRITE, READ | WRITE, ~READ, READ, true},  // writable still served
      {READ | WRITE, WRITE, WRITE, ~(READ | WRITE), WRITE, true},
      {READ, READ, 0, ~READ, 0, true},  // listed even with nothing to give back
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(::testing::Message() << c.groupMask << "/" << c.revents << "/" << c.registered);
    ThrottleGroup group;
    unsigned count = 0;
    FakeMember m;
    group.add(&m);
    group.maybe_throttle(c.groupMask, &count);
    EXPECT_EQ(c.result, m.checkThrottling(c.revents, c.registered));
    EXPECT_EQ(c.result, m.checkThrottling(c.revents, c.registered));  // listed once only
    EXPECT_EQ(c.noted, m.throttledEvents());
    EXPECT_EQ(c.listed ? 1u : 0u, group.throttledCount());
  }
}

TEST(ThrottleGroup, ThrottlesAreCountedAndTheLastReleaseGivesEventsBack) {
  ThrottleGroup group;
  unsigned count = 0;
  FakeMember a, b, idle;
  group.add(&a);
  group.add(&b);
  group.add(&idle);
  EXPECT_EQ(3u, group.memberCount());
  group.maybe_throttle(READ, &count);
  group.maybe_throttle(READ, &count);
  EXPECT_EQ(2u, count);
  a.checkThrottling(READ, READ | WRITE);
  b.checkThrottling(READ, READ);
  group.maybe_unthrottle(READ, &count);
  EXPECT_EQ(READ, group.mask());  // one of two releases: still throttled
  EXPECT_TRUE(a.given.empty());
  group.maybe_unthrottle(READ, &count);
  EXPECT_EQ(0u, count);
  EXPECT_EQ(0u, group.mask());
  EXPECT_EQ(std::vector<events_mask_t>({READ}), a.given);
  EXPECT_EQ(std::vector<events_mask_t>({READ}), b.given);
  EXPECT_TRUE(idle.given.empty());  // never hit an event: never walked
  EXPECT_EQ(0u, group.throttledCount());
}

TEST(ThrottleGroup, UnthrottleGivesBackOnlyTheEventsNamed) {
  ThrottleGroup group;
  unsigned readCount = 0, writeCount = 0;
  FakeMember m;
  group.add(&m);
  group.maybe_throttle(READ, &readCount);
  group.maybe_throttle(WRITE, &writeCount);
  EXPECT_EQ(~(READ | WRITE), m.checkThrottling(READ | WRITE, READ | WRITE));
  group.maybe_unthrottle(WRITE, &writeCount);
  EXPECT_EQ(std::vector<events_mask_t>({WRITE}), m.given);
  EXPECT_EQ(READ, m.throttledEvents());
  EXPECT_EQ(1u, group.throttledCount());  // still waits for READ
  group.unthrottle(READ);
  EXPECT_EQ(std::vector<events_mask_t>({WRITE, READ}), m.given);
  EXPECT_EQ(0u, group.throttledCount());
}

TEST(ThrottleGroup, FreezeMovesEveryMemberWhereNothingIsServed) {
  FakeMember a, b;
  {
    ThrottleGroup group;
    group.add(&a);
    group.add(&b);
    group.freeze();
    EXPECT_EQ(0u, group.memberCount());
    EXPECT_EQ(&ThrottleGroup::frozen_events, a.group());
    EXPECT_EQ(0u, a.checkThrottling(READ, READ));
    EXPECT_EQ(0u, b.checkThrottling(WRITE | 0x10, WRITE));
  }
  // A group that goes away freezes what is left in it as well.
  FakeMember c;
  {
    ThrottleGroup group;
    group.add(&c);
  }
  EXPECT_EQ(&ThrottleGroup::frozen_events, c.group());
}

TEST(ThrottleGroup, MovingAMemberGivesBackWhatItsOldGroupCut) {
  ThrottleGroup first, second;
  unsigned count = 0;
  FakeMember m;
  first.add(&m);
  first.maybe_throttle(READ, &count);
  m.checkThrottling(READ, READ);
  second.add(&m);
  EXPECT_EQ(&second, m.group());
  EXPECT_EQ(std::vector<events_mask_t>({READ}), m.given);
  EXPECT_EQ(0u, first.throttledCount());
  EXPECT_EQ(0u, first.memberCount());
  EXPECT_EQ(~0u, m.checkThrottling(READ, READ));
}

TEST(ThrottleGroup, ConcurrentThrottlesBalanceOut) {
  ThrottleGroup group;
  unsigned count = 0;
  FakeMember m;
  group.add(&m);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        group.maybe_throttle(READ, &count);
        group.maybe_unthrottle(READ, &count);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0u, count);
  EXPECT_EQ(0u, group.mask());
}

TEST(ThrottleGroupDeathTest, TheSpecialGroupsAreNotThrottledByHand) {
  unsigned count = 0;
  EXPECT_DEATH(ThrottleGroup::not_throttled.maybe_throttle(READ, &count),
               "Assertion failed: this != &not_throttled");
  EXPECT_DEATH(ThrottleGroup::frozen_events.maybe_unthrottle(READ, &count),
               "Assertion failed: this != &frozen_events");
}

}  // namespace
