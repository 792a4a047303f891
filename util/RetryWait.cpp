#include "util/RetryWait.h"

#include <cerrno>
#include <ctime>

#include "util/Assert.h"

void RetryWait::sleep() const {
  kassert(_seconds >= 0 && _nanoseconds >= 0 && _nanoseconds < 1000000000);
  timespec left{static_cast<time_t>(_seconds), static_cast<long>(_nanoseconds)};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}
