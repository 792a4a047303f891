// InThreadActor: a piece of work that another thread hands to an event
// loop's thread, carrying its own links so that queueing it allocates
// nothing.
#pragma once

class EventLoop;
class InThreadActorList;

// Abstract. The thread that queues an actor owns it; when it asks to wait,
// it may keep the actor on its stack, since the loop touches it no more once
// the caller is woken. An actor queued without waiting is not touched by the
// loop after callback() begins, so callback() may delete it.
class InThreadActor {
 public:
  InThreadActor() = default;
  // REQUIRES: not pending on a list ("_prevp == nullptr").
  virtual ~InThreadActor();
  InThreadActor(const InThreadActor&) = delete;
  InThreadActor& operator=(const InThreadActor&) = delete;

  // The work, run once on the loop's thread (or, with the loop down, on
  // the thread that holds the loop's in-thread use).
  virtual void callback() = 0;

  // Whether the thread that queued it waits for callback() to finish.
  bool waits() const { return _wait; }

 private:
  friend class EventLoop;
  friend class InThreadActorList;

  bool _wait = false;
  bool _done = false;                 // guarded by the list's mutex
  InThreadActor* _next = nullptr;     // guarded by the list's mutex
  InThreadActor** _prevp = nullptr;   // null: not pending
};
