// Who a REST request comes from: the remote side of the connection
// (RemoteLoginInfo) and the check of its credentials (HTTPAuthManager).
//
// Credentials come in the "Authorization" header, in either scheme:
//   Authorization: Kestro <session token>        from /auth/login
//   Authorization: Basic <base64 of user:password>
// With allowGetAuth, a session token may also come as the argument
// "session_key" of the query string.
#pragma once

#include <memory>

#include "framework/RestHandler.h"
#include "util/Str.h"

class HTTPReply;
class SessionManager;
class UserManager;

// The remote side of one request. A plain value.
class RemoteLoginInfo {
 public:
  explicit RemoteLoginInfo(const FdConnectionData& connection)
      : _ip(connection.peerIp.empty() ? connection.peerName : connection.peerIp),
        _port(connection.peerPort), _ssl(connection.ssl) {}
  const Str& ip() const { return _ip; }
  unsigned short port() const { return _port; }
  bool ssl() const { return _ssl; }

 private:
  Str _ip;
  unsigned short _port;
  bool _ssl;
};

// What authenticate found. With `sessionToken` set the caller still has to
// find the session; with `user` set and no token the password was checked.
struct AuthResult {
  Str user;
  Str sessionToken;
  std::unique_ptr<HTTPReply> reply;  // the refusal to send, when any
};

// Borrows the user and session managers, which must outlive it. Safe from
// any thread.
class HTTPAuthManager {
 public:
  static constexpr const char* SESSION_SCHEME = "Kestro";
  static constexpr const char* GET_AUTH_ARG = "session_key";

  HTTPAuthManager(UserManager& users, SessionManager& sessions);

  // Reads the credentials of `arg`. True with `out` filled when they are
  // usable: a session token (not yet looked up) or a user whose password
  // matched. False with `reason` and a 401 reply in out.reply otherwise:
  // no credentials ("WWW-Authenticate: Basic realm=\"Kestrod\"" added),
  // an unknown scheme, bad base64, or a wrong user or password (one
  // message for both). Passwords never reach a log or a reply.
  bool authenticate(const MRestHandlerArg& arg, const RemoteLoginInfo& remote, Str& reason,
                    AuthResult& out);
  // Checks the password and begins a session; its token into `token`.
  // False, `token` untouched, for a wrong user or password.
  bool login(const Str& user, const Str& password, Str& token);
  // Begins a session for `user` with no password; false for an unknown or
  // disabled user.
  bool trustedLogin(const Str& user, Str& token);

  void setAllowGetAuth(bool allow) { _allowGetAuth = allow; }
  bool allowGetAuth() const { return _allowGetAuth; }
  UserManager& userManager() { return _users; }
  SessionManager& sessionManager() { return _sessions; }

 private:
  UserManager& _users;
  SessionManager& _sessions;
  bool _allowGetAuth = false;
};
