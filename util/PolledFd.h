// PolledFd: a descriptor that is a member of an EventLoop, with the events
// it polls for and what it does when they come; and the members that hold
// their own PolledFds (SmartEventLoopMember, ProxyPolledFd, PolledReadPipe).
#pragma once

#include <atomic>
#include <cstdint>

#include "util/PollableDescriptor.h"
#include "util/ScopedErrnoSaver.h"
#include "util/Throttle.h"

class EventLoop;
struct epoll_event;
struct pollfd;

// Abstract. A member belongs to its loop's thread; only throttling reaches
// it from other threads, under its group's mutex. Event masks use the values
// of epoll (Throttle.h): on the poll path POLLIN and POLLRDNORM read as 1,
// POLLPRI and POLLRDBAND as 2, POLLOUT and POLLWRNORM as 4, POLLERR as 8,
// POLLHUP as 0x10.
class PolledFd : public Throttleable {
 public:
  static constexpr unsigned EV_READ = 1;
  static constexpr unsigned EV_PRI = 2;
  static constexpr unsigned EV_WRITE = 4;
  static constexpr unsigned EV_ERR = 8;
  static constexpr unsigned EV_HUP = 0x10;

  PolledFd() = default;
  // REQUIRES: no longer in a loop ("!isActive()").
  ~PolledFd() override;

  // Polls for `events` again: ourEvents() | events. From another thread on
  // the poll path the change waits for the loop's thread, which is woken;
  // on the epoll path it is registered at once, and a member that the loop
  // removed meanwhile is left alone.
  void unthrottleEvents(unsigned events) override;
  // The events add() registers when given none: readable.
  virtual unsigned defaultEvents() const;
  // Called by add() once the member is registered.
  virtual void after_add();
  // Called after the loop removed a member whose when_events returned true;
  // `fd` is the descriptor it had. The member may delete itself here.
  virtual void after_eof(PollableDescriptor fd);
  // The events in epoll_revents() have come. True when the member is
  // finished: the loop removes it and calls after_eof.
  virtual bool when_events(PollableDescriptor fd) = 0;

  bool isActive() const { return _mode != MODE_NONE; }
  PollableDescriptor descriptor() const { return _fd; }
  EventLoop* eventLoop() const { return _loop; }

  // Registers `events` in place of ourEvents(). Throws EventLoopException
  // ("error from epoll_ctl") when epoll refuses. REQUIRES: isActive().
  void changeEvents(unsigned events);
  // The registered events.
  unsigned ourEvents() const { return _events.load(std::memory_order_relaxed); }
  // The events being served, as the loop received them (or as changed).
  unsigned epoll_revents() const { return _revents; }
  void changeRevents(unsigned revents) { _revents = revents; }
  // Serves epoll_revents(): cuts what the throttle group holds back, and
  // calls when_events with what is left; false without calling it when
  // nothing is left.
  bool do_event();

  // epoll_ctl by system call number; a failure throws EventLoopException
  // ("error from epoll_ctl").
  static void epoll_ctl(int epfd, int op, int fd, epoll_event* ev);
  // EPOLL_CTL_DEL that accepts a descriptor already closed (closing one
  // takes it out of epoll on its own).
  static void epoll_ctl_del(int epfd, int fd);

 private:
  friend class EventLoop;

  enum Mode : unsigned char { MODE_NONE, MODE_POLL, MODE_EPOLL };

  // The poll events that stand for an event mask; error and hang-up need
  // none, poll reports them always.
  static short toPollEvents(unsigned events);

  PollableDescriptor _fd;
  union {
    struct {
      int epfd;
    } using_epoll;
    struct {
      pollfd* pfd;  // this member's slot in its loop's array
    } using_poll;
  } _p{};
  std::atomic<unsigned> _events{0};
  unsigned _revents = 0;  // the event in service
  // Poll path: events given back by another thread, for the loop to
  // register before its next poll.
  std::atomic<unsigned> _pendingEvents{0};
  EventLoop* _loop = nullptr;
  Mode _mode = MODE_NONE;
};

// Abstract: something that holds its own PolledFds and knows how to put
// them into a loop and take them out. Both calls belong to the loop's
// thread; EventLoop::addFromAnywhere brings them there from others.
class SmartEventLoopMember {
 public:
  virtual ~SmartEventLoopMember() = default;
  virtual void add_to_eventloop(EventLoop* loop) = 0;
  virtual void remove_from_eventloop(EventLoop* loop) = 0;
};

// A SmartEventLoopMember with one nested PolledFd that forwards its events
// here. Belongs to its loop's thread.
class ProxyPolledFd : public SmartEventLoopMember {
 public:
  ProxyPolledFd() : _proxy(this) {}
  // Adds the nested member for readable on proxyDescriptor().
  void add_to_eventloop(EventLoop* loop) override;
  // Removes it, if it is in a loop.
  void remove_from_eventloop(EventLoop* loop) override;

  // As PolledFd::when_events and after_eof, for the nested member.
  virtual bool when_events(PollableDescriptor fd) = 0;
  virtual void after_eof(PollableDescriptor fd);
  // The descriptor the nested member polls.
  virtual PollableDescriptor proxyDescriptor() const = 0;

  PolledFd& polledFd() { return _proxy; }

 private:
  class proxy_polledfd : public PolledFd {
   public:
    explicit proxy_polledfd(ProxyPolledFd* owner) : _owner(owner) {}
    bool when_events(PollableDescriptor fd) override { return _owner->when_events(fd); }
    void after_eof(PollableDescriptor fd) override { _owner->after_eof(fd); }

   private:
    ProxyPolledFd* _owner;
  };

  proxy_polledfd _proxy;
};

// A pipe whose read end is polled by a loop. Owns both ends, non-blocking
// and close-on-exec. One owner: the loop's thread, except that the write
// end may be written from anywhere.
class PolledReadPipe : public ProxyPolledFd {
 public:
  // Throws EventLoopException ("can't create pipe") when the platform
  // refuses.
  PolledReadPipe();
  ~PolledReadPipe() override;

  PollableDescriptor proxyDescriptor() const override { return _read; }
  PollableDescriptor readEnd() const { return _read; }
  PollableDescriptor writeEnd() const { return _write; }
  // Closes the write end, so that the reader sees the end of the pipe.
  void closeWriteEnd() { _write.close(); }

 private:
  PollableDescriptor _read;
  PollableDescriptor _write;
};
