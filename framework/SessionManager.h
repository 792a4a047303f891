// Sessions of the management port: random tokens handed out at login and
// presented with later requests, each forgotten after an idle time.
#pragma once

#include <cstdint>
#include <map>

#include "util/Mutex.h"
#include "util/Str.h"
#include "util/Timeval.h"

struct SessionInfo {
  Str user;
  Timeval created;
  Timeval lastUsed;
};

// Safe from any thread: the table is under one mutex. Tokens are 128 bits
// from RAND_bytes written as 32 lower-case hex digits. The table is keyed
// by the SHA-256 of the token, so a lookup's timing says nothing about how
// much of a guessed token was right, and the tokens themselves are never
// kept. "Now" is Timeval::now(), the process's clock seam.
class SessionManager {
 public:
  static constexpr int64_t DEFAULT_IDLE_TIMEOUT_SEC = 3600;

  explicit SessionManager(int64_t idleTimeoutSec = DEFAULT_IDLE_TIMEOUT_SEC);

  // A new session for `user`; its token. Throws std::runtime_error when no
  // random bytes can be had.
  Str beginSession(const Str& user);
  // The session of `token` into `out`, its idle clock restarted; false for
  // an unknown token and for one idle longer than the timeout (which is
  // then forgotten). `out` is untouched on false.
  bool getSessionInfo(const Str& token, SessionInfo& out);
  // Forgets the session; false when there was none.
  bool endSession(const Str& token);
  // Forgets every session idle past the timeout; the number forgotten.
  size_t expireIdle();
  size_t size();
  void setIdleTimeout(int64_t seconds);
  int64_t idleTimeout();

 private:
  static Str keyOf(const Str& token);
  Mutex _mutex;
  std::map<Str, SessionInfo> _sessions;  // GUARDED_BY(_mutex), by keyOf(token)
  int64_t _idleTimeoutSec;               // GUARDED_BY(_mutex)
};
