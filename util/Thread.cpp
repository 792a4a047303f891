#include "util/Thread.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "util/Assert.h"
#include "util/Logger.h"
#include "util/Mutex.h"
#include "util/ThreadException.h"
#include "util/ThreadSpecific.h"

namespace {

Logger gLogger("Thread");

// Guards every Thread's _did_join and _ready_to_run. Never destroyed:
// threads may end during static destruction.
full_Mutex& threadMutex() {
  static full_Mutex* const mutex = new full_Mutex;
  return *mutex;
}

std::atomic<unsigned> gThreadCount{0};
std::atomic<bool> have_already_started_threads{false};
std::atomic<bool> gMainThreadDying{false};
std::atomic<Thread*> gMainThread{nullptr};
// 0 keeps the platform's default stack; the MainThread sets its own.
std::atomic<unsigned long> gDefaultStackSize{0};
std::atomic<void (*)()> gXmlThreadSetup{nullptr};
// Written once before the second thread, read by each thread's start.
Thread::StartInterposer s_interposeAtStart = nullptr;

// The Thread* of the calling thread.
TSP_Implementor& activeThreadTsp() {
  static TSP_Implementor* tsp = new TSP_Implementor(nullptr);
  return *tsp;
}

bool isProcessFirstThread() { return ::gettid() == ::getpid(); }

}  // namespace

CountAccounter::CountAccounter(bool counted) : _counted(counted) {
  if (_counted) gThreadCount.fetch_add(1, std::memory_order_relaxed);
}

CountAccounter::~CountAccounter() {
  if (_counted) gThreadCount.fetch_sub(1, std::memory_order_relaxed);
}

void JoinHelper::callback() {
  if (_thread->isCurrent()) return;
  _thread->join();
  delete _thread;
}

Thread::Thread(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  _name.vformat(fmt, args);
  va_end(args);
  internal_create(0, false);
}

Thread::Thread(unsigned long stackSize, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  _name.vformat(fmt, args);
  va_end(args);
  internal_create(stackSize, true);
}

Thread::Thread()
    : _did_join(JOINED),
      _token(ThreadToken::self()),
      _name("Main Thread"),
      _ready_to_run(true),
      _countAccounter(false),
      _isMain(true) {
  Thread* expected = nullptr;
  if (!gMainThread.compare_exchange_strong(expected, this)) {
    throw ThreadException("Main Thread created twice!");
  }
  gDefaultStackSize.store(0x200000);
  activeThreadTsp().set(this);
}

void Thread::internal_create(unsigned long stackSize, bool ownStack) {
  have_already_started_threads = true;
  pthread_attr_t attr;
  ThreadException::check(pthread_attr_init(&attr), "pthread_attr_init");
  const unsigned long defaultSize = gDefaultStackSize.load();
  const unsigned long size = ownStack ? stackSize : defaultSize;
  if (size != 0) {
    const int result = pthread_attr_setstacksize(&attr, size);
    if (result != 0) {
      errno = result;
      gLogger.warn("cannot override thread stack size: pthread_attr_setstacksize(): %m");
      // The attributes every other thread gets, not the platform's bare
      // default, which can be several times larger.
      if (ownStack && defaultSize != 0) pthread_attr_setstacksize(&attr, defaultSize);
    }
  }
  pthread_t id;
  const int result = pthread_create(&id, &attr, &Thread::startRoutine, this);
  pthread_attr_destroy(&attr);
  ThreadException::check(result, "pthread_create");
  _token = ThreadToken(id);
}

Thread::~Thread() {
  if (_isMain) {
    Thread* self = this;
    gMainThread.compare_exchange_strong(self, nullptr);
    if (activeThreadTsp().get() == this) activeThreadTsp().internal_set(nullptr);
    return;
  }
  if (mainThreadIsDying()) return;
  threadMutex().lock();
  if (_did_join == JOINED) {
    threadMutex().unlock();
    return;
  }
  if (_did_join == DID_NOT_JOIN && !_ready_to_run) {
    _ready_to_run = true;
    _did_join = ALREADY_DESTRUCTING;
    _goCondition.internal_wake_one();
    threadMutex().unlock();
    // A destructor has nobody to throw to; the thread was never started, so
    // the platform has no reason to refuse.
    pthread_join(_token.id(), nullptr);
    return;
  }
  if (_did_join == DID_NOT_JOIN) kassert(!_ready_to_run);
  kassert(_did_join == DID_NOT_JOIN);
}

void Thread::go() {
  ScopedLock hold(threadMutex());
  kassert(!_ready_to_run);
  _ready_to_run = true;
  _goCondition.internal_wake_one();
}

void Thread::join() {
  {
    ScopedLock hold(threadMutex());
    kassert(_did_join == DID_NOT_JOIN);
    _did_join = JOINED;
  }
  ThreadException::check(pthread_join(_token.id(), nullptr), "pthread_join");
}

void Thread::joinEvenIfUnstarted() {
  threadMutex().lock();
  kassert(_did_join == DID_NOT_JOIN);
  if (_ready_to_run) {
    _did_join = JOINED;
    threadMutex().unlock();
    ThreadException::check(pthread_join(_token.id(), nullptr), "pthread_join");
    return;
  }
  _ready_to_run = true;
  _did_join = ALREADY_DESTRUCTING;
  _goCondition.internal_wake_one();
  threadMutex().unlock();
  ThreadException::check(pthread_join(_token.id(), nullptr), "pthread_join");
  ScopedLock hold(threadMutex());
  kassert(_did_join == ALREADY_DESTRUCTING);
  _did_join = JOINED;
}

bool Thread::wait_for_go() {
  ScopedLock hold(threadMutex());
  while (!_ready_to_run) _goCondition.wait(threadMutex());
  return _did_join != ALREADY_DESTRUCTING;
}

void* Thread::startRoutine(void* arg) {
  Thread* thr = static_cast<Thread*>(arg);
  if (s_interposeAtStart != nullptr) {
    s_interposeAtStart(thr, &Thread::callMain);
  } else {
    callMain(thr);
  }
  return nullptr;
}

void Thread::callMain(Thread* thr) {
  TSP_Implementor* activeThreads = &activeThreadTsp();
  kassert(activeThreads->get() == __null);
  activeThreads->set(thr);
  if (thr->wait_for_go()) {
    setup_libxml2();
    thr->main();
  }
  activeThreads->internal_set(nullptr);
}

Thread* Thread::current() { return static_cast<Thread*>(activeThreadTsp().get()); }

const Str& Thread::currentName() {
  static const Str* const kMain = new Str("Main Thread");
  static const Str* const kUnknown = new Str("Unknown Thread");
  const Thread* t = current();
  if (t != nullptr) return t->_name;
  return isProcessFirstThread() ? *kMain : *kUnknown;
}

unsigned Thread::approximateThreadCount() {
  return gThreadCount.load(std::memory_order_relaxed) + 1;
}

void Thread::interposeAtThreadStart(StartInterposer fn) {
  kassert(!s_interposeAtStart);
  s_interposeAtStart = fn;
}

void Thread::assertNotMultithreadedYet() { kassert(!have_already_started_threads); }

void Thread::mainThreadDying() { gMainThreadDying = true; }

bool Thread::mainThreadIsDying() { return gMainThreadDying.load(); }

bool Thread::currentlyRunningInMainThread() {
  const Thread* main = gMainThread.load();
  return main == nullptr || main->isCurrent();
}

void Thread::setup_libxml2() {
  void (*fn)() = gXmlThreadSetup.load();
  if (fn != nullptr) fn();
}

void Thread::setXmlThreadSetup(void (*fn)()) { gXmlThreadSetup = fn; }
