// TLS connections in an event loop: SSLPolledFd drives the handshake of an
// accepted socket without blocking and then hands its events to the data
// path; SSLRawDataFd is the data path that delivers decrypted bytes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>

#include "util/SSLNetworkConnection.h"
#include "util/TcpPolledFd.h"

// A server-side TLS connection. Loop-thread object, with the ownership
// rules of TcpPolledFd.
class SSLPolledFd : public TcpPolledFd {
 public:
  // REQUIRES: `ctx` is a server context that outlives the member.
  explicit SSLPolledFd(const SSLContext* ctx);
  ~SSLPolledFd() override;

  // Creates the session on `fd` and takes the first handshake step; false
  // when the handshake failed at once (the member then ends at its next
  // event).
  bool createSSLAndDoHandshake(PollableDescriptor fd);
  SSLNetworkConnection* getSSL() override { return _ssl.get(); }
  // Starts the handshake as soon as the loop has the member.
  void after_add() override;
  // Drives the handshake until it is done, polling for what the library
  // waits for, then passes events to handleEvent. True (the member ends)
  // when the handshake fails.
  bool when_events(PollableDescriptor fd) override;
  // The data path, once the session is up. Returns as when_events.
  virtual bool handleEvent(PollableDescriptor fd) = 0;

 protected:
  // Polls for readable, and writable as well when the library waits for it.
  void followWant();

  const SSLContext* _ctx;
  std::unique_ptr<SSLNetworkConnection> _ssl;
  bool _failed = false;
};

// A TLS connection that reads whatever comes, in chunks of up to
// `bufferSize` bytes, and hands it to its callback.
class SSLRawDataFd : public SSLPolledFd {
 public:
  // REQUIRES: bufferSize > 0; `callback` outlives the member.
  SSLRawDataFd(const SSLContext* ctx, TcpRawDataFdCallback* callback, size_t bufferSize);
  // Reads until the library wants more from the socket; true at the end
  // of the session or on an error.
  bool handleEvent(PollableDescriptor fd) override;
  // Encrypts and writes all `n` bytes, waiting on the socket for whatever
  // the library asks, within `timeoutMs` (negative: no limit); n, or -1
  // with errno (ETIMEDOUT, EPROTO).
  ssize_t blockingWrite(const char* data, size_t n, int timeoutMs) override;

 private:
  TcpRawDataFdCallback* _callback;
  std::unique_ptr<char[]> _buffer;
  size_t _bufferSize;
};
