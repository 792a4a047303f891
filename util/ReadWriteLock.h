// ReadWriteLock: many readers or one writer, taken only through the scoped
// ScopedReader and ScopedWriter.
#pragma once

#include <cstdint>

#include "util/Mutex.h"
#include "util/PthreadCondition.h"

// Readers share the lock; a writer holds it alone. A writer that arrives
// while readers hold it waits for the last of them to leave, and readers
// that arrive after it wait behind it, so a stream of readers cannot starve
// a writer. Safe from any thread; a thread must not take it twice.
//
// Invariants: _readers counts the readers that hold the lock; it is 0 while
// a writer holds it, and a writer holds the mutex for as long as it holds
// the lock. 0xf00ba511 is never a count: a reader that finds it there has
// found a corrupt lock.
class ReadWriteLock {
 public:
  ReadWriteLock() = default;
  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;

 private:
  friend class ScopedReader;
  friend class ScopedWriter;

  uint32_t _readers = 0;          // guarded by _mutex
  uint32_t _writersWaiting = 0;   // guarded by _mutex
  ConditionWakeAll _changed;      // with _mutex: readers left, or a writer got in
  full_Mutex _mutex;
};

// Holds `lock` for reading for its scope. One owner.
class ScopedReader {
 public:
  explicit ScopedReader(ReadWriteLock& lock);
  ~ScopedReader();
  ScopedReader(const ScopedReader&) = delete;
  ScopedReader& operator=(const ScopedReader&) = delete;

 private:
  ReadWriteLock* _rwlock;
};

// Holds `lock` for writing for its scope. One owner.
class ScopedWriter {
 public:
  explicit ScopedWriter(ReadWriteLock& lock);
  ~ScopedWriter();
  ScopedWriter(const ScopedWriter&) = delete;
  ScopedWriter& operator=(const ScopedWriter&) = delete;

 private:
  ReadWriteLock* _rwlock;
};
