#include "util/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "util/EventLoopException.h"
#include "util/SelfPipe.h"
#include "util/testing/LogCapture.h"
#include "util/testing/LoopTesting.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

// A timer that runs a function at each pass and repeats while it returns
// true.
class StepTimeout : public Timeout {
 public:
  explicit StepTimeout(std::function<bool()> step) : _step(std::move(step)) {}
  void when_expired(unsigned long long& msec) override {
    ++fired;
    if (!_step()) msec = 0;
  }
  int fired = 0;

 private:
  std::function<bool()> _step;
};

void writeAll(const FileDescriptor& fd, const std::string& text) {
  ASSERT_EQ(static_cast<ssize_t>(text.size()), fd.write(text.data(), text.size()));
}

class EventLoopTest : public ::testing::TestWithParam<EventLoop::PollMethod> {
 protected:
  EventLoop _loop{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(BothMethods, EventLoopTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

TEST_P(EventLoopTest, UsesTheMethodAskedFor) { EXPECT_EQ(GetParam(), _loop.method()); }

TEST_P(EventLoopTest, ServesEachMemberUntilTheEndOfItsStream) {
  const std::vector<std::string> texts = {"alpha", std::string(100000, 'b'), ""};
  std::vector<SocketPair> pairs(texts.size());
  std::vector<ReadingMember> members(texts.size());
  int finished = 0;
  for (size_t i = 0; i < texts.size(); ++i) {
    members[i].onEof = [&](ReadingMember&) {
      if (++finished == static_cast<int>(texts.size())) _loop.terminate();
    };
    _loop.add(&members[i], PollableDescriptor(pairs[i].a));
    EXPECT_TRUE(members[i].isActive());
  }
  EXPECT_EQ(texts.size(), _loop.memberCount());
  // A writer on its own thread, since the large text fills the socket.
  std::thread writer([&] {
    for (size_t i = 0; i < texts.size(); ++i) {
      PollableDescriptor(pairs[i].b).writeBlocking(texts[i].data(), texts[i].size());
      pairs[i].b.close();
    }
  });
  _loop.run();
  writer.join();
  for (size_t i = 0; i < texts.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(texts[i], members[i].text);
    EXPECT_EQ(pairs[i].a.fd(), members[i].eofFd);  // after_eof gets the descriptor
    EXPECT_FALSE(members[i].isActive());
  }
  EXPECT_EQ(0u, _loop.memberCount());
  EXPECT_FALSE(_loop.isRunning());
}

TEST_P(EventLoopTest, AMemberRemovedByAnotherInTheSameRoundIsNotServed) {
  SocketPair p1, p2;
  ReadingMember m1, m2;
  auto removeOther = [&](ReadingMember& other) {
    return [&](ReadingMember&) {
      if (other.isActive()) _loop.removeActivePolledFd(&other);
      _loop.terminate();  // on the loop's own thread: set at once
      return false;
    };
  };
  m1.onEvent = removeOther(m2);
  m2.onEvent = removeOther(m1);
  _loop.add(&m1, PollableDescriptor(p1.a));
  _loop.add(&m2, PollableDescriptor(p2.a));
  writeAll(p1.b, "x");
  writeAll(p2.b, "y");
  _loop.run();
  EXPECT_EQ(1, m1.events + m2.events);
  ReadingMember& served = m1.events == 1 ? m1 : m2;
  EXPECT_TRUE(served.isActive());
  EXPECT_EQ(1u, _loop.memberCount());
  _loop.removeActivePolledFd(&served);
}

TEST_P(EventLoopTest, MembersThatRemoveThemselvesInTheWalkAreEachServedOnce) {
  // More than the first poll arrays hold, each leaving while others wait.
  constexpr int kMembers = 100;
  std::vector<SocketPair> pairs(kMembers);
  std::vector<ReadingMember> members(kMembers);
  int served = 0;
  for (int i = 0; i < kMembers; ++i) {
    members[i].onData = [&](ReadingMember& self) {
      _loop.removeActivePolledFd(&self);
      if (++served == kMembers) _loop.terminate();
    };
    _loop.add(&members[i], PollableDescriptor(pairs[i].a));
    writeAll(pairs[i].b, "z");
  }
  _loop.run();
  for (int i = 0; i < kMembers; ++i) {
    EXPECT_EQ(1, members[i].events) << i;
    EXPECT_EQ("z", members[i].text) << i;
  }
  EXPECT_EQ(0u, _loop.memberCount());
}

TEST_P(EventLoopTest, ReportsHangUpAndWritableInTheEpollValues) {
  SocketPair writable, hungUp;
  ReadingMember w, h;
  w.onEvent = [&](ReadingMember& self) {
    _loop.removeActivePolledFd(&self);
    return false;
  };
  h.onEof = [&](ReadingMember&) {
    if (w.isActive()) return;
    _loop.terminate();
  };
  _loop.add(&w, PollableDescriptor(writable.a), PolledFd::EV_WRITE);
  _loop.add(&h, PollableDescriptor(hungUp.a));
  hungUp.b.close();
  // Both are ready at once; the hang-up may come with or without readable.
  _loop.run();
  EXPECT_EQ(static_cast<unsigned>(PolledFd::EV_WRITE), w.lastRevents);
  EXPECT_NE(0u, h.lastRevents & (PolledFd::EV_HUP | PolledFd::EV_READ));
  EXPECT_EQ(0u, h.lastRevents & PolledFd::EV_WRITE);
}

TEST_P(EventLoopTest, TimersRunOnTheLoopsThread) {
  int repeats = 0;
  StepTimeout repeating([&] { return ++repeats < 5; });
  StepTimeout oneShot([] { return false; });
  StepTimeout stopper([&] {
    if (repeating.isScheduled() || oneShot.isScheduled()) return true;
    _loop.terminate();
    return false;
  });
  _loop.add(&repeating, 1);
  _loop.add(&oneShot, 0);
  _loop.add(&stopper, 2);
  _loop.run();
  EXPECT_EQ(5, repeating.fired);
  EXPECT_EQ(1, oneShot.fired);
  EXPECT_TRUE(_loop.empty());
}

TEST_P(EventLoopTest, ATerminateBeforeRunEndsItAtOnceAndTheLoopRunsAgain) {
  _loop.terminate();
  _loop.run();  // returns without serving anything
  int fired = 0;
  StepTimeout t([&] {
    ++fired;
    _loop.terminate();
    return false;
  });
  _loop.add(&t, 0);
  _loop.run();
  EXPECT_EQ(1, fired);
}

TEST_P(EventLoopTest, RunInThreadOrFailNeedsARunningLoop) {
  bool ran = false;
  FunctionActor actor([&] { ran = true; });
  EXPECT_FALSE(_loop.runInThreadOrFail(&actor));
  EXPECT_FALSE(ran);
  LoopThread running(_loop);
  bool inThread = false;
  FunctionActor check([&] { inThread = _loop.isInThread(); });
  EXPECT_TRUE(_loop.runInThreadOrFail(&check));
  EXPECT_TRUE(inThread);
  EXPECT_FALSE(_loop.isInThread());
}

TEST_P(EventLoopTest, ActorsFromManyThreadsAllRunOnTheLoopsThread) {
  constexpr int kThreads = 4, kWaited = 200, kDetached = 50;
  int waitedRuns = 0;  // touched only on the loop's thread
  int wrongThread = 0;
  Waitable<int> detachedRuns;
  {
    LoopThread running(_loop);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < kWaited; ++i) {
          inLoop(_loop, [&] {
            if (!_loop.isInThread()) ++wrongThread;
            ++waitedRuns;
          });
        }
        for (int i = 0; i < kDetached; ++i) {
          // Nobody waits: the actor deletes itself.
          struct Detached : InThreadActor {
            explicit Detached(Waitable<int>* runs) : runs(runs) {}
            void callback() override {
              runs->update([](int& n) { ++n; });
              delete this;
            }
            Waitable<int>* runs;
          };
          _loop.internal_runInThread(new Detached(&detachedRuns), false);
        }
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_TRUE(detachedRuns.waitFor([](const int& n) { return n == kThreads * kDetached; }));
    int seen = 0;
    inLoop(_loop, [&] { seen = waitedRuns; });
    EXPECT_EQ(kThreads * kWaited, seen);
  }
  EXPECT_EQ(0, wrongThread);
}

TEST_P(EventLoopTest, ActorsQueuedWhileAnotherThreadHoldsTheLoopRunBeforeItLetsGo) {
  // With the loop down, the first caller runs its actor itself; callers
  // that come meanwhile queue, and it runs their actors before letting go.
  Waitable<int> entered;
  Waitable<bool> release;
  std::vector<int> order;
  std::thread holder([&] {
    inLoop(_loop, [&] {
      entered.update([](int& n) { n = 1; });
      release.waitFor([](const bool& b) { return b; });
      order.push_back(0);
    });
  });
  ASSERT_TRUE(entered.waitFor([](const int& n) { return n == 1; }));
  std::vector<std::thread> waiters;
  Waitable<int> queued;
  for (int i = 1; i <= 3; ++i) {
    waiters.emplace_back([&, i] {
      // Not yet queued when counted, but the count only lets the holder go
      // after every thread started; order among them is free.
      queued.update([](int& n) { ++n; });
      inLoop(_loop, [&, i] { order.push_back(i); });
    });
  }
  ASSERT_TRUE(queued.waitFor([](const int& n) { return n == 3; }));
  release.update([](bool& b) { b = true; });
  holder.join();
  for (auto& t : waiters) t.join();
  ASSERT_EQ(4u, order.size());
  EXPECT_EQ(0, order[0]);
}

TEST_P(EventLoopTest, TheLoopsThreadCanWaitForWorkFromOtherThreads) {
  constexpr unsigned kThreads = 3, kEach = 100;
  Waitable<bool> done;
  LoopThread running(_loop);
  unsigned remaining = kThreads * kEach;  // loop's thread only
  FunctionActor waiter([&] {
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (unsigned i = 0; i < kEach; ++i) {
          struct Decrement : InThreadActor {
            explicit Decrement(unsigned* n) : n(n) {}
            void callback() override {
              --*n;
              delete this;
            }
            unsigned* n;
          };
          _loop.internal_runInThread(new Decrement(&remaining), false);
        }
      });
    }
    // Blocking here without serving the queue would never end.
    _loop.runInThreadWorkUntilZero(&remaining);
    for (auto& t : threads) t.join();
    done.update([](bool& b) { b = true; });
  });
  _loop.internal_runInThread(&waiter, false);
  EXPECT_TRUE(done.waitFor([](const bool& b) { return b; }));
  EXPECT_EQ(0u, remaining);
}

TEST_P(EventLoopTest, WithTheLoopDownTheWaiterRunsTheWorkItself) {
  constexpr unsigned kThreads = 2, kEach = 100;
  unsigned remaining = kThreads * kEach;
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (unsigned i = 0; i < kEach; ++i) inLoop(_loop, [&] { --remaining; });
    });
  }
  _loop.runInThreadWorkUntilZero(&remaining);
  for (auto& t : threads) t.join();
  EXPECT_EQ(0u, remaining);
}

// A pipe in the loop that collects what is written to it.
class CollectingPipe : public PolledReadPipe {
 public:
  bool when_events(PollableDescriptor fd) override {
    char buf[256];
    ssize_t n;
    while ((n = ::read(fd.fd(), buf, sizeof(buf))) > 0) {
      text.update([&](std::string& s) { s.append(buf, static_cast<size_t>(n)); });
    }
    return n == 0;
  }
  Waitable<std::string> text;
};

TEST_P(EventLoopTest, MembersTimeoutsAndCallbacksFromAnywhere) {
  LoopThread running(_loop);
  CollectingPipe pipe;
  _loop.addFromAnywhere(&pipe);
  writeAll(pipe.writeEnd(), "hello");
  EXPECT_TRUE(pipe.text.waitFor([](const std::string& s) { return s == "hello"; }));
  _loop.removeFromAnywhere(&pipe);
  EXPECT_FALSE(pipe.polledFd().isActive());

  StepTimeout later([] { return false; });
  inLoop(_loop, [&] { _loop.add(&later, 3600000); });
  _loop.removeFromAnywhere(&later);
  EXPECT_FALSE(later.isScheduled());
  EXPECT_EQ(0, later.fired);

  struct Callback : CallbackAfterEventService {
    explicit Callback(EventLoop& loop) : loop(loop) {}
    void afterEventService() override {
      inThread.update([&](int& v) { v = loop.isInThread() ? 1 : 2; });
    }
    EventLoop& loop;
    Waitable<int> inThread;
  } callback(_loop);
  _loop.addFromAnywhere(&callback);
  EXPECT_TRUE(callback.inThread.waitFor([](const int& v) { return v != 0; }));
  EXPECT_EQ(1, callback.inThread.get());
  unsigned members = 0;
  inLoop(_loop, [&] { members = _loop.memberCount(); });
  EXPECT_EQ(1u, members);  // the loop's own pipe
}

TEST_P(EventLoopTest, AThrottledReaderStopsAtItsNextEventAndResumesAtUnthrottle) {
  SocketPair pair;
  ThrottleGroup group;
  unsigned count = 0;
  ReadingMember reader;
  group.add(&reader);
  _loop.add(&reader, PollableDescriptor(pair.a));
  group.maybe_throttle(PolledFd::EV_READ, &count);
  group.maybe_throttle(PolledFd::EV_READ, &count);
  writeAll(pair.b, "a");
  int phase = 0, quietPasses = 0, passes = 0;
  // A timer of 1 ms steps the test once per round: it is always within the
  // early-firing window.
  StepTimeout stepper([&] {
    if (++passes > 10000) {
      ADD_FAILURE() << "stuck in phase " << phase;
      _loop.terminate();
      return false;
    }
    switch (phase) {
      case 0:  // waits for the event that cuts the reader's events
        if (reader.ourEvents() != 0) return true;
        EXPECT_EQ(static_cast<unsigned>(PolledFd::EV_READ), reader.throttledEvents());
        EXPECT_EQ(1u, group.throttledCount());
        group.maybe_unthrottle(PolledFd::EV_READ, &count);  // one of two
        phase = 1;
        return true;
      case 1:  // still throttled: nothing is read
        EXPECT_EQ(0u, reader.ourEvents());
        if (++quietPasses < 5) return true;
        group.maybe_unthrottle(PolledFd::EV_READ, &count);
        EXPECT_EQ(static_cast<unsigned>(PolledFd::EV_READ), reader.ourEvents());
        EXPECT_EQ(0u, group.throttledCount());
        phase = 2;
        return true;
      default:
        if (reader.text.empty()) return true;
        _loop.terminate();
        return false;
    }
  });
  _loop.add(&stepper, 1);
  _loop.run();
  EXPECT_EQ("a", reader.text);
  EXPECT_EQ(0, reader.events - 1);  // served only after the unthrottle
  EXPECT_EQ(0u, group.mask());
  _loop.removeActivePolledFd(&reader);
}

TEST_P(EventLoopTest, AnUnthrottleFromAnotherThreadWakesTheLoop) {
  SocketPair pair;
  ThrottleGroup group;
  unsigned count = 0;
  ReadingMember reader;
  Waitable<std::string> seen;
  reader.onData = [&](ReadingMember& r) { seen.update([&](std::string& s) { s = r.text; }); };
  group.add(&reader);
  _loop.add(&reader, PollableDescriptor(pair.a));
  group.maybe_throttle(PolledFd::EV_READ, &count);
  {
    LoopThread running(_loop);
    writeAll(pair.b, "late");
    // Round trips through the loop until the reader's events are cut.
    unsigned events = 1;
    for (int i = 0; i < 100000 && events != 0; ++i) inLoop(_loop, [&] { events = reader.ourEvents(); });
    ASSERT_EQ(0u, events);
    EXPECT_EQ("", seen.get());
    group.maybe_unthrottle(PolledFd::EV_READ, &count);
    EXPECT_TRUE(seen.waitFor([](const std::string& s) { return s == "late"; }));
    inLoop(_loop, [&] { _loop.removeActivePolledFd(&reader); });
  }
}

TEST_P(EventLoopTest, RegularFilesAreRefusedByEpollOnly) {
  TestTempDir dir;
  writeTestFile(dir / "plain", "");
  ScopedFileDescriptor file(FileDescriptor(::open((dir / "plain").c_str(), O_RDONLY | O_CLOEXEC)));
  ReadingMember member;
  if (GetParam() == EventLoop::USE_EPOLL) {
    ScopedLogCapture capture("EventLoop");
    const std::string text =
        thrownText<EventLoopException>([&] { _loop.add(&member, PollableDescriptor(file)); });
    EXPECT_NE(std::string::npos,
              text.find("about to throw a EventLoopException: error from epoll_ctl: "
                        "Operation not permitted"))
        << text;
    EXPECT_FALSE(member.isActive());
    EXPECT_EQ(0u, _loop.memberCount());
    EXPECT_EQ("WARN " + text, capture.lines().at(0));
  } else {
    // poll takes anything: a regular file is always readable, here at once
    // at its end.
    member.onEof = [&](ReadingMember&) { _loop.terminate(); };
    _loop.add(&member, PollableDescriptor(file));
    _loop.run();
    EXPECT_EQ(file.fd(), member.eofFd);
  }
}

TEST(SelfPipe, DrainsEveryTriggerAndEndsWithThePipe) {
  struct Counting : SelfPipe {
    void when_triggered() override { ++triggered; }
    int triggered = 0;
  } pipe;
  EXPECT_FALSE(pipe.when_events(pipe.readEnd()));  // nothing there: EAGAIN
  EXPECT_EQ(0, pipe.triggered);
  for (int i = 0; i < 1000; ++i) pipe.trigger();
  EXPECT_FALSE(pipe.when_events(pipe.readEnd()));
  EXPECT_EQ(1, pipe.triggered);  // one call for many bytes
  pipe.trigger();
  pipe.pollForTrigger();
  EXPECT_EQ(2, pipe.triggered);
  pipe.closeWriteEnd();
  EXPECT_TRUE(pipe.when_events(pipe.readEnd()));
  EXPECT_EQ(2, pipe.triggered);
}

TEST(SelfPipe, AReadErrorThrows) {
  SelfPipe pipe;
  const std::string text =
      thrownText<SelfPipeException>([&] { pipe.when_events(PollableDescriptor(-1)); });
  EXPECT_NE(std::string::npos,
            text.find("about to throw a SelfPipeException: error from selfpipe read: Bad file "
                      "descriptor"))
      << text;
}

TEST(EventLoopException, EachClassNamesItselfAndTheError) {
  ScopedLogCapture capture("EventLoop");
  const std::string a =
      thrownText<EventLoopException>([] { EventLoopException::make(EBADF, "can't F_GETFD"); });
  const std::string b = thrownText<PollableDescriptorException>(
      [] { PollableDescriptorException::make(EINVAL, "can't F_SETFL"); });
  const std::string thread = Thread::currentName().c_str();
  EXPECT_EQ(thread + ": about to throw a EventLoopException: can't F_GETFD: Bad file descriptor",
            a);
  EXPECT_EQ(thread + ": about to throw a PollableDescriptorException: can't F_SETFL: Invalid argument",
            b);
  EXPECT_EQ(std::vector<std::string>({"WARN " + a, "WARN " + b}), capture.lines());
}

class EventLoopDeathTest : public ::testing::TestWithParam<EventLoop::PollMethod> {};

INSTANTIATE_TEST_SUITE_P(BothMethods, EventLoopDeathTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

TEST_P(EventLoopDeathTest, MisusesEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const EventLoop::PollMethod method = GetParam();
  EXPECT_DEATH(
      {
        EventLoop loop(method);
        ReadingMember m;
        loop.add(&m, PollableDescriptor(-1));
      },
      "Assertion failed: fd.valid\\(\\)");
  EXPECT_DEATH(
      {
        EventLoop loop(method);
        SocketPair pair;
        ReadingMember m;
        loop.add(&m, PollableDescriptor(pair.a));
        loop.add(&m, PollableDescriptor(pair.b));
      },
      "Assertion failed: !p->isActive\\(\\)");
  EXPECT_DEATH(
      {
        EventLoop loop(method);
        SocketPair pair;
        auto m = std::make_unique<ReadingMember>();
        loop.add(m.get(), PollableDescriptor(pair.a));
        m.reset();
      },
      "Assertion failed: !isActive\\(\\)");
  // Nothing joins while the loop sits in its poll call.
  struct Polling : EventLoop {
    explicit Polling(PollMethod m) : EventLoop(m) {}
    using TimeoutHeap::setInPoll;
  };
  EXPECT_DEATH(
      {
        Polling loop(method);
        SocketPair pair;
        ReadingMember m;
        loop.setInPoll(true);
        loop.add(&m, PollableDescriptor(pair.a));
      },
      "Assertion failed: !_in_poll");
}

}  // namespace
