// Timeout and TimeoutHeap: timers that carry their own links, kept in a
// linked binary min-heap so that adding and removing allocate nothing.
// EventLoop derives from TimeoutHeap.
#pragma once

#include <cstdint>
#include <ctime>

#include "util/Timeval.h"

class TimeoutHeap;

// One timer. Subclasses say what happens when it expires. A Timeout belongs
// to the thread of the heap it is in; it has no lock of its own.
class Timeout {
 public:
  Timeout();
  // REQUIRES: not scheduled in any heap.
  virtual ~Timeout();
  Timeout(const Timeout&) = delete;
  Timeout& operator=(const Timeout&) = delete;

  // Runs when the timer is due. `msec` holds the timer's interval on entry;
  // leaving it non-zero schedules the timer again that many milliseconds
  // after the end of the current pass, leaving it 0 ends the timer. The
  // handler must not add or remove this timer itself.
  virtual void when_expired(unsigned long long& msec) = 0;

  // Whether the timer is in a heap or on one of its run lists.
  bool isScheduled() const { return _linkp != nullptr; }
  // When it is next due, and its interval in milliseconds.
  const Timeval& when() const { return _when; }
  unsigned long long initialMsec() const { return _initialMsec; }

  // Whether the links agree with each other: the pointer at _linkp leads
  // here, and the children (or the list neighbour) point back. Always true
  // for an unscheduled one.
  bool linksAreSane() const;

 private:
  friend class TimeoutHeap;

  // Exchanges tree positions with `oc`, a child due before this one, by
  // relinking; the contents stay where they are.
  void swapWithChild(Timeout* oc);

  // The states kept in _linkp besides null and a real address.
  static Timeout** const ON_RUN_LIST;      // 1: about to run
  static Timeout** const ON_PUTBACK_LIST;  // 3: to be put back

  union {
    Timeout* child[2];  // in the heap
    struct {
      Timeout* next;
      Timeout** prevp;  // the pointer that points here
    } to_list;          // on a run list
  } _ptr;
  Timeout* _parent;
  Timeout** _linkp;  // null: not scheduled; see ON_RUN_LIST, ON_PUTBACK_LIST
  Timeval _when;
  unsigned long long _initialMsec;
};

// A timer that runs once each time it is added: whatever its handler does,
// the count it returns is 0.
class OneShotTimeout : public Timeout {
 public:
  void when_expired(unsigned long long& msec) final {
    msec = 0;
    fire();
  }
  // What the timer does when due.
  virtual void fire() = 0;
};

// A store of timers ordered by due time. It has no lock: it belongs to one
// thread (an EventLoop's), and other threads reach it through that thread.
//
// Invariants: the heap is a complete binary tree of _timeoutCount nodes in
// which no child is due before its parent; the node of slot n (from 1) is
// found by the bits of n below its highest bit, high to low, 0 leading to
// child[0]; _pathMask is the bit below the highest bit of the count.
class TimeoutHeap {
 public:
  // What msecUntilNextTimeout answers for "no timer".
  static constexpr int POLL_MS_INFINITE = -1;
  // How far ahead of `now` runExpiredTimeouts fires timers.
  static constexpr unsigned long long EARLY_FIRE_MSEC = 170;

  TimeoutHeap();
  // Unschedules every timer left, without running it.
  ~TimeoutHeap();
  TimeoutHeap(const TimeoutHeap&) = delete;
  TimeoutHeap& operator=(const TimeoutHeap&) = delete;

  // Schedules `timo` for `msec` milliseconds after `base` (the clock's now
  // in the second form), or moves it there if it is already scheduled. A
  // timer waiting to be put back only takes the new interval; a timer about
  // to run with msec 0 simply still runs. REQUIRES: `timo` is not the timer
  // whose handler is running ("timo != _currently_running_timeout").
  void add(Timeout* timo, const Timeval& base, unsigned long long msec);
  void add(Timeout* timo, unsigned long long msec);
  // Unschedules `timo`; nothing for a timer not scheduled. A one-shot
  // (interval 0) timer that is already about to run runs now instead of
  // being lost. Same REQUIREMENT as add().
  void remove(Timeout* timo);
  // Changes the interval of `timo`, counting the part of the old interval
  // already served: a 1000 ms timer 400 ms from due, changed to 1500 ms, is
  // next due in 900 ms; changed to 500 ms, it is due now. An unscheduled
  // timer is scheduled `msec` from `now`. Called by a timer's own handler,
  // it takes the place of the count the handler returns: the timer is put
  // back `msec` after the end of the pass, even when the count is 0.
  void modifyTimeoutInterval(Timeout* timo, const Timeval& now, unsigned long long msec);
  void modifyTimeoutInterval(Timeout* timo, unsigned long long msec);

  // Runs every timer due by now + EARLY_FIRE_MSEC, earliest first, then
  // reads the clock once into `now` and schedules the repeating ones from
  // it. A timer due at now + 170 ms runs in this pass, at now + 171 ms not.
  void runExpiredTimeouts(Timeval& now);

  // POLL_MS_INFINITE with no timer, 0 when the first is due at or before
  // `now`, else the milliseconds until it, rounded up and at most
  // 0x7fffffff.
  int msecUntilNextTimeout(const Timeval& now) const;
  // The same as a timespec in *out; false, with *out untouched, when there
  // is no timer.
  bool nsecUntilNextTimeout(const Timeval& now, timespec* out) const;

  // After a poll that waited up to `ms_delay`: when `after` lies more than
  // ms_delay + 5 s past `before`, every timer moves later by the excess
  // (after - before - ms_delay), keeping its spacing; when `after` lies
  // before `before`, every timer is made due no later than one interval
  // from `after`. REQUIRES: timers exist, 0 <= ms_delay, ms_delay is not
  // POLL_MS_INFINITE.
  void checkClockSkew(const Timeval& before, const Timeval& after, int ms_delay);

  // For the end of a loop: runs every timer whose interval is 0, over and
  // over until none is left; the others stay scheduled.
  void clearAndRunZeroTimeouts();

  // Timers in the heap (not those on a run list during a pass).
  unsigned timeoutCount() const { return _timeoutCount; }
  bool empty() const { return _timeoutCount == 0; }
  // Walks the whole heap and checks the invariants above and every timer's
  // links. For tests and debugging: linear in the count.
  bool verifyHeap() const;

 protected:
  // Set by the loop around its poll; the heap may not change meanwhile.
  void setInPoll(bool inPoll) { _in_poll = inPoll; }

  bool _in_poll;

 private:
  void addNonbusyTimeout(Timeout* t);
  void removePendingTimeout(Timeout* t);
  void restoreOrder(Timeout* t);
  // The link that holds slot `slot` and the node it hangs from (null for
  // the root). REQUIRES: slot has the highest bit of the count.
  Timeout** slotLink(unsigned slot, Timeout** parent);
  // The run lists: append at the tail, unlink from anywhere; the state in
  // _linkp tells which list a timer is on.
  void appendToRunList(Timeout* t);
  void appendToPutBackList(Timeout* t);
  void listUnlink(Timeout* t);
  // Calls the handler of an unscheduled timer and puts it on the put-back
  // list when it asks to repeat.
  void internal_runOne(Timeout* t);
  void internal_putBack(const Timeval& now);
  void recursiveAddToAllTimeouts(Timeout* t, unsigned long long msec);
  void recursiveResubmitTimeouts(Timeout* t, const Timeval& after);
  void recursiveFilterZeroLengthTimeouts(Timeout* t);
  void recursiveUnschedule(Timeout* t);
  unsigned recursiveVerify(const Timeout* t, const Timeout* parent, uint64_t slot,
                           bool* ok) const;
  // Empties the heap, returning the old root.
  Timeout* detachAll();

  unsigned _timeoutCount;
  unsigned _pathMask;
  Timeout* _timeouts;  // the root
  Timeout* _currently_running_timeout;
  // Whether the running handler changed its own interval.
  bool _currently_running_modified;
  Timeout* _runList;  // about to run, in due order
  Timeout** _runTail;
  Timeout* _putBackList;
  Timeout** _putBackTail;
};
