#include "util/BTreeCP.h"

#include <cerrno>

#include "util/Assert.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Logger.h"

namespace bt {

namespace {

Logger gLogger("BTreeCP");

constexpr const char* SNAPSHOT_DIR = "snapshot";
constexpr const char* SNAPSHOT_TMP_DIR = "snapshot.tmp";
constexpr const char* SNAPSHOT_OLD_DIR = "snapshot.old";
constexpr const char* CORRUPT_DIR = "corrupt";
constexpr const char* SNAP_TIME_FILE = "snap.dat";
constexpr const char* LIVE_FILES[] = {INDEX_FILE, RECORD_FILE};

// Copies `from` over `to` through the tree's write call, and syncs the
// copy so that a checkpoint outlives the machine as well as the process.
bool copyFile(const Pathname& from, const Pathname& to) {
  ScopedFileDescriptor in(from.openReadOnly());
  if (!in.valid()) return false;
  ScopedFileDescriptor out(to.openCreateOrReplace(Pathname::CREATE_NORMAL));
  if (!out.valid()) return false;
  char buf[1 << 16];
  for (;;) {
    const ssize_t got = in.read(buf, sizeof buf);
    if (got < 0) return false;
    if (got == 0) break;
    if (!writeFully(out, buf, static_cast<size_t>(got))) return false;
  }
  return out.sync() && out.close();
}

bool hasBothFiles(const Pathname& dir) {
  return (dir / INDEX_FILE).exists() && (dir / RECORD_FILE).exists();
}

}  // namespace

BTreeCP::BTreeCP(const Key& blankKey, Record& scratchRecord, int64_t intervalSeconds,
                 uint32_t order)
    : BTree(blankKey, order), _checkpointInterval(intervalSeconds), _scratch(scratchRecord) {}

bool BTreeCP::open(const Pathname& path) {
  if (isOpen()) throw IOException("attempt to open BTreeCP twice");
  _dbPath = path;
  _lastCheckpoint = Timeval::min();
  ScopedFileStar snapTime(_dbPath / SNAPSHOT_DIR / SNAP_TIME_FILE, "r");
  Str text;
  if (snapTime.valid() && snapTime.readline(text)) deserializeTime(text, _lastCheckpoint);

  bool opened = false;
  try {
    opened = BTree::open(path);
    if (opened && !checkValid(_scratch)) throw CheckValidException("Validation failed in open");
  } catch (const CheckValidException& e) {
    gLogger.error("open: CheckValidException caught: %s", e.what());
    opened = false;
  } catch (const IOException& e) {
    gLogger.error("open: IOException caught: %s", e.what());
    opened = false;
  }
  if (opened) return true;
  return _restoreOrClose("open failed to restore checkpoint");
}

bool BTreeCP::_restoreOrClose(const char* failureText) {
  bool restored = false;
  try {
    restored = restoreCheckpoint();
  } catch (const IOException& e) {
    gLogger.error("%s", e.what());
  }
  if (restored) return true;
  close();
  throw IOException(failureText);
}

bool BTreeCP::_dueForCheckpoint() const {
  if (_lastCheckpoint.isMin()) return true;
  const Timeval now = Timeval::now();
  return now.tv_sec - _lastCheckpoint.tv_sec > _checkpointInterval;
}

void BTreeCP::addUpdate(const Key& key, const Record& record) {
  if (!isOpen()) throw IOException("BTreeCP is not open in addUpdate");
  try {
    if (_dueForCheckpoint()) checkpoint();
    BTree::addUpdate(key, record);
    return;
  } catch (const CheckValidException& e) {
    gLogger.error("addUpdate CheckValidException caught: %s", e.what());
  } catch (const IOException& e) {
    gLogger.error("addUpdate: IOException caught: %s", e.what());
  }
  _restoreOrClose("failed to restore checkpoint");
  BTree::addUpdate(key, record);
}

bool BTreeCP::checkpoint() {
  if (!checkValid(_scratch)) throw CheckValidException("Validation failed in checkpoint");
  kassert(!_dbPath.empty());
  const Pathname snapshot = _dbPath / SNAPSHOT_DIR;
  const Pathname tmp = _dbPath / SNAPSHOT_TMP_DIR;
  const Pathname old = _dbPath / SNAPSHOT_OLD_DIR;
  if (old.exists() && !old.removeRecursive()) {
    gLogger.error("checkpoint failed: removal of dir %s failed: %m", old.c_str());
    return false;
  }
  if (!copyBTree(tmp, true) || !atomicMove(tmp, snapshot, old)) return false;

  _lastCheckpoint = Timeval::now();
  const Pathname timeFile = snapshot / SNAP_TIME_FILE;
  ScopedFileDescriptor out(timeFile.openCreateOrReplace(Pathname::CREATE_NORMAL));
  if (!out.valid()) gLogger.error("unable to open cp datafile for writing: %s: %m", timeFile.c_str());
  const Str text = serializeTime(_lastCheckpoint);
  if (!out.valid() || !writeFully(out, text.data(), text.size()) || !out.close()) {
    gLogger.error("unable to serialize checkpoint time to %s", timeFile.c_str());
  }
  gLogger.info("checkpoint success: created/updated %s (time=%ld)", snapshot.c_str(),
               static_cast<long>(_lastCheckpoint.tv_sec));
  return true;
}

bool BTreeCP::copyBTree(const Pathname& path, bool copy) {
  if (path.exists() && !path.removeRecursive()) {
    gLogger.error("failed: removal of dir %s failed: %m", path.c_str());
    return false;
  }
  if (!path.mkdir(Pathname::MKDIR_PRIVATE)) {
    gLogger.error("failed: failed to mkdir %s: %m", path.c_str());
    return false;
  }
  for (const char* leaf : LIVE_FILES) {
    const Pathname from = _dbPath / leaf;
    const Pathname to = path / leaf;
    if (!(copy ? copyFile(from, to) : from.renameTo(to))) {
      gLogger.error("failed: failed to copy/move %s to %s: %m", from.c_str(), to.c_str());
      return false;
    }
  }
  return true;
}

bool BTreeCP::atomicMove(const Pathname& tmp, const Pathname& target, const Pathname& old) {
  const bool hadTarget = target.exists();
  if (hadTarget && !target.renameTo(old)) {
    gLogger.error("failed: failed to rename %s to %s: %m", target.c_str(), old.c_str());
    return false;
  }
  if (!tmp.renameTo(target)) {
    gLogger.error("failed: failed to rename %s to %s: %m", tmp.c_str(), target.c_str());
    if (hadTarget && !old.renameTo(target)) gLogger.error("failed: failed to restore older : %m");
    return false;
  }
  if (hadTarget && !old.removeRecursive()) {
    gLogger.warn("succeeded, but unable to clean up %s: %m", old.c_str());
  }
  return true;
}

bool BTreeCP::restoreCheckpoint() {
  close();
  // Kept for study; a failure here is logged and the removal below decides.
  copyBTree(_dbPath / CORRUPT_DIR, false);
  const Pathname indexPath = _dbPath / INDEX_FILE;
  const Pathname recordPath = _dbPath / RECORD_FILE;
  for (const Pathname& live : {indexPath, recordPath}) {
    if (live.exists() && !live.remove()) {
      Str text;
      throw IOException(Logger::format(
          text, "could not remove corrupt btree files, %s and %s: %m. Contact Kestro support at "
                "support@kestro.example with both files.",
          indexPath.c_str(), recordPath.c_str()));
    }
  }
  Pathname snapshot = _dbPath / SNAPSHOT_DIR;
  // A checkpoint that died between its two renames left the previous
  // snapshot as .old and none under the proper name.
  if (!hasBothFiles(snapshot) && hasBothFiles(_dbPath / SNAPSHOT_OLD_DIR)) {
    snapshot = _dbPath / SNAPSHOT_OLD_DIR;
  }
  if (hasBothFiles(snapshot)) {
    for (const char* leaf : LIVE_FILES) {
      if (!copyFile(snapshot / leaf, _dbPath / leaf)) {
        Str text;
        throw IOException(text.format(
            "Checkpoint restore failure.  Try shutting down kestro, copying contents of %s to %s "
            "manually, and restart",
            snapshot.c_str(), _dbPath.c_str()));
      }
    }
  }
  return BTree::open(_dbPath);
}

Str BTreeCP::serializeTime(const Timeval& t) {
  Str out;
  out.append_longlong(static_cast<long long>(t.tv_sec));
  return out;
}

bool BTreeCP::deserializeTime(const Str& text, Timeval& out) {
  Str trimmed(text);
  while (!trimmed.empty() && (trimmed.back() == ' ' || trimmed.back() == '\n')) trimmed.pop_back();
  long long seconds = 0;
  if (!trimmed.tryToLongLong(seconds)) return false;
  out = Timeval(seconds, 0);
  return true;
}

}  // namespace bt
