// SocketAddress: an IPv4 or IPv6 address with its port, and the sockets that
// start from one: listeners, blocking connects and asynchronous connects.
#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "util/PollableDescriptor.h"
#include "util/Str.h"

// A plain value; const methods are safe to share.
class SocketAddress {
 public:
  // No address (family AF_UNSPEC, length 0).
  SocketAddress();
  // Copies `len` bytes of `addr`. REQUIRES: len <= sizeof(sockaddr_storage).
  SocketAddress(const sockaddr* addr, socklen_t len);

  // Reads a numeric IPv4 ("127.0.0.1") or IPv6 ("::1") address; no name
  // lookup. False, leaving *out alone, for anything else.
  static bool fromNumeric(const char* text, uint16_t port, SocketAddress* out);
  // The address a socket is bound to (getsockname), or its peer
  // (getpeername); false with errno on failure.
  static bool localOf(const FileDescriptor& fd, SocketAddress* out);
  static bool peerOf(const FileDescriptor& fd, SocketAddress* out);

  int family() const { return _addr.ss_family; }
  const sockaddr* sa() const { return reinterpret_cast<const sockaddr*>(&_addr); }
  sockaddr* sa() { return reinterpret_cast<sockaddr*>(&_addr); }
  socklen_t len() const { return _len; }
  // For calls that fill the address: the room, then the length used.
  socklen_t* lenp() { return &_len; }
  static constexpr socklen_t capacity() { return sizeof(sockaddr_storage); }

  // The port in host order; 0 for no address.
  uint16_t port() const;
  // The numeric text: "127.0.0.1", "::1"; empty for no address.
  Str ip() const;
  // The peer's name by reverse lookup, or ip() when there is none.
  Str reverseDns() const;

  // A socket bound to this address with SO_REUSEADDR, listening with
  // `backlog`, close-on-exec and non-blocking. `type` is the socket type
  // (SOCK_STREAM), `protocol` its protocol (0). Returns an invalid
  // descriptor, errno set and nothing left open, on failure.
  PollableDescriptor make_listener(unsigned backlog, int type, int protocol) const;
  // A close-on-exec stream socket connected to this address, waiting at
  // most `timeoutMs` (negative: without limit); it comes back blocking.
  // Invalid, with errno (ETIMEDOUT when the time ran out), on failure.
  PollableDescriptor full_connect(int timeoutMs) const;
  // A non-blocking close-on-exec stream socket whose connect has begun (or
  // already finished). Wait for it to be writable, then call
  // finishAsyncConnect(). Invalid, with errno, when the connect failed at
  // once.
  PollableDescriptor start_async_connect() const;

 private:
  sockaddr_storage _addr;
  socklen_t _len;
};
