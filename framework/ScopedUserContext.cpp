#include "framework/ScopedUserContext.h"

namespace {

thread_local ScopedUserContext* tCurrent = nullptr;

}  // namespace

ScopedUserContext::ScopedUserContext(const User& user, const Str& sessionToken)
    : _user(user), _sessionToken(sessionToken), _previous(tCurrent) {
  tCurrent = this;
}

ScopedUserContext::~ScopedUserContext() { tCurrent = _previous; }

void ScopedUserContext::setTimezone(const Str& tz) { _timezone = tz; }

bool ScopedUserContext::getCurrentUser(User& out) {
  if (tCurrent == nullptr) return false;
  out = tCurrent->_user;
  return true;
}

Str ScopedUserContext::getCurrentSessionToken() {
  return tCurrent == nullptr ? Str() : tCurrent->_sessionToken;
}

Str ScopedUserContext::getCurrentTimezone() {
  return tCurrent == nullptr ? Str() : tCurrent->_timezone;
}
