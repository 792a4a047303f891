// Thread: a named pthread that is created at construction but held back
// until its owner calls go(), and that must be joined before it is destroyed.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "util/InThreadActor.h"
#include "util/PthreadCondition.h"
#include "util/Str.h"

class Thread;

// The pthread identity of a thread. A plain value.
class ThreadToken {
 public:
  ThreadToken() : _id(), _set(false) {}
  explicit ThreadToken(pthread_t id) : _id(id), _set(true) {}
  // The caller's identity.
  static ThreadToken self() { return ThreadToken(pthread_self()); }

  pthread_t id() const { return _id; }
  // False for a default-made token, which equals no thread.
  bool isSet() const { return _set; }
  bool operator==(const ThreadToken& other) const {
    return _set && other._set && pthread_equal(_id, other._id) != 0;
  }

 private:
  pthread_t _id;
  bool _set;
};

// What the main thread runs for a thread that gave itself up with
// MainThread::joinAndDeleteMe: join it, then delete it. Touched only by the
// thread it belongs to and then by the main thread (or its event loop).
class JoinHelper : public InThreadActor {
 public:
  explicit JoinHelper(Thread* thread) : _thread(thread), _next(nullptr) {}
  // Joins and deletes the thread, unless called on that thread itself, in
  // which case it does nothing.
  void callback() override;

 private:
  friend class MainThread;
  Thread* _thread;
  JoinHelper* _next;  // MainThread's queue, under its mutex
};

// Counts its owner in the process-wide number of threads for its lifetime.
// The count is atomic.
class CountAccounter {
 public:
  explicit CountAccounter(bool counted);
  ~CountAccounter();
  CountAccounter(const CountAccounter&) = delete;
  CountAccounter& operator=(const CountAccounter&) = delete;

 private:
  bool _counted;
};

// A thread of the process. The owner constructs it (the pthread starts and
// waits), calls go() to let main() run, and joins it before destroying it;
// a thread that never got go() may simply be destroyed, and main() never
// runs. The start and join state of every Thread is guarded by one
// process-wide mutex, so the control methods are safe from any thread.
class Thread {
 public:
  // The values of the join state.
  enum { DID_NOT_JOIN = 0, JOINED = 1, ALREADY_DESTRUCTING = 2 };

  // Names the thread by a printf format and creates the pthread with the
  // process's default attributes. Throws ThreadException ("pthread_create")
  // when the platform refuses.
  explicit Thread(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // As above with a stack of `stackSize` bytes. A size the platform refuses
  // is no failure: "cannot override thread stack size:
  // pthread_attr_setstacksize(): %m" is logged as a warning and the default
  // stands.
  Thread(unsigned long stackSize, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  // Stops a thread that never got go() (it ends without running main()).
  // A started thread must have been joined: destroying one that was not is
  // the assertion "!_ready_to_run". Nothing is joined once
  // mainThreadDying() was called.
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // The thread's work; runs at most once, on the thread, after go().
  virtual void main() = 0;

  // Lets main() run. REQUIRES: not yet released ("!_ready_to_run").
  void go();
  // Waits for main() to return. REQUIRES: not yet joined
  // ("_did_join == DID_NOT_JOIN") and released by go(), or it waits for
  // ever. Throws ThreadException ("pthread_join") when the platform refuses,
  // as for a thread joining itself (EDEADLK).
  void join();
  // join() that also works on a thread never released: such a thread is
  // told to end without running main(), then joined.
  void joinEvenIfUnstarted();

  // Whether the caller is this thread.
  bool isCurrent() const { return _token == ThreadToken::self(); }
  bool operator==(const Thread& other) const { return _token == other._token; }
  const Str& name() const { return _name; }
  const ThreadToken& token() const { return _token; }

  // The calling thread's Thread, null for a thread not made by this class
  // (and for the process's first thread before its MainThread exists).
  static Thread* current();
  // current()'s name; "Main Thread" for the process's first thread before
  // its MainThread exists, "Unknown Thread" for any other foreign thread.
  static const Str& currentName();
  // The number of Thread objects that exist, the MainThread not counted,
  // plus one.
  static unsigned approximateThreadCount();
  // The hook that wraps every later thread's start: it receives the new
  // Thread and the function that runs it, and must call that function once,
  // on the new thread. Set once, before the second thread
  // ("!s_interposeAtStart").
  typedef void (*StartInterposer)(Thread* thr, void (*callMain)(Thread*));
  static void interposeAtThreadStart(StartInterposer fn);
  // Ends the process unless no Thread was ever created
  // ("!have_already_started_threads").
  static void assertNotMultithreadedYet();
  // From then on no Thread destructor joins, and ThreadException::check
  // stops logging. Irreversible.
  static void mainThreadDying();
  static bool mainThreadIsDying();
  // True until a MainThread exists; then whether the caller is it.
  static bool currentlyRunningInMainThread();
  // The per-thread set-up of the XML library, run on each new thread before
  // main(). The XML layer installs its handler here with
  // setXmlThreadSetup, before the second thread.
  static void setup_libxml2();
  static void setXmlThreadSetup(void (*fn)());

 protected:
  // The process's first thread, named "Main Thread", which is already
  // running: no pthread is created. It sets the default attributes' stack
  // size to 0x200000 bytes. A second one throws ThreadException with
  // "Main Thread created twice!".
  Thread();

 private:
  friend class JoinHelper;
  friend class MainThread;

  void internal_create(unsigned long stackSize, bool ownStack);
  // On the new thread: waits for go(); false when told to end instead.
  bool wait_for_go();
  static void* startRoutine(void* arg);
  static void callMain(Thread* thr);

  int32_t _did_join = DID_NOT_JOIN;  // guarded by the process-wide thread mutex
  ThreadToken _token;      // set once by the constructor
  Str _name;               // set once by the constructor
  bool _ready_to_run = false;  // guarded by the process-wide thread mutex
  PthreadCondition _goCondition;  // with the process-wide thread mutex
  JoinHelper _joinHelper{this};
  CountAccounter _countAccounter{true};
  bool _isMain = false;
};
