// UserChangeDetector: the roles each user was last seen with, so that the
// pages acting as a user are rebuilt when an administrator changes them.
#pragma once

#include <map>
#include <set>

#include "libbundle/User.h"
#include "util/Mutex.h"
#include "util/Str.h"

// One per process (instance()). Safe from any thread.
class UserChangeDetector {
 public:
  typedef std::set<Str> RoleSet;

  static UserChangeDetector& instance();

  // Records `roles` as the user's most recent ones. True when the user was
  // seen before with other roles; false on first sight and when nothing
  // changed. Users are told apart without regard to case.
  bool hasChanged(const User& user, const RoleSet& roles);
  // The most recent roles of `user`; empty when never seen.
  RoleSet getRoles(const User& user) const;

 private:
  struct CaselessLess {
    bool operator()(const Str& a, const Str& b) const { return a.compareIgnoreCase(b) < 0; }
  };
  mutable Mutex _mutex;
  std::map<Str, RoleSet, CaselessLess> _roles;  // guarded by _mutex
};
