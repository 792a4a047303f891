// DeletablePruner: keeps the paths of a trie that a user may delete, at
// one level: the stanzas (4) or the settings (5).
#pragma once

#include <set>

#include "libbundle/ConfPathPruners.h"

// One owner, for one prune.
class DeletablePruner : public IConfPathTriePruner {
 public:
  // `user` with `roles`; an empty user is the system and may write
  // everything (removability still counts).
  DeletablePruner(const User& user, const std::set<Str>& roles, unsigned level)
      : _permission(user, roles), _user(user), _roles(roles), _level(level) {}

  // What PermissionPruner keeps, and further: at the wanted level, a node
  // with metadata that is removable (the metadata's flag or the value's,
  // which a writable layer sets); one level above, a parent the user may
  // write (ConfPathPermissions::ALLOW_SET, by the nearest permissions).
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override;

  // Whether the node's layer lets it be removed, as above.
  static bool isRemovable(const ConfPathTrie::Node& node);

 private:
  PermissionPruner _permission;
  User _user;
  std::set<Str> _roles;
  unsigned _level;
};
