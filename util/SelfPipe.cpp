#include "util/SelfPipe.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "util/EventLoopException.h"
#include "util/InThreadActorList.h"

void SelfPipe::trigger() const {
  const char byte = 0;
  ScopedErrnoSaver keep;
  ssize_t n;
  do {
    n = ::write(writeEnd().fd(), &byte, 1);
  } while (n < 0 && errno == EINTR);
}

void SelfPipe::pollForTrigger() {
  pollfd p{readEnd().fd(), POLLIN, 0};
  while (::poll(&p, 1, -1) < 0 && errno == EINTR) {
  }
  when_events(readEnd());
}

bool SelfPipe::when_events(PollableDescriptor fd) {
  unsigned got = 0;
  for (;;) {
    char byte;
    const ssize_t n = ::read(fd.fd(), &byte, 1);
    if (n == 1) {
      ++got;
      continue;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) SelfPipeException::make(errno, "error from selfpipe read");
      break;
    }
    if (n > 1) SelfPipeException::make(0, "invalid return from selfpipe read");
    if (got == 0) return true;  // the end of the pipe
    break;
  }
  if (got > 0) when_triggered();
  return false;
}

void InThreadActorNotify::when_triggered() {
  bool more = true;
  while (more) {
    InThreadActor* actor = _list->getNext(&more);
    if (actor == nullptr) break;
    _list->run(actor);
  }
}
