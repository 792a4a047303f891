// ScopedFixedClock: stops the clock behind Timeval::now() at a chosen instant
// for the length of a test. Test code only.
#pragma once

#include "util/Timeval.h"

// One owner, the test that made it, and one at a time in a process. Threads
// may read the clock while it lives; set() belongs to the owner's thread.
class ScopedFixedClock {
 public:
  explicit ScopedFixedClock(const Timeval& now) : _previous(setTimevalClock(&read)) { set(now); }
  ~ScopedFixedClock() { setTimevalClock(_previous); }
  ScopedFixedClock(const ScopedFixedClock&) = delete;
  ScopedFixedClock& operator=(const ScopedFixedClock&) = delete;

  void set(const Timeval& now) { instant() = now; }

 private:
  static Timeval& instant() {
    static Timeval now;
    return now;
  }
  static void read(Timeval* now) { *now = instant(); }

  TimevalClock _previous;
};
