// ConfChangeWatcher: a FilesystemChangeWatcher over the "apps" and "users"
// trees of a root that tells the owning mapper of each changed file, so
// that configuration edited on disk is read again.
//
// Thread story: the hooks run on the watcher's thread; init() and the
// listener are set up before start().
#pragma once

#include <functional>

#include "libbundle/BundlesSetup.h"
#include "libbundle/IConfPathMapper.h"
#include "util/FilesystemChangeWatcher.h"

// The state of one watched path, with the mapper found for it.
class WatchedConfState : public WatchedFileState {
 public:
  IConfPathMapper* getCachedMapper() const { return _mapper; }
  void setCachedMapper(IConfPathMapper* mapper) { _mapper = mapper; }

 private:
  IConfPathMapper* _mapper = nullptr;
};

class ConfChangeWatcher : public FilesystemChangeWatcher {
 public:
  // The delay, in milliseconds, before a change is reported again.
  static constexpr unsigned long DEFER_MSEC = 4200;
  // Told after a mapper accepted a complete change: the root and the
  // mapper. The caches of Part of the pages layer mark themselves dirty
  // here. Runs on the watcher's thread.
  typedef std::function<void(const BundlesSetup&, IConfPathMapper*)> Listener;

  // The interval is ConfSettings::getStatInterval() of `setup`.
  explicit ConfChangeWatcher(const BundlesSetup& setup);
  ConfChangeWatcher(const BundlesSetup& setup, unsigned long intervalMsec);

  // setupConfWatches(); true when at least one tree is watched.
  bool init();
  // Watches getApps() and getUsers().
  void setupConfWatches();
  void setListener(Listener listener) { _listener = std::move(listener); }

 protected:
  // ConfSettings::shouldWatchPath.
  bool shouldWatchPath(const Pathname& path, WatchedFileState* state) override;
  // Logs "%s: Possible file change". A directory: DISPOSITION_DESCEND; a
  // symbolic link: DISPOSITION_FOLLOW. Otherwise the owning mapper's
  // cpmChangeNotify; a fresh change (created or modified) and an
  // incomplete one are reported again after DEFER_MSEC; a deferred
  // complete change goes to the listener.
  int fileChanged(WatchedFileState* state, const Timeval& now) override;
  WatchedFileState* new_WatchedFileState() override;

 private:
  BundlesSetup _setup;
  Listener _listener;
};
