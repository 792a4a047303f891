// User: the name of the user a configuration layer belongs to or a request
// acts for. Small on purpose: the name and the caseless comparisons that
// configuration needs.
#pragma once

#include "util/Str.h"

// A plain value: one owner at a time, const methods safe to share.
class User {
 public:
  // The user of every layer that belongs to nobody in particular: "nobody".
  static const User NOBODY_USER;
  // No user at all: "".
  static const User EMPTY_USER;

  User() = default;
  explicit User(const Str& name) : _name(name) {}

  const Str& name() const { return _name; }
  bool empty() const { return _name.empty(); }

  // User names are compared without regard to case wherever two users are
  // asked to be the same one: "Admin" is "admin". The name is kept as it
  // was given.
  bool isSameUser(const User& other) const { return compareIgnoreCase(other) == 0; }
  // -1, 0 or 1, caseless (mem_compare_caseless); for caseless orderings.
  int compareIgnoreCase(const User& other) const { return _name.compareIgnoreCase(other._name); }

  // Exact, byte for byte; for containers that need one spelling per entry.
  bool operator==(const User& other) const { return _name == other._name; }
  bool operator<(const User& other) const { return _name < other._name; }

 private:
  Str _name;
};
