#include "util/ThreadSpecific.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "util/Mutex.h"
#include "util/ThreadException.h"
#include "util/testing/ThrownText.h"

namespace {

TEST(ThreadSpecific, EachThreadSeesOnlyItsOwnValue) {
  ThreadSpecific<int> slot;
  int mine = 1;
  slot.set(&mine);
  constexpr int kThreads = 8;
  int values[kThreads];
  bool sawNullFirst[kThreads];
  bool sawOwn[kThreads];
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      sawNullFirst[t] = slot.get() == nullptr;
      values[t] = t * 10;
      slot.set(&values[t]);
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();
      sawOwn[t] = slot.get() == &values[t];
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_TRUE(sawNullFirst[t]) << t;
    EXPECT_TRUE(sawOwn[t]) << t;
  }
  EXPECT_EQ(&mine, slot.get());
}

int gDestroyed = 0;
Mutex gDestroyedMutex;
void countDestruction(void* value) {
  ScopedLock hold(gDestroyedMutex);
  gDestroyed += *static_cast<int*>(value);
}

TEST(TSP_Implementor, TheDestructorRunsWithEachExitingThreadsValue) {
  TSP_Implementor tsp(&countDestruction);
  int one = 1, two = 2, four = 4;
  std::thread a([&] { tsp.set(&one); });
  std::thread b([&] { tsp.set(&two); });
  std::thread c([&] { tsp.internal_set(&four); });
  std::thread none([] {});  // no value, no call
  a.join();
  b.join();
  c.join();
  none.join();
  EXPECT_EQ(7, gDestroyed);
  tsp.release();
}

TEST(TSP_Implementor, PlatformRefusalsBecomeThreadExceptions) {
  const struct { const char* name; void (*provoke)(); const char* fragment; } kCases[] = {
      {"release twice",
       [] {
         TSP_Implementor tsp(nullptr);
         tsp.release();
         tsp.release();
       },
       ": pthread_key_delete: Invalid argument;"},
      {"set after release",
       [] {
         TSP_Implementor tsp(nullptr);
         tsp.release();
         int x = 0;
         tsp.set(&x);
       },
       ": pthread_setspecific: Invalid argument;"},
      {"more keys than the process has",
       [] {
         std::vector<std::unique_ptr<TSP_Implementor>> keys;
         struct ReleaseAll {
           std::vector<std::unique_ptr<TSP_Implementor>>& keys;
           ~ReleaseAll() {
             for (auto& k : keys) k->release();
           }
         } releaseAll{keys};
         for (int i = 0; i < 100000; ++i) {
           keys.push_back(std::make_unique<TSP_Implementor>(nullptr));
         }
       },
       ": pthread_key_create: Resource temporarily unavailable;"},
  };
  for (const auto& c : kCases) {
    const std::string text = thrownText<ThreadException>(c.provoke);
    EXPECT_NE(std::string::npos, text.find(c.fragment)) << c.name << ": " << text;
  }
  // The keys came back: a new one can be made.
  TSP_Implementor after(nullptr);
  after.release();
}

}  // namespace
