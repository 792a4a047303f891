#include "util/EventLoop.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "util/Assert.h"
#include "util/EventLoopException.h"
#include "util/SelfPipe.h"

int EventLoop_FASTPOLL_METHOD_var = EventLoop::USE_REGULAR_POLL;

namespace {

std::atomic<bool> too_late_to_enable_fastpoll{false};

// epoll_wait's array: a round serves at most this many members, and the
// rest come in the next one.
constexpr int EPOLL_EVENTS_MAX = 64;
constexpr int EPOLL_SIZE_HINT = 50;
constexpr unsigned POLL_INITIAL_SLOTS = 32;

int sys_epoll_create(int size) { return static_cast<int>(::syscall(SYS_epoll_create, size)); }

int sys_epoll_wait(int epfd, epoll_event* events, int max, int ms) {
  return static_cast<int>(::syscall(SYS_epoll_wait, epfd, events, max, ms));
}

unsigned fromPollRevents(short revents) {
  unsigned out = 0;
  if ((revents & (POLLIN | POLLRDNORM)) != 0) out |= PolledFd::EV_READ;
  if ((revents & (POLLPRI | POLLRDBAND)) != 0) out |= PolledFd::EV_PRI;
  if ((revents & (POLLOUT | POLLWRNORM)) != 0) out |= PolledFd::EV_WRITE;
  if ((revents & POLLERR) != 0) out |= PolledFd::EV_ERR;
  if ((revents & POLLHUP) != 0) out |= PolledFd::EV_HUP;
  // A descriptor closed while polled: report it as an error so that its
  // member sees the failure on its next read.
  if ((revents & POLLNVAL) != 0) out |= PolledFd::EV_ERR;
  return out;
}

class SetBooleanFlagActor : public InThreadActor {
 public:
  explicit SetBooleanFlagActor(bool* flag) : _flag(flag) {}
  void callback() override { *_flag = true; }

 private:
  bool* _flag;
};

class AddSelmActor : public InThreadActor {
 public:
  AddSelmActor(EventLoop* loop, SmartEventLoopMember* selm) : _loop(loop), _selm(selm) {}
  void callback() override { _selm->add_to_eventloop(_loop); }

 private:
  EventLoop* _loop;
  SmartEventLoopMember* _selm;
};

class RemoveSelmActor : public InThreadActor {
 public:
  RemoveSelmActor(EventLoop* loop, SmartEventLoopMember* selm) : _loop(loop), _selm(selm) {}
  void callback() override { _selm->remove_from_eventloop(_loop); }

 private:
  EventLoop* _loop;
  SmartEventLoopMember* _selm;
};

class RemoveTimeoutFromAnywhereActor : public InThreadActor {
 public:
  RemoveTimeoutFromAnywhereActor(EventLoop* loop, Timeout* timo) : _loop(loop), _timo(timo) {}
  void callback() override { _loop->remove(_timo); }

 private:
  EventLoop* _loop;
  Timeout* _timo;
};

class ZeroCountPredicate : public RunInThreadWorkUntilPredicate {
 public:
  explicit ZeroCountPredicate(const unsigned* count) : _count(count) {}
  bool isDone() override { return *_count == 0; }

 private:
  const unsigned* _count;
};

}  // namespace

// Appends to the loop's list of callbacks, on the loop's thread.
class AddCallbackFromAnywhereActor : public InThreadActor {
 public:
  AddCallbackFromAnywhereActor(CallbackAfterEventService** list, CallbackAfterEventService* cb)
      : _list(list), _cb(cb) {}
  void callback() override {
    CallbackAfterEventService** tail = _list;
    while (*tail != nullptr) tail = &(*tail)->_next;
    _cb->_next = nullptr;
    *tail = _cb;
  }

 private:
  CallbackAfterEventService** _list;
  CallbackAfterEventService* _cb;
};

EventLoop::EventLoop() { internal_init(static_cast<PollMethod>(EventLoop_FASTPOLL_METHOD_var)); }

EventLoop::EventLoop(PollMethod method) { internal_init(method); }

void EventLoop::internal_init(PollMethod method) {
  too_late_to_enable_fastpoll = true;
  _method = method == USE_EPOLL && epoll_works() ? USE_EPOLL : USE_REGULAR_POLL;
  if (_method == USE_EPOLL) {
    _p.using_epoll.epfd = -1;
    _p.using_epoll.events = nullptr;
    _p.using_epoll.size = 0;
    _p.using_epoll.curEvent = -1;
    _p.using_epoll.count = 0;
  } else {
    _p.using_poll.pfd = nullptr;
    _p.using_poll.pev = nullptr;
    _p.using_poll.pfdCount = 0;
    _p.using_poll.pfdMax = 0;
    _p.using_poll.generation = 0;
  }
}

EventLoop::~EventLoop() {
  kassert(!isRunning());
  kassert(_memberCount == 0);
  if (_method == USE_EPOLL) {
    if (_p.using_epoll.epfd >= 0) ::close(_p.using_epoll.epfd);
    delete[] _p.using_epoll.events;
  } else {
    delete[] _p.using_poll.pfd;
    delete[] _p.using_poll.pev;
  }
}

void EventLoop::enableFastPoll() {
  kassert(!too_late_to_enable_fastpoll);
  if (epoll_works()) EventLoop_FASTPOLL_METHOD_var = USE_EPOLL;
}

bool EventLoop::epoll_works() {
  const int fd = sys_epoll_create(1);
  if (fd < 0) return false;
  return ::close(fd) == 0;
}

bool EventLoop::isInThread() const {
  ScopedLock hold(_actors.mutex());
  if (_actors.isRunning()) return _actors.isOwner();
  return _actors.tryClaimWouldSucceed();
}

void EventLoop::assertInThread() const { kassert(isInThread()); }

bool EventLoop::isRunning() const {
  ScopedLock hold(_actors.mutex());
  return _actors.isRunning();
}

void EventLoop::add(PolledFd* p, PollableDescriptor fd) { add(p, fd, p->defaultEvents()); }

void EventLoop::add(PolledFd* p, PollableDescriptor fd, unsigned events) {
  kassert(!p->isActive());
  kassert(fd.valid());
  kassert(!_in_poll);
  if (_method == USE_EPOLL) {
    if (_p.using_epoll.epfd < 0) {
      const int epfd = sys_epoll_create(EPOLL_SIZE_HINT);
      if (epfd < 0) EventLoopException::make(errno, "error from epoll_create");
      _p.using_epoll.epfd = epfd;
      FileDescriptor(epfd).setCloseOnExec(true);
      _p.using_epoll.events = new epoll_event[EPOLL_EVENTS_MAX];
      _p.using_epoll.size = EPOLL_EVENTS_MAX;
    }
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = p;
    PolledFd::epoll_ctl(_p.using_epoll.epfd, EPOLL_CTL_ADD, fd.fd(), &ev);
    p->_p.using_epoll.epfd = _p.using_epoll.epfd;
    p->_mode = PolledFd::MODE_EPOLL;
  } else {
    ++_p.using_poll.generation;
    if (_p.using_poll.pfdCount == _p.using_poll.pfdMax) growPollArrays();
    const unsigned i = _p.using_poll.pfdCount++;
    _p.using_poll.pfd[i].fd = fd.fd();
    _p.using_poll.pfd[i].events = PolledFd::toPollEvents(events);
    _p.using_poll.pfd[i].revents = 0;
    _p.using_poll.pev[i] = p;
    p->_p.using_poll.pfd = &_p.using_poll.pfd[i];
    p->_mode = PolledFd::MODE_POLL;
  }
  p->_fd = fd;
  p->_events.store(events, std::memory_order_relaxed);
  p->_pendingEvents.store(0);
  p->_revents = 0;
  p->_loop = this;
  ++_memberCount;
  p->after_add();
}

void EventLoop::growPollArrays() {
  const unsigned newMax = _p.using_poll.pfdMax == 0 ? POLL_INITIAL_SLOTS : 2 * _p.using_poll.pfdMax;
  pollfd* newPfd = new pollfd[newMax];
  PolledFd** newPev;
  try {
    newPev = new PolledFd*[newMax];
  } catch (const std::bad_alloc&) {
    delete[] newPfd;  // the old arrays stand
    throw;
  }
  for (unsigned i = 0; i < _p.using_poll.pfdCount; ++i) {
    newPfd[i] = _p.using_poll.pfd[i];
    newPev[i] = _p.using_poll.pev[i];
    newPev[i]->_p.using_poll.pfd = &newPfd[i];
  }
  delete[] _p.using_poll.pfd;
  delete[] _p.using_poll.pev;
  _p.using_poll.pfd = newPfd;
  _p.using_poll.pev = newPev;
  _p.using_poll.pfdMax = newMax;
}

void EventLoop::removeActivePolledFd(PolledFd* p) {
  kassert(p->isActive() && p->_loop == this);
  if (_method == USE_EPOLL) {
    PolledFd::epoll_ctl_del(_p.using_epoll.epfd, p->_fd.fd());
    if (_in_service_loop) {
      for (int k = _p.using_epoll.curEvent + 1; k < _p.using_epoll.count; ++k) {
        if (_p.using_epoll.events[k].data.ptr == p) _p.using_epoll.events[k].data.ptr = nullptr;
      }
    }
  } else {
    const unsigned i = static_cast<unsigned>(p->_p.using_poll.pfd - _p.using_poll.pfd);
    kassert(i < _p.using_poll.pfdCount && _p.using_poll.pev[i] == p);
    const unsigned last = --_p.using_poll.pfdCount;
    if (i != last) {
      _p.using_poll.pfd[i] = _p.using_poll.pfd[last];
      _p.using_poll.pev[i] = _p.using_poll.pev[last];
      _p.using_poll.pev[i]->_p.using_poll.pfd = &_p.using_poll.pfd[i];
    }
    ++_p.using_poll.generation;
  }
  p->_mode = PolledFd::MODE_NONE;
  p->_p.using_poll.pfd = nullptr;
  p->_loop = nullptr;
  --_memberCount;
}

int EventLoop::waitForEvents(int ms) {
  if (_method == USE_EPOLL) {
    // With nothing registered yet, an empty poll is the sleep.
    if (_p.using_epoll.epfd < 0) return ::poll(nullptr, 0, ms);
    return sys_epoll_wait(_p.using_epoll.epfd, _p.using_epoll.events, _p.using_epoll.size, ms);
  }
  return ::poll(_p.using_poll.pfd, _p.using_poll.pfdCount, ms);
}

void EventLoop::serveOne(PolledFd* p, unsigned revents) {
  p->_revents = revents;
  if (!p->do_event()) return;
  const PollableDescriptor fd = p->_fd;
  if (p->isActive()) removeActivePolledFd(p);
  p->after_eof(fd);
}

void EventLoop::serveEpollEvents(int n) {
  _p.using_epoll.count = n;
  for (int k = 0; k < n; ++k) {
    PolledFd* p = static_cast<PolledFd*>(_p.using_epoll.events[k].data.ptr);
    if (p == nullptr) continue;  // removed earlier in this round
    _p.using_epoll.curEvent = k;
    serveOne(p, _p.using_epoll.events[k].events);
  }
  _p.using_epoll.curEvent = -1;
  _p.using_epoll.count = 0;
}

void EventLoop::servePollEvents() {
  unsigned i = 0;
  while (i < _p.using_poll.pfdCount) {
    pollfd& slot = _p.using_poll.pfd[i];
    if (slot.revents == 0) {
      ++i;
      continue;
    }
    PolledFd* pfd = _p.using_poll.pev[i];
    kassert(pfd->_p.using_poll.pfd == &_p.using_poll.pfd[i]);
    const unsigned revents = fromPollRevents(slot.revents);
    // Cleared first: a walk that starts again never serves it twice.
    slot.revents = 0;
    const unsigned generation = _p.using_poll.generation;
    serveOne(pfd, revents);
    // The arrays moved: start again; served slots have revents 0.
    i = generation == _p.using_poll.generation ? i + 1 : 0;
  }
}

void EventLoop::runCallbacksAfterService() {
  while (_callbacks != nullptr) {
    CallbackAfterEventService* cb = _callbacks;
    _callbacks = cb->_next;
    cb->_next = nullptr;
    cb->afterEventService();
  }
}

void EventLoop::noteDeferredEvents() {
  _deferredEvents.store(true);
  ScopedLock hold(_actors.mutex());
  if (_actors.notify() != nullptr) _actors.notify()->trigger();
}

void EventLoop::applyDeferredEvents() {
  if (_method != USE_REGULAR_POLL || !_deferredEvents.exchange(false)) return;
  for (unsigned i = 0; i < _p.using_poll.pfdCount; ++i) {
    PolledFd* p = _p.using_poll.pev[i];
    const unsigned events = p->_pendingEvents.exchange(0);
    if (events != 0) p->changeEvents(p->ourEvents() | events);
  }
}

void EventLoop::run() {
  InThreadActorNotify notify(&_actors);
  {
    ScopedLock hold(_actors.mutex());
    _actors.waitAndClaim();
    _thread = ThreadToken::self();
    _actors.setNotify(&notify);
    _actors.setRunning(true);
    // Work queued while another thread held the claim.
    if (_actors.hasPending()) notify.trigger();
  }
  // Whatever way run() ends, the claim is given up and no actor is left.
  struct Leave {
    EventLoop* loop;
    InThreadActorNotify* notify;
    ~Leave() { loop->internal_leave(notify); }
  } leave{this, &notify};
  notify.add_to_eventloop(this);

  EventLoop& e = *this;
  CurrentTimeval now;
  for (;;) {
    if (!_terminating) runExpiredTimeouts(now);
    if (_terminating) break;
    applyDeferredEvents();
    const int ms = msecUntilNextTimeout(now);
    kassert(!e._in_poll);
    setInPoll(true);
    const int n = waitForEvents(ms);
    const int err = errno;
    setInPoll(false);
    if (n < 0) {
      if (err == EINTR || err == EAGAIN) continue;
      EventLoopException::make(err, _method == USE_EPOLL ? "error from EventLoop epoll_wait"
                                                         : "error from EventLoop poll");
    }
    if (ms != POLL_MS_INFINITE) {
      const CurrentTimeval after;
      if (!empty()) checkClockSkew(now, after, ms);
      now = after;
      if (n == 0) continue;
    }
    _in_service_loop = true;
    if (_method == USE_EPOLL) {
      serveEpollEvents(n);
    } else {
      servePollEvents();
    }
    _in_service_loop = false;
    runCallbacksAfterService();
    if (!empty()) now = CurrentTimeval();
  }
}

void EventLoop::internal_leave(InThreadActorNotify* notify) {
  _in_service_loop = false;
  setInPoll(false);
  if (notify->polledFd().isActive()) notify->remove_from_eventloop(this);
  clearAndRunZeroTimeouts();
  {
    ScopedLock hold(_actors.mutex());
    _actors.setRunning(false);
    _actors.setNotify(nullptr);
    _thread = ThreadToken();
    _actors.drainAndRelease();
  }
  _terminating = false;
}

void EventLoop::terminate() {
  SetBooleanFlagActor actor(&_terminating);
  internal_runInThread(&actor, true);
}

void EventLoop::internal_runInThread(InThreadActor* actor, bool wait) {
  actor->_wait = wait;
  ScopedLock hold(_actors.mutex());
  if (!_actors.isRunning()) {
    const InThreadActorList::Claim claim = _actors.tryClaim();
    if (claim == InThreadActorList::CLAIMED) {
      // An actor that throws gives up the claim on its way out.
      struct Release {
        InThreadActorList& list;
        bool pending = true;
        ~Release() {
          if (pending) list.release();
        }
      } release{_actors};
      {
        ScopedUnlock unlocked(_actors.mutex());
        actor->callback();
      }
      release.pending = false;
      _actors.drainAndRelease();
      return;
    }
    if (claim == InThreadActorList::ALREADY_OWNER) {
      ScopedUnlock unlocked(_actors.mutex());
      actor->callback();
      return;
    }
    // Another thread holds the claim and runs what is queued before it
    // gives it up.
    _actors.add(actor);
    if (wait) _actors.waitForActorToComplete(actor);
    return;
  }
  if (_actors.isOwner()) {
    ScopedUnlock unlocked(_actors.mutex());
    actor->callback();
    return;
  }
  _actors.add(actor);
  _actors.notify()->trigger();
  if (wait) _actors.waitForActorToComplete(actor);
}

bool EventLoop::runInThreadOrFail(InThreadActor* actor, bool wait) {
  actor->_wait = wait;
  ScopedLock hold(_actors.mutex());
  if (!_actors.isRunning()) return false;
  if (_actors.isOwner()) {
    ScopedUnlock unlocked(_actors.mutex());
    actor->callback();
    return true;
  }
  _actors.add(actor);
  _actors.notify()->trigger();
  if (wait) _actors.waitForActorToComplete(actor);
  return true;
}

void EventLoop::runInThreadWorkUntil(RunInThreadWorkUntilPredicate* pred) {
  full_Mutex& mutex = _actors.mutex();
  mutex.lock();
  if (_actors.isRunning()) {
    kassert(_actors.isOwner());
    SelfPipe* notify = _actors.notify();
    while (!pred->isDone()) {
      ScopedUnlock unlocked(mutex);
      notify->pollForTrigger();
    }
    mutex.unlock();
    return;
  }
  const bool claimed = _actors.waitAndClaim();
  while (!pred->isDone()) {
    InThreadActor* actor = _actors.popPending();
    if (actor == nullptr) {
      _actors.waitForChange();
      continue;
    }
    ScopedUnlock unlocked(mutex);
    _actors.run(actor);
  }
  if (claimed) _actors.drainAndRelease();
  mutex.unlock();
}

void EventLoop::runInThreadWorkUntilZero(const unsigned* count) {
  ZeroCountPredicate pred(count);
  runInThreadWorkUntil(&pred);
}

void EventLoop::addFromAnywhere(SmartEventLoopMember* selm) {
  AddSelmActor actor(this, selm);
  internal_runInThread(&actor, true);
}

void EventLoop::removeFromAnywhere(SmartEventLoopMember* selm) {
  RemoveSelmActor actor(this, selm);
  internal_runInThread(&actor, true);
}

void EventLoop::removeFromAnywhere(Timeout* timo) {
  RemoveTimeoutFromAnywhereActor actor(this, timo);
  internal_runInThread(&actor, true);
}

void EventLoop::addFromAnywhere(CallbackAfterEventService* cb) {
  AddCallbackFromAnywhereActor actor(&_callbacks, cb);
  internal_runInThread(&actor, true);
}
