// The time-bearing side of Pathname: modification times and retried
// renames with their record.
#include <sys/stat.h>
#include <fcntl.h>
#include <sys/time.h>

#include <cerrno>

#include "util/Assert.h"
#include "util/ConditionWaitTimeout.h"
#include "util/Pathname.h"
#include "util/PathnameOpResult.h"
#include "util/Timeval.h"

void PathnameStat::getMtime(Timeval* out) const {
  *out = Timeval(st.st_mtim.tv_sec, st.st_mtim.tv_nsec / 1000);
}

void PathnameStat::setMtime(const Timeval& t) {
  st.st_mtim.tv_sec = static_cast<time_t>(t.tv_sec);
  st.st_mtim.tv_nsec = static_cast<long>(t.tv_usec * 1000);
}

bool Pathname::getMtime(Timeval* out) const {
  PathnameStat s;
  if (!stat(&s)) return false;
  s.getMtime(out);
  return true;
}

bool Pathname::setMtime(const Timeval* t) const {
  const timespec times[2] = {
      {static_cast<time_t>(t->tv_sec), static_cast<long>(t->tv_usec * 1000)},
      {static_cast<time_t>(t->tv_sec), static_cast<long>(t->tv_usec * 1000)},
  };
  return ::utimensat(AT_FDCWD, c_str(), times, 0) == 0;
}

bool Pathname::touchExisting() const {
  if (!exists()) return false;
  return ::utimensat(AT_FDCWD, c_str(), nullptr, 0) == 0;
}

PathnameOpResult Pathname::renameToRetry(const Pathname& target, unsigned attempts,
                                         const ConditionWaitTimeout& wait) const {
  kassert(attempts >= 1);
  PathnameOpResult result("Rename");
  result._firstAttempt = Timeval::now();
  for (;;) {
    ++result._attempts;
    result._lastAttempt = Timeval::now();
    if (renameTo(target)) {
      result._success = true;
      result._errno = 0;
      return result;
    }
    result._errno = errno;
    const bool transient = errno == ENFILE || errno == EMFILE || errno == ENOMEM;
    if (!transient || result._attempts >= attempts) return result;
    wait.sleep();
  }
}

Str PathnameOpResult::toString() const {
  Str s(_operation);
  s.append(_success ? " succeeded in " : " failed in ");
  s.append_unsignedlonglong(_attempts);
  s.append(" attempt(s) made between ");
  s.append(_firstAttempt.asctime());
  s.append(" and ");
  s.append(_lastAttempt.asctime());
  if (!_success) s.appendFormat(" [status code: %d]", static_cast<int>(_errno));
  return s;
}
