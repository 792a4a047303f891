#include "libbundle/ConfPath.h"

#include <cassert>

#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfPathPruners.h"
#include "libbundle/ConfPathTrie.h"
#include "util/Logger.h"

namespace {

Logger gLogger("ConfPath");

const Str DEFAULT_APPLICATION("system");

// What every mapper of `setup` holds under `query`, first mapper first.
void searchAll(const BundlesSetup& setup, const ConfPathBase& query, ConfPathTrie& out) {
  for (auto m = ConfPathMapperManager::instance().getMappers(setup); !m.isDone(); m.next()) {
    m.data()->cpmSearch(query, out);
  }
}

bool subtreeHas(const ConfPathTrie::Node& node, bool values) {
  if (values ? node.hasValue() : node.hasMetadata()) return true;
  for (const auto& [name, child] : node.children()) {
    if (subtreeHas(*child, values)) return true;
  }
  return false;
}

// A trie holding only `node`'s subtree, at `at`.
ConfPathTrie subtrieAt(const ConfPathBase& at, const ConfPathTrie::Node& node) {
  ConfPathTrie out;
  out.mergeAt(at, node);
  return out;
}

}  // namespace

ConfPathBase::ConfPathBase(const User& user, const Str& application, const Str& type,
                           const Str& stanza, const Str& setting)
    : _segments{user.name(), application, type, stanza, setting} {
  while (!_segments.empty() && _segments.back().empty()) _segments.pop_back();
}

const Str& ConfPathBase::segment(size_t i) const {
  return i < _segments.size() ? _segments[i] : Str::EMPTY_STR;
}

void ConfPathBase::push(const Str& segment) {
  assert(level() < MAX_LEVEL);
  _segments.push_back(segment);
}

void ConfPathBase::pop() {
  assert(level() > 0);
  _segments.pop_back();
}

void ConfPathBase::truncate(size_t level) {
  if (_segments.size() > level) _segments.resize(level);
}

ConfPathBase ConfPathBase::parent() const {
  ConfPathBase out(*this);
  if (out.level() > 0) out.pop();
  return out;
}

ConfPathBase ConfPathBase::child(const Str& segment) const {
  ConfPathBase out(*this);
  out.push(segment);
  return out;
}

bool ConfPathBase::startsWith(const ConfPathBase& prefix) const {
  if (prefix.level() > level()) return false;
  for (size_t i = 0; i < prefix.level(); ++i) {
    if (prefix._segments[i] != _segments[i]) return false;
  }
  return true;
}

bool ConfPathBase::isUserDefault() const {
  return segment(0).empty() || user().isSameUser(ConfPath::getDefaultUser());
}

bool ConfPathBase::isApplicationDefault() const {
  return application().empty() || application() == DEFAULT_APPLICATION;
}

Str ConfPathBase::toString() const {
  if (_segments.empty()) return Str("/");
  Str out;
  for (const Str& s : _segments) {
    out.push_back('/');
    out.append(s);
  }
  return out;
}

ConfPath::ConfPath(const BundlesSetup& setup, const ConfPathBase& path)
    : ConfPathBase(path), _setup(setup) {}

const User& ConfPath::getDefaultUser() { return User::NOBODY_USER; }

const Str& ConfPath::getDefaultApplication() { return DEFAULT_APPLICATION; }

ConfPath& ConfPath::sudo(const User& user, const RoleSet& roles) {
  _actingUser = user;
  _actingRoles = roles;
  return *this;
}

void ConfPath::verifyCanModify() const {
  if (_actingUser.empty()) return;
  if (!isUserDefault() && !user().isSameUser(_actingUser)) {
    throw ConfPathPermissionException(
        Str().format("Cannot modify another user's configuration: %s", toString().c_str()));
  }
  ConfPathBase query(*this);
  query.truncate(LEVEL_TYPE);
  ConfPathTrie found;
  searchAll(_setup, query, found);
  // The deepest existing node on the way down decides through its nearest
  // permissions.
  const ConfPathTrie::Node* node = &found.root();
  for (const Str& s : segments()) {
    const ConfPathTrie::Node* next = node->child(s);
    if (next == nullptr) break;
    node = next;
  }
  const ConfPathPermissions* p = PermissionPruner::effectivePermissions(*node);
  if (p != nullptr && !PermissionPruner::allows(*p, ConfPathPermissions::ALLOW_SET, _actingRoles)) {
    throw ConfPathPermissionException(
        Str().format("Permission denied to modify: %s", toString().c_str()));
  }
}

void ConfPath::verifyCanRemove() const {
  verifyCanModify();
  IConfPathMapper& writer =
      ConfPathMapperManager::instance().getWriteMapper(_setup, *this, WRITE_DATA);
  ConfPathTrie found;
  ConfPathBase query(*this);
  query.truncate(LEVEL_TYPE);
  writer.cpmSearch(query, found);
  const ConfPathTrie::Node* node = found.find(*this);
  if (node == nullptr || !writer.cpmIsWritable()) {
    throw ConfPathPermissionException(Str().format("Cannot remove: %s", toString().c_str()));
  }
}

void ConfPath::cmergeNoLock(ConfPathTrie& changes) const {
  ConfPathMapperManager& manager = ConfPathMapperManager::instance();
  for (const auto& [userName, userNode] : changes.root().children()) {
    for (const auto& [app, appNode] : userNode->children()) {
      const ConfPathBase appPath(User(userName), app);
      // Metadata of the application as a whole goes with the first type,
      // or alone when there is none.
      if (appNode->hasMetadata()) {
        ConfPathTrie only;
        only.setMetadata(appPath, appNode->metadata());
        manager.getWriteMapper(_setup, appPath, WRITE_META).cpmMerge(only);
      }
      for (const auto& [type, typeNode] : appNode->children()) {
        const ConfPathBase typePath = appPath.child(type);
        const ConfPathTrie part = subtrieAt(typePath, *typeNode);
        if (subtreeHas(*typeNode, true)) {
          IConfPathMapper& writer = manager.getWriteMapper(_setup, typePath, WRITE_DATA);
          gLogger.debug("Writing data of %s to %s", typePath.toString().c_str(),
                        writer.cpmPath().c_str());
          writer.cpmMerge(part);
        }
        if (subtreeHas(*typeNode, false)) {
          manager.getWriteMapper(_setup, typePath, WRITE_META).cpmMerge(part);
        }
      }
    }
  }
}
