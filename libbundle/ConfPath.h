// ConfPathBase and ConfPath: a point in configuration space, the address
// that the store, its mappers and the caches above them agree on. A path has
// up to five segments, in this order: user, application, configuration type
// (the ".conf" name), stanza, setting. Its level is the number of segments:
//   ()                              level 0, the root
//   (nobody)                        level 1
//   (nobody, search)                level 2
//   (nobody, search, props)         level 3
//   (nobody, search, props, syslog) level 4
//   (nobody, search, props, syslog, TZ) level 5
#pragma once

#include <set>
#include <vector>

#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/User.h"
#include "util/Str.h"

class ConfPathTrie;

// A plain value: one owner at a time, const methods safe to share.
// As a query (IConfPathMapper::cpmSearch), an empty segment matches every
// value at its level and the level bounds the depth searched: the query
// (nobody, "", props) finds the "props" type of every application of the
// default user, down to its settings.
class ConfPathBase {
 public:
  enum Level : size_t {
    LEVEL_ROOT = 0,
    LEVEL_USER = 1,
    LEVEL_APPLICATION = 2,
    LEVEL_TYPE = 3,
    LEVEL_STANZA = 4,
    LEVEL_SETTING = 5,
  };
  static constexpr size_t MAX_LEVEL = LEVEL_SETTING;

  ConfPathBase() = default;
  // The path of the given segments; trailing empty segments are dropped, so
  // (u, a, "", "", "") is level 2, while (u, "", t) keeps its empty
  // application (level 3).
  ConfPathBase(const User& user, const Str& application, const Str& type = Str::EMPTY_STR,
               const Str& stanza = Str::EMPTY_STR, const Str& setting = Str::EMPTY_STR);

  size_t level() const { return _segments.size(); }
  // Segment `i` (0-based), or "" past the level.
  const Str& segment(size_t i) const;
  const std::vector<Str>& segments() const { return _segments; }
  // The named segments; "" (an empty User) past the level.
  User user() const { return User(segment(0)); }
  const Str& application() const { return segment(1); }
  const Str& type() const { return segment(2); }
  const Str& stanza() const { return segment(3); }
  const Str& setting() const { return segment(4); }

  // Appends one segment. REQUIRES: level() < MAX_LEVEL.
  void push(const Str& segment);
  // Drops the last segment. REQUIRES: level() > 0.
  void pop();
  // Keeps the first `level` segments (nothing when already at most that).
  void truncate(size_t level);
  ConfPathBase parent() const;
  ConfPathBase child(const Str& segment) const;
  // Whether every segment of `prefix` equals this path's at that place
  // (the root is a prefix of every path).
  bool startsWith(const ConfPathBase& prefix) const;

  // The user is ConfPath::getDefaultUser(), without regard to case; an
  // empty user counts as the default too.
  bool isUserDefault() const;
  // The application is ConfPath::getDefaultApplication() exactly, or empty.
  bool isApplicationDefault() const;

  // "/nobody/search/props/syslog": each segment after a "/", "/" for the
  // root. For logs only: segments may hold "/" themselves.
  Str toString() const;

  bool operator==(const ConfPathBase& o) const { return _segments == o._segments; }
  bool operator!=(const ConfPathBase& o) const { return _segments != o._segments; }
  // Segment by segment, bytewise, a shorter prefix first: trie walk order.
  bool operator<(const ConfPathBase& o) const { return _segments < o._segments; }

 private:
  std::vector<Str> _segments;
};

// A path in one configuration root, with the user who acts on it. The
// permission checks and the write go to the mappers of that root.
// A plain value; the operations that touch the store lock per mapper and
// are meant to run under the caller's write mutex (Part of the cache's
// contract: cmergeNoLock takes no lock of its own).
class ConfPath : public ConfPathBase {
 public:
  typedef std::set<Str> RoleSet;
  // Flags of getWriteMapper/toMapperPath: where in a bundle a write goes.
  static constexpr unsigned WRITE_DATA = 0;
  static constexpr unsigned WRITE_META = 1;
  static constexpr unsigned WRITE_PACK = 2;

  ConfPath(const BundlesSetup& setup, const ConfPathBase& path);

  // "nobody": the user of every layer that no user owns.
  static const User& getDefaultUser();
  // "system": the application of the system's own layers.
  static const Str& getDefaultApplication();

  // Acts as `user` with `roles` from now on: the permission checks ask
  // whether this user may act. An empty user (the default) acts as the
  // system itself, which may do everything. Returns *this.
  ConfPath& sudo(const User& user, const RoleSet& roles = RoleSet());
  const User& actingUser() const { return _actingUser; }
  const RoleSet& actingRoles() const { return _actingRoles; }
  const BundlesSetup& bundlesSetup() const { return _setup; }

  // Throws ConfPathPermissionException unless the acting user may write
  // this path: the system may always; a user may write in his own user
  // layer ("Cannot modify another user's configuration: %s"); elsewhere the
  // nearest metadata at or above the path that has permissions decides,
  // and one of the acting roles (or "*") must be allowed ALLOW_SET
  // ("Permission denied to modify: %s"). No permissions anywhere: allowed.
  void verifyCanModify() const;
  // verifyCanModify, and the path must exist in a writable (local) layer,
  // since a default layer cannot be removed: "Cannot remove: %s" (the
  // ConfPathPermissionException).
  void verifyCanRemove() const;

  // Writes `changes`, a trie of values and metadata rooted at the store's
  // root, into the bundles that take writes: values through
  // getWriteMapper(WRITE_DATA), metadata through getWriteMapper(WRITE_META),
  // each (user, application, type) subtree to its own writer. Only what the
  // trie holds is written: settings absent from it keep their value.
  // Throws ConfPathHasNoWriter when a subtree has no writer, and
  // ConfPathException when a file cannot be written. Takes no lock: the
  // caller holds the write mutex and the ScopedConfMutex.
  void cmergeNoLock(ConfPathTrie& changes) const;

 private:
  BundlesSetup _setup;
  User _actingUser;
  RoleSet _actingRoles;
};
