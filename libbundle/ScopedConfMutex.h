// ScopedConfMutex: excludes the other processes that share a pooled
// configuration while one of them writes. Without pooling it does nothing.
//
// Thread story: one owner, the scope that made it. Taken after the
// in-process write mutex.
#pragma once

#include <memory>

#include "libbundle/BundlesSetup.h"
#include "util/FileBasedMutex.h"
#include "util/Str.h"

class ScopedConfMutex {
 public:
  // With pooling: locks a FileBasedMutex on getSentinel() with the timeout
  // ConfSettings::getLockTimeout() (throws FileBasedMutexException when it
  // cannot), then logs "starts" and `reason` to the sentinel file.
  ScopedConfMutex(const BundlesSetup& setup, const Str& reason);
  // Logs "finishes" and the reason, and unlocks.
  ~ScopedConfMutex();
  ScopedConfMutex(const ScopedConfMutex&) = delete;
  ScopedConfMutex& operator=(const ScopedConfMutex&) = delete;

  // Whether a lock is held (pooling on).
  bool isLocked() const { return _lock != nullptr; }
  // logToSentinelFile of this setup, when locked.
  void logToLockedFile(const Str& text);
  // When ConfSettings::shouldLogToSentinel(): appends "[%s] %s %s\n" with
  // the current time, GlobalConfSettings::getConfSystemGuid() and `text` to
  // getSentinel(). A file that cannot be opened logs "Cannot update
  // sentinel file %s with debug info: %s" and is otherwise ignored.
  static void logToSentinelFile(const BundlesSetup& setup, const Str& text);

 private:
  BundlesSetup _setup;
  Str _reason;
  std::unique_ptr<FileBasedMutex> _lock;
};
