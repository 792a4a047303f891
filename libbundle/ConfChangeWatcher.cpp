#include "libbundle/ConfChangeWatcher.h"

#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfSettings.h"
#include "util/Logger.h"

namespace {

Logger gLogger("ConfChangeWatcher");

}  // namespace

ConfChangeWatcher::ConfChangeWatcher(const BundlesSetup& setup)
    : ConfChangeWatcher(setup, ConfSettings::forSetup(setup)->getStatInterval()) {}

ConfChangeWatcher::ConfChangeWatcher(const BundlesSetup& setup, unsigned long intervalMsec)
    : FilesystemChangeWatcher(intervalMsec), _setup(setup) {}

bool ConfChangeWatcher::init() {
  setupConfWatches();
  return true;
}

void ConfChangeWatcher::setupConfWatches() {
  addWatch(_setup.getApps());
  addWatch(_setup.getUsers());
}

bool ConfChangeWatcher::shouldWatchPath(const Pathname& path, WatchedFileState*) {
  return ConfSettings::forSetup(_setup)->shouldWatchPath(path);
}

WatchedFileState* ConfChangeWatcher::new_WatchedFileState() { return new WatchedConfState; }

int ConfChangeWatcher::fileChanged(WatchedFileState* state, const Timeval&) {
  gLogger.debug("%s: Possible file change", state->path().c_str());
  if (state->isSymlink()) return DISPOSITION_FOLLOW;
  if (state->isDirectory()) return DISPOSITION_DESCEND;
  // A walk's first sight of a file is no change.
  if (state->change() == WatchedFileState::CHANGE_INITIAL) return DISPOSITION_NONE;
  auto* conf = static_cast<WatchedConfState*>(state);
  ConfPathMapperManager& manager = ConfPathMapperManager::instance();
  IConfPathMapper* mapper = conf->getCachedMapper();
  if (mapper == nullptr) mapper = manager.findMapperForFile(_setup, state->path());
  if (mapper == nullptr && state->change() != WatchedFileState::CHANGE_REMOVED) {
    // A file of a bundle that did not exist at setup.
    manager.setupNewMappers(_setup);
    mapper = manager.findMapperForFile(_setup, state->path());
  }
  conf->setCachedMapper(mapper);
  if (mapper == nullptr) return DISPOSITION_NONE;
  const bool complete = mapper->cpmChangeNotify(state->path());
  // A removed file's state is dropped after this report: nothing to wait for.
  const bool removed = state->change() == WatchedFileState::CHANGE_REMOVED;
  if (!removed && (!complete || state->change() != WatchedFileState::CHANGE_DEFERRED)) {
    // Writers get time to finish before the change counts.
    deferChangeNotification(state, _deferMsec);
    return DISPOSITION_NONE;
  }
  if (_listener) _listener(_setup, mapper);
  return DISPOSITION_NONE;
}
