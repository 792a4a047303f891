// Notices changes under a set of paths by polling: every interval it walks
// them, compares what stat says with the last walk, and reports each path
// that appeared, changed or went away. Polling, not kernel notification,
// because the watched trees may lie on a network file system.
//
// Thread story: scanOnce() runs on one thread at a time: the watcher's own
// thread once start() was called, else the caller's. The hooks run on that
// thread. addWatch() and stop() are safe from any thread.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/PthreadCondition.h"
#include "util/Timeval.h"

class Thread;

// What the watcher knows of one path: the last stat it saw and what
// happened to it. A subclass may carry more (new_WatchedFileState).
class WatchedFileState {
 public:
  enum Change {
    CHANGE_INITIAL,   // seen by the first walk of its root: present all along
    CHANGE_CREATED,   // new since the last walk
    CHANGE_MODIFIED,  // its type, size, inode or modification time differ
    CHANGE_REMOVED,   // gone; the state is dropped after the report
    CHANGE_DEFERRED,  // reported again, as deferChangeNotification asked
  };

  virtual ~WatchedFileState() = default;

  const Pathname& path() const { return _path; }
  Change change() const { return _change; }
  bool isDirectory() const { return _type == 'd'; }
  bool isSymlink() const { return _type == 'l'; }
  long size() const { return _size; }

 private:
  friend class FilesystemChangeWatcher;
  Pathname _path;
  Change _change = CHANGE_INITIAL;
  char _type = '?';  // 'f' file, 'd' directory, 'l' link, 'o' other
  long _size = 0;
  unsigned long _inode = 0;
  Timeval _mtime;
  int _disposition = 0;
  bool _seen = false;
};

class FilesystemChangeWatcher {
 public:
  // What to do with a path beyond noticing it: walk into a directory,
  // follow a symbolic link to what it names. The hooks say it per path.
  enum Disposition { DISPOSITION_NONE = 0, DISPOSITION_DESCEND = 1, DISPOSITION_FOLLOW = 2 };

  explicit FilesystemChangeWatcher(unsigned long intervalMsec);
  // Stops and joins the thread if it runs.
  virtual ~FilesystemChangeWatcher();
  FilesystemChangeWatcher(const FilesystemChangeWatcher&) = delete;
  FilesystemChangeWatcher& operator=(const FilesystemChangeWatcher&) = delete;

  // Adds a root to walk; its first walk reports its paths as
  // CHANGE_INITIAL. A root that does not exist yet is reported when it
  // appears.
  void addWatch(const Pathname& root);
  // Starts the thread that calls scanOnce() every interval.
  void start();
  // Ends the thread at its next wake, without waiting for the interval,
  // and joins it. Harmless when not started.
  void stop();

  // One walk now: reports every change since the last walk through
  // fileChanged, then the deferred reports that are due. Returns the number
  // of reports made.
  size_t scanOnce();

  // From inside fileChanged: report `state` again (CHANGE_DEFERRED) at the
  // first walk at least `delayMsec` from now, so that a writer can finish.
  void deferChangeNotification(WatchedFileState* state, unsigned long delayMsec);

  unsigned long intervalMsec() const { return _intervalMsec; }

 protected:
  // Whether to watch `path` at all; `state` is its state, null for a path
  // not watched before. A path refused is not walked into either.
  virtual bool shouldWatchPath(const Pathname& path, WatchedFileState* state);
  // One report. Returns the path's disposition (Disposition bits).
  virtual int fileChanged(WatchedFileState* state, const Timeval& now) = 0;
  // A fresh state for a newly seen path.
  virtual WatchedFileState* new_WatchedFileState();

 private:
  class PollThread;
  struct Deferred {
    Pathname path;
    Timeval due;
  };

  void walk(const Pathname& path, bool initial, const Timeval& now, size_t* reports);
  void report(WatchedFileState* state, WatchedFileState::Change change, const Timeval& now,
              size_t* reports);
  void runLoop();

  const unsigned long _intervalMsec;
  ConditionMutex _mutex;  // guards _newRoots and _stopping
  PthreadCondition _wake;
  std::vector<Pathname> _roots;     // the scanning thread's own
  std::vector<Pathname> _newRoots;  // added since the last walk
  bool _stopping = false;
  std::map<Pathname, std::unique_ptr<WatchedFileState>> _states;
  std::vector<Deferred> _deferred;
  std::unique_ptr<PollThread> _thread;
};
