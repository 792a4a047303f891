#include "util/Mutex.h"

#include <cerrno>

#include "util/ThreadException.h"

Mutex::Mutex(MutexType type) {
  if (type == DEFAULT) return;
  pthread_mutexattr_t attr;
  ThreadException::check(pthread_mutexattr_init(&attr), "pthread_mutexattr_init");
  const int set = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
  if (set == 0) {
    const int init = pthread_mutex_init(&_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    ThreadException::check(init, "pthread_mutex_init");
    return;
  }
  pthread_mutexattr_destroy(&attr);
  ThreadException::check(set, "pthread_mutexattr_settype");
}

Mutex::~Mutex() {
  // A mutex still held at destruction is the owner's bug; destroy reports
  // EBUSY then, and a destructor has nobody to tell.
  pthread_mutex_destroy(&_mutex);
}

void Mutex::lock() { ThreadException::check(pthread_mutex_lock(&_mutex), "pthread_mutex_lock"); }

void Mutex::unlock() {
  ThreadException::check(pthread_mutex_unlock(&_mutex), "pthread_mutex_unlock");
}

void Mutex::NOLOG_lock() {
  ThreadException::checkNoLog(pthread_mutex_lock(&_mutex), "pthread_mutex_lock");
}

void Mutex::NOLOG_unlock() {
  ThreadException::checkNoLog(pthread_mutex_unlock(&_mutex), "pthread_mutex_unlock");
}

bool full_Mutex::tryLock() {
  const int result = pthread_mutex_trylock(&_mutex);
  if (result == EBUSY) return false;
  ThreadException::check(result, "pthread_mutex_trylock");
  return true;
}
