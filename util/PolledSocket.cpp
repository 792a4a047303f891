#include "util/PolledSocket.h"

#include <unistd.h>

#include <cerrno>

#include "util/Assert.h"
#include "util/EventLoop.h"

// Writes for another thread on the loop's thread.
class PolledSocket_WriteActor : public InThreadActor {
 public:
  PolledSocket_WriteActor(PollableDescriptor fd, const char* data, size_t n, int timeoutMs)
      : _fd(fd), _data(data), _n(n), _timeoutMs(timeoutMs) {}
  void callback() override {
    result = _fd.writeWithTimeout(_data, _n, _timeoutMs);
    error = errno;
  }

  ssize_t result = -1;
  int error = 0;

 private:
  PollableDescriptor _fd;
  const char* _data;
  size_t _n;
  int _timeoutMs;
};

PolledSocket::PolledSocket(PollableDescriptor fd) : _fd(fd) { _fd.setNonblock(true); }

PolledSocket::~PolledSocket() { _fd.close_saveErrno(); }

void PolledSocket::add_to_eventloop(EventLoop* loop) {
  _loop = loop;
  loop->add(&_pfd, _fd);
}

void PolledSocket::remove_from_eventloop(EventLoop* loop) {
  if (_pfd.isActive()) loop->removeActivePolledFd(&_pfd);
}

void PolledSocket::after_eof(PollableDescriptor) {}

ssize_t PolledSocket::writeFromAnywhere(const char* data, size_t n, int timeoutMs) {
  kassert(_loop != nullptr);
  PolledSocket_WriteActor actor(_fd, data, n, timeoutMs);
  _loop->internal_runInThread(&actor, true);
  errno = actor.error;
  return actor.result;
}

void SocketCommandConsumer::badCommand(size_t) {}

bool SocketCommandConsumer::when_readable(PollableDescriptor fd) {
  char buf[4096];
  for (;;) {
    const ssize_t n = ::read(fd.fd(), buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return false;
    if (n <= 0) return true;
    for (ssize_t i = 0; i < n; ++i) {
      const char c = buf[i];
      if (c == '\n') {
        if (_dropping > 0) {
          badCommand(_dropping);
          _dropping = 0;
        } else {
          if (!_pending.empty() && _pending.back() == '\r') _pending.pop_back();
          consumeCommand(_pending);
        }
        _pending.clear();
      } else if (_dropping > 0) {
        ++_dropping;
      } else if (_pending.size() == MAX_COMMAND) {
        _dropping = _pending.size() + 1;
        _pending.clear();
      } else {
        _pending.push_back(c);
      }
    }
  }
}
