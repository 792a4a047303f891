// The pause between attempts of a retried file operation, and the one place
// where such a retry sleeps. Shaped like the threads' ConditionWaitTimeout
// (whole seconds and nanoseconds, sleep()) so that one can stand in for it.
#pragma once

#include <cstdint>

// A plain value: safe to share, sleep() blocks only the calling thread.
class RetryWait {
 public:
  constexpr RetryWait() : _seconds(0), _nanoseconds(0) {}
  // REQUIRES: seconds >= 0 and 0 <= nanoseconds < 1000000000.
  constexpr RetryWait(int64_t seconds, int64_t nanoseconds)
      : _seconds(seconds), _nanoseconds(nanoseconds) {}

  int64_t seconds() const { return _seconds; }
  int64_t nanoseconds() const { return _nanoseconds; }

  // Sleeps the whole span, going back to sleep after a signal; a zero span
  // returns at once.
  void sleep() const;

 private:
  int64_t _seconds;
  int64_t _nanoseconds;
};
