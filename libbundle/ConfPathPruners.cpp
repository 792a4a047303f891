#include "libbundle/ConfPathPruners.h"

#include "libbundle/ApplicationManager.h"

namespace {

bool holdsValue(const ConfPathTrie::Node& node) {
  if (node.hasValue()) return true;
  for (const auto& [name, child] : node.children()) {
    if (holdsValue(*child)) return true;
  }
  return false;
}

// Removes the nodes at `depth` >= LEVEL_STANZA without any value below.
void dropValueless(ConfPathTrie& trie, const ConfPathTrie::Node& node, ConfPathBase& path,
                   std::vector<ConfPathBase>& doomed) {
  for (const auto& [name, child] : node.children()) {
    path.push(name);
    if (path.level() >= ConfPathBase::LEVEL_STANZA && !holdsValue(*child)) {
      doomed.push_back(path);
    } else {
      dropValueless(trie, *child, path, doomed);
    }
    path.pop();
  }
}

}  // namespace

void IConfPathTriePruner::finish(ConfPathTrie&) {}

bool DanglingMetadataPruner::keep(const ConfPathBase&, const ConfPathTrie::Node&) { return true; }

void DanglingMetadataPruner::finish(ConfPathTrie& trie) {
  std::vector<ConfPathBase> doomed;
  ConfPathBase path;
  dropValueless(trie, trie.root(), path, doomed);
  for (const ConfPathBase& p : doomed) trie.remove(p);
}

bool DanglingDataPruner::isDangling(const ConfPathBase& path, const ConfPathTrie::Node& node) {
  if (path.level() < ConfPathBase::LEVEL_TYPE || !path.isUserDefault() ||
      path.application() != ConfPath::getDefaultApplication() || !node.hasMetadata()) {
    return false;
  }
  const ConfPathMetadata& md = node.metadata();
  const bool otherOwner = !md.owner().empty() && !md.owner().isSameUser(ConfPath::getDefaultUser());
  const bool otherApp =
      !md.application().empty() && md.application() != ConfPath::getDefaultApplication();
  return otherOwner || otherApp;
}

bool DanglingDataPruner::keep(const ConfPathBase& path, const ConfPathTrie::Node& node) {
  return !isDangling(path, node);
}

bool DisabledApplicationPruner::keep(const ConfPathBase& path, const ConfPathTrie::Node&) {
  if (path.level() != ConfPathBase::LEVEL_APPLICATION) return true;
  return !ApplicationManager::instance(_setup).isDisabled(path.application());
}

const ConfPathPermissions* PermissionPruner::effectivePermissions(const ConfPathTrie::Node& node) {
  for (const ConfPathTrie::Node* n = &node; n != nullptr; n = n->parent()) {
    if (n->hasMetadata() && !n->metadata().permissions().empty()) {
      return &n->metadata().permissions().get();
    }
  }
  return nullptr;
}

bool PermissionPruner::allows(const ConfPathPermissions& p, ConfPathPermissions::Action action,
                              const std::set<Str>& roles) {
  if (p.isAllowed(action, "*")) return true;
  for (const Str& role : roles) {
    if (p.isAllowed(action, role)) return true;
  }
  return false;
}

bool PermissionPruner::keep(const ConfPathBase& path, const ConfPathTrie::Node& node) {
  if (_user.empty()) return true;
  if (path.level() == ConfPathBase::LEVEL_USER) {
    return path.isUserDefault() || path.user().isSameUser(_user);
  }
  const ConfPathPermissions* p = effectivePermissions(node);
  if (p == nullptr || allows(*p, ConfPathPermissions::ALLOW_GET, _roles)) return true;
  // A node's own permissions override those it would inherit, so a
  // readable stanza keeps the path to it open.
  return opensBelow(node);
}

bool PermissionPruner::opensBelow(const ConfPathTrie::Node& node) const {
  for (const auto& [name, child] : node.children()) {
    if (child->hasMetadata() && !child->metadata().permissions().empty() &&
        allows(child->metadata().permissions().get(), ConfPathPermissions::ALLOW_GET, _roles)) {
      return true;
    }
    if (opensBelow(*child)) return true;
  }
  return false;
}

ConfPathMetadata::Export SingleUserAppContextPruner::effectiveExport(
    const ConfPathTrie::Node& node) {
  for (const ConfPathTrie::Node* n = &node; n != nullptr; n = n->parent()) {
    if (n->hasMetadata() && n->metadata().exportTo() != ConfPathMetadata::EXPORT_NONE) {
      return n->metadata().exportTo();
    }
  }
  return ConfPathMetadata::EXPORT_NONE;
}

bool SingleUserAppContextPruner::keep(const ConfPathBase& path, const ConfPathTrie::Node& node) {
  if (path.level() == ConfPathBase::LEVEL_USER) {
    return path.isUserDefault() || (!_user.empty() && path.user().isSameUser(_user));
  }
  if (path.application() == _application || path.isApplicationDefault()) return true;
  if (path.level() == ConfPathBase::LEVEL_APPLICATION) {
    // Decided below: an application may export some types or stanzas only.
    return true;
  }
  if (effectiveExport(node) == ConfPathMetadata::EXPORT_GLOBAL) return true;
  // A type node stays while some stanza below it is exported.
  if (path.level() == ConfPathBase::LEVEL_TYPE) {
    for (const auto& [name, child] : node.children()) {
      if (effectiveExport(*child) == ConfPathMetadata::EXPORT_GLOBAL) return true;
    }
  }
  return false;
}
