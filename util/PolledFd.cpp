#include "util/PolledFd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "util/Assert.h"
#include "util/EventLoop.h"
#include "util/EventLoopException.h"

short PolledFd::toPollEvents(unsigned events) {
  short out = 0;
  if ((events & EV_READ) != 0) out |= POLLIN;
  if ((events & EV_PRI) != 0) out |= POLLPRI;
  if ((events & EV_WRITE) != 0) out |= POLLOUT;
  return out;
}

PolledFd::~PolledFd() { kassert(!isActive()); }

unsigned PolledFd::defaultEvents() const { return EV_READ; }

void PolledFd::after_add() {}

void PolledFd::after_eof(PollableDescriptor) {}

void PolledFd::unthrottleEvents(unsigned events) {
  if (!isActive()) return;
  if (_loop->isInThread()) {
    changeEvents(ourEvents() | events);
    return;
  }
  if (_mode == MODE_POLL) {
    // The loop's thread may be moving its arrays: it registers these itself.
    _pendingEvents.fetch_or(events);
    _loop->noteDeferredEvents();
    return;
  }
  // epoll takes changes from any thread. The loop may have removed the
  // member meanwhile, and then there is nothing to register.
  const unsigned wanted = ourEvents() | events;
  epoll_event ev{};
  ev.events = wanted;
  ev.data.ptr = this;
  if (::syscall(SYS_epoll_ctl, _p.using_epoll.epfd, EPOLL_CTL_MOD, _fd.fd(), &ev) == 0) {
    _events.store(wanted, std::memory_order_relaxed);
  } else if (errno != ENOENT && errno != EBADF) {
    EventLoopException::make(errno, "error from epoll_ctl");
  }
}

void PolledFd::changeEvents(unsigned events) {
  kassert(isActive());
  if (events == ourEvents()) return;
  if (_mode == MODE_EPOLL) {
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = this;
    epoll_ctl(_p.using_epoll.epfd, EPOLL_CTL_MOD, _fd.fd(), &ev);
  } else {
    _p.using_poll.pfd->events = toPollEvents(events);
  }
  _events.store(events, std::memory_order_relaxed);
}

bool PolledFd::do_event() {
  if (group()->mask() != 0) {
    const unsigned revents = _revents;
    const unsigned allowed = checkThrottling(revents, ourEvents());
    if (allowed != ~0u) {
      changeEvents(ourEvents() & allowed);
      changeRevents(revents & allowed);
      if ((revents & allowed) == 0) return false;
    }
  }
  return when_events(_fd);
}

void PolledFd::epoll_ctl(int epfd, int op, int fd, epoll_event* ev) {
  if (::syscall(SYS_epoll_ctl, epfd, op, fd, ev) != 0) {
    EventLoopException::make(errno, "error from epoll_ctl");
  }
}

void PolledFd::epoll_ctl_del(int epfd, int fd) {
  epoll_event ev{};
  if (::syscall(SYS_epoll_ctl, epfd, EPOLL_CTL_DEL, fd, &ev) == 0) return;
  if (errno == EBADF || errno == ENOENT) return;
  EventLoopException::make(errno, "error from epoll_ctl");
}

void ProxyPolledFd::add_to_eventloop(EventLoop* loop) { loop->add(&_proxy, proxyDescriptor()); }

void ProxyPolledFd::remove_from_eventloop(EventLoop* loop) {
  if (_proxy.isActive()) loop->removeActivePolledFd(&_proxy);
}

void ProxyPolledFd::after_eof(PollableDescriptor) {}

PolledReadPipe::PolledReadPipe() {
  int fds[2];
  if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
    EventLoopException::make(errno, "can't create pipe");
  }
  _read = PollableDescriptor(fds[0]);
  _write = PollableDescriptor(fds[1]);
}

PolledReadPipe::~PolledReadPipe() {
  _read.close_saveErrno();
  _write.close_saveErrno();
}
