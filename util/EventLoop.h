// EventLoop: the reactor on which network and file-watching work runs. One
// thread calls run(); descriptors, timeouts and work from other threads all
// meet there. It polls through epoll when enabled and working, through poll
// otherwise.
#pragma once

#include <atomic>

#include "util/InThreadActorList.h"
#include "util/PolledFd.h"
#include "util/Timeout.h"

struct epoll_event;
struct pollfd;
class AddCallbackFromAnywhereActor;
class InThreadActorNotify;

// Something to run once on the loop's thread after the events of the
// current round have been served. Queued by EventLoop::addFromAnywhere.
class CallbackAfterEventService {
 public:
  virtual ~CallbackAfterEventService() = default;
  virtual void afterEventService() = 0;

 private:
  friend class AddCallbackFromAnywhereActor;
  friend class EventLoop;
  CallbackAfterEventService* _next = nullptr;
};

// A condition that EventLoop::runInThreadWorkUntil waits for. Evaluated on
// the waiting thread, under the loop's actor list mutex.
class RunInThreadWorkUntilPredicate {
 public:
  virtual ~RunInThreadWorkUntilPredicate() = default;
  virtual bool isDone() = 0;
};

// The process-wide polling method: USE_REGULAR_POLL (0, the default) or
// USE_EPOLL (1). Set by EventLoop::enableFastPoll before the first loop.
extern int EventLoop_FASTPOLL_METHOD_var;

// Thread story: everything but the FromAnywhere operations, terminate(),
// internal_runInThread and runInThreadOrFail belongs to the loop's thread
// (assertInThread checks it); while no thread runs the loop, to whichever
// thread holds its in-thread use.
class EventLoop : public TimeoutHeap {
 public:
  enum PollMethod { USE_REGULAR_POLL = 0, USE_EPOLL = 1 };

  // A loop with the process's method. After the first loop,
  // enableFastPoll may no longer be called.
  EventLoop();
  // A loop with its own method, whatever the process's; USE_EPOLL falls
  // back to poll where epoll does not work.
  explicit EventLoop(PollMethod method);
  // REQUIRES: not running, and every member removed ("_memberCount == 0").
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The timer operations of TimeoutHeap, on the loop's thread.
  using TimeoutHeap::add;
  using TimeoutHeap::remove;

  // Registers `p` for `events` (defaultEvents() in the second form) on
  // `fd`, then calls p->after_add(). Allowed from a member during the
  // service walk. REQUIRES: "!p->isActive()", "fd.valid()", "!_in_poll".
  // Throws EventLoopException ("error from epoll_create", "error from
  // epoll_ctl") when epoll refuses; `p` is then not registered.
  void add(PolledFd* p, PollableDescriptor fd, unsigned events);
  void add(PolledFd* p, PollableDescriptor fd);
  // Unregisters `p`; a member removed during the service walk is not
  // served again in it. REQUIRES: p is active in this loop.
  void removeActivePolledFd(PolledFd* p);

  // Serves events, timeouts and actors until terminate(). On leaving, runs
  // the zero-length timeouts once and every actor still pending, so that
  // no waiting caller is left blocked. A terminate() that came before run()
  // makes it return at once. The termination flag is cleared on leaving,
  // so the loop may run again. Throws EventLoopException ("error from
  // EventLoop epoll_wait", "error from EventLoop poll") when polling fails
  // other than by EINTR or EAGAIN; exceptions from members pass through.
  void run();
  // Asks the loop to stop at the end of its round, and returns once the
  // flag is set (directly when called on the loop's thread). Any thread.
  void terminate();
  // Ends the process unless the caller may use the loop ("isInThread()").
  void assertInThread() const;
  bool isInThread() const;
  bool isRunning() const;

  // Run the member's add_to_eventloop / remove_from_eventloop, or remove a
  // timeout, on the loop's thread, and return when it is done. Any thread.
  void addFromAnywhere(SmartEventLoopMember* selm);
  void removeFromAnywhere(SmartEventLoopMember* selm);
  void removeFromAnywhere(Timeout* timo);
  // Queues `cb` to run after the current round's events (the next round's,
  // when the loop does not run now). Returns once it is queued. Any thread.
  void addFromAnywhere(CallbackAfterEventService* cb);

  // Runs actor->callback() on the loop's thread: at once when the caller
  // is that thread, or when the loop does not run and the caller can take
  // its in-thread use; otherwise by queueing it and waking the loop. With
  // `wait`, returns only after callback() finished. Any thread.
  void internal_runInThread(InThreadActor* actor, bool wait);
  // As internal_runInThread, but false, running nothing, when the loop is
  // not running.
  bool runInThreadOrFail(InThreadActor* actor, bool wait = true);
  // Serves queued actors on the caller's thread until `pred` holds: the
  // loop's thread polls its SelfPipe; with the loop down the caller takes
  // in-thread use and runs them. `pred` must be made true by actors.
  // REQUIRES: the loop's thread, when it runs.
  void runInThreadWorkUntil(RunInThreadWorkUntilPredicate* pred);
  // runInThreadWorkUntil for `*count == 0`.
  void runInThreadWorkUntilZero(const unsigned* count);

  // Switches the process to epoll when epoll_works(); quietly stays with
  // poll otherwise. REQUIRES: before the first loop
  // ("!too_late_to_enable_fastpoll").
  static void enableFastPoll();
  // Whether an epoll descriptor of size 1 can be made and closed.
  static bool epoll_works();

  PollMethod method() const { return _method; }
  // Registered members, the loop's own pipe included while it runs.
  unsigned memberCount() const { return _memberCount; }
  // For PolledFd: a member holds events given back from another thread.
  void noteDeferredEvents();

 private:
  void internal_init(PollMethod method);
  int waitForEvents(int ms);
  void serveEpollEvents(int n);
  void servePollEvents();
  // Serves one member; true when it was finished and removed.
  void serveOne(PolledFd* p, unsigned revents);
  void runCallbacksAfterService();
  void applyDeferredEvents();
  void internal_leave(InThreadActorNotify* notify);
  void growPollArrays();

  PollMethod _method;
  union {
    struct {
      int epfd;  // -1 until first use
      epoll_event* events;
      int size;
      int curEvent;  // the event in service
      int count;     // events received in this round
    } using_epoll;
    struct {
      pollfd* pfd;
      PolledFd** pev;  // parallel to pfd
      unsigned pfdCount;
      unsigned pfdMax;
      unsigned generation;  // changed by each add and removal
    } using_poll;
  } _p;
  bool _in_service_loop = false;
  bool _terminating = false;
  unsigned _memberCount = 0;
  ThreadToken _thread;  // the running thread
  CallbackAfterEventService* _callbacks = nullptr;  // loop's thread only
  std::atomic<bool> _deferredEvents{false};
  mutable InThreadActorList _actors;
};
