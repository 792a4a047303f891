// InThreadActorList: the queue of work waiting for an event loop's thread,
// and the claim on "in-thread use" that decides which thread may run it.
#pragma once

#include <cstddef>

#include "util/InThreadActor.h"
#include "util/Mutex.h"
#include "util/PthreadCondition.h"
#include "util/Thread.h"

class SelfPipe;

// Releases a mutex the caller holds for its scope and takes it back, also
// when the scope is left by an exception: for running callbacks without
// the list's mutex. One owner.
class ScopedUnlock {
 public:
  explicit ScopedUnlock(full_Mutex& mutex) : _mutex(mutex) { _mutex.unlock(); }
  ~ScopedUnlock() { _mutex.lock(); }
  ScopedUnlock(const ScopedUnlock&) = delete;
  ScopedUnlock& operator=(const ScopedUnlock&) = delete;

 private:
  full_Mutex& _mutex;
};

// One per EventLoop. Exactly one thread at a time holds in-thread use: the
// loop's thread while it runs, or, while it does not, a thread that claimed
// it to run an actor itself. The mutex guards the list, the running flag,
// the claim and the notify pointer; callbacks run without it. Methods marked
// "mutex held" REQUIRE the caller to hold mutex(); the others take it.
class InThreadActorList {
 public:
  // The outcomes of tryClaim().
  enum Claim { CLAIMED, ALREADY_OWNER, BUSY };

  InThreadActorList() = default;
  // REQUIRES: nothing pending.
  ~InThreadActorList();
  InThreadActorList(const InThreadActorList&) = delete;
  InThreadActorList& operator=(const InThreadActorList&) = delete;

  full_Mutex& mutex() { return _mutex; }

  // Mutex held. Appends `actor`, which must not be pending, and wakes the
  // threads waiting for work.
  void add(InThreadActor* actor);
  // Takes the oldest pending actor off the list, or returns null; *more
  // tells whether others remain.
  InThreadActor* getNext(bool* more);
  // Runs actor->callback() on the caller's thread, then, if its owner
  // waits, marks it done and wakes the owner. Also when callback() throws.
  void run(InThreadActor* actor);
  // Mutex held. Takes `actor` off the list; false when it was not pending.
  bool removeFromPendingList(InThreadActor* actor);
  // Mutex held. Sleeps until run() has finished `actor`.
  void waitForActorToComplete(InThreadActor* actor);
  // Sleeps until the list is empty.
  void waitForAllActorsToBeNotified();

  // Mutex held. The loop's running flag and the pipe that wakes it (null
  // while it does not run).
  void setRunning(bool running) { _running = running; }
  bool isRunning() const { return _running; }
  void setNotify(SelfPipe* notify) { _notify = notify; }
  SelfPipe* notify() const { return _notify; }

  // Mutex held. Claims in-thread use for the caller: CLAIMED when it was
  // free, ALREADY_OWNER when the caller has it, BUSY when another thread
  // has it.
  Claim tryClaim();
  // Mutex held. Waits until in-thread use is free or the caller's, then
  // claims it; true when it was newly claimed.
  bool waitAndClaim();
  // Mutex held. Whether the caller holds in-thread use, and whether
  // tryClaim() would give it to the caller.
  bool isOwner() const { return _owner == ThreadToken::self(); }
  bool tryClaimWouldSucceed() const { return !_owner.isSet() || isOwner(); }
  // Mutex held. Whether an actor is pending, and the oldest one taken off
  // the list (null when none).
  bool hasPending() const { return _head != nullptr; }
  InThreadActor* popPending();
  // Mutex held, and the caller's claim (REQUIRES "isOwner()"). Gives up
  // the claim and wakes those waiting for it.
  void release();
  // Mutex held, and the caller's claim (REQUIRES "isOwner()"). Runs
  // every pending actor, the mutex released around each, then release(),
  // also when an actor throws.
  void drainAndRelease();
  // Mutex held. Sleeps until an actor is added or the claim changes.
  void waitForChange() { _changed.wait(_mutex); }

  // With the loop down, the caller claims in-thread use (or has it) and
  // runs every pending actor. Returns how many ran; 0 without running any
  // when the loop runs or another thread holds the claim.
  size_t runInThreadWorkIfLoopDown();

 private:
  full_Mutex _mutex;
  ConditionWakeAll _changed;          // with _mutex: list, claim or actors done
  InThreadActor* _head = nullptr;     // guarded by _mutex
  InThreadActor** _tailp = &_head;    // guarded by _mutex
  bool _running = false;              // guarded by _mutex
  ThreadToken _owner;                 // guarded by _mutex; unset: free
  SelfPipe* _notify = nullptr;        // guarded by _mutex
};
