#include "libbundle/ConfCaches.h"

#include <map>
#include <utility>

#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfPathPruners.h"
#include "libbundle/DeletablePruner.h"
#include "libbundle/UserChangeDetector.h"

namespace {

// Merges what every mapper of `setup` holds under `query` into `out`, in
// bootstrap order, so the first mapper's value of a node stays. True when
// any mapper found something.
bool searchAllMappers(const BundlesSetup& setup, const ConfPathBase& query, ConfPathTrie& out) {
  bool found = false;
  for (auto mappers = ConfPathMapperManager::instance().getMappers(setup); !mappers.isDone();
       mappers.next()) {
    found = mappers.data()->cpmSearch(query, out) || found;
  }
  return found;
}

// The removable paths of `type` cut below `level` that `user` with `roles`
// may delete; see DeletablePruner.
bool findDeletable(const BundlesSetup& setup, const Str& type, unsigned level, const User& user,
                   ConfPathTrie& out) {
  ConfPathTrie all;
  if (!searchAllMappers(setup, ConfPathBase(User(), Str::EMPTY_STR, type), all)) return false;
  all.cut(level);
  DeletablePruner pruner(user, UserChangeDetector::instance().getRoles(user), level);
  all.prune(pruner);
  out.merge(all);
  return true;
}

}  // namespace

// ---- LegacyConfCache ----

void LegacyConfCache::updateConfCache() {
  _stanzas.clear();
  const ConfPathBase query(ConfPath::getDefaultUser(), Str::EMPTY_STR, getConfName());
  for (auto mappers = ConfPathMapperManager::instance().getMappers(bundlesSetup());
       !mappers.isDone(); mappers.next()) {
    ConfPathTrie trie;
    if (!mappers.data()->cpmSearch(query, trie)) continue;
    trie.cut(ConfPathBase::LEVEL_SETTING);
    DisabledApplicationPruner disabled(bundlesSetup());
    trie.prune(disabled);
    DanglingMetadataPruner dangling;
    trie.prune(dangling);
    updateConfCacheWithTrie(trie, false);
  }
}

bool LegacyConfCache::findDeletableConf(unsigned level, ConfPathTrie& out) {
  return findDeletable(bundlesSetup(), getConfName(), level, User::EMPTY_USER, out);
}

// ---- UserConfCacheSharing ----

UserConfCacheSharing& UserConfCacheSharing::get(const Str& type, const BundlesSetup& setup) {
  static Mutex* mutex = new Mutex;
  static auto* sharings =
      new std::map<std::pair<Str, BundlesSetup>, std::unique_ptr<UserConfCacheSharing>>;
  ScopedLock lock(*mutex);
  auto& sharing = (*sharings)[{type, setup}];
  if (sharing == nullptr) sharing.reset(new UserConfCacheSharing(type, setup));
  return *sharing;
}

void UserConfCacheSharing::updateSharedState() {
  _trie.clear();
  searchAllMappers(_setup, ConfPathBase(User(), Str::EMPTY_STR, _type), _trie);
  _trie.cut(ConfPathBase::LEVEL_SETTING);
  DanglingMetadataPruner danglingMetadata;
  _trie.prune(danglingMetadata);
  DanglingDataPruner danglingData;
  _trie.prune(danglingData);
  DisabledApplicationPruner disabled(_setup);
  _trie.prune(disabled);
}

void UserConfCacheSharing::searchSharedState(const User& user, const Str& application,
                                             ConfPathTrie& out) {
  ScopedLock lock(_mutex);
  if (_dirty.exchange(false)) updateSharedState();
  if (user.empty()) {
    const ConfPathBase at(ConfPath::getDefaultUser(), application);
    if (const ConfPathTrie::Node* node = _trie.find(at)) out.mergeAt(at, *node);
    return;
  }
  ConfPathTrie mine(_trie);
  SingleUserAppContextPruner pruner(user, application);
  mine.prune(pruner);
  out.merge(mine);
}

// ---- UserConfCache ----

UserConfCache::UserConfCache(const Str& confName, const BundlesSetup& setup, const User& user,
                             const Str& application, const User& actingUser)
    : BaseConfCache(confName, setup, application),
      _sharing(UserConfCacheSharing::get(confName, setup)),
      _user(user),
      _application(application),
      _actingUser(actingUser) {}

void UserConfCache::markDirty() {
  _sharing.markDirty();
  BaseConfCache::markDirty();
}

void UserConfCache::updateConfCache() {
  _stanzas.clear();
  ConfPathTrie trie;
  _sharing.searchSharedState(_user, _application, trie);
  if (!_user.empty()) {
    PermissionPruner permissions(_actingUser, UserChangeDetector::instance().getRoles(_actingUser));
    trie.prune(permissions);
  }
  updateConfCacheWithTrie(trie, true);
}

bool UserConfCache::findDeletableConf(unsigned level, ConfPathTrie& out) {
  return findDeletable(bundlesSetup(), getConfName(), level, _actingUser, out);
}
