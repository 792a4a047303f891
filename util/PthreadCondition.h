// PthreadCondition and ConditionWakeAll: checked wrappers over one pthread
// condition variable, with waits that may time out.
#pragma once

#include <pthread.h>

#include "util/ConditionWaitTimeout.h"
#include "util/Mutex.h"

// A condition on the real-time clock. Waiting, waking and destruction may
// come from any threads, as the platform allows; the waiter holds the
// ConditionMutex that guards the predicate. Every failure throws
// ThreadException with the call's name.
class PthreadCondition {
 public:
  PthreadCondition();
  ~PthreadCondition();
  PthreadCondition(const PthreadCondition&) = delete;
  PthreadCondition& operator=(const PthreadCondition&) = delete;

  // Releases `m`, waits for a wake (or a spurious return) and takes `m`
  // back. REQUIRES: the caller holds `m`; an ERRORCHECK mutex not held
  // throws ThreadException ("pthread_cond_wait", EPERM).
  void wait(ConditionMutex& m);
  // As wait(m), but for at most `timeout` from now by the real-time clock.
  // True when woken (or spuriously returned), false when the time ran out.
  // ThreadException on any other outcome ("pthread_cond_timedwait"; a clock
  // failure, "clock_gettime").
  bool wait(ConditionMutex& m, const ConditionWaitTimeout& timeout);

  // Wakes at least one waiter, if any. "internal": use only where a single
  // waiter can make progress on what changed.
  void internal_wake_one();

 protected:
  pthread_cond_t _cond;
};

// A condition whose changes may concern every waiter. Same thread story as
// PthreadCondition.
class ConditionWakeAll : public PthreadCondition {
 public:
  // Wakes every current waiter ("pthread_cond_broadcast").
  void wake_all();
};
