#include "util/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "util/testing/LogCapture.h"
#include "util/ThreadException.h"
#include "util/testing/ThrownText.h"

namespace {

// Records what main() saw from inside the thread.
class ProbeThread : public Thread {
 public:
  explicit ProbeThread(int n) : Thread("probe %d", n) {}
  ProbeThread(unsigned long stackSize, int n) : Thread(stackSize, "probe %d", n) {}

  void main() override {
    ran = true;
    sawSelfAsCurrent = Thread::current() == this && isCurrent();
    sawName = Thread::currentName();
  }

  std::atomic<bool> ran{false};
  bool sawSelfAsCurrent = false;
  std::string sawName;
};

// Bumps a counter that outlives it: a main() run twice, or after its
// destructor was to have stopped it, shows.
class CountingThread : public Thread {
 public:
  CountingThread(std::atomic<int>* count, int n) : Thread("counting %d", n), _count(count) {}
  void main() override { _count->fetch_add(1); }

 private:
  std::atomic<int>* _count;
};

TEST(Thread, DoesNotRunBeforeGo) {
  ProbeThread t(1);
  // The pthread exists and is free to run; only go() may let main() start.
  for (int i = 0; i < 2000; ++i) std::this_thread::yield();
  EXPECT_FALSE(t.ran);
  t.go();
  t.join();
  EXPECT_TRUE(t.ran);
  EXPECT_TRUE(t.sawSelfAsCurrent);
  EXPECT_EQ("probe 1", t.sawName);
  EXPECT_EQ("probe 1", t.name());
  EXPECT_FALSE(t.isCurrent());
}

TEST(Thread, DestroyedWithoutGoNeverRunsMain) {
  // The destructor tells the waiting pthread to end and joins it; a main()
  // that ran would have counted before that join returned.
  std::atomic<int> runs{0};
  for (int i = 0; i < 8; ++i) {
    CountingThread unstarted(&runs, i);
  }
  EXPECT_EQ(0, runs.load());

  ProbeThread t(2);
  t.joinEvenIfUnstarted();
  EXPECT_FALSE(t.ran);
}

TEST(Thread, CountsLiveThreadObjects) {
  const unsigned before = Thread::approximateThreadCount();
  EXPECT_GE(before, 1u);
  {
    std::vector<std::unique_ptr<ProbeThread>> threads;
    for (int i = 0; i < 3; ++i) threads.push_back(std::make_unique<ProbeThread>(20 + i));
    EXPECT_EQ(before + 3, Thread::approximateThreadCount());
    threads[0]->go();
    threads[0]->join();
    EXPECT_EQ(before + 3, Thread::approximateThreadCount());  // joined, not yet gone
    EXPECT_TRUE(*threads[0] == *threads[0]);  // equality follows the pthread
    EXPECT_FALSE(*threads[0] == *threads[1]);
  }
  EXPECT_EQ(before, Thread::approximateThreadCount());
}

TEST(Thread, ForeignThreadsHaveNoThreadObject) {
  Thread* seen = reinterpret_cast<Thread*>(1);
  std::string name;
  std::thread foreign([&] {
    seen = Thread::current();
    name = Thread::currentName();
  });
  foreign.join();
  EXPECT_EQ(nullptr, seen);
  EXPECT_EQ("Unknown Thread", name);
  EXPECT_EQ(nullptr, Thread::current());
  EXPECT_EQ("Main Thread", Thread::currentName());  // the process's first thread
}

// Joins itself from main(): the platform refuses with EDEADLK.
class SelfJoiningThread : public Thread {
 public:
  SelfJoiningThread() : Thread("self joiner") {}
  void main() override { text = thrownText<ThreadException>([this] { join(); }); }
  std::string text;
};

TEST(Thread, JoiningItselfIsAThreadException) {
  SelfJoiningThread t;
  t.go();
  // t.join() now belongs to the thread's own failed attempt; wait for the
  // pthread directly.
  ASSERT_EQ(0, pthread_join(t.token().id(), nullptr));
  EXPECT_NE(std::string::npos,
            t.text.find("self joiner: about to throw a ThreadException: pthread_join: Resource "
                        "deadlock avoided;"))
      << t.text;
}

TEST(Thread, AStackThePlatformCannotGiveFailsTheCreate) {
  // A stack past the whole address space.
  const std::string text = thrownText<ThreadException>([] { ProbeThread t(1UL << 50, 40); });
  EXPECT_NE(std::string::npos, text.find(": pthread_create: ")) << text;
}

TEST(Thread, AStackSizeThePlatformRefusesIsAWarningAndTheDefaultStands) {
  ScopedLogCapture capture("Thread");
  ProbeThread t(1, 41);
  t.go();
  t.join();
  EXPECT_TRUE(t.ran);
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("WARN cannot override thread stack size: pthread_attr_setstacksize(): Invalid argument",
            lines[0]);
}

// Half are started, and joined either way; the other half never start.
TEST(Thread, ManyThreadsEachRunMainOnce) {
  std::atomic<int> count{0};
  std::vector<std::unique_ptr<CountingThread>> threads;
  for (int i = 0; i < 16; ++i) threads.push_back(std::make_unique<CountingThread>(&count, i));
  for (int i = 0; i < 16; i += 2) threads[i]->go();
  for (int i = 0; i < 16; i += 4) threads[i]->join();
  for (int i = 2; i < 16; i += 4) threads[i]->joinEvenIfUnstarted();
  EXPECT_EQ(8, count.load());
  threads.clear();  // the other half never started
  EXPECT_EQ(8, count.load());
}

std::atomic<int> gInterposed{0};
void countingInterposer(Thread* thr, void (*callMain)(Thread*)) {
  EXPECT_NE(nullptr, thr);
  gInterposed.fetch_add(1);
  callMain(thr);
}

TEST(Thread, TheInterposerWrapsEveryLaterStart) {
  static bool installed = false;  // once per process, --gtest_repeat too
  if (!installed) Thread::interposeAtThreadStart(&countingInterposer);
  installed = true;
  const int before = gInterposed.load();
  ProbeThread started(50);
  started.go();
  started.join();
  EXPECT_TRUE(started.ran);
  { ProbeThread unstarted(51); }
  EXPECT_EQ(before + 2, gInterposed.load());  // the unstarted one passes through too
}

class ThreadDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Go twice, join twice, and destroying a started thread that was not joined.
TEST_F(ThreadDeathTest, MisuseOfOneThreadEndsTheProcess) {
  EXPECT_DEATH(
      {
        ProbeThread t(60);
        t.go();
        t.go();
      },
      "Assertion failed: !_ready_to_run");
  EXPECT_DEATH(
      {
        ProbeThread t(61);
        t.go();
        t.join();
        t.join();
      },
      "Assertion failed: _did_join == DID_NOT_JOIN");
  EXPECT_DEATH(
      {
        ProbeThread t(62);
        t.go();
      },
      "Assertion failed: !_ready_to_run");
}

TEST_F(ThreadDeathTest, SetUpAfterTheSecondThreadEndsTheProcess) {
  EXPECT_DEATH(
      {
        { ProbeThread t(63); }
        Thread::assertNotMultithreadedYet();
      },
      "Assertion failed: !have_already_started_threads");
  EXPECT_DEATH(
      {
        Thread::interposeAtThreadStart(&countingInterposer);
        Thread::interposeAtThreadStart(&countingInterposer);
      },
      "Assertion failed: !s_interposeAtStart");
}

}  // namespace
