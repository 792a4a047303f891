// ThreadException: the one failure of the thread layer, and the one check
// through which every pthread call's result passes.
#pragma once

#include <stdexcept>
#include <string>

// A pthread call failed. The text names the calling thread, the call and
// the error: "worker 3: about to throw a ThreadException: pthread_join:
// Resource deadlock avoided; 4 threads active". Immutable once thrown.
class ThreadException : public std::runtime_error {
 public:
  explicit ThreadException(const char* what) : std::runtime_error(what) {}
  explicit ThreadException(const std::string& what) : std::runtime_error(what) {}

  // Does nothing for a result of 0. Otherwise sets errno to `result`, builds
  // "%s: about to throw a ThreadException: %s: %m; %u threads active" from
  // the current thread's name, `call` and the thread count, logs it as a
  // warning on the channel "Thread" (unless the main thread is dying), and
  // throws it. `call` names the failed function ("pthread_mutex_lock").
  // Safe from any thread.
  static void check(int result, const char* call);
  // As check(), but never logs: the form for the locks that logging itself
  // takes (Mutex::NOLOG_lock).
  static void checkNoLog(int result, const char* call);

 private:
  [[noreturn]] static void internal_fail(int result, const char* call, bool log);
};
