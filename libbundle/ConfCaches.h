// The two caches behind pages of layered configuration: LegacyConfCache for
// a page with neither user nor application, UserConfCache for one with an
// application, and UserConfCacheSharing, the one search of the store that
// all UserConfCaches of a type and root share.
#pragma once

#include <atomic>
#include <memory>

#include "libbundle/BaseConfCache.h"
#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPathTrie.h"
#include "libbundle/User.h"
#include "util/Mutex.h"
#include "util/Str.h"

// Thread story: as IConfCache.
class LegacyConfCache : public BaseConfCache {
 public:
  LegacyConfCache(const Str& confName, const BundlesSetup& setup) : BaseConfCache(confName, setup) {}

  // Searches each mapper in bootstrap order for this type under the default
  // user, cuts below settings, drops disabled applications and dangling
  // metadata, and builds with overwrite off: the first mapper that
  // supplies a key wins.
  void updateConfCache() override;
  // The removable paths of the whole type, for the system.
  bool findDeletableConf(unsigned level, ConfPathTrie& out) override;
};

// The store's contents of one type in one root, searched once for every
// UserConfCache of that type and root. Safe from any thread.
class UserConfCacheSharing {
 public:
  // The sharing of (`type`, `setup`), made on first use and never freed.
  static UserConfCacheSharing& get(const Str& type, const BundlesSetup& setup);

  // The next search reads the mappers again.
  void markDirty() { _dirty = true; }
  // Merges into `out` what the context sees of the shared trie. With an
  // empty `user`: the subtree of (default user, `application`). With a
  // user: what SingleUserAppContextPruner(user, application) keeps.
  void searchSharedState(const User& user, const Str& application, ConfPathTrie& out);

 private:
  UserConfCacheSharing(const Str& type, const BundlesSetup& setup) : _type(type), _setup(setup) {}
  // Searches all mappers in bootstrap order into the trie (a node keeps
  // the value it has), cuts below settings, and prunes dangling metadata,
  // dangling data and disabled applications. REQUIRES: _mutex held.
  void updateSharedState();

  const Str _type;
  const BundlesSetup _setup;
  std::atomic<bool> _dirty{true};
  Mutex _mutex;
  ConfPathTrie _trie;  // guarded by _mutex
};

// Thread story: as IConfCache.
class UserConfCache : public BaseConfCache {
 public:
  // `user` and `application` are the page's context, `actingUser` whom it
  // acts as.
  UserConfCache(const Str& confName, const BundlesSetup& setup, const User& user,
                const Str& application, const User& actingUser);

  // Marks the shared search dirty too, so a change reaches every page.
  void markDirty() override;
  // The context's part of the shared trie; with a user, pruned to what the
  // acting user may read with his most recent roles (UserChangeDetector);
  // built with overwrite on, so the most specific source type wins.
  void updateConfCache() override;
  // The removable paths of the context that the acting user may delete.
  bool findDeletableConf(unsigned level, ConfPathTrie& out) override;

 private:
  UserConfCacheSharing& _sharing;
  const User _user;
  const Str _application;
  const User _actingUser;
};
