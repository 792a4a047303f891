// SSLContext and SSLNetworkConnection: TLS over a socket, used the
// non-blocking way. The one seam to the TLS library: only
// SSLNetworkConnection.cpp includes its headers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

#include "util/Pathname.h"
#include "util/Str.h"

struct ssl_ctx_st;
struct ssl_st;

// One TLS configuration: a server's certificate and key, or a client's
// settings. Immutable once made; safe to share between connections and
// threads.
class SSLContext {
 public:
  ~SSLContext();
  SSLContext(const SSLContext&) = delete;
  SSLContext& operator=(const SSLContext&) = delete;

  // A server context with the certificate chain and the private key in PEM
  // files. Null, with the library's reason and the path in *error, when a
  // file is missing or unreadable, or the key does not match:
  // "can't load private key \"/etc/key.pem\": ... key values mismatch".
  static std::unique_ptr<SSLContext> makeServer(const Pathname& certChain,
                                                const Pathname& privateKey, Str* error);
  // A client context. With `caFile` non-empty, the peer must present a
  // certificate that it signs; empty, any certificate is taken (for
  // loopback tests and for peers checked by other means). Null with *error
  // when the file cannot be used.
  static std::unique_ptr<SSLContext> makeClient(const Pathname& caFile, Str* error);

  ssl_ctx_st* native() const { return _ctx; }

 private:
  explicit SSLContext(ssl_ctx_st* ctx) : _ctx(ctx) {}
  ssl_ctx_st* _ctx;
};

// One TLS session over a socket that the caller owns and keeps open for
// the session's life. One owner at a time. Every operation that would
// block returns -1 (or 0 for handshake) and says in want() whether it waits
// for the socket to be readable (1) or writable (4), in the event values of
// PolledFd; a failure returns -1 with want() 0 and the reason in
// lastError().
class SSLNetworkConnection {
 public:
  // REQUIRES: `ctx` outlives the connection.
  SSLNetworkConnection(const SSLContext& ctx, int fd, bool isServer);
  ~SSLNetworkConnection();
  SSLNetworkConnection(const SSLNetworkConnection&) = delete;
  SSLNetworkConnection& operator=(const SSLNetworkConnection&) = delete;

  // One step of the handshake: 1 when it is done, 0 when it waits (see
  // want()), -1 when it failed.
  int handshake();
  bool handshakeDone() const { return _handshakeDone; }
  // Bytes read (> 0); 0 when the peer closed the session (with or without
  // a close message); -1 otherwise.
  ssize_t read(void* buf, size_t n);
  // Bytes written (> 0, all of `n` unless partial writes are allowed), or
  // -1.
  ssize_t write(const void* buf, size_t n);
  // Bytes the library holds decrypted, readable without the socket.
  size_t pending() const;
  // Sends the close message; with `waitForPeer`, waits up to a second for
  // the peer's. False when the session could not be closed cleanly.
  bool sendClose(bool waitForPeer);

  unsigned want() const { return _want; }
  const Str& lastError() const { return _lastError; }
  int fd() const { return _fd; }

 private:
  // Turns a library result into want() and lastError(); returns what the
  // caller returns.
  ssize_t settle(int result);

  ssl_st* _ssl;
  int _fd;
  bool _handshakeDone = false;
  unsigned _want = 0;
  Str _lastError;
};
