#include "util/Throttle.h"

#include "util/Assert.h"

ThrottleGroup& ThrottleGroup::makeFrozen() {
  static ThrottleGroup* const group = new ThrottleGroup;
  group->_mask.store(~0u);
  return *group;
}

ThrottleGroup& ThrottleGroup::not_throttled = *new ThrottleGroup;
// Everything is cut for a frozen member.
ThrottleGroup& ThrottleGroup::frozen_events = makeFrozen();

Throttleable::Throttleable() { ThrottleGroup::not_throttled.add(this); }

Throttleable::~Throttleable() {
  ThrottleGroup* group = _group;
  ScopedLock hold(group->_mutex);
  group->unlinkThrottled(this);
  group->unlinkMember(this);
}

events_mask_t Throttleable::throttledEvents() const {
  ScopedLock hold(_group->_mutex);
  return _throttled;
}

events_mask_t Throttleable::checkThrottling(events_mask_t revents, events_mask_t registered) {
  ThrottleGroup* group = _group;
  if ((group->mask() & revents) == 0) return ~0u;
  if (group == &ThrottleGroup::frozen_events) return 0;
  ScopedLock hold(group->_mutex);
  const events_mask_t mask = group->mask();
  if ((mask & revents) == 0) return ~0u;
  if (_throttledPrevp == nullptr) {
    _throttledNext = group->_throttledList;
    if (_throttledNext != nullptr) _throttledNext->_throttledPrevp = &_throttledNext;
    _throttledPrevp = &group->_throttledList;
    group->_throttledList = this;
  }
  _throttled |= registered & mask;
  return ~mask;
}

ThrottleGroup::~ThrottleGroup() { freeze(); }

void ThrottleGroup::linkMember(Throttleable* member) {
  member->_group = this;
  member->_memberNext = _members;
  if (_members != nullptr) _members->_memberPrevp = &member->_memberNext;
  member->_memberPrevp = &_members;
  _members = member;
}

void ThrottleGroup::unlinkMember(Throttleable* member) {
  if (member->_memberPrevp == nullptr) return;
  *member->_memberPrevp = member->_memberNext;
  if (member->_memberNext != nullptr) member->_memberNext->_memberPrevp = member->_memberPrevp;
  member->_memberNext = nullptr;
  member->_memberPrevp = nullptr;
}

void ThrottleGroup::unlinkThrottled(Throttleable* member) {
  if (member->_throttledPrevp == nullptr) return;
  *member->_throttledPrevp = member->_throttledNext;
  if (member->_throttledNext != nullptr) {
    member->_throttledNext->_throttledPrevp = member->_throttledPrevp;
  }
  member->_throttledNext = nullptr;
  member->_throttledPrevp = nullptr;
}

void ThrottleGroup::add(Throttleable* member) {
  ThrottleGroup* old = member->_group;
  events_mask_t cut = 0;
  if (old == this) return;
  if (old != nullptr) {
    ScopedLock hold(old->_mutex);
    old->unlinkThrottled(member);
    old->unlinkMember(member);
    cut = member->_throttled;
    member->_throttled = 0;
  }
  {
    ScopedLock hold(_mutex);
    linkMember(member);
  }
  // Events cut under the old group are no business of the new one.
  if (cut != 0) member->unthrottleEvents(cut);
}

void ThrottleGroup::maybe_throttle(events_mask_t events, unsigned* count) {
  kassert(this != &not_throttled);
  kassert(this != &frozen_events);
  ScopedLock hold(_mutex);
  if (++*count == 1) _mask.store(mask() | events, std::memory_order_relaxed);
}

void ThrottleGroup::maybe_unthrottle(events_mask_t events, unsigned* count) {
  kassert(this != &not_throttled);
  kassert(this != &frozen_events);
  ScopedLock hold(_mutex);
  kassert(*count > 0);
  if (--*count == 0) internal_unthrottle(events);
}

void ThrottleGroup::unthrottle(events_mask_t events) {
  ScopedLock hold(_mutex);
  internal_unthrottle(events);
}

void ThrottleGroup::internal_unthrottle(events_mask_t events) {
  Throttleable* next = nullptr;
  for (Throttleable* member = _throttledList; member != nullptr; member = next) {
    next = member->_throttledNext;
    const events_mask_t bits = member->_throttled & events;
    if (bits != 0) {
      member->unthrottleEvents(bits);
      member->_throttled &= ~bits;
    }
    if (member->_throttled == 0) unlinkThrottled(member);
  }
  _mask.store(mask() & ~events, std::memory_order_relaxed);
}

void ThrottleGroup::freeze() {
  kassert(this != &frozen_events);
  for (;;) {
    Throttleable* member;
    {
      ScopedLock hold(_mutex);
      member = _members;
      if (member == nullptr) return;
      unlinkThrottled(member);
      unlinkMember(member);
      member->_group = nullptr;
    }
    ScopedLock hold(frozen_events._mutex);
    frozen_events.linkMember(member);
  }
}

unsigned ThrottleGroup::memberCount() const {
  ScopedLock hold(_mutex);
  unsigned n = 0;
  for (const Throttleable* m = _members; m != nullptr; m = m->_memberNext) ++n;
  return n;
}

unsigned ThrottleGroup::throttledCount() const {
  ScopedLock hold(_mutex);
  unsigned n = 0;
  for (const Throttleable* m = _throttledList; m != nullptr; m = m->_throttledNext) ++n;
  return n;
}
