#include "util/SSLPolledFd.h"

#include <cerrno>

#include "util/Assert.h"
#include "util/Deadline.h"
#include "util/Logger.h"

namespace {

Logger gLogger("SSLPolledFd");

}  // namespace

SSLPolledFd::SSLPolledFd(const SSLContext* ctx) : _ctx(ctx) {}

SSLPolledFd::~SSLPolledFd() = default;

bool SSLPolledFd::createSSLAndDoHandshake(PollableDescriptor fd) {
  _ssl = std::make_unique<SSLNetworkConnection>(*_ctx, fd.fd(), true);
  _failed = _ssl->handshake() < 0;
  return !_failed;
}

void SSLPolledFd::after_add() {
  if (_ssl == nullptr) createSSLAndDoHandshake(descriptor());
  if (!_failed) followWant();
}

void SSLPolledFd::followWant() {
  changeEvents(_ssl->want() == EV_WRITE ? (EV_READ | EV_WRITE) : EV_READ);
}

bool SSLPolledFd::when_events(PollableDescriptor fd) {
  if (_ssl == nullptr || _failed) return true;
  if (!_ssl->handshakeDone()) {
    const int step = _ssl->handshake();
    if (step < 0) {
      gLogger.debug("TLS handshake with %s failed: %s", peerIp().c_str(),
                    _ssl->lastError().c_str());
      return true;
    }
    followWant();
    if (step == 0) return false;
  }
  return handleEvent(fd);
}

SSLRawDataFd::SSLRawDataFd(const SSLContext* ctx, TcpRawDataFdCallback* callback,
                           size_t bufferSize)
    : SSLPolledFd(ctx), _callback(callback), _buffer(new char[bufferSize]),
      _bufferSize(bufferSize) {
  kassert(bufferSize > 0);
}

bool SSLRawDataFd::handleEvent(PollableDescriptor) {
  for (;;) {
    const ssize_t n = _ssl->read(_buffer.get(), _bufferSize);
    if (n > 0) {
      _callback->rawDataReceived(this, _buffer.get(), static_cast<size_t>(n));
      if (!isActive()) return false;
      continue;
    }
    if (n < 0 && _ssl->want() != 0) {
      followWant();
      return false;
    }
    _callback->rawDataEnded(this, n == 0 ? 0 : (errno != 0 ? errno : EPROTO));
    return true;
  }
}

ssize_t SSLRawDataFd::blockingWrite(const char* data, size_t n, int timeoutMs) {
  const Deadline deadline(timeoutMs);
  size_t done = 0;
  while (done < n) {
    const ssize_t put = _ssl->write(data + done, n - done);
    if (put > 0) {
      done += static_cast<size_t>(put);
      continue;
    }
    if (_ssl->want() == 0) {
      errno = EPROTO;
      return -1;
    }
    const int ready = descriptor().select_for_loop(_ssl->want() == EV_WRITE, deadline.left());
    if (ready < 0) return -1;
    if (ready == 0) {
      errno = ETIMEDOUT;
      return -1;
    }
  }
  return static_cast<ssize_t>(n);
}
