// UsernameMapper: user names as directory names. A name that is safe is a
// directory of its own under "users"; any other lives, encoded, under the
// reserved directory: users/<reserved>/<safe form>/<app>.
#pragma once

#include "libbundle/User.h"
#include "util/Str.h"

// Stateless; safe from any thread.
class UsernameMapper {
 public:
  // "_encoded": the directory under "users" that holds unsafe names. It is
  // itself no safe user name.
  static const Str& getReservedUsername();

  // Non-empty, not beginning with ".", not the reserved name, and only
  // ASCII letters, digits, "_", "-", "." and "@". Case does not matter:
  // "Admin" is safe.
  bool isSafeUsername(const Str& user) const;
  // The user's directory below "users" when the name is not safe: the
  // reserved name, "/", then "u" and the lower-case hex of the name's bytes
  // folded to lower case ("A/b" gives "_encoded/u612f62"). Works for any
  // name, safe ones too.
  Str getSafeUsername(const Str& user) const;
  // The user that a safe form encodes; `safe` is the directory after the
  // reserved one ("u612f62") or the whole getSafeUsername text. False for
  // anything else, `out` left alone.
  bool getRealUsername(const Str& safe, User& out) const;
};
