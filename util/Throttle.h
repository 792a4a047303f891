// Throttleable and ThrottleGroup: back-pressure for the event loop. A
// consumer that cannot keep up throttles a class of events (readable, say)
// on a whole group of descriptors at once; each member stops polling for
// them at its next event and resumes at unthrottle().
#pragma once

#include <atomic>

#include "util/Mutex.h"

class ThrottleGroup;

// Event masks use the values of epoll: 1 readable, 2 priority, 4 writable,
// 8 error, 0x10 hang-up.
typedef unsigned events_mask_t;

// A member of exactly one ThrottleGroup, `not_throttled` at first. Its
// links and mask are guarded by its group's mutex; the object itself
// belongs to its event loop's thread.
class Throttleable {
 public:
  Throttleable();
  // Leaves its group.
  virtual ~Throttleable();
  Throttleable(const Throttleable&) = delete;
  Throttleable& operator=(const Throttleable&) = delete;

  // Called by the group, with its mutex held, when `events` that this
  // member had cut may be polled again.
  virtual void unthrottleEvents(events_mask_t events) = 0;

  // What the loop may serve of `revents`: all ones when nothing of them is
  // throttled (decided by one load, without the lock); 0 for a member of
  // `frozen_events`; otherwise the complement of the group's mask, after
  // putting this member on the throttled list and noting in its own mask
  // the `registered` events that are cut.
  events_mask_t checkThrottling(events_mask_t revents, events_mask_t registered);

  ThrottleGroup* group() const { return _group; }
  // The events cut and waiting for unthrottle (under the group's mutex).
  events_mask_t throttledEvents() const;

 private:
  friend class ThrottleGroup;

  events_mask_t _throttled = 0;         // guarded by _group's mutex
  ThrottleGroup* _group = nullptr;      // guarded by _group's mutex
  Throttleable* _memberNext = nullptr;  // the group's member list
  Throttleable** _memberPrevp = nullptr;
  Throttleable* _throttledNext = nullptr;  // the group's throttled list
  Throttleable** _throttledPrevp = nullptr;  // null: not on it
};

// A set of Throttleables whose events are throttled together. Every method
// is safe from any thread: the mutex guards the lists and the mask, which
// the loop reads first without it (a stale value only delays a decision to
// the next event).
class ThrottleGroup {
 public:
  ThrottleGroup() = default;
  // Freezes what is left.
  ~ThrottleGroup();
  ThrottleGroup(const ThrottleGroup&) = delete;
  ThrottleGroup& operator=(const ThrottleGroup&) = delete;

  // Moves `member` here from its present group.
  void add(Throttleable* member);
  // Counts one more reason to throttle `events`; the first one (*count
  // going to 1) throttles them. Two calls need two maybe_unthrottle.
  // REQUIRES: not a special group ("this != &not_throttled", "this !=
  // &frozen_events").
  void maybe_throttle(events_mask_t events, unsigned* count);
  // Counts one reason less; the last one (*count going to 0) unthrottles.
  // Same REQUIREMENTS.
  void maybe_unthrottle(events_mask_t events, unsigned* count);
  // Gives every throttled member back its cut `events` and takes them out
  // of the group's mask.
  void unthrottle(events_mask_t events);
  // Moves every member to `frozen_events`, where nothing is served; for a
  // group whose owner goes away.
  void freeze();

  // The events throttled now, and the counts of the two lists.
  events_mask_t mask() const { return _mask.load(std::memory_order_relaxed); }
  unsigned memberCount() const;
  unsigned throttledCount() const;

  // Where every Throttleable starts, and where frozen ones go. Never
  // destroyed.
  static ThrottleGroup& not_throttled;
  static ThrottleGroup& frozen_events;

 private:
  friend class Throttleable;

  // Makes the one group whose mask is all ones.
  static ThrottleGroup& makeFrozen();
  void linkMember(Throttleable* member);
  void unlinkMember(Throttleable* member);
  void unlinkThrottled(Throttleable* member);
  void internal_unthrottle(events_mask_t events);

  Throttleable* _members = nullptr;    // guarded by _mutex
  Throttleable* _throttledList = nullptr;  // guarded by _mutex
  std::atomic<events_mask_t> _mask{0};  // written under _mutex
  mutable full_Mutex _mutex;
};
