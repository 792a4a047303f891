#include "util/PthreadCondition.h"

#include <cerrno>
#include <ctime>

#include "util/ThreadException.h"

PthreadCondition::PthreadCondition() {
  ThreadException::check(pthread_cond_init(&_cond, nullptr), "pthread_cond_init");
}

PthreadCondition::~PthreadCondition() { pthread_cond_destroy(&_cond); }

void PthreadCondition::wait(ConditionMutex& m) {
  ThreadException::check(pthread_cond_wait(&_cond, m.native()), "pthread_cond_wait");
}

bool PthreadCondition::wait(ConditionMutex& m, const ConditionWaitTimeout& timeout) {
  timespec deadline;
  if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) ThreadException::check(errno, "clock_gettime");
  deadline.tv_sec += static_cast<time_t>(timeout.seconds());
  deadline.tv_nsec += static_cast<long>(timeout.nanoseconds());
  // One carry: both parts below a second cannot sum to two. A nanosecond
  // part that was already too large stays so, and the platform refuses it.
  if (deadline.tv_nsec >= 1000000000) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000;
  }
  const int result = pthread_cond_timedwait(&_cond, m.native(), &deadline);
  if (result == ETIMEDOUT) return false;
  ThreadException::check(result, "pthread_cond_timedwait");
  return true;
}

void PthreadCondition::internal_wake_one() {
  ThreadException::check(pthread_cond_signal(&_cond), "pthread_cond_signal");
}

void ConditionWakeAll::wake_all() {
  ThreadException::check(pthread_cond_broadcast(&_cond), "pthread_cond_broadcast");
}
