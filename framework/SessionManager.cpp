#include "framework/SessionManager.h"

#include <openssl/rand.h>
#include <openssl/sha.h>

#include <stdexcept>

namespace {

constexpr size_t TOKEN_BYTES = 16;

Str hex(const unsigned char* data, size_t len) {
  Str out;
  for (size_t i = 0; i < len; ++i) out.appendFormat("%02x", data[i]);
  return out;
}

bool isIdle(const SessionInfo& s, const Timeval& now, int64_t timeoutSec) {
  return now.tv_sec - s.lastUsed.tv_sec > timeoutSec;
}

}  // namespace

SessionManager::SessionManager(int64_t idleTimeoutSec) : _idleTimeoutSec(idleTimeoutSec) {}

Str SessionManager::keyOf(const Str& token) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(token.data()), token.size(), digest);
  return Str(reinterpret_cast<const char*>(digest), sizeof(digest));
}

Str SessionManager::beginSession(const Str& user) {
  unsigned char bytes[TOKEN_BYTES];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) {
    throw std::runtime_error("no random bytes for a session token");
  }
  const Str token = hex(bytes, sizeof(bytes));
  SessionInfo info;
  info.user = user;
  info.created = Timeval::now();
  info.lastUsed = info.created;
  ScopedLock hold(_mutex);
  _sessions[keyOf(token)] = info;
  return token;
}

bool SessionManager::getSessionInfo(const Str& token, SessionInfo& out) {
  const Str key = keyOf(token);
  const Timeval now = Timeval::now();
  ScopedLock hold(_mutex);
  auto it = _sessions.find(key);
  if (it == _sessions.end()) return false;
  if (isIdle(it->second, now, _idleTimeoutSec)) {
    _sessions.erase(it);
    return false;
  }
  it->second.lastUsed = now;
  out = it->second;
  return true;
}

bool SessionManager::endSession(const Str& token) {
  const Str key = keyOf(token);
  ScopedLock hold(_mutex);
  return _sessions.erase(key) > 0;
}

size_t SessionManager::expireIdle() {
  const Timeval now = Timeval::now();
  ScopedLock hold(_mutex);
  size_t n = 0;
  for (auto it = _sessions.begin(); it != _sessions.end();) {
    if (isIdle(it->second, now, _idleTimeoutSec)) {
      it = _sessions.erase(it);
      ++n;
    } else {
      ++it;
    }
  }
  return n;
}

size_t SessionManager::size() {
  ScopedLock hold(_mutex);
  return _sessions.size();
}

void SessionManager::setIdleTimeout(int64_t seconds) {
  ScopedLock hold(_mutex);
  _idleTimeoutSec = seconds;
}

int64_t SessionManager::idleTimeout() {
  ScopedLock hold(_mutex);
  return _idleTimeoutSec;
}
