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
  // The delay before a change counts; DEFER_MSEC unless a test shortens it.
  void setDeferMsec(unsigned long msec) { _deferMsec = msec; }

 protected:
  // ConfSettings::shouldWatchPath.
  bool shouldWatchPath(const Pathname& path, WatchedFileState* state) override;
  // Logs "%s: Possible file change". A directory: DISPOSITION_DESCEND; a
  // symbolic link: DISPOSITION_FOLLOW. A file first seen by the initial
  // walk is no change. Otherwise the owning mapper (found once and cached
  // in the state; a file of a new bundle first makes its mapper through
  // setupNewMappers) gets cpmChangeNotify; a fresh change (created or
  // modified) and an incomplete one are reported again after the defer
  // delay; a deferred complete change, and a removal at once, go to the
  // listener.
  int fileChanged(WatchedFileState* state, const Timeval& now) override;
  WatchedFileState* new_WatchedFileState() override;

 private:
  BundlesSetup _setup;
  Listener _listener;
  unsigned long _deferMsec = DEFER_MSEC;
};
