// The pruners of a ConfPathTrie: each decides, node by node in walk order,
// what a reader of the store may see. ConfPathTrie::prune drives them.
#pragma once

#include <functional>
#include <set>

#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPathTrie.h"
#include "libbundle/User.h"

// A pruner is used by one thread at a time; it may keep state between
// keep() calls of one prune.
class IConfPathTriePruner {
 public:
  virtual ~IConfPathTriePruner() = default;
  // Whether the node of `path` stays. A node refused goes with its subtree,
  // whose nodes are then not asked.
  virtual bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) = 0;
  // Runs once after the walk, on the pruned trie. Does nothing by default.
  virtual void finish(ConfPathTrie& trie);
};

// Keeps what the function keeps; for one-off filters of applications or
// users.
class FunctionPruner : public IConfPathTriePruner {
 public:
  typedef std::function<bool(const ConfPathBase&, const ConfPathTrie::Node&)> Keep;
  explicit FunctionPruner(Keep keep) : _keep(std::move(keep)) {}
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override {
    return _keep(path, node);
  }

 private:
  Keep _keep;
};

// Metadata whose data is gone: removes each stanza or setting (level 4 and
// deeper) whose subtree holds no value at all. Types and applications keep
// their metadata, which speaks for everything below them.
class DanglingMetadataPruner : public IConfPathTriePruner {
 public:
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override;
  void finish(ConfPathTrie& trie) override;
};

// Data left in the system layer that belongs elsewhere: removes each node
// under (default user, default application) whose metadata names an owner
// other than the default user, or an application other than the default
// one. ConfPathFixer moves such data to its place.
class DanglingDataPruner : public IConfPathTriePruner {
 public:
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override;
  // Whether `node`, at `path`, is dangling data in the sense above.
  static bool isDangling(const ConfPathBase& path, const ConfPathTrie::Node& node);
};

// Removes the application nodes (level 2) of applications that
// ApplicationManager for `setup` knows as disabled. Unknown applications
// and "system" stay.
class DisabledApplicationPruner : public IConfPathTriePruner {
 public:
  explicit DisabledApplicationPruner(const BundlesSetup& setup) : _setup(setup) {}
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override;

 private:
  BundlesSetup _setup;
};

// What `user` with `roles` may read. Another user's layer (level 1, neither
// the default user nor `user`, without regard to case) is removed. Below,
// the nearest metadata at or above a node that has permissions decides:
// one of `roles`, or "*", must be allowed ALLOW_GET. No permissions on the
// way up: readable. A node's own permissions override what it inherits, so
// an unreadable node stays when a node below it is readable by its own
// permissions (and its other children are decided one by one). An empty
// `user` is the system and keeps everything.
class PermissionPruner : public IConfPathTriePruner {
 public:
  PermissionPruner(const User& user, const std::set<Str>& roles) : _user(user), _roles(roles) {}
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override;
  // The permissions that govern `node`: its own or its nearest ancestor's
  // that are not empty; null when none.
  static const ConfPathPermissions* effectivePermissions(const ConfPathTrie::Node& node);
  // Whether any of `roles` or "*" is allowed `action` by `p`.
  static bool allows(const ConfPathPermissions& p, ConfPathPermissions::Action action,
                     const std::set<Str>& roles);

 private:
  bool opensBelow(const ConfPathTrie::Node& node) const;

  User _user;
  std::set<Str> _roles;
};

// What the context (user, application) sees: the default user's layer and
// `user`'s own (caseless); within them the context's application and
// "system" whole, and of every other application only what is exported
// "global" (the nearest export at or above a node decides). An empty
// `user` keeps the default user's layer only.
class SingleUserAppContextPruner : public IConfPathTriePruner {
 public:
  SingleUserAppContextPruner(const User& user, const Str& application)
      : _user(user), _application(application) {}
  bool keep(const ConfPathBase& path, const ConfPathTrie::Node& node) override;
  // The export in force at `node`: its own metadata's or the nearest
  // ancestor's that is not EXPORT_NONE.
  static ConfPathMetadata::Export effectiveExport(const ConfPathTrie::Node& node);

 private:
  User _user;
  Str _application;
};
