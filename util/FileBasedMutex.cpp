#include "util/FileBasedMutex.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "util/Assert.h"
#include "util/ConditionWaitTimeout.h"
#include "util/Logger.h"

namespace {

Logger gLogger("FileBasedMutex");

// One attempt at the whole-file write lock: 0, or -1 with errno. Locks of
// the open description where the kernel has them; classic record locks
// (which belong to the process) where it does not.
int tryLock(int fd) {
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
#ifdef F_OFD_SETLK
  if (fcntl(fd, F_OFD_SETLK, &fl) == 0) return 0;
  if (errno != EINVAL) return -1;
#endif
  return fcntl(fd, F_SETLK, &fl);
}

// The lock primitive with a timeout in seconds: it retries a busy lock with
// a growing pause (1 ms to 50 ms), since no blocking form has a timeout that
// is safe among threads. 0, or -1 with errno (ETIMEDOUT when time ran out).
int lockWithTimeout(int fd, unsigned long long seconds) {
  timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  long pauseNs = 1000000;
  for (;;) {
    if (tryLock(fd) == 0) return 0;
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) return -1;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double waited = double(now.tv_sec - start.tv_sec) + (now.tv_nsec - start.tv_nsec) / 1e9;
    if (waited >= double(seconds)) {
      errno = ETIMEDOUT;
      return -1;
    }
    ConditionWaitTimeout(0, pauseNs).sleep();
    if (pauseNs < 50000000) pauseNs *= 2;
  }
}

}  // namespace

FileBasedMutex::FileBasedMutex(const Pathname& path, unsigned long long timeoutMsec)
    : _path(path), _timeoutMsec(timeoutMsec) {}

FileBasedMutex::~FileBasedMutex() {
  if (isLocked()) unlock();
}

void FileBasedMutex::lock() {
  kassert(_fd < 0);
  int rc = -1;
  if (!_path.exists()) _path.toParent().mkdir_p(Pathname::MKDIR_ALL);
  const int fd = ::open(_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) {
    rc = lockWithTimeout(fd, waitSeconds(_timeoutMsec));
    if (rc == 0) {
      _fd = fd;
      return;
    }
    const int saved = errno;
    ::close(fd);
    errno = saved;
  }
  Str message;
  message.format("Failed to lock %s with return code %d: %s", _path.c_str(), rc, strerror(errno));
  gLogger.error("Failed to lock %s with return code %d: %m", _path.c_str(), rc);
  throw FileBasedMutexException(message);
}

void FileBasedMutex::unlock() {
  kassert(_fd >= 0);
  // Closing the descriptor drops the lock of its open description.
  ::close(_fd);
  _fd = -1;
}

bool FileBasedMutex::isLockStrategiesSupportedOnFs(const Pathname& dir) {
  Str leaf;
  leaf.format(".lockprobe.%ld", static_cast<long>(getpid()));
  const Pathname probe = dir / leaf;
  const int fd = open(probe.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool supported = tryLock(fd) == 0;
  if (supported) {
    struct flock fl = {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
#ifdef F_OFD_SETLK
    supported = fcntl(fd, F_OFD_SETLK, &fl) == 0 || fcntl(fd, F_SETLK, &fl) == 0;
#else
    supported = fcntl(fd, F_SETLK, &fl) == 0;
#endif
  }
  close(fd);
  unlink(probe.c_str());
  return supported;
}
