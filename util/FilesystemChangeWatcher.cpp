#include "util/FilesystemChangeWatcher.h"

#include <algorithm>

#include "util/ConditionWaitTimeout.h"
#include "util/Directory.h"
#include "util/Thread.h"

class FilesystemChangeWatcher::PollThread : public Thread {
 public:
  explicit PollThread(FilesystemChangeWatcher* owner)
      : Thread("FilesystemChangeWatcher"), _owner(owner) {}
  void main() override { _owner->runLoop(); }

 private:
  FilesystemChangeWatcher* _owner;
};

namespace {

// The part of a stat that tells a change; false when the path is gone.
bool snapshot(const Pathname& path, char* type, long* size, unsigned long* inode, Timeval* mtime) {
  PathnameStat st;
  if (!path.lstat(&st)) return false;
  *type = st.isSymlink() ? 'l' : st.isDir() ? 'd' : st.isReg() ? 'f' : 'o';
  *size = static_cast<long>(st.st.st_size);
  *inode = static_cast<unsigned long>(st.st.st_ino);
  st.getMtime(mtime);
  return true;
}

}  // namespace

FilesystemChangeWatcher::FilesystemChangeWatcher(unsigned long intervalMsec)
    : _intervalMsec(intervalMsec) {}

FilesystemChangeWatcher::~FilesystemChangeWatcher() { stop(); }

bool FilesystemChangeWatcher::shouldWatchPath(const Pathname&, WatchedFileState*) { return true; }

WatchedFileState* FilesystemChangeWatcher::new_WatchedFileState() { return new WatchedFileState; }

void FilesystemChangeWatcher::addWatch(const Pathname& root) {
  ScopedLock hold(_mutex);
  _newRoots.push_back(root);
}

void FilesystemChangeWatcher::start() {
  if (_thread) return;
  _thread = std::make_unique<PollThread>(this);
  _thread->go();
}

void FilesystemChangeWatcher::stop() {
  if (!_thread) return;
  {
    ScopedLock hold(_mutex);
    _stopping = true;
    _wake.internal_wake_one();
  }
  _thread->join();
  _thread.reset();
  ScopedLock hold(_mutex);
  _stopping = false;
}

void FilesystemChangeWatcher::runLoop() {
  const ConditionWaitTimeout interval(static_cast<int64_t>(_intervalMsec / 1000),
                                      static_cast<int64_t>(_intervalMsec % 1000) * 1000000);
  for (;;) {
    scanOnce();
    ScopedLock hold(_mutex);
    if (!_stopping) _wake.wait(_mutex, interval);
    if (_stopping) return;
  }
}

void FilesystemChangeWatcher::deferChangeNotification(WatchedFileState* state,
                                                      unsigned long delayMsec) {
  Timeval due = CurrentTimeval();
  due.addMsec(delayMsec);
  _deferred.push_back({state->path(), due});
}

void FilesystemChangeWatcher::report(WatchedFileState* state, WatchedFileState::Change change,
                                     const Timeval& now, size_t* reports) {
  state->_change = change;
  state->_disposition = fileChanged(state, now);
  ++*reports;
}

// Walks `path` and what lies under it as the dispositions allow. A link
// that is followed is walked as the path it names would be, under its own
// name; a cycle of links ends at the depth where lstat refuses the name.
void FilesystemChangeWatcher::walk(const Pathname& path, bool initial, const Timeval& now,
                                   size_t* reports) {
  auto found = _states.find(path);
  WatchedFileState* state = found == _states.end() ? nullptr : found->second.get();
  if (!shouldWatchPath(path, state)) return;
  char type;
  long size;
  unsigned long inode;
  Timeval mtime;
  if (!snapshot(path, &type, &size, &inode, &mtime)) return;  // gone: reported by the sweep
  if (state == nullptr) {
    state = new_WatchedFileState();
    _states[path].reset(state);
    state->_path = path;
    state->_type = type;
    state->_size = size;
    state->_inode = inode;
    state->_mtime = mtime;
    report(state, initial ? WatchedFileState::CHANGE_INITIAL : WatchedFileState::CHANGE_CREATED,
           now, reports);
  } else if (state->_type != type || state->_size != size || state->_inode != inode ||
             state->_mtime != mtime) {
    state->_type = type;
    state->_size = size;
    state->_inode = inode;
    state->_mtime = mtime;
    report(state, WatchedFileState::CHANGE_MODIFIED, now, reports);
  }
  state->_seen = true;

  bool descend = type == 'd' && (state->_disposition & DISPOSITION_DESCEND);
  if (type == 'l' && (state->_disposition & DISPOSITION_FOLLOW)) descend = path.getFileType() == 2;
  if (!descend) return;
  std::vector<Pathname> leaves;
  DirectoryIterator it(path);
  Pathname leaf;
  while (it.getNext(leaf)) leaves.push_back(leaf);
  std::sort(leaves.begin(), leaves.end());
  for (const Pathname& l : leaves) walk(path / l, initial, now, reports);
}

size_t FilesystemChangeWatcher::scanOnce() {
  std::vector<Pathname> added;
  {
    ScopedLock hold(_mutex);
    added.swap(_newRoots);
  }
  const CurrentTimeval now;
  size_t reports = 0;
  for (auto& entry : _states) entry.second->_seen = false;
  for (const Pathname& root : _roots) walk(root, false, now, &reports);
  for (const Pathname& root : added) {
    walk(root, true, now, &reports);
    _roots.push_back(root);
  }
  for (auto it = _states.begin(); it != _states.end();) {
    if (it->second->_seen) {
      ++it;
      continue;
    }
    report(it->second.get(), WatchedFileState::CHANGE_REMOVED, now, &reports);
    it = _states.erase(it);
  }
  // Deferred reports that are due, for paths still watched; a report may
  // defer again, so the list is taken first.
  std::vector<Deferred> pending;
  pending.swap(_deferred);
  for (const Deferred& d : pending) {
    const auto found = _states.find(d.path);
    if (found == _states.end()) continue;
    if (now < d.due) {
      _deferred.push_back(d);
      continue;
    }
    report(found->second.get(), WatchedFileState::CHANGE_DEFERRED, now, &reports);
  }
  return reports;
}
