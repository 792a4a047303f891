#include "util/InThreadActorList.h"

#include "util/Assert.h"

InThreadActor::~InThreadActor() { kassert(_prevp == nullptr); }

InThreadActorList::~InThreadActorList() { kassert(_head == nullptr); }

void InThreadActorList::add(InThreadActor* actor) {
  kassert(actor->_prevp == nullptr);
  actor->_done = false;
  actor->_next = nullptr;
  actor->_prevp = _tailp;
  *_tailp = actor;
  _tailp = &actor->_next;
  _changed.wake_all();
}

bool InThreadActorList::removeFromPendingList(InThreadActor* actor) {
  if (actor->_prevp == nullptr) return false;
  *actor->_prevp = actor->_next;
  if (actor->_next != nullptr) {
    actor->_next->_prevp = actor->_prevp;
  } else {
    _tailp = actor->_prevp;
  }
  actor->_next = nullptr;
  actor->_prevp = nullptr;
  return true;
}

InThreadActor* InThreadActorList::popPending() {
  InThreadActor* actor = _head;
  if (actor != nullptr) removeFromPendingList(actor);
  return actor;
}

InThreadActor* InThreadActorList::getNext(bool* more) {
  ScopedLock hold(_mutex);
  InThreadActor* actor = popPending();
  if (more != nullptr) *more = _head != nullptr;
  return actor;
}

namespace {

// Marks a waited-for actor done however its callback ends.
class DoneMarker {
 public:
  DoneMarker(full_Mutex& mutex, ConditionWakeAll& changed, bool* done)
      : _mutex(mutex), _changed(changed), _done(done) {}
  ~DoneMarker() {
    if (_done == nullptr) return;
    ScopedLock hold(_mutex);
    *_done = true;
    _changed.wake_all();
  }

 private:
  full_Mutex& _mutex;
  ConditionWakeAll& _changed;
  bool* _done;
};

}  // namespace

void InThreadActorList::run(InThreadActor* actor) {
  // Read before the callback: an actor nobody waits for may be gone after.
  DoneMarker marker(_mutex, _changed, actor->_wait ? &actor->_done : nullptr);
  actor->callback();
}

void InThreadActorList::waitForActorToComplete(InThreadActor* actor) {
  while (!actor->_done) _changed.wait(_mutex);
}

void InThreadActorList::waitForAllActorsToBeNotified() {
  ScopedLock hold(_mutex);
  while (_head != nullptr) _changed.wait(_mutex);
}

InThreadActorList::Claim InThreadActorList::tryClaim() {
  if (!_owner.isSet()) {
    _owner = ThreadToken::self();
    return CLAIMED;
  }
  return isOwner() ? ALREADY_OWNER : BUSY;
}

bool InThreadActorList::waitAndClaim() {
  for (;;) {
    const Claim claim = tryClaim();
    if (claim != BUSY) return claim == CLAIMED;
    _changed.wait(_mutex);
  }
}

void InThreadActorList::release() {
  kassert(isOwner());
  _owner = ThreadToken();
  _changed.wake_all();
}

void InThreadActorList::drainAndRelease() {
  kassert(isOwner());
  // Given up however the actors end.
  struct Release {
    InThreadActorList* list;
    ~Release() { list->release(); }
  } release{this};
  while (_head != nullptr) {
    InThreadActor* actor = popPending();
    ScopedUnlock unlocked(_mutex);
    run(actor);
  }
}

size_t InThreadActorList::runInThreadWorkIfLoopDown() {
  ScopedLock hold(_mutex);
  if (_running) return 0;
  const Claim claim = tryClaim();
  if (claim == BUSY) return 0;
  struct Release {
    InThreadActorList* list;
    bool active;
    ~Release() {
      if (active) list->release();
    }
  } release{this, claim == CLAIMED};
  size_t count = 0;
  while (_head != nullptr) {
    InThreadActor* actor = popPending();
    ScopedUnlock unlocked(_mutex);
    run(actor);
    ++count;
  }
  return count;
}
