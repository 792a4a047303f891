// bt::BTreeCP: the disk B-tree with periodic checkpoints of its two files
// into <db>/snapshot, and recovery from the last checkpoint when the live
// files prove corrupt.
#pragma once

#include <cstdint>

#include "util/BTree.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Timeval.h"

namespace bt {

// Directory layout under the database directory <db>:
//   btree_index.dat, btree_records.dat   the live tree
//   snapshot/        both files as of the last checkpoint, and snap.dat,
//                    that checkpoint's time in decimal seconds, no newline
//   snapshot.tmp/    a checkpoint being written
//   snapshot.old/    the checkpoint before, while the new one moves in
//   corrupt/         the live files that the last recovery set aside
// Thread story: as BTree, one owner at a time; checkpoints run on the
// updating thread.
class BTreeCP : public BTree {
 public:
  // `scratchRecord` is borrowed for validation and must outlive the tree.
  // A checkpoint is taken before the first update after `intervalSeconds`
  // have passed since the last one, and before the first update ever.
  BTreeCP(const Key& blankKey, Record& scratchRecord, int64_t intervalSeconds, uint32_t order);

  // Opens and validates the tree in `path`; when that fails in any way,
  // sets the files aside and restores the last checkpoint (an empty tree
  // without one). Throws IOException "attempt to open BTreeCP twice" when
  // open, and "open failed to restore checkpoint" (closed) when recovery
  // fails too. Returns true otherwise.
  bool open(const Pathname& path) override;
  // Checkpoints when due, then updates. A CheckValidException or an
  // IOException restores the checkpoint and the update is tried once more;
  // a restore that fails closes the tree and throws IOException "failed to
  // restore checkpoint". Throws "BTreeCP is not open in addUpdate" when
  // closed; InvalidKeyException passes through.
  void addUpdate(const Key& key, const Record& record) override;

  // Validates the tree (CheckValidException "Validation failed in
  // checkpoint" when it is not, so a corrupt tree never replaces a good
  // snapshot), then copies both files into snapshot.tmp and moves that over
  // the snapshot. Other failures are logged, leave the previous snapshot in
  // force, and return false.
  bool checkpoint();
  // Closes, moves the live files to <db>/corrupt, copies the snapshot's
  // files into place (snapshot.old's when a checkpoint died between its two
  // renames) and opens. Returns what the open returns. Throws IOException
  // when the live files cannot be removed or the snapshot cannot be copied.
  bool restoreCheckpoint();
  // Makes `path` afresh (removing what was there) and copies (`copy`) or
  // moves the two live files into it. False after a log line.
  bool copyBTree(const Pathname& path, bool copy);
  // Renames `target` (if present) to `old`, `tmp` to `target`, and removes
  // `old`; puts `old` back when the second rename fails. False after a log
  // line when `tmp` did not end up as `target`.
  static bool atomicMove(const Pathname& tmp, const Pathname& target, const Pathname& old);

  // "<seconds>" for snap.dat.
  static Str serializeTime(const Timeval& t);
  // Reads serializeTime's text (surrounding blanks allowed); false, leaving
  // `out`, for anything else.
  static bool deserializeTime(const Str& text, Timeval& out);

  const Pathname& dbPath() const { return _dbPath; }
  const Timeval& lastCheckpoint() const { return _lastCheckpoint; }

 private:
  bool _dueForCheckpoint() const;
  bool _restoreOrClose(const char* failureText);

  Pathname _dbPath;
  Timeval _lastCheckpoint = Timeval::min();
  int64_t _checkpointInterval;
  Record& _scratch;
};

}  // namespace bt
