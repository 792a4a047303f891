// Signals as ordinary work: the process's catcher turns an asynchronous
// signal into one byte on a pipe, and the pipe's reader, a member of one
// event loop, calls the registered handlers on that loop's thread, never in
// signal context.
#pragma once

#include <vector>

#include "util/Mutex.h"
#include "util/PolledFd.h"

class EventLoop;

// Something that wants to hear of a signal. Called on the thread of the
// loop the SignalHandler is attached to.
class MSignalHandler {
 public:
  virtual ~MSignalHandler() = default;
  // `signal` arrived. REQUIRES: does not register or unregister handlers.
  virtual void handleSignal(int signal) = 0;
};

// The process's signal dispatcher, made on first use and never destroyed.
//
// Thread story: catchSignal, releaseSignal, registerHandler and
// unregisterHandler are safe from any thread; the pipe member belongs to the
// loop it was attached to. The catcher itself only write()s one byte, which
// is async-signal-safe, and keeps errno.
//
// Delivery: every arrival of a caught signal is one byte, and each byte read
// on the loop's thread calls every registered handler once, in ascending
// order of priority (equal priorities in the order of registration). A
// signal that arrives while the pipe is full (thousands pending) is dropped.
class SignalHandler : public PolledReadPipe {
 public:
  static SignalHandler& instance();

  // Routes `signal` through the pipe from now on (sigaction with
  // SA_RESTART); false, with errno, when the platform refuses.
  bool catchSignal(int signal);
  // Gives `signal` back its default action; what is already on the pipe is
  // still delivered.
  bool releaseSignal(int signal);

  // Adds `handler` (borrowed) at `priority`; a handler already registered
  // only changes its priority. It must be unregistered before it dies.
  void registerHandler(MSignalHandler* handler, int priority);
  // Forgets `handler`; unknown ones are ignored. Blocks while a delivery is
  // running, so that after the return the handler is no longer called.
  void unregisterHandler(MSignalHandler* handler);

  // Puts the pipe's reader into `loop`, or takes it out. The loop's thread,
  // or before the loop runs. REQUIRES: detached before `loop` is destroyed;
  // attached to one loop at a time.
  void attach(EventLoop* loop) { add_to_eventloop(loop); }
  void detach(EventLoop* loop) { remove_from_eventloop(loop); }

  // Reads every pending byte and calls the handlers for each. Loop thread.
  bool when_events(PollableDescriptor fd) override;

 private:
  SignalHandler();
  void deliver(int signal);

  struct Entry {
    int priority;
    unsigned serial;
    MSignalHandler* handler;
  };
  full_Mutex _mutex;
  std::vector<Entry> _handlers;  // GUARDED_BY(_mutex), sorted by (priority, serial)
  unsigned _nextSerial = 0;      // GUARDED_BY(_mutex)
};
