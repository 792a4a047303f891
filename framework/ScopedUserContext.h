// The user a request thread acts for, set for the length of a scope: read
// by the identity layer's IUserInfoProvider so that configuration is read
// and written as that user.
#pragma once

#include "libbundle/User.h"
#include "util/Str.h"

// Thread-local: each scope belongs to the thread that made it, and scopes
// nest; the destructor brings back what was there before.
class ScopedUserContext {
 public:
  // Acts as `user`, with `sessionToken` (may be empty) and no time zone.
  ScopedUserContext(const User& user, const Str& sessionToken);
  ~ScopedUserContext();
  ScopedUserContext(const ScopedUserContext&) = delete;
  ScopedUserContext& operator=(const ScopedUserContext&) = delete;

  // The time zone name of the user (from users.conf "tz"), for the code
  // that formats times for him; empty is the server's own.
  void setTimezone(const Str& tz);

  // The innermost scope's user on this thread; false outside any scope.
  static bool getCurrentUser(User& out);
  // The innermost scope's session token and time zone; empty outside.
  static Str getCurrentSessionToken();
  static Str getCurrentTimezone();

 private:
  User _user;
  Str _sessionToken;
  Str _timezone;
  ScopedUserContext* _previous;
};
