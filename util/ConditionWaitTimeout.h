// ConditionWaitTimeout: a span of time for timed condition waits and plain
// sleeps, kept as whole seconds and nanoseconds.
#pragma once

#include <cstdint>

#include "util/Str.h"

// A plain value: one owner at a time, const methods safe to share. sleep()
// blocks only the calling thread.
class ConditionWaitTimeout {
 public:
  constexpr ConditionWaitTimeout() : _seconds(0), _nanoseconds(0) {}
  // REQUIRES: seconds >= 0 and 0 <= nanoseconds < 1000000000. A larger
  // nanosecond part is kept as given, and a timed wait with it fails with
  // ThreadException ("pthread_cond_timedwait", EINVAL).
  constexpr ConditionWaitTimeout(int64_t seconds, int64_t nanoseconds)
      : _seconds(seconds), _nanoseconds(nanoseconds) {}

  int64_t seconds() const { return _seconds; }
  int64_t nanoseconds() const { return _nanoseconds; }

  // Reads a span in decimal seconds as convert_string_to_milliseconds does
  // (" 1.5" is 1 s 500000000 ns; the fraction keeps milliseconds, so
  // "0.0004" is 1 ms). The whole text must be consumed: "1.5s", "" and "x"
  // return false and leave the value alone.
  bool set(const Str& text);

  // The seconds, then the nanoseconds with as few digit groups as they
  // need: (3, 0) "3", (3, 500000000) "3.500", (0, 1500000) "0.001500",
  // (2, 7) "2.000000007".
  Str asStr() const;

  // Sleeps the span: usleep for seconds x 1000000 plus nanoseconds / 1000
  // when there are nanoseconds, sleep(seconds) otherwise. A signal may cut
  // it short; nothing is retried.
  void sleep() const;

 private:
  int64_t _seconds;
  int64_t _nanoseconds;
};
