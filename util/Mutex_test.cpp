#include "util/Mutex.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "util/testing/LogCapture.h"
#include "util/ThreadException.h"
#include "util/testing/ThrownText.h"

namespace {

// ThreadSanitizer reports an unlock by a thread that does not hold the mutex
// as an error of its own, though here it is the point of the test.
#if defined(__SANITIZE_THREAD__)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

TEST(ThreadException, ZeroPassesAndAnythingElseThrowsWithTheCallsName) {
  EXPECT_NO_THROW(ThreadException::check(0, "pthread_join"));
  const struct { int result; const char* call; const char* text; } kCases[] = {
      {EINVAL, "pthread_join",
       "Main Thread: about to throw a ThreadException: pthread_join: Invalid argument; 1 threads "
       "active"},
      {EDEADLK, "pthread_mutex_lock",
       "Main Thread: about to throw a ThreadException: pthread_mutex_lock: Resource deadlock "
       "avoided; 1 threads active"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.call);
    errno = 0;
    EXPECT_EQ(c.text,
              thrownText<ThreadException>([&] { ThreadException::check(c.result, c.call); }));
    EXPECT_EQ(c.result, errno);
  }
}

TEST(ThreadException, TheCheckingFormLogsAWarningAndTheNologFormDoesNot) {
  ScopedLogCapture capture("Thread");
  const std::string logged =
      thrownText<ThreadException>([] { ThreadException::check(EPERM, "pthread_cond_wait"); });
  const std::string silent = thrownText<ThreadException>(
      [] { ThreadException::checkNoLog(EPERM, "pthread_mutex_unlock"); });
  EXPECT_NE(std::string::npos, silent.find("pthread_mutex_unlock: Operation not permitted"));
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("WARN " + logged, lines[0]);
}

TEST(Mutex, ErrorCheckingMutexTurnsMisuseIntoThreadException) {
  // Each case provokes the platform into refusing a call.
  const char* const kUnlock = ": pthread_mutex_unlock: Operation not permitted;";
  const char* const kRelock = ": pthread_mutex_lock: Resource deadlock avoided;";
  const struct {
    const char* name;
    std::function<void(Mutex&)> misuse;
    const char* fragment;
    bool relocks;  // else it unlocks a mutex it does not hold
  } kCases[] = {
      {"unlock not held", [](Mutex& m) { m.unlock(); }, kUnlock, false},
      {"NOLOG unlock not held", [](Mutex& m) { m.NOLOG_unlock(); }, kUnlock, false},
      {"relock", [](Mutex& m) { m.lock(), m.lock(); }, kRelock, true},
      {"NOLOG relock", [](Mutex& m) { m.NOLOG_lock(), m.NOLOG_lock(); }, kRelock, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    if (!c.relocks && kUnderThreadSanitizer) continue;
    Mutex m(Mutex::ERRORCHECK);
    const std::string text = thrownText<ThreadException>([&] { c.misuse(m); });
    EXPECT_NE(std::string::npos, text.find(c.fragment)) << text;
    if (c.relocks) m.unlock();  // the first lock holds
    m.lock();  // still usable, and not left held
    m.unlock();
  }
}

TEST(Mutex, UnlockByAnotherThreadIsRefused) {
  if (kUnderThreadSanitizer) GTEST_SKIP() << "the sanitizer reports the misuse itself";
  full_Mutex m(Mutex::ERRORCHECK);
  m.lock();
  std::string text;
  std::thread other([&] { text = thrownText<ThreadException>([&] { m.unlock(); }); });
  other.join();
  m.unlock();
  EXPECT_NE(std::string::npos, text.find("pthread_mutex_unlock: Operation not permitted")) << text;
}

TEST(FullMutex, TryLockReportsBusyAsFalse) {
  full_Mutex m;
  ASSERT_TRUE(m.tryLock());
  bool otherGotIt = true;
  std::thread other([&] { otherGotIt = m.tryLock(); });
  other.join();
  EXPECT_FALSE(otherGotIt);
  m.unlock();
  std::thread again([&] {
    otherGotIt = m.tryLock();
    if (otherGotIt) m.unlock();
  });
  again.join();
  EXPECT_TRUE(otherGotIt);
}

TEST(Mutex, GuardsAReadModifyWriteAcrossThreads) {
  // Two fields that must move together: a lost update or a torn pair shows.
  Mutex m;
  long a = 0, b = 0;
  bool torn = false;
  constexpr int kThreads = 8, kRounds = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        if ((i + t) % 2 == 0) {
          ScopedLock hold(m);
          ++a;
          ++b;
        } else {
          ScopedNologLock hold(m);
          if (a != b) torn = true;
          ++a;
          ++b;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_FALSE(torn);
  EXPECT_EQ(long(kThreads) * kRounds, a);
  EXPECT_EQ(a, b);
}

}  // namespace
