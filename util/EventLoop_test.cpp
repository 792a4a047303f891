#include "util/EventLoop.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "util/EventLoopException.h"
#include "util/PollableDescriptor.h"
#include "util/SelfPipe.h"
#include "util/TcpPolledFd.h"
#include "util/Thread.h"
#include "util/Throttle.h"
#include "util/Timeout.h"
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

// The first member served in a round takes out a chosen set of the others;
// none of those is served, every other member exactly once, whatever slots
// the removals move around.
TEST_P(EventLoopTest, RemovalsDuringTheWalkSkipExactlyTheRemoved) {
  struct Case {
    const char* name;
    int members;
    bool (*removed)(int index, int first);
  };
  const Case cases[] = {
      {"every even one", 9, [](int i, int first) { return i != first && i % 2 == 0; }},
      {"every odd one", 9, [](int i, int first) { return i != first && i % 2 == 1; }},
      {"all others", 6, [](int i, int first) { return i != first; }},
      {"the last two", 40, [](int i, int first) { return i != first && i >= 38; }},
      {"none", 5, [](int, int) { return false; }},
      {"all but the last", 35, [](int i, int first) { return i != first && i != 34; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<SocketPair> pairs(c.members);
    std::vector<ReadingMember> members(c.members);
    int first = -1;
    for (int i = 0; i < c.members; ++i) {
      members[i].onEvent = [&, i](ReadingMember&) {
        if (first < 0) {
          first = i;
          for (int j = 0; j < c.members; ++j) {
            if (c.removed(j, first)) _loop.removeActivePolledFd(&members[j]);
          }
          _loop.terminate();  // the round still ends
        }
        return false;
      };
      _loop.add(&members[i], PollableDescriptor(pairs[i].a));
      writeAll(pairs[i].b, "r");
    }
    _loop.run();
    ASSERT_GE(first, 0);
    int expectedActive = 0;
    for (int j = 0; j < c.members; ++j) {
      const bool gone = c.removed(j, first);
      EXPECT_EQ(gone ? 0 : 1, members[j].events) << j;
      EXPECT_EQ(gone ? "" : "r", members[j].text) << j;
      EXPECT_EQ(!gone, members[j].isActive()) << j;
      if (!gone) ++expectedActive;
    }
    EXPECT_EQ(static_cast<unsigned>(expectedActive), _loop.memberCount());
    for (auto& m : members) {
      if (m.isActive()) _loop.removeActivePolledFd(&m);
    }
  }
}

// A member added from inside the walk, even when it makes the poll arrays
// grow, is served at a later round and never twice for one readiness.
TEST_P(EventLoopTest, MembersAddedDuringTheWalkAreServedOnce) {
  for (int added : {1, 31, 70}) {
    SCOPED_TRACE(added);
    SocketPair trigger;
    std::vector<SocketPair> pairs(added);
    std::vector<ReadingMember> late(added);
    ReadingMember starter;
    int lateDone = 0;
    starter.onData = [&](ReadingMember&) {
      for (int i = 0; i < added; ++i) {
        late[i].onData = [&](ReadingMember& self) {
          _loop.removeActivePolledFd(&self);
          if (++lateDone == added) _loop.terminate();
        };
        _loop.add(&late[i], PollableDescriptor(pairs[i].a));
        writeAll(pairs[i].b, "L");
      }
    };
    _loop.add(&starter, PollableDescriptor(trigger.a));
    writeAll(trigger.b, "s");
    _loop.run();
    EXPECT_EQ(1, starter.events);
    for (int i = 0; i < added; ++i) {
      EXPECT_EQ(1, late[i].events) << i;
      EXPECT_EQ("L", late[i].text) << i;
      EXPECT_FALSE(late[i].isActive()) << i;
    }
    _loop.removeActivePolledFd(&starter);
    EXPECT_EQ(0u, _loop.memberCount());
  }
}

// A member that leaves and comes back on another descriptor inside the
// same round is served for the new descriptor only when that one is ready.
TEST_P(EventLoopTest, AMemberReaddedInTheWalkIsNotServedForItsOldSlot) {
  SocketPair p1, p2, fresh;
  ReadingMember mover, other;
  bool moved = false;
  auto moveOther = [&](ReadingMember& self) {
    if (!moved) {
      moved = true;
      ReadingMember& m = &self == &mover ? other : mover;
      _loop.removeActivePolledFd(&m);
      _loop.add(&m, PollableDescriptor(fresh.a));  // nothing to read there yet
      _loop.terminate();
    }
    return false;
  };
  mover.onEvent = moveOther;
  other.onEvent = moveOther;
  _loop.add(&mover, PollableDescriptor(p1.a));
  _loop.add(&other, PollableDescriptor(p2.a));
  writeAll(p1.b, "1");
  writeAll(p2.b, "2");
  _loop.run();
  EXPECT_EQ(1, mover.events + other.events);
  ReadingMember& readded = mover.events == 0 ? mover : other;
  EXPECT_EQ(PollableDescriptor(fresh.a).fd(), readded.descriptor().fd());
  EXPECT_EQ("", readded.text);
  _loop.removeActivePolledFd(&mover);
  _loop.removeActivePolledFd(&other);
}

// A terminate() from a member ends the run only after the round: every
// member that was ready in it is still served.
TEST_P(EventLoopTest, TerminateFromAMemberLetsTheRoundFinish) {
  constexpr int kMembers = 6;
  std::vector<SocketPair> pairs(kMembers);
  std::vector<ReadingMember> members(kMembers);
  for (int i = 0; i < kMembers; ++i) {
    members[i].onEvent = [&](ReadingMember&) {
      _loop.terminate();
      EXPECT_TRUE(_loop.isInThread());
      return false;
    };
    _loop.add(&members[i], PollableDescriptor(pairs[i].a));
    writeAll(pairs[i].b, "t");
  }
  _loop.run();
  for (int i = 0; i < kMembers; ++i) {
    EXPECT_EQ(1, members[i].events) << i;
    _loop.removeActivePolledFd(&members[i]);
  }
}

// Work queued without waiting while the loop's thread is busy, and a
// terminate that comes in that same moment: the run leaves only after the
// queued work ran, on the loop's thread.
TEST_P(EventLoopTest, WorkPendingWhenTheRunEndsStillRuns) {
  Waitable<int> stage;
  std::atomic<int> ranQueued{0};
  std::atomic<bool> queuedInThread{false};
  std::thread runner([&] { _loop.run(); });
  while (!_loop.isRunning()) std::this_thread::yield();

  // Hold the loop's thread until the others have queued their work.
  FunctionActor hold([&] {
    stage.update([](int& s) { s = 1; });
    EXPECT_TRUE(stage.waitFor([](const int& s) { return s == 2; }));
    _loop.terminate();
  });
  _loop.internal_runInThread(&hold, false);
  ASSERT_TRUE(stage.waitFor([](const int& s) { return s == 1; }));
  std::vector<std::unique_ptr<FunctionActor>> queued;
  for (int i = 0; i < 5; ++i) {
    queued.push_back(std::make_unique<FunctionActor>([&] {
      queuedInThread = _loop.isInThread();
      ++ranQueued;
    }));
    _loop.internal_runInThread(queued.back().get(), false);
  }
  // A waiting caller too, from another thread: it must not stay blocked.
  std::atomic<bool> waiterBack{false};
  FunctionActor waited([&] { ++ranQueued; });
  std::thread waiter([&] {
    _loop.internal_runInThread(&waited, true);
    waiterBack = true;
  });
  // The waiter's actor is queued at some point; let the loop go once it
  // could be (whether it ran before or at the end makes no difference).
  stage.update([](int& s) { s = 2; });
  runner.join();
  waiter.join();
  EXPECT_TRUE(waiterBack);
  EXPECT_EQ(6, ranQueued.load());
  EXPECT_TRUE(queuedInThread);
  EXPECT_FALSE(_loop.isRunning());
}

TEST_P(EventLoopTest, RunInThreadOrFailWithoutWaitingRunsOnTheLoopLater) {
  LoopThread running(_loop);
  Waitable<int> ran;
  bool inThread = false;
  FunctionActor actor([&] {
    inThread = _loop.isInThread();
    ran.update([](int& n) { ++n; });
  });
  EXPECT_TRUE(_loop.runInThreadOrFail(&actor, false));
  EXPECT_TRUE(ran.waitFor([](const int& n) { return n == 1; }));
  inLoop(_loop, [] {});  // the actor is done with before it goes out of scope
  EXPECT_TRUE(inThread);
  EXPECT_EQ(1, ran.get());
}

// From the loop's own thread, the FromAnywhere operations and
// runInThreadOrFail act at once rather than queueing behind themselves.
TEST_P(EventLoopTest, OnTheLoopsThreadWorkRunsAtOnce) {
  LoopThread running(_loop);
  inLoop(_loop, [&] {
    bool ran = false;
    FunctionActor nested([&] { ran = true; });
    EXPECT_TRUE(_loop.runInThreadOrFail(&nested));
    EXPECT_TRUE(ran);
    ran = false;
    _loop.internal_runInThread(&nested, true);
    EXPECT_TRUE(ran);
  });
}

class CountingCallback : public CallbackAfterEventService {
 public:
  explicit CountingCallback(EventLoop& loop) : _loop(loop) {}
  void afterEventService() override {
    inThread = _loop.isInThread();
    count.update([](int& n) { ++n; });
  }
  Waitable<int> count;
  bool inThread = false;

 private:
  EventLoop& _loop;
};

TEST_P(EventLoopTest, ACallbackAfterServiceRunsOncePerQueueing) {
  LoopThread running(_loop);
  CountingCallback cb(_loop);
  _loop.addFromAnywhere(&cb);
  EXPECT_TRUE(cb.count.waitFor([](const int& n) { return n == 1; }));
  EXPECT_TRUE(cb.inThread);
  // Queued again from a member on the loop's thread: after this round.
  SocketPair p;
  ReadingMember m;
  m.onData = [&](ReadingMember&) { _loop.addFromAnywhere(&cb); };
  inLoop(_loop, [&] { _loop.add(&m, PollableDescriptor(p.a)); });
  writeAll(p.b, "x");
  EXPECT_TRUE(cb.count.waitFor([](const int& n) { return n == 2; }));
  inLoop(_loop, [&] { _loop.removeActivePolledFd(&m); });
  inLoop(_loop, [] {});
  EXPECT_EQ(2, cb.count.get());
}

// A repeating timer whose handler changes its own interval ends up in the
// heap once, at the new interval.
TEST_P(EventLoopTest, ASelfModifyingTimerInARunningLoopRepeatsAtItsNewInterval) {
  StepTimeout t([&] {
    _loop.modifyTimeoutInterval(&t, 3600 * 1000ULL);
    return true;
  });
  struct Stopper : public OneShotTimeout {
    EventLoop* loop;
    void fire() override { loop->terminate(); }
  } stopper;
  stopper.loop = &_loop;
  _loop.add(&t, 0);
  _loop.add(&stopper, 0);
  _loop.run();
  EXPECT_EQ(1, t.fired);
  EXPECT_TRUE(t.isScheduled());
  EXPECT_EQ(3600 * 1000ULL, t.initialMsec());
  EXPECT_EQ(1u, _loop.timeoutCount());
  EXPECT_TRUE(_loop.verifyHeap());
  _loop.remove(&t);
}

// Throttling seen from the loop: only the events the group holds are cut,
// the rest of the same readiness is still served.
TEST_P(EventLoopTest, ThrottlingCutsOnlyTheHeldEventsOfAReadiness) {
  struct Case {
    unsigned registered;
    unsigned held;
    unsigned servedMask;      // what when_events sees, of READ|WRITE
    unsigned registeredAfter;  // of READ|WRITE
  };
  const Case cases[] = {
      {PolledFd::EV_READ | PolledFd::EV_WRITE, PolledFd::EV_READ, PolledFd::EV_WRITE,
       PolledFd::EV_WRITE},
      {PolledFd::EV_READ | PolledFd::EV_WRITE, PolledFd::EV_WRITE, PolledFd::EV_READ,
       PolledFd::EV_READ},
      {PolledFd::EV_READ | PolledFd::EV_WRITE, PolledFd::EV_PRI,
       PolledFd::EV_READ | PolledFd::EV_WRITE, PolledFd::EV_READ | PolledFd::EV_WRITE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.held);
    ThrottleGroup group;
    unsigned count = 0;
    SocketPair p;
    ReadingMember m;
    unsigned seen = 0;
    m.onEvent = [&](ReadingMember& self) {
      seen = self.epoll_revents();
      _loop.terminate();
      return false;
    };
    group.add(&m);
    group.maybe_throttle(c.held, &count);
    _loop.add(&m, PollableDescriptor(p.a), c.registered);
    writeAll(p.b, "d");
    _loop.run();
    EXPECT_EQ(1, m.events);
    EXPECT_EQ(c.servedMask, seen & (PolledFd::EV_READ | PolledFd::EV_WRITE));
    EXPECT_EQ(c.registeredAfter, m.ourEvents() & (PolledFd::EV_READ | PolledFd::EV_WRITE));
    EXPECT_EQ((c.registered & c.held) != 0 ? 1u : 0u, group.throttledCount());
    group.maybe_unthrottle(c.held, &count);
    EXPECT_EQ(c.registered, m.ourEvents());
    EXPECT_EQ(0u, group.throttledCount());
    _loop.removeActivePolledFd(&m);
  }
}

// A member of a frozen group is never served, and its readable event stays
// cut.
TEST_P(EventLoopTest, AFrozenGroupsMembersAreNotServed) {
  ThrottleGroup group;
  SocketPair p, q;
  ReadingMember frozen, live;
  live.onEvent = [&](ReadingMember&) {
    _loop.terminate();
    return false;
  };
  group.add(&frozen);
  group.freeze();
  EXPECT_EQ(&ThrottleGroup::frozen_events, frozen.group());
  EXPECT_EQ(0u, group.memberCount());
  _loop.add(&frozen, PollableDescriptor(p.a));
  _loop.add(&live, PollableDescriptor(q.a));
  writeAll(p.b, "f");
  writeAll(q.b, "g");
  _loop.run();  // both ready: the frozen one is looked at in the same round
  writeAll(q.b, "g");
  _loop.run();
  EXPECT_EQ(0, frozen.events);
  EXPECT_EQ("", frozen.text);
  EXPECT_EQ(2, live.events);
  _loop.removeActivePolledFd(&frozen);
  _loop.removeActivePolledFd(&live);
}

// Each class leaves errno at the error it reports, whatever it was before.
TEST(EventLoopException, MakeLeavesErrnoAtTheError) {
  errno = 0;
  EXPECT_NE("<nothing thrown>", thrownText<EventLoopException>([] { EventLoopException::make(EBADF, "t"); }));
  EXPECT_EQ(EBADF, errno);
  errno = 0;
  EXPECT_NE("<nothing thrown>", thrownText<SelfPipeException>([] { SelfPipeException::make(EIO, "t"); }));
  EXPECT_EQ(EIO, errno);
  errno = 0;
  EXPECT_NE("<nothing thrown>",
            thrownText<PollableDescriptorException>([] { PollableDescriptorException::make(ENOTSOCK, "t"); }));
  EXPECT_EQ(ENOTSOCK, errno);
}

TEST_P(EventLoopTest, AnExceptionFromAMemberLeavesTheRun) {
  SocketPair p;
  ReadingMember m;
  m.onEvent = [](ReadingMember&) -> bool { throw std::runtime_error("member failed"); };
  _loop.add(&m, PollableDescriptor(p.a));
  writeAll(p.b, "e");
  EXPECT_EQ("member failed", thrownText<std::runtime_error>([&] { _loop.run(); }));
  EXPECT_FALSE(_loop.isRunning());
  // The loop still works afterwards.
  m.onEvent = [&](ReadingMember&) {
    _loop.terminate();
    return false;
  };
  _loop.run();
  EXPECT_EQ("e", m.text);
  _loop.removeActivePolledFd(&m);
}

// The event values of both paths: a pipe whose writer is gone reports
// hang-up alone, urgent data on a TCP connection reports priority.
TEST_P(EventLoopTest, HangUpAndPriorityComeInTheirOwnBits) {
  int fds[2];
  ASSERT_EQ(0, ::pipe2(fds, O_NONBLOCK | O_CLOEXEC));
  ScopedFileDescriptor readEnd{FileDescriptor(fds[0])};
  ::close(fds[1]);
  ReadingMember piped;
  piped.onEof = [&](ReadingMember&) { _loop.terminate(); };
  _loop.add(&piped, PollableDescriptor(readEnd));
  _loop.run();
  EXPECT_EQ(static_cast<unsigned>(PolledFd::EV_HUP), piped.lastRevents);
  EXPECT_FALSE(piped.isActive());
  EXPECT_EQ(readEnd.fd(), piped.eofFd);

  PollableDescriptor listener = loopback(0).make_listener(4, SOCK_STREAM, 0);
  ASSERT_TRUE(listener.valid());
  ScopedFileDescriptor ownListener{listener};
  SocketAddress bound;
  ASSERT_TRUE(SocketAddress::localOf(listener, &bound));
  ScopedFileDescriptor client{loopback(bound.port()).full_connect(5000)};
  ASSERT_TRUE(client.valid());
  ASSERT_EQ(1, PollableDescriptor(listener).select_for(false, 5000));
  ScopedFileDescriptor server{PollableDescriptor(listener).accept()};
  ASSERT_TRUE(server.valid());
  PollableDescriptor(server).setNonblock(true);
  ASSERT_EQ(1, ::send(client.fd(), "!", 1, MSG_OOB));
  ReadingMember urgent;
  urgent.onEvent = [&](ReadingMember&) {
    _loop.terminate();
    return false;
  };
  _loop.add(&urgent, PollableDescriptor(server), PolledFd::EV_PRI);
  _loop.run();
  EXPECT_NE(0u, urgent.lastRevents & PolledFd::EV_PRI);
  EXPECT_EQ(0u, urgent.lastRevents & PolledFd::EV_WRITE);
  _loop.removeActivePolledFd(&urgent);
}

// Every connection that waits is taken in by the listener, with the peer's
// address filled in and the descriptor made non-blocking; closing them all
// tells the factory of each.
class RecordingFactory : public TcpFdFactory {
 public:
  class Member : public TcpPolledFd {
   public:
    bool when_events(PollableDescriptor) override { return false; }
  };
  TcpPolledFd* createTcpPolledFd(PollableDescriptor fd, const SocketAddress& peer) override {
    nonblocking.push_back(fd.isNonblock());
    peers.push_back(peer.port());
    auto* m = new Member;
    made.push_back(m);
    if (made.size() == wanted && loop != nullptr) loop->terminate();
    return m;
  }
  void tcpPolledFdEnded(TcpPolledFd* member) override { ended.push_back(member); }
  size_t wanted = 0;
  EventLoop* loop = nullptr;
  std::vector<bool> nonblocking;
  std::vector<uint16_t> peers;
  std::vector<TcpPolledFd*> made;
  std::vector<TcpPolledFd*> ended;
};

TEST_P(EventLoopTest, AListenerTakesInEveryWaitingConnection) {
  constexpr size_t kClients = 5;
  PollableDescriptor listener = loopback(0).make_listener(16, SOCK_STREAM, 0);
  ASSERT_TRUE(listener.valid());
  SocketAddress bound;
  ASSERT_TRUE(SocketAddress::localOf(listener, &bound));
  std::vector<std::unique_ptr<ScopedFileDescriptor>> clients;
  std::set<uint16_t> clientPorts;
  for (size_t i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<ScopedFileDescriptor>(loopback(bound.port()).full_connect(5000)));
    ASSERT_TRUE(clients.back()->valid());
    SocketAddress local;
    ASSERT_TRUE(SocketAddress::localOf(*clients.back(), &local));
    clientPorts.insert(local.port());
  }
  RecordingFactory factory;
  factory.wanted = kClients;
  factory.loop = &_loop;
  int user = 7;
  AcceptFd acceptor(&user, &_loop, &factory, false);
  EXPECT_EQ(static_cast<unsigned>(PolledFd::EV_READ), acceptor.defaultEvents());
  _loop.add(&acceptor, listener);
  _loop.run();
  ASSERT_EQ(kClients, factory.made.size());
  EXPECT_EQ(kClients, acceptor.connectionCount());
  EXPECT_EQ(clientPorts, std::set<uint16_t>(factory.peers.begin(), factory.peers.end()));
  for (size_t i = 0; i < kClients; ++i) {
    TcpPolledFd* m = factory.made[i];
    EXPECT_TRUE(factory.nonblocking[i]) << i;
    EXPECT_EQ(&acceptor, m->acceptFd()) << i;
    EXPECT_EQ(&_loop, m->loop()) << i;
    EXPECT_EQ("127.0.0.1", std::string(m->peerIp().c_str())) << i;
    EXPECT_EQ("127.0.0.1", std::string(m->peerName().c_str())) << i;
    EXPECT_EQ(factory.peers[i], m->peerPort()) << i;
    EXPECT_TRUE(m->isActive()) << i;
    EXPECT_TRUE(m->isOwnedByEventLoop()) << i;
  }
  std::vector<TcpPolledFd*> made = factory.made;
  acceptor.closeAllConnections();  // the members are deleted here
  EXPECT_EQ(0u, acceptor.connectionCount());
  std::sort(made.begin(), made.end());
  std::vector<TcpPolledFd*> ended = factory.ended;
  std::sort(ended.begin(), ended.end());
  EXPECT_EQ(made, ended);
  EXPECT_EQ(1u, _loop.memberCount());
  // Each client sees its end.
  for (auto& c : clients) {
    char ch;
    EXPECT_EQ(0, PollableDescriptor(*c).readWithTimeout(&ch, 1, 5000));
  }
  _loop.removeActivePolledFd(&acceptor);
  ::close(listener.fd());
}

// Timers added in the last round: at the end of the run the zero-length
// ones run once, the others stay scheduled for the next run.
class CountingTimeout : public Timeout {
 public:
  explicit CountingTimeout(unsigned long long next) : _next(next) {}
  void when_expired(unsigned long long& msec) override {
    ++fired;
    msec = _next;
  }
  int fired = 0;

 private:
  unsigned long long _next;
};

TEST_P(EventLoopTest, TheEndOfARunRunsZeroLengthTimersOnce) {
  struct Case {
    const char* name;
    unsigned long long interval;
    unsigned long long next;  // the count the handler leaves
    int fired;
    bool scheduledAfter;
  };
  const Case cases[] = {
      {"one-shot", 0, 0, 1, false},
      {"asks for a repeat", 0, 3600 * 1000ULL, 1, true},
      {"an hour away", 3600 * 1000ULL, 0, 0, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SocketPair p;
    ReadingMember m;
    CountingTimeout t(c.next);
    m.onEvent = [&](ReadingMember&) {
      _loop.terminate();
      _loop.add(&t, c.interval);
      return false;
    };
    _loop.add(&m, PollableDescriptor(p.a));
    writeAll(p.b, "x");
    _loop.run();
    EXPECT_EQ(c.fired, t.fired);
    EXPECT_EQ(c.scheduledAfter, t.isScheduled());
    EXPECT_TRUE(_loop.verifyHeap());
    _loop.remove(&t);
    _loop.removeActivePolledFd(&m);
  }
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
