#include "util/MainThread.h"

#include <atomic>

#include "util/Assert.h"
#include "util/EventLoop.h"
#include "util/Mutex.h"
#include "util/PthreadCondition.h"

namespace {

// The threads waiting to be joined, oldest first.
struct JoinQueue {
  full_Mutex mutex;
  ConditionWakeAll nonEmpty;  // with `mutex`
  JoinHelper* head = nullptr;    // guarded by `mutex`
  JoinHelper** tailp = &head;    // guarded by `mutex`
};

std::atomic<EventLoop*> gMainLoop{nullptr};

JoinQueue& joinQueue() {
  static JoinQueue* queue = new JoinQueue;
  return *queue;
}

}  // namespace

void MainThread::setEventLoop(EventLoop* loop) { gMainLoop.store(loop); }

void MainThread::joinAndDeleteMe(Thread* thr) {
  kassert(thr->isCurrent());
  EventLoop* loop = gMainLoop.load();
  // Not waited for: the join can only end after this thread has returned.
  if (loop != nullptr && loop->runInThreadOrFail(&thr->_joinHelper, false)) return;
  JoinQueue& q = joinQueue();
  ScopedLock hold(q.mutex);
  JoinHelper* helper = &thr->_joinHelper;
  helper->_next = nullptr;
  *q.tailp = helper;
  q.tailp = &helper->_next;
  q.nonEmpty.wake_all();
}

size_t MainThread::runPendingJoins() {
  kassert(currentlyRunningInMainThread());
  JoinQueue& q = joinQueue();
  JoinHelper* list;
  {
    ScopedLock hold(q.mutex);
    list = q.head;
    q.head = nullptr;
    q.tailp = &q.head;
  }
  size_t count = 0;
  while (list != nullptr) {
    JoinHelper* helper = list;
    list = helper->_next;
    helper->callback();  // deletes the thread, and the helper with it
    ++count;
  }
  return count;
}

bool MainThread::waitForJoinRequest(const ConditionWaitTimeout& timeout) {
  JoinQueue& q = joinQueue();
  ScopedLock hold(q.mutex);
  while (q.head == nullptr) {
    if (!q.nonEmpty.wait(q.mutex, timeout)) break;
  }
  return q.head != nullptr;
}
