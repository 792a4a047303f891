#include "util/Timeout.h"

#include "util/Assert.h"

namespace {

bool isPowerOfTwo(unsigned n) { return n != 0 && (n & (n - 1)) == 0; }

}  // namespace

Timeout** const Timeout::ON_RUN_LIST = reinterpret_cast<Timeout**>(1);
Timeout** const Timeout::ON_PUTBACK_LIST = reinterpret_cast<Timeout**>(3);

Timeout::Timeout() : _parent(nullptr), _linkp(nullptr), _when(), _initialMsec(0) {
  _ptr.child[0] = nullptr;
  _ptr.child[1] = nullptr;
}

Timeout::~Timeout() { kassert(_linkp == nullptr); }

bool Timeout::linksAreSane() const {
  if (_linkp == nullptr) return true;
  if (_linkp == ON_RUN_LIST || _linkp == ON_PUTBACK_LIST) {
    if (*_ptr.to_list.prevp != this) return false;
    const Timeout* next = _ptr.to_list.next;
    return next == nullptr || next->_ptr.to_list.prevp == &_ptr.to_list.next;
  }
  if (*_linkp != this) return false;
  if (_parent != nullptr && _linkp != &_parent->_ptr.child[0] &&
      _linkp != &_parent->_ptr.child[1]) {
    return false;
  }
  for (int i = 0; i < 2; ++i) {
    const Timeout* c = _ptr.child[i];
    if (c != nullptr && (c->_parent != this || c->_linkp != &_ptr.child[i])) return false;
  }
  return true;
}

void Timeout::swapWithChild(Timeout* oc) {
  kassert(_when > oc->_when);
  const int k = _ptr.child[0] == oc ? 0 : 1;
  kassert(_ptr.child[k] == oc);
  Timeout* other = _ptr.child[1 - k];
  Timeout* grandchild[2] = {oc->_ptr.child[0], oc->_ptr.child[1]};
  Timeout** link = _linkp;

  *link = oc;
  oc->_linkp = link;
  oc->_parent = _parent;
  oc->_ptr.child[k] = this;
  oc->_ptr.child[1 - k] = other;
  if (other != nullptr) {
    other->_parent = oc;
    other->_linkp = &oc->_ptr.child[1 - k];
  }
  _parent = oc;
  _linkp = &oc->_ptr.child[k];
  for (int i = 0; i < 2; ++i) {
    _ptr.child[i] = grandchild[i];
    if (grandchild[i] != nullptr) {
      grandchild[i]->_parent = this;
      grandchild[i]->_linkp = &_ptr.child[i];
    }
  }
}

TimeoutHeap::TimeoutHeap()
    : _in_poll(false),
      _timeoutCount(0),
      _pathMask(0),
      _timeouts(nullptr),
      _currently_running_timeout(nullptr),
      _currently_running_modified(false),
      _runList(nullptr),
      _runTail(&_runList),
      _putBackList(nullptr),
      _putBackTail(&_putBackList) {}

TimeoutHeap::~TimeoutHeap() {
  recursiveUnschedule(detachAll());
  while (_runList != nullptr) {
    Timeout* t = _runList;
    listUnlink(t);
    t->_linkp = nullptr;
  }
  while (_putBackList != nullptr) {
    Timeout* t = _putBackList;
    listUnlink(t);
    t->_linkp = nullptr;
  }
}

Timeout** TimeoutHeap::slotLink(unsigned slot, Timeout** parent) {
  Timeout** childp = &_timeouts;
  *parent = nullptr;
  for (unsigned mask = _pathMask; mask != 0; mask >>= 1) {
    kassert(*childp != __null);
    *parent = *childp;
    childp = &(*childp)->_ptr.child[(slot & mask) != 0 ? 1 : 0];
  }
  return childp;
}

void TimeoutHeap::addNonbusyTimeout(Timeout* t) {
  kassert(!_in_poll);
  kassert(t->_linkp != Timeout::ON_RUN_LIST && t->_linkp != Timeout::ON_PUTBACK_LIST);
  if (t->_linkp != nullptr) {
    restoreOrder(t);
    return;
  }
  t->_ptr.child[0] = nullptr;
  t->_ptr.child[1] = nullptr;
  ++_timeoutCount;
  if (_timeoutCount >= 2 && isPowerOfTwo(_timeoutCount)) {
    _pathMask = _pathMask == 0 ? 1 : _pathMask << 1;
  }
  Timeout* endSlotParent;
  Timeout** link = slotLink(_timeoutCount, &endSlotParent);
  kassert(*link == __null);
  *link = t;
  t->_linkp = link;
  t->_parent = endSlotParent;
  if (_timeoutCount >= 2) restoreOrder(t);
}

void TimeoutHeap::removePendingTimeout(Timeout* t) {
  kassert(_timeoutCount > 0);
  const unsigned oldCount = _timeoutCount;
  Timeout* lastParent;
  Timeout** lastLink = slotLink(oldCount, &lastParent);
  Timeout* last = *lastLink;
  kassert(last != __null);
  *lastLink = nullptr;
  --_timeoutCount;
  if (isPowerOfTwo(oldCount)) _pathMask >>= 1;
  if (last == t) return;

  last->_parent = t->_parent;
  last->_linkp = t->_linkp;
  *last->_linkp = last;
  for (int i = 0; i < 2; ++i) {
    Timeout* c = t->_ptr.child[i];
    last->_ptr.child[i] = c;
    if (c != nullptr) {
      c->_parent = last;
      c->_linkp = &last->_ptr.child[i];
    }
  }
  restoreOrder(last);
}

void TimeoutHeap::restoreOrder(Timeout* t) {
  while (t->_parent != nullptr && t->_when < t->_parent->_when) t->_parent->swapWithChild(t);
  for (;;) {
    Timeout* earlier = t->_ptr.child[0];
    Timeout* c1 = t->_ptr.child[1];
    // On equal times the way down is child[0].
    if (c1 != nullptr && (earlier == nullptr || c1->_when < earlier->_when)) earlier = c1;
    if (earlier == nullptr || !(earlier->_when < t->_when)) return;
    t->swapWithChild(earlier);
  }
}

void TimeoutHeap::appendToRunList(Timeout* t) {
  t->_ptr.to_list.next = nullptr;
  t->_ptr.to_list.prevp = _runTail;
  *_runTail = t;
  _runTail = &t->_ptr.to_list.next;
  t->_linkp = Timeout::ON_RUN_LIST;
}

void TimeoutHeap::appendToPutBackList(Timeout* t) {
  t->_ptr.to_list.next = nullptr;
  t->_ptr.to_list.prevp = _putBackTail;
  *_putBackTail = t;
  _putBackTail = &t->_ptr.to_list.next;
  t->_linkp = Timeout::ON_PUTBACK_LIST;
}

void TimeoutHeap::listUnlink(Timeout* t) {
  Timeout*** tailp = t->_linkp == Timeout::ON_RUN_LIST ? &_runTail : &_putBackTail;
  Timeout* next = t->_ptr.to_list.next;
  *t->_ptr.to_list.prevp = next;
  if (next != nullptr) {
    next->_ptr.to_list.prevp = t->_ptr.to_list.prevp;
  } else {
    *tailp = t->_ptr.to_list.prevp;
  }
}

void TimeoutHeap::add(Timeout* timo, const Timeval& base, unsigned long long msec) {
  kassert(timo != _currently_running_timeout);
  kassert(timo->linksAreSane());
  timo->_initialMsec = msec;
  if (timo->_linkp == Timeout::ON_PUTBACK_LIST) return;
  if (timo->_linkp == Timeout::ON_RUN_LIST) {
    if (msec == 0) return;
    listUnlink(timo);
    timo->_linkp = nullptr;
  }
  timo->_when = base;
  timo->_when.addMsec(msec);
  addNonbusyTimeout(timo);
}

void TimeoutHeap::add(Timeout* timo, unsigned long long msec) { add(timo, Timeval::now(), msec); }

void TimeoutHeap::remove(Timeout* timo) {
  kassert(timo != _currently_running_timeout);
  if (timo->_linkp == nullptr) return;
  kassert(timo->linksAreSane());
  if (timo->_linkp == Timeout::ON_PUTBACK_LIST) {
    listUnlink(timo);
  } else if (timo->_linkp == Timeout::ON_RUN_LIST) {
    listUnlink(timo);
    timo->_linkp = nullptr;
    if (timo->_initialMsec == 0) {
      // Its time has come: removal must not lose a one-shot. Being removed,
      // it cannot ask to repeat.
      Timeout* const running = _currently_running_timeout;
      const bool runningModified = _currently_running_modified;
      _currently_running_timeout = timo;
      unsigned long long msec = 0;
      timo->when_expired(msec);
      _currently_running_timeout = running;
      _currently_running_modified = runningModified;
    }
  } else {
    removePendingTimeout(timo);
  }
  timo->_linkp = nullptr;
}

void TimeoutHeap::modifyTimeoutInterval(Timeout* timo, const Timeval& now,
                                        unsigned long long msec) {
  if (timo == _currently_running_timeout) {
    // Its handler is running and it is linked nowhere: the pass puts it
    // back with this interval once the handler returns.
    timo->_initialMsec = msec;
    _currently_running_modified = true;
    return;
  }
  const unsigned long long old = timo->_initialMsec;
  unsigned long long delay = msec;
  if (timo->_linkp == Timeout::ON_PUTBACK_LIST) {
    timo->_initialMsec = msec;
    return;
  }
  if (timo->_linkp == Timeout::ON_RUN_LIST) {
    if (old >= msec) {
      timo->_initialMsec = msec;
      return;
    }
    listUnlink(timo);
    timo->_linkp = nullptr;
    delay = msec - old;
  } else if (timo->_linkp != nullptr) {
    if (msec == old) return;
    removePendingTimeout(timo);
    timo->_linkp = nullptr;
    if (now < timo->_when) {
      const int64_t leftMs = Timeval::msecDifference(timo->_when, now);
      const unsigned long long left = leftMs < 0 ? 0 : static_cast<unsigned long long>(leftMs);
      const unsigned long long served = old > left ? old - left : 0;
      delay = msec > served ? msec - served : 0;
    }
  }
  timo->_initialMsec = msec;
  timo->_when = now;
  timo->_when.addMsec(delay);
  addNonbusyTimeout(timo);
}

void TimeoutHeap::modifyTimeoutInterval(Timeout* timo, unsigned long long msec) {
  modifyTimeoutInterval(timo, Timeval::now(), msec);
}

void TimeoutHeap::internal_runOne(Timeout* t) {
  _currently_running_timeout = t;
  _currently_running_modified = false;
  unsigned long long msec = t->_initialMsec;
  t->when_expired(msec);
  _currently_running_timeout = nullptr;
  if (_currently_running_modified) {
    _currently_running_modified = false;
    appendToPutBackList(t);
  } else if (msec != 0) {
    t->_initialMsec = msec;
    appendToPutBackList(t);
  }
}

void TimeoutHeap::internal_putBack(const Timeval& now) {
  while (_putBackList != nullptr) {
    Timeout* t = _putBackList;
    listUnlink(t);
    t->_when = now;
    t->_when.addMsec(t->_initialMsec);
    t->_linkp = nullptr;
    addNonbusyTimeout(t);
  }
}

void TimeoutHeap::runExpiredTimeouts(Timeval& now) {
  Timeval deadline = now;
  deadline.addMsec(EARLY_FIRE_MSEC);
  while (_timeouts != nullptr && _timeouts->_when <= deadline) {
    Timeout* t = _timeouts;
    removePendingTimeout(t);
    appendToRunList(t);
  }
  if (_runList == nullptr) return;
  while (_runList != nullptr) {
    Timeout* t = _runList;
    listUnlink(t);
    t->_linkp = nullptr;
    internal_runOne(t);
  }
  now = Timeval::now();
  internal_putBack(now);
}

int TimeoutHeap::msecUntilNextTimeout(const Timeval& now) const {
  if (_timeouts == nullptr) return POLL_MS_INFINITE;
  if (_timeouts->_when <= now) return 0;
  const int64_t usec = Timeval::usecDifference(_timeouts->_when, now);
  const int64_t msec = usec / 1000 + (usec % 1000 != 0 ? 1 : 0);
  return msec > 0x7fffffff ? 0x7fffffff : static_cast<int>(msec);
}

bool TimeoutHeap::nsecUntilNextTimeout(const Timeval& now, timespec* out) const {
  if (_timeouts == nullptr) return false;
  out->tv_sec = 0;
  out->tv_nsec = 0;
  if (_timeouts->_when <= now) return true;
  int64_t usec = Timeval::usecDifference(_timeouts->_when, now);
  if (usec > 0x7fffffffLL * 1000) usec = 0x7fffffffLL * 1000;
  out->tv_sec = static_cast<time_t>(usec / 1000000);
  out->tv_nsec = static_cast<long>(usec % 1000000) * 1000;
  return true;
}

void TimeoutHeap::checkClockSkew(const Timeval& before, const Timeval& after, int ms_delay) {
  kassert(_timeoutCount > 0);
  kassert(ms_delay >= 0);
  kassert(ms_delay != POLL_MS_INFINITE);
  Timeval latestExpected = before;
  latestExpected.addMsec(static_cast<unsigned long long>(ms_delay) + 5000);
  if (latestExpected < after) {
    const int64_t excess = Timeval::msecDifference(after, before) - ms_delay;
    recursiveAddToAllTimeouts(_timeouts, static_cast<unsigned long long>(excess));
  } else if (after < before) {
    recursiveResubmitTimeouts(detachAll(), after);
  }
}

void TimeoutHeap::clearAndRunZeroTimeouts() {
  for (;;) {
    recursiveFilterZeroLengthTimeouts(detachAll());
    if (_runList == nullptr) return;
    while (_runList != nullptr) {
      Timeout* t = _runList;
      listUnlink(t);
      t->_linkp = nullptr;
      internal_runOne(t);
    }
    internal_putBack(Timeval::now());
  }
}

Timeout* TimeoutHeap::detachAll() {
  Timeout* root = _timeouts;
  _timeouts = nullptr;
  _timeoutCount = 0;
  _pathMask = 0;
  return root;
}

// The recursive walks go as deep as the tree, which a complete tree of
// 32-bit count keeps within 32 levels.
void TimeoutHeap::recursiveAddToAllTimeouts(Timeout* t, unsigned long long msec) {
  if (t == nullptr) return;
  t->_when.addMsec(msec);
  recursiveAddToAllTimeouts(t->_ptr.child[0], msec);
  recursiveAddToAllTimeouts(t->_ptr.child[1], msec);
}

void TimeoutHeap::recursiveResubmitTimeouts(Timeout* t, const Timeval& after) {
  if (t == nullptr) return;
  Timeout* const children[2] = {t->_ptr.child[0], t->_ptr.child[1]};
  Timeval latest = after;
  latest.addMsec(t->_initialMsec);
  if (latest < t->_when) t->_when = latest;
  t->_linkp = nullptr;
  addNonbusyTimeout(t);
  recursiveResubmitTimeouts(children[0], after);
  recursiveResubmitTimeouts(children[1], after);
}

void TimeoutHeap::recursiveFilterZeroLengthTimeouts(Timeout* t) {
  if (t == nullptr) return;
  Timeout* const children[2] = {t->_ptr.child[0], t->_ptr.child[1]};
  t->_linkp = nullptr;
  if (t->_initialMsec != 0) {
    addNonbusyTimeout(t);
  } else {
    appendToRunList(t);
  }
  recursiveFilterZeroLengthTimeouts(children[0]);
  recursiveFilterZeroLengthTimeouts(children[1]);
}

void TimeoutHeap::recursiveUnschedule(Timeout* t) {
  if (t == nullptr) return;
  Timeout* const children[2] = {t->_ptr.child[0], t->_ptr.child[1]};
  t->_linkp = nullptr;
  recursiveUnschedule(children[0]);
  recursiveUnschedule(children[1]);
}

bool TimeoutHeap::verifyHeap() const {
  bool ok = _timeouts == nullptr || (_timeouts->_parent == nullptr &&
                                     _timeouts->_linkp == &_timeouts);
  // n nodes whose slot numbers are all at most n fill slots 1 to n: the
  // tree is complete.
  if (recursiveVerify(_timeouts, nullptr, 1, &ok) != _timeoutCount) return false;
  unsigned expectedMask = 0;
  for (unsigned n = _timeoutCount; n > 1; n >>= 1) {
    expectedMask = expectedMask == 0 ? 1 : expectedMask << 1;
  }
  return ok && _pathMask == expectedMask;
}

unsigned TimeoutHeap::recursiveVerify(const Timeout* t, const Timeout* parent, uint64_t slot,
                                      bool* ok) const {
  if (t == nullptr) return 0;
  if (slot > _timeoutCount || t->_parent != parent || !t->linksAreSane()) *ok = false;
  if (parent != nullptr && t->_when < parent->_when) *ok = false;
  return 1 + recursiveVerify(t->_ptr.child[0], t, 2 * slot, ok) +
         recursiveVerify(t->_ptr.child[1], t, 2 * slot + 1, ok);
}
