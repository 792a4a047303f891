// Further checks of the event loop: members coming and going in the middle
// of a round, work handed over from other threads, the end of a run,
// throttling as the loop sees it, timed reads and writes, and the texts of
// the loop's exceptions.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "util/EventLoop.h"
#include "util/EventLoopException.h"
#include "util/PollableDescriptor.h"
#include "util/SelfPipe.h"
#include "util/Thread.h"
#include "util/TcpPolledFd.h"
#include "util/Throttle.h"
#include "util/Timeout.h"
#include "util/testing/LogCapture.h"
#include "util/testing/LoopTesting.h"
#include "util/testing/ThrownText.h"

namespace {

void writeAll(const FileDescriptor& fd, const std::string& text) {
  ASSERT_EQ(static_cast<ssize_t>(text.size()), fd.write(text.data(), text.size()));
}

class ReviewLoopTest : public ::testing::TestWithParam<EventLoop::PollMethod> {
 protected:
  EventLoop _loop{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(BothMethods, ReviewLoopTest,
                         ::testing::Values(EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL),
                         pollMethodName);

// The first member served in a round takes out a chosen set of the others;
// none of those is served, every other member exactly once, whatever slots
// the removals move around.
TEST_P(ReviewLoopTest, RemovalsDuringTheWalkSkipExactlyTheRemoved) {
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
TEST_P(ReviewLoopTest, MembersAddedDuringTheWalkAreServedOnce) {
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
TEST_P(ReviewLoopTest, AMemberReaddedInTheWalkIsNotServedForItsOldSlot) {
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
TEST_P(ReviewLoopTest, TerminateFromAMemberLetsTheRoundFinish) {
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
TEST_P(ReviewLoopTest, WorkPendingWhenTheRunEndsStillRuns) {
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

TEST_P(ReviewLoopTest, RunInThreadOrFailWithoutWaitingRunsOnTheLoopLater) {
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
TEST_P(ReviewLoopTest, OnTheLoopsThreadWorkRunsAtOnce) {
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

TEST_P(ReviewLoopTest, ACallbackAfterServiceRunsOncePerQueueing) {
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

class FlagTimeout : public OneShotTimeout {
 public:
  void fire() override { ++fired; }
  std::atomic<int> fired{0};
};

// A repeating timer whose handler changes its own interval ends up in the
// heap once, at the new interval, whatever count the handler leaves.
class SelfModifying : public Timeout {
 public:
  SelfModifying(TimeoutHeap& heap, std::vector<unsigned long long> changes, unsigned long long leave)
      : _heap(heap), _changes(std::move(changes)), _leave(leave) {}
  void when_expired(unsigned long long& msec) override {
    ++fired;
    for (unsigned long long c : _changes) _heap.modifyTimeoutInterval(this, c);
    if (_leave != ~0ULL) msec = _leave;
  }
  int fired = 0;

 private:
  TimeoutHeap& _heap;
  std::vector<unsigned long long> _changes;
  unsigned long long _leave;
};

TEST(ReviewTimeoutHeap, AHandlerThatModifiesItselfIsScheduledOnceAtTheNewInterval) {
  struct Case {
    unsigned long long initial;
    std::vector<unsigned long long> changes;
    unsigned long long leave;  // ~0: leave the count alone
    unsigned long long expected;
  };
  const Case cases[] = {
      {1000, {5000}, ~0ULL, 5000},      {1000, {5000}, 0, 5000},
      {1000, {5000}, 1000, 5000},       {1000, {5000, 7000}, ~0ULL, 7000},
      {60000, {2000}, ~0ULL, 2000},     {3000, {3000}, ~0ULL, 3000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    TimeoutHeap heap;
    FlagTimeout other;
    SelfModifying t(heap, c.changes, c.leave);
    Timeval now = CurrentTimeval();
    heap.add(&t, now, 0);  // due at once
    heap.add(&other, now, 3600 * 1000ULL);
    const Timeval before = CurrentTimeval();
    heap.runExpiredTimeouts(now);
    EXPECT_EQ(1, t.fired);
    EXPECT_TRUE(heap.verifyHeap());
    EXPECT_EQ(2u, heap.timeoutCount());
    EXPECT_TRUE(t.isScheduled());
    EXPECT_EQ(c.expected, t.initialMsec());
    // Due one new interval after the pass, never sooner.
    Timeval earliest = before;
    earliest.addMsec(c.expected);
    EXPECT_FALSE(t.when() < earliest);
    Timeval latest = CurrentTimeval();
    latest.addMsec(c.expected);
    EXPECT_FALSE(latest < t.when());
    // A second pass before then does not run it again.
    Timeval again = now;
    heap.runExpiredTimeouts(again);
    EXPECT_EQ(1, t.fired);
    EXPECT_EQ(2u, heap.timeoutCount());
    heap.remove(&t);
    heap.remove(&other);
    EXPECT_TRUE(heap.empty());
  }
}

TEST_P(ReviewLoopTest, ASelfModifyingTimerInARunningLoopRepeatsAtItsNewInterval) {
  TimeoutHeap& heap = _loop;
  SelfModifying t(heap, {3600 * 1000ULL}, ~0ULL);
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
TEST_P(ReviewLoopTest, ThrottlingCutsOnlyTheHeldEventsOfAReadiness) {
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
TEST_P(ReviewLoopTest, AFrozenGroupsMembersAreNotServed) {
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

// A peer that went away counts as ready, so that the read that follows
// reports the end.
TEST(ReviewPollableDescriptor, HangUpCountsAsReady) {
  SocketPair p;
  PollableDescriptor a(p.a);
  p.b.close();
  EXPECT_EQ(1, a.select_for(false, 1000));
  EXPECT_EQ(1, a.select_for_loop(false, -1));
  char c;
  EXPECT_EQ(0, a.readWithTimeout(&c, 1, -1));

  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  ScopedFileDescriptor r{FileDescriptor(fds[0])};
  ::close(fds[1]);
  EXPECT_EQ(1, PollableDescriptor(r).select_for(false, 1000));
  EXPECT_EQ(0, PollableDescriptor(r).readWithTimeout(&c, 1, 1000));
}

TEST(ReviewPollableDescriptor, TimedWriteResults) {
  // No room and nobody reading: gives up with ETIMEDOUT.
  for (int timeoutMs : {0, 30}) {
    SocketPair p;
    PollableDescriptor a(p.a);
    a.try_setting_bufsize(SO_SNDBUF, 4096, 1024);
    const std::string big(8 << 20, 'b');
    errno = 0;
    EXPECT_EQ(-1, a.writeWithTimeout(big.data(), big.size(), timeoutMs)) << timeoutMs;
    EXPECT_EQ(ETIMEDOUT, errno) << timeoutMs;
  }
  // A pipe: written with plain writes, and it times out the same way.
  {
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_NONBLOCK | O_CLOEXEC));
    ScopedFileDescriptor r{FileDescriptor(fds[0])};
    ScopedFileDescriptor w{FileDescriptor(fds[1])};
    PollableDescriptor out(w);
    EXPECT_EQ(5, out.writeWithTimeout("pipe!", 5, 1000));
    char buf[8];
    EXPECT_EQ(5, PollableDescriptor(r).readWithTimeout(buf, sizeof(buf), 1000));
    EXPECT_EQ("pipe!", std::string(buf, 5));
    const std::string big(1 << 20, 'p');
    errno = 0;
    EXPECT_EQ(-1, out.writeWithTimeout(big.data(), big.size(), 20));
    EXPECT_EQ(ETIMEDOUT, errno);
  }
}

// Each class leaves errno at the error it reports, whatever it was before.
TEST(ReviewEventLoopException, MakeLeavesErrnoAtTheError) {
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

TEST(ReviewEventLoopException, AnExceptionFromAMemberLeavesTheRun) {
  for (EventLoop::PollMethod method : {EventLoop::USE_REGULAR_POLL, EventLoop::USE_EPOLL}) {
    EventLoop loop(method);
    SocketPair p;
    ReadingMember m;
    m.onEvent = [](ReadingMember&) -> bool { throw std::runtime_error("member failed"); };
    loop.add(&m, PollableDescriptor(p.a));
    writeAll(p.b, "e");
    EXPECT_EQ("member failed", thrownText<std::runtime_error>([&] { loop.run(); }));
    EXPECT_FALSE(loop.isRunning());
    // The loop still works afterwards.
    m.onEvent = [&](ReadingMember&) {
      loop.terminate();
      return false;
    };
    loop.run();
    EXPECT_EQ("e", m.text);
    loop.removeActivePolledFd(&m);
  }
}

// The event values of both paths: a pipe whose writer is gone reports
// hang-up alone, urgent data on a TCP connection reports priority.
TEST_P(ReviewLoopTest, HangUpAndPriorityComeInTheirOwnBits) {
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

TEST_P(ReviewLoopTest, AListenerTakesInEveryWaitingConnection) {
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

TEST_P(ReviewLoopTest, TheEndOfARunRunsZeroLengthTimersOnce) {
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

}  // namespace
