#include "util/SocketAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "util/Assert.h"

namespace {

// Opens a close-on-exec socket for `addr`; -1 with errno.
int openSocket(const SocketAddress& addr, int type, int protocol) {
  return ::socket(addr.family(), type | SOCK_CLOEXEC, protocol);
}

// Closes `fd` keeping errno, and returns the invalid descriptor.
PollableDescriptor failClosing(PollableDescriptor fd) {
  fd.close_saveErrno();
  return PollableDescriptor();
}

}  // namespace

SocketAddress::SocketAddress() : _len(0) {
  std::memset(&_addr, 0, sizeof(_addr));
  _addr.ss_family = AF_UNSPEC;
}

SocketAddress::SocketAddress(const sockaddr* addr, socklen_t len) : SocketAddress() {
  kassert(len <= sizeof(sockaddr_storage));
  std::memcpy(&_addr, addr, len);
  _len = len;
}

bool SocketAddress::fromNumeric(const char* text, uint16_t port, SocketAddress* out) {
  SocketAddress a;
  sockaddr_in* v4 = reinterpret_cast<sockaddr_in*>(&a._addr);
  sockaddr_in6* v6 = reinterpret_cast<sockaddr_in6*>(&a._addr);
  if (::inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    a._len = sizeof(sockaddr_in);
  } else if (::inet_pton(AF_INET6, text, &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    a._len = sizeof(sockaddr_in6);
  } else {
    return false;
  }
  *out = a;
  return true;
}

bool SocketAddress::localOf(const FileDescriptor& fd, SocketAddress* out) {
  SocketAddress a;
  a._len = capacity();
  if (::getsockname(fd.fd(), a.sa(), &a._len) != 0) return false;
  *out = a;
  return true;
}

bool SocketAddress::peerOf(const FileDescriptor& fd, SocketAddress* out) {
  SocketAddress a;
  a._len = capacity();
  if (::getpeername(fd.fd(), a.sa(), &a._len) != 0) return false;
  *out = a;
  return true;
}

uint16_t SocketAddress::port() const {
  if (_addr.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in*>(&_addr)->sin_port);
  }
  if (_addr.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&_addr)->sin6_port);
  }
  return 0;
}

Str SocketAddress::ip() const {
  char buf[INET6_ADDRSTRLEN] = "";
  if (_addr.ss_family == AF_INET) {
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&_addr)->sin_addr, buf, sizeof(buf));
  } else if (_addr.ss_family == AF_INET6) {
    ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&_addr)->sin6_addr, buf,
                sizeof(buf));
  }
  return Str(buf);
}

Str SocketAddress::reverseDns() const {
  char host[NI_MAXHOST];
  if (_len != 0 && ::getnameinfo(sa(), _len, host, sizeof(host), nullptr, 0, NI_NAMEREQD) == 0) {
    return Str(host);
  }
  return ip();
}

PollableDescriptor SocketAddress::make_listener(unsigned backlog, int type, int protocol) const {
  PollableDescriptor fd(openSocket(*this, type, protocol));
  if (!fd.valid()) return fd;
  if (!fd.setReuseAddress(true) || !fd.bind(*this) ||
      ::listen(fd.fd(), static_cast<int>(backlog)) != 0) {
    return failClosing(fd);
  }
  fd.setNonblock(true);
  return fd;
}

PollableDescriptor SocketAddress::full_connect(int timeoutMs) const {
  PollableDescriptor fd(openSocket(*this, SOCK_STREAM, 0));
  if (!fd.valid()) return fd;
  if (!fd.connect(*this, timeoutMs)) return failClosing(fd);
  return fd;
}

PollableDescriptor SocketAddress::start_async_connect() const {
  PollableDescriptor fd(openSocket(*this, SOCK_STREAM | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return fd;
  if (!fd.connect(*this)) return failClosing(fd);
  return fd;
}
