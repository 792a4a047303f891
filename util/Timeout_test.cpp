#include "util/Timeout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "util/testing/FixedClock.h"

namespace {

// Milliseconds from a fixed origin.
Timeval at(int64_t ms) {
  const int64_t sec = ms >= 0 ? ms / 1000 : -((-ms + 999) / 1000);
  return Timeval(1000000 + sec, (ms - sec * 1000) * 1000);
}

// Fixes the clock for each test. Each test declares its heap after its
// timers, so that the heap, going first, unschedules what is left.
class TimeoutHeapTest : public ::testing::Test {
 protected:
  // One pass at the clock's time `ms`.
  void runAt(TimeoutHeap& heap, int64_t ms) {
    _clock.set(at(ms));
    Timeval now = at(ms);
    heap.runExpiredTimeouts(now);
  }

  ScopedFixedClock _clock{at(0)};
};

// Records each firing in a shared log and then leaves its interval as
// `repeat` says (-1: as the handler found it); `action` runs first.
class RecordingTimeout : public Timeout {
 public:
  RecordingTimeout(int id, std::vector<int>* log) : _id(id), _log(log) {}
  void when_expired(unsigned long long& msec) override {
    _log->push_back(_id);
    givenMsec = msec;
    if (action) action(msec);
    if (repeat >= 0) msec = static_cast<unsigned long long>(repeat);
  }

  long long repeat = 0;
  unsigned long long givenMsec = 0;
  std::function<void(unsigned long long&)> action;

 private:
  int _id;
  std::vector<int>* _log;
};

class PollingHeap : public TimeoutHeap {
 public:
  using TimeoutHeap::setInPoll;
};

TEST_F(TimeoutHeapTest, WaitTimesForEmptyPastAndFutureTimers) {
  std::vector<int> log;
  RecordingTimeout t(1, &log);
  TimeoutHeap heap;
  timespec ts{77, 77};
  EXPECT_EQ(TimeoutHeap::POLL_MS_INFINITE, heap.msecUntilNextTimeout(at(0)));
  EXPECT_FALSE(heap.nsecUntilNextTimeout(at(0), &ts));
  EXPECT_EQ(77, ts.tv_sec);

  const struct { int64_t dueMs; int64_t nowMs; int msec; time_t sec; long nsec; } kCases[] = {
      {1500, 0, 1500, 1, 500000000},
      {1500, 1500, 0, 0, 0},
      {1500, 9000, 0, 0, 0},  // long past
      {1500, 1498, 2, 0, 2000000},
      {3000000000LL, 0, 0x7fffffff, 0x7fffffff / 1000, 647000000},  // limited
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.dueMs - c.nowMs);
    heap.add(&t, at(0), static_cast<unsigned long long>(c.dueMs));
    EXPECT_EQ(c.msec, heap.msecUntilNextTimeout(at(c.nowMs)));
    ASSERT_TRUE(heap.nsecUntilNextTimeout(at(c.nowMs), &ts));
    EXPECT_EQ(c.sec, ts.tv_sec);
    EXPECT_EQ(c.nsec, ts.tv_nsec);
  }
  // A part of a millisecond ahead rounds up, so that a poll never wakes early.
  heap.add(&t, Timeval(1000000, 200), 0);
  EXPECT_EQ(1, heap.msecUntilNextTimeout(at(0)));
  heap.remove(&t);
  EXPECT_EQ(TimeoutHeap::POLL_MS_INFINITE, heap.msecUntilNextTimeout(at(0)));
}

TEST_F(TimeoutHeapTest, FiresUpTo170MillisecondsEarlyButNoEarlier) {
  std::vector<int> log;
  RecordingTimeout in(1, &log), out(2, &log);
  TimeoutHeap heap;
  heap.add(&in, at(0), 170);
  heap.add(&out, at(0), 171);
  runAt(heap, 0);
  EXPECT_EQ(std::vector<int>({1}), log);
  EXPECT_TRUE(out.isScheduled());
  EXPECT_FALSE(in.isScheduled());
}

TEST_F(TimeoutHeapTest, AOneShotAboutToRunStillRunsWhenRemoved) {
  std::vector<int> log;
  RecordingTimeout first(1, &log), oneShot(2, &log), repeating(3, &log);
  TimeoutHeap heap;
  heap.add(&first, at(0), 0);
  heap.add(&oneShot, at(5), 0);
  heap.add(&repeating, at(0), 10);
  // When `first` runs, both others wait on the about-to-run list.
  first.action = [&](unsigned long long&) {
    log.push_back(-1);
    heap.remove(&oneShot);    // its time has come: it runs now
    heap.remove(&repeating);  // it has an interval: dropped
    log.push_back(-2);
  };
  runAt(heap, 100);
  EXPECT_EQ(std::vector<int>({1, -1, 2, -2}), log);
  EXPECT_FALSE(oneShot.isScheduled());
  EXPECT_FALSE(repeating.isScheduled());
  EXPECT_TRUE(heap.empty());
}

TEST_F(TimeoutHeapTest, ARepeatCountsFromTheEndOfThePass) {
  std::vector<int> log;
  RecordingTimeout slow(1, &log), periodic(2, &log);
  TimeoutHeap heap;
  heap.add(&slow, at(0), 0);
  slow.action = [this](unsigned long long&) { _clock.set(at(4000)); };  // a slow handler
  periodic.repeat = -1;
  heap.add(&periodic, at(-1000), 1000);  // due at 0
  runAt(heap, 0);
  EXPECT_EQ(1000u, periodic.givenMsec);
  EXPECT_EQ(at(5000), periodic.when());  // 1000 after the pass ended, not at 1000
  EXPECT_EQ(1000u, periodic.initialMsec());
  // A handler that changes the count changes the interval.
  periodic.repeat = 250;
  runAt(heap, 5000);
  EXPECT_EQ(at(5250), periodic.when());
  EXPECT_EQ(250u, periodic.initialMsec());
  periodic.repeat = 0;
  runAt(heap, 5250);
  EXPECT_FALSE(periodic.isScheduled());
  EXPECT_EQ(std::vector<int>({1, 2, 2, 2}), log);
}

TEST_F(TimeoutHeapTest, AddDuringAPassActsByTheTimersState) {
  std::vector<int> log;
  RecordingTimeout early(1, &log), driver(2, &log), zeroOnList(3, &log), movedOff(4, &log);
  TimeoutHeap heap;
  early.repeat = 100;  // goes to the put-back list when it runs
  heap.add(&early, at(-100), 100);
  heap.add(&driver, at(10), 0);
  heap.add(&zeroOnList, at(20), 0);
  heap.add(&movedOff, at(30), 0);
  driver.action = [&](unsigned long long&) {
    heap.add(&early, at(0), 7000);      // waiting to be put back: takes the interval
    heap.add(&zeroOnList, at(0), 0);    // about to run, 0: still runs in this pass
    heap.add(&movedOff, at(0), 3000);   // about to run, non-zero: leaves the list
  };
  runAt(heap, 100);
  EXPECT_EQ(std::vector<int>({1, 2, 3}), log);
  EXPECT_EQ(at(100 + 7000), early.when());
  EXPECT_EQ(at(3000), movedOff.when());
  EXPECT_TRUE(heap.verifyHeap());
  EXPECT_EQ(2u, heap.timeoutCount());
}

TEST_F(TimeoutHeapTest, ModifyIntervalCountsWhatWasServed) {
  std::vector<int> log;
  const struct {
    const char* name;
    unsigned long long oldMsec;
    int64_t nowMs;            // scheduled at 0 with oldMsec
    unsigned long long newMsec;
    int64_t dueMs;            // -1: not scheduled to start with
  } kCases[] = {
      {"served 600 of 1000, now 1500", 1000, 600, 1500, 1500},
      {"served 600 of 1000, now 500: due at once", 1000, 600, 500, 600},
      {"same interval: no change", 1000, 600, 1000, 1000},
      {"already overdue: a whole new interval", 1000, 1200, 400, 1600},
      {"nothing served", 1000, 0, 300, 300},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    RecordingTimeout t(1, &log);
    TimeoutHeap heap;
    heap.add(&t, at(0), c.oldMsec);
    heap.modifyTimeoutInterval(&t, at(c.nowMs), c.newMsec);
    EXPECT_EQ(at(c.dueMs), t.when());
    EXPECT_EQ(c.newMsec, t.initialMsec());
    EXPECT_TRUE(heap.verifyHeap());
  }
  RecordingTimeout idle(2, &log);
  TimeoutHeap heap;
  heap.modifyTimeoutInterval(&idle, at(50), 700);  // not scheduled: from now
  EXPECT_EQ(at(750), idle.when());
  EXPECT_TRUE(log.empty());
}

TEST_F(TimeoutHeapTest, ModifyIntervalDuringAPass) {
  std::vector<int> log;
  RecordingTimeout driver(1, &log), keeps(2, &log), waits(3, &log), putBack(4, &log);
  TimeoutHeap heap;
  putBack.repeat = 50;
  heap.add(&putBack, at(-50), 50);
  heap.add(&driver, at(5), 0);
  heap.add(&keeps, at(10), 300);   // about to run, old interval 300
  heap.add(&waits, at(20), 100);   // about to run, old interval 100
  driver.action = [&](unsigned long long&) {
    heap.modifyTimeoutInterval(&keeps, at(50), 200);    // 300 >= 200: runs, interval 200
    heap.modifyTimeoutInterval(&waits, at(50), 400);    // 100 < 400: off, due 300 from now
    heap.modifyTimeoutInterval(&putBack, at(50), 900);  // the repeat takes 900
  };
  keeps.repeat = -1;
  runAt(heap, 150);
  EXPECT_EQ(std::vector<int>({4, 1, 2}), log);
  EXPECT_EQ(200u, keeps.givenMsec);
  EXPECT_EQ(at(150 + 200), keeps.when());
  EXPECT_EQ(at(50 + 300), waits.when());
  EXPECT_EQ(at(150 + 900), putBack.when());
}

// A handler that changes its own interval through the heap, rather than
// through the count, must not end up in the heap twice.
TEST_F(TimeoutHeapTest, AHandlerMayModifyItsOwnInterval) {
  std::vector<int> log;
  const struct {
    const char* name;
    long long repeat;  // what the handler leaves in the count (-1: untouched)
    unsigned long long newMsec;
    unsigned long long firstMsec;  // an earlier modify in the same handler (0: none)
  } kCases[] = {
      {"shorter, count left as found", -1, 500, 0},
      {"longer, count left as found", -1, 2500, 0},
      {"count set as well: the modify wins", 300, 500, 0},
      {"count cleared: the modify still repeats it", 0, 700, 0},
      {"modified twice: the last one counts", -1, 700, 5000},
      {"modified to the interval it had", -1, 1000, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    RecordingTimeout self(1, &log), other(2, &log);
    TimeoutHeap heap;
    heap.add(&other, at(0), 60000);
    heap.add(&self, at(-1000), 1000);  // due at 0
    self.repeat = c.repeat;
    self.action = [&](unsigned long long&) {
      if (c.firstMsec != 0) heap.modifyTimeoutInterval(&self, at(0), c.firstMsec);
      heap.modifyTimeoutInterval(&self, at(0), c.newMsec);
      _clock.set(at(40));  // the pass ends a little later
    };
    runAt(heap, 0);
    ASSERT_TRUE(heap.verifyHeap());
    EXPECT_EQ(2u, heap.timeoutCount());
    EXPECT_EQ(at(40 + static_cast<int64_t>(c.newMsec)), self.when());
    EXPECT_EQ(c.newMsec, self.initialMsec());
    // It fires once at the new time and then keeps its new interval.
    self.action = nullptr;
    self.repeat = -1;
    log.clear();
    runAt(heap, 40 + static_cast<int64_t>(c.newMsec));
    EXPECT_EQ(std::vector<int>({1}), log);
    EXPECT_EQ(c.newMsec, self.givenMsec);
    ASSERT_TRUE(heap.verifyHeap());
    EXPECT_EQ(2u, heap.timeoutCount());
  }
}

TEST_F(TimeoutHeapTest, ClockJumpsMoveOrClampTheTimers) {
  std::vector<int> log;
  const struct {
    const char* name;
    int64_t afterMs;  // the poll began at 0 and waited up to 1000
    int64_t shiftMs;  // how far each timer moves
  } kCases[] = {
      {"on time", 1000, 0},
      {"4 s late: tolerated", 5000, 0},
      {"exactly 5 s late: tolerated", 6000, 0},
      {"6 s late: moved by the excess", 7000, 6000},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    RecordingTimeout a(1, &log), b(2, &log), d(3, &log);
    TimeoutHeap heap;
    heap.add(&a, at(0), 2000);
    heap.add(&b, at(0), 2500);
    heap.add(&d, at(0), 90000);
    heap.checkClockSkew(at(0), at(c.afterMs), 1000);
    EXPECT_EQ(at(2000 + c.shiftMs), a.when());
    EXPECT_EQ(at(2500 + c.shiftMs), b.when());
    EXPECT_EQ(at(90000 + c.shiftMs), d.when());
    EXPECT_TRUE(heap.verifyHeap());
  }
  // Backwards: nothing waits longer than one interval from the new time.
  RecordingTimeout near(1, &log), far(2, &log);
  TimeoutHeap heap;
  heap.add(&near, at(0), 100);
  heap.add(&far, at(0), 60000);
  heap.checkClockSkew(at(0), at(-3600000), 0);
  EXPECT_EQ(at(-3600000 + 60000), far.when());
  EXPECT_EQ(at(-3600000 + 100), near.when());
  EXPECT_TRUE(heap.verifyHeap());
  EXPECT_TRUE(log.empty());
}

TEST_F(TimeoutHeapTest, ClearAndRunZeroTimeoutsRunsOnlyZeroLengthOnes) {
  std::vector<int> log;
  std::vector<std::unique_ptr<RecordingTimeout>> timers;
  RecordingTimeout late(100, &log), chained(101, &log);
  TimeoutHeap heap;
  for (int i = 0; i < 20; ++i) {
    timers.push_back(std::make_unique<RecordingTimeout>(i, &log));
    heap.add(timers.back().get(), at(1000 * i), i % 2 == 0 ? 0 : 5000);
  }
  timers[4]->action = [&](unsigned long long&) { heap.add(&late, at(0), 0); };
  timers[6]->repeat = 800;  // asks to repeat: back in the heap, no longer zero
  late.action = [&](unsigned long long&) { heap.add(&chained, at(0), 0); };
  heap.clearAndRunZeroTimeouts();
  std::vector<int> ran = log;
  std::sort(ran.begin(), ran.end());
  EXPECT_EQ(std::vector<int>({0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 100, 101}), ran);
  EXPECT_EQ(11u, heap.timeoutCount());  // the ten odd ones and the repeat
  EXPECT_TRUE(heap.verifyHeap());
  for (int i = 1; i < 20; i += 2) EXPECT_TRUE(timers[i]->isScheduled()) << i;
  EXPECT_EQ(800u, timers[6]->initialMsec());
}

// A model of what should be scheduled, checked against the heap after every
// step and against what fires. Added timers fall due on whole seconds, so
// that many deadlines are equal.
TEST_F(TimeoutHeapTest, RandomOperationsKeepTheHeapSound) {
  std::vector<int> log;
  std::vector<std::unique_ptr<RecordingTimeout>> timers;
  TimeoutHeap heap;
  for (int i = 0; i < 200; ++i) timers.push_back(std::make_unique<RecordingTimeout>(i, &log));
  std::map<int, Timeval> model;
  std::mt19937 rng(42);
  for (int step = 0; step < 20000; ++step) {
    const int id = static_cast<int>(rng() % timers.size());
    RecordingTimeout* t = timers[id].get();
    switch (rng() % 3) {
      case 0: {
        const unsigned long long ms = (rng() % 100) * 1000;
        heap.add(t, at(0), ms);
        model[id] = at(static_cast<int64_t>(ms));
        break;
      }
      case 1:
        heap.remove(t);  // often one that is not scheduled: nothing happens
        model.erase(id);
        break;
      default:
        heap.modifyTimeoutInterval(t, at(0), rng() % 100000);
        model[id] = t->when();
    }
    ASSERT_TRUE(heap.verifyHeap()) << step;
    ASSERT_EQ(model.size(), heap.timeoutCount()) << step;
    ASSERT_EQ(model.count(id) != 0, t->isScheduled()) << step;
  }
  for (int64_t ms = 0; ms <= 100000; ms += 500) {
    const size_t before = log.size();
    runAt(heap, ms);
    ASSERT_TRUE(heap.verifyHeap());
    for (size_t i = before; i < log.size(); ++i) {
      EXPECT_LE(model[log[i]], at(ms + 170)) << log[i];  // never before its time
    }
  }
  EXPECT_TRUE(heap.empty());
  std::set<int> scheduled, fired(log.begin(), log.end());
  for (const auto& [id, when] : model) scheduled.insert(id);
  EXPECT_EQ(scheduled, fired);  // the removed ones never fire...
  EXPECT_EQ(log.size(), fired.size());  // ...and the others exactly once
  for (size_t i = 1; i < log.size(); ++i) EXPECT_LE(model[log[i - 1]], model[log[i]]) << i;
}

TEST(TimeoutHeapDeathTest, AHandlerMayNotAddOrRemoveItsOwnTimer) {
  std::vector<int> log;
  EXPECT_DEATH(
      {
        TimeoutHeap heap;
        RecordingTimeout t(1, &log);
        t.action = [&](unsigned long long&) { heap.add(&t, 10); };
        heap.add(&t, Timeval::now(), 0);
        Timeval now = Timeval::now();
        heap.runExpiredTimeouts(now);
      },
      "Assertion failed: timo != _currently_running_timeout");
  EXPECT_DEATH(
      {
        TimeoutHeap heap;
        RecordingTimeout t(1, &log);
        t.action = [&](unsigned long long&) { heap.remove(&t); };
        heap.add(&t, Timeval::now(), 0);
        Timeval now = Timeval::now();
        heap.runExpiredTimeouts(now);
      },
      "Assertion failed: timo != _currently_running_timeout");
}

TEST(TimeoutHeapDeathTest, TheHeapDoesNotChangeDuringAPoll) {
  std::vector<int> log;
  EXPECT_DEATH(
      {
        PollingHeap heap;
        RecordingTimeout t(1, &log);
        heap.setInPoll(true);
        heap.add(&t, 10);
      },
      "Assertion failed: !_in_poll");
}

TEST(TimeoutHeapDeathTest, SkewChecksNeedTimersAndAFiniteDelay) {
  EXPECT_DEATH(
      {
        TimeoutHeap heap;
        heap.checkClockSkew(Timeval(5, 0), Timeval(6, 0), 10);
      },
      "Assertion failed: _timeoutCount > 0");
}

}  // namespace
