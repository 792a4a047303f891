#include "libbundle/DeletablePruner.h"

bool DeletablePruner::isRemovable(const ConfPathTrie::Node& node) {
  return node.isValueRemovable() || (node.hasMetadata() && node.metadata().isRemovable());
}

bool DeletablePruner::keep(const ConfPathBase& path, const ConfPathTrie::Node& node) {
  if (!_permission.keep(path, node)) return false;
  if (path.level() == _level) return node.hasMetadata() && isRemovable(node);
  if (path.level() + 1 == _level && !_user.empty()) {
    const ConfPathPermissions* permissions = PermissionPruner::effectivePermissions(node);
    return permissions == nullptr ||
           PermissionPruner::allows(*permissions, ConfPathPermissions::ALLOW_SET, _roles);
  }
  return true;
}
