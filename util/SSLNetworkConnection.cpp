#include "util/SSLNetworkConnection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

#include "util/Assert.h"

namespace {

constexpr unsigned WANT_READ_EVENTS = 1;
constexpr unsigned WANT_WRITE_EVENTS = 4;

// The library's queued reasons, oldest first, joined by "; ".
Str takeLibraryErrors() {
  Str out;
  for (unsigned long e = ERR_get_error(); e != 0; e = ERR_get_error()) {
    char buf[256];
    ERR_error_string_n(e, buf, sizeof(buf));
    if (!out.empty()) out += "; ";
    out += buf;
  }
  return out;
}

void setError(Str* error, const char* what, const Pathname& path) {
  if (error == nullptr) return;
  const Str reason = takeLibraryErrors();
  error->format("%s \"%s\": %s", what, path.c_str(), reason.c_str());
}

}  // namespace

SSLContext::~SSLContext() { SSL_CTX_free(_ctx); }

std::unique_ptr<SSLContext> SSLContext::makeServer(const Pathname& certChain,
                                                   const Pathname& privateKey, Str* error) {
  ERR_clear_error();
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  if (ctx == nullptr) {
    setError(error, "can't create TLS context for", certChain);
    return nullptr;
  }
  std::unique_ptr<SSLContext> out(new SSLContext(ctx));
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_mode(ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  if (SSL_CTX_use_certificate_chain_file(ctx, certChain.c_str()) != 1) {
    setError(error, "can't load certificate", certChain);
    return nullptr;
  }
  // The library also refuses here a key that does not match the certificate.
  if (SSL_CTX_use_PrivateKey_file(ctx, privateKey.c_str(), SSL_FILETYPE_PEM) != 1) {
    setError(error, "can't load private key", privateKey);
    return nullptr;
  }
  return out;
}

std::unique_ptr<SSLContext> SSLContext::makeClient(const Pathname& caFile, Str* error) {
  ERR_clear_error();
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  if (ctx == nullptr) {
    setError(error, "can't create TLS context for", caFile);
    return nullptr;
  }
  std::unique_ptr<SSLContext> out(new SSLContext(ctx));
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_mode(ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  if (!caFile.empty()) {
    if (SSL_CTX_load_verify_locations(ctx, caFile.c_str(), nullptr) != 1) {
      setError(error, "can't load certificate authorities", caFile);
      return nullptr;
    }
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  }
  return out;
}

SSLNetworkConnection::SSLNetworkConnection(const SSLContext& ctx, int fd, bool isServer)
    : _ssl(SSL_new(ctx.native())), _fd(fd) {
  kassert(_ssl != nullptr);
  SSL_set_fd(_ssl, fd);
  if (isServer) {
    SSL_set_accept_state(_ssl);
  } else {
    SSL_set_connect_state(_ssl);
  }
}

SSLNetworkConnection::~SSLNetworkConnection() { SSL_free(_ssl); }

ssize_t SSLNetworkConnection::settle(int result) {
  _want = 0;
  if (result > 0) return result;
  const int code = SSL_get_error(_ssl, result);
  switch (code) {
    case SSL_ERROR_WANT_READ:
      _want = WANT_READ_EVENTS;
      errno = EAGAIN;
      return -1;
    case SSL_ERROR_WANT_WRITE:
      _want = WANT_WRITE_EVENTS;
      errno = EAGAIN;
      return -1;
    case SSL_ERROR_ZERO_RETURN:
      return 0;
    case SSL_ERROR_SYSCALL: {
      const int err = errno;
      _lastError = takeLibraryErrors();
      if (_lastError.empty()) {
        // The peer went away without a close message.
        if (result == 0 || err == 0) return 0;
        _lastError = Str(strerror(err));
      }
      return -1;
    }
    default:
      _lastError = takeLibraryErrors();
      if (_lastError.empty()) _lastError.format("TLS error %d", code);
      errno = EPROTO;
      return -1;
  }
}

int SSLNetworkConnection::handshake() {
  if (_handshakeDone) return 1;
  ERR_clear_error();
  const int result = SSL_do_handshake(_ssl);
  if (result == 1) {
    _handshakeDone = true;
    _want = 0;
    return 1;
  }
  const ssize_t settled = settle(result);
  if (_want != 0) return 0;
  if (settled == 0 && _lastError.empty()) _lastError = "connection closed during TLS handshake";
  return -1;
}

ssize_t SSLNetworkConnection::read(void* buf, size_t n) {
  ERR_clear_error();
  return settle(SSL_read(_ssl, buf, static_cast<int>(n)));
}

ssize_t SSLNetworkConnection::write(const void* buf, size_t n) {
  ERR_clear_error();
  const ssize_t r = settle(SSL_write(_ssl, buf, static_cast<int>(n)));
  return r == 0 ? -1 : r;
}

size_t SSLNetworkConnection::pending() const { return static_cast<size_t>(SSL_pending(_ssl)); }

bool SSLNetworkConnection::sendClose(bool waitForPeer) {
  ERR_clear_error();
  int result = SSL_shutdown(_ssl);
  if (result == 0 && waitForPeer) {
    pollfd p{_fd, POLLIN, 0};
    if (::poll(&p, 1, 1000) > 0) result = SSL_shutdown(_ssl);
  }
  if (result < 0) settle(result);
  return result >= 0;
}
