#include "framework/HTTPAuthManager.h"

#include "framework/HTTPReply.h"
#include "framework/HTTPRequest.h"
#include "framework/SessionManager.h"
#include "framework/UserManager.h"
#include "util/Base64.h"

namespace {

std::unique_ptr<HTTPReply> refusal(const Str& reason, bool challenge) {
  std::unique_ptr<HTTPReply> reply(HTTPReply::createErrorXMLReply(401, reason, Str("WARN")));
  if (challenge) reply->_headers.push_back(Str("WWW-Authenticate: Basic realm=\"Kestrod\""));
  return reply;
}

// The value of the first "Authorization" header (any case), or empty.
Str authorizationOf(const HTTPRequest* request) {
  if (request == nullptr) return Str();
  for (const Str& line : request->headers()) {
    Str name, value;
    if (HTTPRequest::getHeaderComponents(line, name, value) &&
        name.compareIgnoreCase(Str("Authorization")) == 0) {
      return value;
    }
  }
  return Str();
}

}  // namespace

HTTPAuthManager::HTTPAuthManager(UserManager& users, SessionManager& sessions)
    : _users(users), _sessions(sessions) {}

bool HTTPAuthManager::authenticate(const MRestHandlerArg& arg, const RemoteLoginInfo&,
                                   Str& reason, AuthResult& out) {
  const Str header = authorizationOf(arg.getRestRequest());
  if (header.empty()) {
    auto it = arg.getRestGetArgs().find(Str(GET_AUTH_ARG));
    if (_allowGetAuth && it != arg.getRestGetArgs().end() && !it->second.empty()) {
      out.sessionToken = it->second.front();
      return true;
    }
    reason = "Unauthorized: no credentials given";
    out.reply = refusal(reason, true);
    return false;
  }
  const size_t blank = header.find(' ');
  const Str scheme = header.substr(0, blank);
  Str value = blank == Str::npos ? Str() : Str(header.substr(blank + 1));
  value.trimInPlace();
  if (scheme == SESSION_SCHEME && !value.empty()) {
    out.sessionToken = value;
    return true;
  }
  if (scheme.compareIgnoreCase(Str("Basic")) == 0) {
    Str pair;
    size_t colon;
    if (!Base64::decode(value, pair) || (colon = pair.find(':')) == Str::npos) {
      reason = "Unauthorized: malformed Basic credentials";
      out.reply = refusal(reason, true);
      return false;
    }
    const Str user = pair.substr(0, colon);
    const Str password = pair.substr(colon + 1);
    if (!_users.checkPassword(user, password)) {
      reason = "Unauthorized: wrong user name or password";
      out.reply = refusal(reason, true);
      return false;
    }
    UserInfo info;
    out.user = _users.getUserInfo(user, info) ? info.name : user;
    return true;
  }
  reason = "Unauthorized: unknown authorization scheme";
  out.reply = refusal(reason, true);
  return false;
}

bool HTTPAuthManager::login(const Str& user, const Str& password, Str& token) {
  if (!_users.checkPassword(user, password)) return false;
  UserInfo info;
  token = _sessions.beginSession(_users.getUserInfo(user, info) ? info.name : user);
  return true;
}

bool HTTPAuthManager::trustedLogin(const Str& user, Str& token) {
  UserInfo info;
  if (!_users.getUserInfo(user, info) || info.disabled) return false;
  token = _sessions.beginSession(info.name);
  return true;
}
