// SelfPipe and InThreadActorNotify: the pipe through which other threads
// wake an event loop, and the member that then runs their queued work.
#pragma once

#include "util/PolledFd.h"

class InThreadActorList;

// trigger() may be called from any thread; everything else belongs to the
// loop's thread.
class SelfPipe : public PolledReadPipe {
 public:
  // Writes one byte; a full pipe is already triggered, so EAGAIN is fine.
  void trigger() const;
  // Blocks the calling thread until the pipe is readable, then serves it
  // as the loop would: for a loop thread that must wait for other
  // threads' work without returning to its loop.
  void pollForTrigger();
  // Reads single bytes until a read no longer returns 1. EAGAIN is the
  // usual end; any other error throws SelfPipeException ("error from
  // selfpipe read"), and a result above 1 ("invalid return from selfpipe
  // read"). After at least one byte, calls when_triggered(); with none, the
  // end of the pipe finishes the member (true).
  bool when_events(PollableDescriptor fd) override;
  // What a trigger is for. Nothing by default.
  virtual void when_triggered() {}
};

// The loop's own SelfPipe: each trigger runs every actor pending on the
// loop's list, since one byte may stand for many of them.
class InThreadActorNotify : public SelfPipe {
 public:
  explicit InThreadActorNotify(InThreadActorList* list) : _list(list) {}
  void when_triggered() override;

 private:
  InThreadActorList* _list;
};
