#include "util/PollableDescriptor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "util/Deadline.h"
#include "util/EventLoopException.h"
#include "util/SSLNetworkConnection.h"
#include "util/SocketAddress.h"

namespace {

bool setIntOption(int fd, int level, int name, int value) {
  return ::setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

}  // namespace

int PollableDescriptor::select_for(bool forWrite, int timeoutMs) const {
  // poll skips a negative descriptor and would wait out the time.
  if (_fd < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd p{_fd, static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
  const int n = ::poll(&p, 1, timeoutMs < 0 ? -1 : timeoutMs);
  if (n <= 0) return n;
  if ((p.revents & POLLNVAL) != 0) {
    errno = EBADF;
    return -1;
  }
  return 1;
}

int PollableDescriptor::select_for_loop(bool forWrite, int timeoutMs) const {
  const Deadline deadline(timeoutMs);
  for (;;) {
    const int n = select_for(forWrite, deadline.left());
    if (n >= 0 || errno != EINTR) return n;
  }
}

ssize_t PollableDescriptor::readWithTimeout(void* buf, size_t n, int timeoutMs) const {
  const Deadline deadline(timeoutMs);
  for (;;) {
    const int ready = select_for_loop(false, deadline.left());
    if (ready < 0) return -1;
    if (ready == 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    const ssize_t got = ::read(_fd, buf, n);
    if (got >= 0 || (errno != EAGAIN && errno != EINTR)) return got;
  }
}

ssize_t PollableDescriptor::writeWithTimeout(const void* buf, size_t n, int timeoutMs) const {
  const Deadline deadline(timeoutMs);
  const char* p = static_cast<const char*>(buf);
  size_t done = 0;
  while (done < n) {
    const ssize_t put = ::send(_fd, p + done, n - done, MSG_NOSIGNAL);
    if (put > 0) {
      done += static_cast<size_t>(put);
      continue;
    }
    if (put < 0 && errno == ENOTSOCK) {
      const ssize_t w = ::write(_fd, p + done, n - done);
      if (w > 0) {
        done += static_cast<size_t>(w);
        continue;
      }
      if (w < 0 && errno != EAGAIN && errno != EINTR) return -1;
    } else if (put < 0 && errno != EAGAIN && errno != EINTR) {
      return -1;
    }
    const int ready = select_for_loop(true, deadline.left());
    if (ready < 0) return -1;
    if (ready == 0) {
      errno = ETIMEDOUT;
      return -1;
    }
  }
  return static_cast<ssize_t>(n);
}

ssize_t PollableDescriptor::writeBlocking(const void* buf, size_t n) const {
  return writeWithTimeout(buf, n, -1);
}

ssize_t PollableDescriptor::recvfrom(void* buf, size_t n, SocketAddress* from) const {
  if (from == nullptr) return ::recvfrom(_fd, buf, n, 0, nullptr, nullptr);
  *from->lenp() = SocketAddress::capacity();
  return ::recvfrom(_fd, buf, n, 0, from->sa(), from->lenp());
}

PollableDescriptor PollableDescriptor::accept() const {
  return PollableDescriptor(::accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC));
}

PollableDescriptor PollableDescriptor::accept(SocketAddress& peer) const {
  *peer.lenp() = SocketAddress::capacity();
  return PollableDescriptor(::accept4(_fd, peer.sa(), peer.lenp(), SOCK_CLOEXEC));
}

bool PollableDescriptor::bind(const SocketAddress& addr) const {
  return ::bind(_fd, addr.sa(), addr.len()) == 0;
}

bool PollableDescriptor::connect(const SocketAddress& addr) const {
  if (::connect(_fd, addr.sa(), addr.len()) == 0) return true;
  return errno == EINPROGRESS;
}

bool PollableDescriptor::connect(const SocketAddress& addr, int timeoutMs) const {
  const bool wasNonblock = isNonblock();
  if (!wasNonblock) setNonblock(true);
  bool ok = ::connect(_fd, addr.sa(), addr.len()) == 0;
  if (!ok && errno == EINPROGRESS) {
    const int ready = select_for_loop(true, timeoutMs);
    if (ready == 0) errno = ETIMEDOUT;
    ok = ready > 0 && finishAsyncConnect();
  }
  const int saved = errno;
  if (!wasNonblock) setNonblock(false);
  errno = saved;
  return ok;
}

bool PollableDescriptor::finishAsyncConnect() const {
  const int err = so_error();
  if (err == 0) return true;
  errno = err;
  return false;
}

int PollableDescriptor::so_error() const {
  int err = 0;
  socklen_t len = sizeof(err);
  if (::getsockopt(_fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
  return err;
}

bool PollableDescriptor::shutdown(int how, SSLNetworkConnection* ssl, bool waitForPeer) const {
  if (ssl != nullptr) ssl->sendClose(waitForPeer);
  return ::shutdown(_fd, how) == 0;
}

int PollableDescriptor::try_setting_bufsize(int option, int size, int minimum) const {
  for (int s = size; s >= minimum && s > 0; s /= 2) {
    if (setIntOption(_fd, SOL_SOCKET, option, s)) return s;
  }
  return 0;
}

void PollableDescriptor::setNonblock(bool on) const {
  const int flags = ::fcntl(_fd, F_GETFL);
  if (flags < 0) PollableDescriptorException::make(errno, "can't F_GETFL");
  const int wanted = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (wanted != flags && ::fcntl(_fd, F_SETFL, wanted) < 0) {
    PollableDescriptorException::make(errno, "can't F_SETFL");
  }
}

bool PollableDescriptor::isNonblock() const {
  const int flags = ::fcntl(_fd, F_GETFL);
  return flags >= 0 && (flags & O_NONBLOCK) != 0;
}

bool PollableDescriptor::setNoDelay(bool on) const {
  return setIntOption(_fd, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
}

bool PollableDescriptor::setKeepAlive(bool on) const {
  return setIntOption(_fd, SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0);
}

bool PollableDescriptor::setReuseAddress(bool on) const {
  return setIntOption(_fd, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}

bool PollableDescriptor::setTTL(int ttl) const {
  return setIntOption(_fd, IPPROTO_IP, IP_TTL, ttl);
}

bool PollableDescriptor::setMcastSelfSend(bool on) const {
  return setIntOption(_fd, IPPROTO_IP, IP_MULTICAST_LOOP, on ? 1 : 0);
}
