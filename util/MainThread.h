// MainThread: the Thread object of the process's first thread, and the
// place where threads that end on their own are handed over to be joined.
#pragma once

#include <cstddef>

#include "util/ConditionWaitTimeout.h"
#include "util/Thread.h"

// One per process, made by the program's entry on its first thread. The
// static hand-over methods are safe from any thread; running the handed-over
// joins belongs to the main thread.
class MainThread : public Thread {
 public:
  // Names the thread "Main Thread". A second one throws ThreadException
  // with "Main Thread created twice!".
  MainThread() = default;

  // The process's first thread runs the program's entry, never this.
  void main() override {}

  // For a thread that must end on its own and that nobody waits for: queues
  // `thr` so that the main thread joins and deletes it once it has ended.
  // The caller returns from main() soon after. REQUIRES: called on `thr`
  // ("thr->isCurrent()"); `thr` was allocated with new.
  static void joinAndDeleteMe(Thread* thr);

  // Joins and deletes every queued thread, in the order queued, and returns
  // how many. REQUIRES: the main thread.
  static size_t runPendingJoins();
  // Waits until a thread is queued or `timeout` passes; whether one is.
  static bool waitForJoinRequest(const ConditionWaitTimeout& timeout);
};
