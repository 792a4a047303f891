// Mutex and full_Mutex: checked wrappers over one pthread mutex, and the
// scoped guards that hold them. Every failed call throws ThreadException.
#pragma once

#include <pthread.h>

// A non-recursive pthread mutex. The default form needs no set-up call (its
// constructor is constexpr). A process-wide mutex that static constructors
// or destructors may reach belongs in a function-local static made with
// new, so that it is ready at first use and never destroyed. Safe from any
// thread; that is its purpose.
class Mutex {
 public:
  // DEFAULT relocks and foreign unlocks are undefined, as the platform's
  // default; ERRORCHECK turns them into ThreadException ("pthread_mutex_lock"
  // for a relock, EDEADLK; "pthread_mutex_unlock" for an unlock by a thread
  // that does not hold it, EPERM).
  enum MutexType { DEFAULT, ERRORCHECK };

  constexpr Mutex() = default;
  explicit Mutex(MutexType type);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Block until held / give it back. A failure logs a warning on the
  // channel "Thread" and throws ThreadException.
  void lock();
  void unlock();
  // The same without any logging: a failure throws ThreadException at once.
  // The only forms that the logging code may use, so that a log call from
  // inside the lock code cannot recurse.
  void NOLOG_lock();
  void NOLOG_unlock();

  // The platform object, for the condition wrappers.
  pthread_mutex_t* native() { return &_mutex; }

 protected:
  pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;
};

// A Mutex that also offers tryLock and is what conditions wait with. Same
// thread story as Mutex.
class full_Mutex : public Mutex {
 public:
  constexpr full_Mutex() = default;
  explicit full_Mutex(MutexType type) : Mutex(type) {}

  // True when the mutex is now held by the caller, false when another holds
  // it (EBUSY is an answer, not a failure). Any other error throws
  // ThreadException with "pthread_mutex_trylock".
  bool tryLock();
};

// The mutex type that PthreadCondition waits with.
typedef full_Mutex ConditionMutex;

// Holds `m` by lock()/unlock() for its scope. One owner.
class ScopedLock {
 public:
  explicit ScopedLock(Mutex& m) : _mutex(m) { _mutex.lock(); }
  ~ScopedLock() { _mutex.unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Mutex& _mutex;
};

// Holds `m` by NOLOG_lock()/NOLOG_unlock(): the guard for logging code. One
// owner.
class ScopedNologLock {
 public:
  explicit ScopedNologLock(Mutex& m) : _mutex(m) { _mutex.NOLOG_lock(); }
  ~ScopedNologLock() { _mutex.NOLOG_unlock(); }
  ScopedNologLock(const ScopedNologLock&) = delete;
  ScopedNologLock& operator=(const ScopedNologLock&) = delete;

 private:
  Mutex& _mutex;
};
