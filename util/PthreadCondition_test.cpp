#include "util/PthreadCondition.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "util/ThreadException.h"
#include "util/testing/ThrownText.h"

namespace {

// ThreadSanitizer reports a wait without the mutex as an error of its own,
// though here it is the point of the test.
#if defined(__SANITIZE_THREAD__)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

double realtimeSeconds() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

TEST(PthreadCondition, TimedWaitReturnsFalseNotBeforeItsDeadline) {
  full_Mutex m;
  PthreadCondition cond;
  for (const auto& timeout :
       {ConditionWaitTimeout(0, 50000000), ConditionWaitTimeout(0, 999999999),
        ConditionWaitTimeout(1, 0)}) {
    SCOPED_TRACE(timeout.asStr());
    ScopedLock hold(m);
    const double start = realtimeSeconds();
    // Nobody wakes it: a spurious return waits again, and only the timeout
    // ends the loop.
    while (cond.wait(m, timeout)) {
    }
    const double waited = realtimeSeconds() - start;
    EXPECT_GE(waited + 1e-6, double(timeout.seconds()) + double(timeout.nanoseconds()) / 1e9);
  }
}

TEST(PthreadCondition, TimedWaitReturnsTrueWhenSignalled) {
  full_Mutex m;
  PthreadCondition cond;
  bool ready = false;
  bool sawReady = false;
  bool everTimedOut = false;
  std::thread waiter([&] {
    ScopedLock hold(m);
    while (!ready) {
      if (!cond.wait(m, ConditionWaitTimeout(600, 0))) everTimedOut = true;
    }
    sawReady = true;
  });
  {
    ScopedLock hold(m);
    ready = true;
    cond.internal_wake_one();
  }
  waiter.join();
  EXPECT_TRUE(sawReady);
  EXPECT_FALSE(everTimedOut);
}

TEST(ConditionWakeAll, WakesEveryWaiter) {
  full_Mutex m;
  ConditionWakeAll cond;
  bool go = false;
  int waiting = 0, released = 0;
  PthreadCondition arrived;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 6; ++i) {
    waiters.emplace_back([&] {
      ScopedLock hold(m);
      ++waiting;
      arrived.internal_wake_one();
      while (!go) cond.wait(m);
      ++released;
    });
  }
  {
    ScopedLock hold(m);
    while (waiting < 6) arrived.wait(m);
    go = true;
    cond.wake_all();
  }
  for (auto& t : waiters) t.join();
  EXPECT_EQ(6, released);
}

TEST(PthreadCondition, PlatformRefusalsBecomeThreadExceptions) {
  const struct {
    const char* name;
    void (*provoke)();
    const char* fragment;
    bool waitsUnheld;
  } kCases[] = {
      {"timed wait with a nanosecond part past a second",
       [] {
         full_Mutex m;
         PthreadCondition cond;
         ScopedLock hold(m);
         cond.wait(m, ConditionWaitTimeout(0, 3000000000));
       },
       ": pthread_cond_timedwait: Invalid argument;", false},
      {"wait without holding an error-checking mutex",
       [] {
         full_Mutex m(Mutex::ERRORCHECK);
         PthreadCondition cond;
         cond.wait(m);
       },
       ": pthread_cond_wait: Operation not permitted;", true},
      {"timed wait without holding an error-checking mutex",
       [] {
         full_Mutex m(Mutex::ERRORCHECK);
         PthreadCondition cond;
         cond.wait(m, ConditionWaitTimeout(5, 0));
       },
       ": pthread_cond_timedwait: Operation not permitted;", true},
  };
  for (const auto& c : kCases) {
    if (c.waitsUnheld && kUnderThreadSanitizer) continue;
    const std::string text = thrownText<ThreadException>(c.provoke);
    EXPECT_NE(std::string::npos, text.find(c.fragment)) << c.name << ": " << text;
  }
}

}  // namespace
