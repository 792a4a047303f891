#include "util/MainThread.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <utility>
#include <string>
#include <thread>

#include "util/EventLoop.h"
#include "util/ThreadException.h"
#include "util/testing/ThrownText.h"

namespace {

TEST(MainThread, BeforeItExistsEveryThreadCountsAsMain) {
  bool foreignIsMain = false;
  std::thread foreign([&] { foreignIsMain = Thread::currentlyRunningInMainThread(); });
  foreign.join();
  EXPECT_TRUE(foreignIsMain);
  EXPECT_TRUE(Thread::currentlyRunningInMainThread());
}

TEST(MainThread, IsTheFirstThreadsThreadAndComesOnce) {
  MainThread main;
  EXPECT_EQ(&main, Thread::current());
  EXPECT_EQ("Main Thread", Thread::currentName());
  EXPECT_TRUE(main.isCurrent());
  EXPECT_TRUE(Thread::currentlyRunningInMainThread());
  bool foreignIsMain = true;
  std::thread foreign([&] { foreignIsMain = Thread::currentlyRunningInMainThread(); });
  foreign.join();
  EXPECT_FALSE(foreignIsMain);

  EXPECT_EQ("Main Thread created twice!", thrownText<ThreadException>([] { MainThread second; }));
  EXPECT_EQ(&main, Thread::current());  // the failed second changed nothing
}

// Reads its own stack size from inside.
class StackProbe : public Thread {
 public:
  StackProbe() : Thread("stack probe") {}
  explicit StackProbe(unsigned long size) : Thread(size, "stack probe") {}
  void main() override {
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
    void* base = nullptr;
    pthread_attr_getstack(&attr, &base, &stack);
    pthread_attr_destroy(&attr);
  }
  size_t stack = 0;
};

size_t stackOf(StackProbe&& t) {
  t.go();
  t.join();
  return t.stack;
}

// Whether the default, an own size and a refused size give the stacks they
// should. All three threads exist before any ends, so none reuses
// another's stack.
bool stacksAsConfigured() {
  MainThread main;
  StackProbe byDefault;
  StackProbe ownSize(0x400000);
  StackProbe refused(1);
  return stackOf(std::move(byDefault)) == 0x200000 && stackOf(std::move(ownSize)) == 0x400000 &&
         stackOf(std::move(refused)) == 0x200000;
}

// In a fresh process of its own: the C library hands a finished thread's
// stack to the next thread that fits in it, so a process that already ran
// threads with larger stacks would report those.
TEST(MainThreadDeathTest, ThreadsTakeItsDefaultStackUnlessTheyAskForAnother) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(stacksAsConfigured() ? 0 : 1), testing::ExitedWithCode(0),
              "cannot override thread stack size");
}

// A thread that nobody waits for: it hands itself to the main thread.
class OrphanThread : public Thread {
 public:
  OrphanThread(std::atomic<int>* deleted, bool* wasMain)
      : Thread("orphan"), _deleted(deleted), _wasMain(wasMain) {}
  ~OrphanThread() override { _deleted->fetch_add(1); }
  void main() override {
    *_wasMain = Thread::currentlyRunningInMainThread();
    MainThread::joinAndDeleteMe(this);
  }

 private:
  std::atomic<int>* _deleted;
  bool* _wasMain;
};

TEST(MainThread, JoinsAndDeletesThreadsThatGaveThemselvesUp) {
  MainThread main;
  std::atomic<int> deleted{0};
  bool wasMain[3] = {true, true, true};
  for (int i = 0; i < 3; ++i) (new OrphanThread(&deleted, &wasMain[i]))->go();
  size_t joined = 0;
  while (joined < 3) {
    ASSERT_TRUE(MainThread::waitForJoinRequest(ConditionWaitTimeout(600, 0)));
    joined += MainThread::runPendingJoins();
  }
  EXPECT_EQ(3u, joined);
  EXPECT_EQ(3, deleted.load());
  for (bool b : wasMain) EXPECT_FALSE(b);
  EXPECT_EQ(0u, MainThread::runPendingJoins());
  EXPECT_FALSE(MainThread::waitForJoinRequest(ConditionWaitTimeout(0, 1000000)));
}

// A thread that gives itself up while the main thread runs its loop is
// joined and deleted there, as an actor; nothing waits in the queue.
TEST(MainThread, JoinsOnTheMainLoopWhileItRuns) {
  MainThread main;
  for (EventLoop::PollMethod method : {EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL}) {
    EventLoop loop(method);
    MainThread::setEventLoop(&loop);
    std::atomic<int> deleted{0};
    bool wasMain[4] = {true, true, true, true};
    bool onLoop[4] = {false, false, false, false};
    int joinedOnLoop = 0;  // the loop's thread only
    struct Deleting : OrphanThread {
      Deleting(std::atomic<int>* deleted, bool* wasMain, EventLoop* loop, bool* onLoop,
               int* joined)
          : OrphanThread(deleted, wasMain), _loop(loop), _onLoop(onLoop), _joined(joined) {}
      ~Deleting() override {
        *_onLoop = _loop->isInThread();
        if (++*_joined == 4) _loop->terminate();
      }
      EventLoop* _loop;
      bool* _onLoop;
      int* _joined;
    };
    struct Starter : Timeout {
      void when_expired(unsigned long long&) override { start(); }
      std::function<void()> start;
    } starter;
    // Started from inside the loop, so that it surely runs.
    starter.start = [&] {
      for (int i = 0; i < 4; ++i) {
        (new Deleting(&deleted, &wasMain[i], &loop, &onLoop[i], &joinedOnLoop))->go();
      }
    };
    loop.add(&starter, 0);
    loop.run();
    MainThread::setEventLoop(nullptr);
    EXPECT_EQ(4, deleted.load());
    for (int i = 0; i < 4; ++i) {
      EXPECT_FALSE(wasMain[i]);
      EXPECT_TRUE(onLoop[i]) << i;
    }
    EXPECT_EQ(0u, MainThread::runPendingJoins());
  }
}

TEST(MainThreadDeathTest, OnlyTheThreadItselfMayGiveItselfUp) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  struct Idle : Thread {
    Idle() : Thread("idle") {}
    void main() override {}
  };
  EXPECT_DEATH(
      {
        Idle t;
        MainThread::joinAndDeleteMe(&t);
      },
      "Assertion failed: thr->isCurrent\\(\\)");
}

}  // namespace
