// Thread-specific pointers: one pthread key per object, each thread seeing
// its own value. TSP_Implementor is the checked key; ThreadSpecific<T> types
// it.
#pragma once

#include <pthread.h>

// One key. get() and set() act on the calling thread's slot only, so they
// are safe from any thread; release() must not race with them.
class TSP_Implementor {
 public:
  // Creates the key; `destructor`, when not null, runs at a thread's exit
  // with that thread's non-null value. Throws ThreadException
  // ("pthread_key_create") when the process has no keys left.
  explicit TSP_Implementor(void (*destructor)(void*));
  // Does not release the key: objects with static storage may be destroyed
  // while other threads still read them.
  ~TSP_Implementor() = default;
  TSP_Implementor(const TSP_Implementor&) = delete;
  TSP_Implementor& operator=(const TSP_Implementor&) = delete;

  // The calling thread's value, null until set.
  void* get() const { return pthread_getspecific(_key); }
  // Stores the calling thread's value. Throws ThreadException
  // ("pthread_setspecific") when the key was released or the platform
  // cannot allocate the slot.
  void set(void* value);
  // As set(), ignoring failure: for paths that must not throw.
  void internal_set(void* value) { pthread_setspecific(_key, value); }
  // Gives the key back to the process; the object is then unusable. A
  // second release throws ThreadException ("pthread_key_delete").
  void release();

 private:
  pthread_key_t _key;
};

// A typed thread-specific pointer that never owns what it points at. Same
// thread story as TSP_Implementor.
template <typename T>
class ThreadSpecific {
 public:
  ThreadSpecific() : _impl(nullptr) {}
  T* get() const { return static_cast<T*>(_impl.get()); }
  void set(T* value) { _impl.set(value); }

 private:
  TSP_Implementor _impl;
};
