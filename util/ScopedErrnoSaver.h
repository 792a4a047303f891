// ScopedErrnoSaver: keeps errno as it was across a scope, for code (logging
// above all) that must not disturb its caller's error handling.
#pragma once

#include <cerrno>

// Saves errno at construction and restores it at destruction. One owner.
class ScopedErrnoSaver {
 public:
  ScopedErrnoSaver() : _saved(errno) {}
  ~ScopedErrnoSaver() { errno = _saved; }
  ScopedErrnoSaver(const ScopedErrnoSaver&) = delete;
  ScopedErrnoSaver& operator=(const ScopedErrnoSaver&) = delete;

  // The value errno had at construction.
  int saved() const { return _saved; }

 private:
  int _saved;
};
