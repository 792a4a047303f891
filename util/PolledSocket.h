// PolledSocket: a socket in an event loop that other threads may write to
// through the loop; SocketCommandConsumer reads line commands from a local
// socket.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "util/PolledFd.h"
#include "util/Str.h"

class EventLoop;

// Owns its socket and closes it when destroyed. A loop-thread object, but
// for writeFromAnywhere.
class PolledSocket : public SmartEventLoopMember {
 public:
  // Takes ownership of `fd`, which is made non-blocking.
  explicit PolledSocket(PollableDescriptor fd);
  // REQUIRES: out of the loop.
  ~PolledSocket() override;

  // Adds the nested member for readable; removes it if it is in a loop.
  void add_to_eventloop(EventLoop* loop) override;
  void remove_from_eventloop(EventLoop* loop) override;

  // The socket is readable (or ended); true when the member is finished.
  virtual bool when_readable(PollableDescriptor fd) = 0;
  // After the loop removed a finished member. Nothing by default.
  virtual void after_eof(PollableDescriptor fd);

  // Writes all `n` bytes on the loop's thread (PolledSocket_WriteActor,
  // waited for), within `timeoutMs`; n, or -1 with errno. Any thread.
  // REQUIRES: the member was added to a loop.
  ssize_t writeFromAnywhere(const char* data, size_t n, int timeoutMs);

  PollableDescriptor descriptor() const { return _fd; }
  PolledFd& polledFd() { return _pfd; }

 private:
  class Pfd : public PolledFd {
   public:
    explicit Pfd(PolledSocket* owner) : _owner(owner) {}
    bool when_events(PollableDescriptor fd) override { return _owner->when_readable(fd); }
    void after_eof(PollableDescriptor fd) override { _owner->after_eof(fd); }

   private:
    PolledSocket* _owner;
  };

  PollableDescriptor _fd;
  EventLoop* _loop = nullptr;
  Pfd _pfd{this};
};

// A PolledSocket that reads commands, one per line ("\n", with or without
// "\r" before it), and hands each to consumeCommand. A command longer than
// MAX_COMMAND bytes is refused whole: the bytes up to its line's end are
// dropped and badCommand is told. Loop-thread object.
class SocketCommandConsumer : public PolledSocket {
 public:
  static constexpr size_t MAX_COMMAND = 4096;

  using PolledSocket::PolledSocket;

  // Reads what is there; true at the end of the stream or on an error.
  bool when_readable(PollableDescriptor fd) override;
  // One command, without its line end.
  virtual void consumeCommand(const Str& command) = 0;
  // A line past MAX_COMMAND was dropped. Nothing by default.
  virtual void badCommand(size_t length);

 private:
  Str _pending;
  size_t _dropping = 0;  // bytes of an overlong line dropped so far
};
