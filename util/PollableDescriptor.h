// PollableDescriptor: a descriptor with the socket operations the event
// loop and its members use, and waits with a time limit for the moments
// when a member must block.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

#include "util/FileDescriptor.h"

class SocketAddress;
class SSLNetworkConnection;

// A value wrapper like FileDescriptor: it never closes on its own. Thread
// story: one owner at a time. Timeouts are in milliseconds, and a negative
// one means no limit. Every wait repeats on EINTR with the time that is
// left, so a signal never shortens or lengthens it.
class PollableDescriptor : public FileDescriptor {
 public:
  PollableDescriptor() = default;
  explicit PollableDescriptor(int fd) : FileDescriptor(fd) {}
  explicit PollableDescriptor(FileDescriptor fd) : FileDescriptor(fd) {}

  // One wait for readable (or writable): 1 when ready (an error or hang-up
  // counts as ready, so that the next call reports it), 0 when the time ran
  // out, -1 with errno when poll failed (EINTR included).
  int select_for(bool forWrite, int timeoutMs) const;
  // select_for repeated over EINTR until ready or the time is spent.
  int select_for_loop(bool forWrite, int timeoutMs) const;

  // Waits to be readable and reads once: the bytes read, 0 at the end, -1
  // with errno (ETIMEDOUT when nothing came in time). A non-blocking
  // descriptor's EAGAIN means another wait.
  ssize_t readWithTimeout(void* buf, size_t n, int timeoutMs) const;
  // Writes all `n` bytes, waiting as needed, within `timeoutMs` overall.
  // Returns n, or -1 with errno (ETIMEDOUT) when it could not; bytes
  // written before a failure are lost to the caller, as with a broken pipe.
  ssize_t writeWithTimeout(const void* buf, size_t n, int timeoutMs) const;
  // writeWithTimeout without a limit.
  ssize_t writeBlocking(const void* buf, size_t n) const;
  // One datagram or stream read with the sender's address in *from (may be
  // null). The platform's result.
  ssize_t recvfrom(void* buf, size_t n, SocketAddress* from) const;

  // The next connection of a listening socket, close-on-exec; invalid with
  // errno (EAGAIN when none waits on a non-blocking one).
  PollableDescriptor accept() const;
  PollableDescriptor accept(SocketAddress& peer) const;
  bool bind(const SocketAddress& addr) const;
  // Connects; on a non-blocking socket EINPROGRESS is a true result. False
  // with errno otherwise.
  bool connect(const SocketAddress& addr) const;
  // Connects within `timeoutMs`, leaving the blocking mode as it was.
  // False with errno (ETIMEDOUT) on failure.
  bool connect(const SocketAddress& addr, int timeoutMs) const;
  // After an asynchronous connect became writable: true when it succeeded,
  // false with errno set to the connect's error.
  bool finishAsyncConnect() const;
  // The pending socket error (SO_ERROR), or errno when asking failed.
  int so_error() const;
  // Sends a TLS close first when `ssl` is given (and, with `waitForPeer`,
  // waits a moment for the peer's), then shuts the socket down for `how`
  // (SHUT_RD, SHUT_WR, SHUT_RDWR). False with errno when the socket's
  // shutdown failed.
  bool shutdown(int how, SSLNetworkConnection* ssl, bool waitForPeer) const;
  // Asks for a buffer (SO_SNDBUF or SO_RCVBUF as `option`) of `size` bytes,
  // halving the request until the platform accepts one of at least
  // `minimum`; returns the size accepted, or 0 when none was.
  int try_setting_bufsize(int option, int size, int minimum) const;

  // Switches; each returns false with errno when the platform refuses.
  // setNonblock instead throws PollableDescriptorException ("can't
  // F_GETFL", "can't F_SETFL"): a member cannot work in the wrong mode.
  void setNonblock(bool on) const;
  bool isNonblock() const;
  bool setNoDelay(bool on) const;
  bool setKeepAlive(bool on) const;
  bool setReuseAddress(bool on) const;
  bool setTTL(int ttl) const;
  bool setMcastSelfSend(bool on) const;
};
