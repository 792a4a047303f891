// MainThread: the Thread object of the process's first thread, and the
// place where threads that end on their own are handed over to be joined.
#pragma once

#include <cstddef>

#include "util/ConditionWaitTimeout.h"
#include "util/Thread.h"

class EventLoop;

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

  // For a thread that must end on its own and that nobody waits for: hands
  // `thr` to the main thread, which joins and deletes it once it has ended.
  // While the main thread's event loop runs, the join runs there as an
  // actor; otherwise it waits in a queue for runPendingJoins(). The caller
  // returns from main() soon after. REQUIRES: called on `thr`
  // ("thr->isCurrent()"); `thr` was allocated with new.
  static void joinAndDeleteMe(Thread* thr);
  // The event loop that the main thread runs, or null. Set before the
  // threads that use joinAndDeleteMe start, cleared after the loop ended.
  static void setEventLoop(EventLoop* loop);

  // Joins and deletes every queued thread, in the order queued, and returns
  // how many. REQUIRES: the main thread.
  static size_t runPendingJoins();
  // Waits until a thread is queued or `timeout` passes; whether one is.
  static bool waitForJoinRequest(const ConditionWaitTimeout& timeout);
};
