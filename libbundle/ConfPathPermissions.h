// ConfPathPermissions: who may read and who may write one node of the
// configuration store, as sets of role names per action; and
// ConfPathPermissionsReference, the shared handle through which settings
// and stanzas carry them.
#pragma once

#include <memory>
#include <set>

#include "util/Str.h"

// A plain value: one owner at a time, const methods safe to share. Once
// handed to a ConfPathPermissionsReference it is never changed again.
class ConfPathPermissions {
 public:
  // The actions that a role may be allowed. The values index the sets.
  enum Action { ALLOW_GET = 0, ALLOW_SET = 1 };
  static constexpr int ACTION_COUNT = 2;
  typedef std::set<Str> RoleSet;

  // Adds `role` to the set of `action`. Roles are kept as given and
  // compared exactly; a role already there is not added twice.
  void allow(Action action, const Str& role) { _roles[action].insert(role); }
  // Whether `role` is in the set of `action`. No role stands for others:
  // a role "*" is a name like any other here.
  bool isAllowed(Action action, const Str& role) const { return _roles[action].count(role) != 0; }
  const RoleSet& roles(Action action) const { return _roles[action]; }

  // True when no action has any role: such a node says nothing of its own.
  bool empty() const;
  // Both sets equal.
  bool operator==(const ConfPathPermissions& other) const;
  // "read : [ a, b ], write : [ c ]" with the roles in order; "read : [ ],
  // write : [ ]" when empty. For logs.
  Str toString() const;

 private:
  RoleSet _roles[ACTION_COUNT];
};

// A shared, reference-counted, immutable ConfPathPermissions, or none. The
// count is atomic, so copies may be made and dropped on any thread; the
// permissions behind it are never changed.
class ConfPathPermissionsReference {
 public:
  // Refers to nothing; empty().
  ConfPathPermissionsReference() = default;
  // Refers to a copy of `permissions`, allocated here and shared by copies.
  explicit ConfPathPermissionsReference(const ConfPathPermissions& permissions)
      : _shared(std::make_shared<const ConfPathPermissions>(permissions)) {}

  // True when it refers to nothing or to permissions without any role: in
  // both cases a node takes its permissions from elsewhere.
  bool empty() const { return _shared == nullptr || _shared->empty(); }
  // The permissions; an empty set when it refers to nothing. The reference
  // stays valid as long as this handle or a copy of it refers to them.
  const ConfPathPermissions& get() const;
  // Whether both refer to the very same shared object (or both to none).
  bool isSameObject(const ConfPathPermissionsReference& other) const {
    return _shared == other._shared;
  }
  // How many handles share the object, 0 for none. For tests and logs.
  long useCount() const { return _shared.use_count(); }

 private:
  std::shared_ptr<const ConfPathPermissions> _shared;
};
