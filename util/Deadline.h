// Deadline: the end of a wait with a time limit, on the monotonic clock, so
// that a change of the wall clock neither shortens nor stretches it.
#pragma once

#include <time.h>

#include <cstdint>

// A plain value; one owner.
class Deadline {
 public:
  // `timeoutMs` from now; a negative timeout never expires.
  explicit Deadline(int timeoutMs)
      : _unlimited(timeoutMs < 0), _end(nowMsec() + (timeoutMs < 0 ? 0 : timeoutMs)) {}

  // What is left, for poll: -1 without a limit, else at least 0.
  int left() const {
    if (_unlimited) return -1;
    const int64_t left = _end - nowMsec();
    return left < 0 ? 0 : static_cast<int>(left);
  }

 private:
  static int64_t nowMsec() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  }

  bool _unlimited;
  int64_t _end;
};
