// A lock between processes on a file, for configuration that several
// processes share, possibly over a network file system. It is a record lock
// on the whole file through the file's open description, so the kernel (or
// the file server's lock manager) drops it when the holder dies, however it
// dies, and two FileBasedMutex objects exclude each other even within one
// process. A child forked while the lock is held shares it until the
// child closes the inherited descriptor (it is closed on exec).
//
// Thread story: one object belongs to one thread at a time.
#pragma once

#include <stdexcept>

#include "util/Pathname.h"

// What lock() throws; the text is the logged failure line.
class FileBasedMutexException : public std::runtime_error {
 public:
  explicit FileBasedMutexException(const std::string& what) : std::runtime_error(what) {}
};

class FileBasedMutex {
 public:
  // Locks on `path`, waiting at most `timeoutMsec` rounded up to whole
  // seconds for a holder to let go. Nothing is touched on disk until lock().
  FileBasedMutex(const Pathname& path, unsigned long long timeoutMsec);
  // Unlocks if still locked.
  ~FileBasedMutex();
  FileBasedMutex(const FileBasedMutex&) = delete;
  FileBasedMutex& operator=(const FileBasedMutex&) = delete;

  // Creates the file and its parent directories when missing, then takes
  // the lock. On failure (the wait ran out: ETIMEDOUT, or the file cannot
  // be made or locked) it logs "Failed to lock %s with return code %d: %m"
  // and throws FileBasedMutexException with that text.
  // REQUIRES: not locked by this object.
  void lock();
  // REQUIRES: locked by this object.
  void unlock();
  bool isLocked() const { return _fd >= 0; }

  // Whether the file system that holds directory `dir` carries this lock:
  // a probe file there ("<dir>/.lockprobe.<pid>") is created, locked,
  // unlocked and removed. False when any step fails, so a pooled
  // configuration is not put where processes could not keep out of each
  // other's way.
  static bool isLockStrategiesSupportedOnFs(const Pathname& dir);

  // The wait lock() allows, in whole seconds.
  static unsigned long long waitSeconds(unsigned long long timeoutMsec) {
    return (timeoutMsec + 999) / 1000;
  }

 private:
  Pathname _path;
  unsigned long long _timeoutMsec;
  int _fd = -1;
};
