#include "util/BTreeCP.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>

#include "util/BTreeFormat.h"
#include "util/testing/BTreeLayoutReader.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

using bt::BTree;
using bt::BTreeCP;

const U64Key kBlank(0);
constexpr int64_t kInterval = 3600;

using Entries = std::map<uint64_t, std::pair<uint64_t, uint64_t>>;

Entries entries(uint64_t first, uint64_t last) {
  Entries out;
  for (uint64_t k = first; k <= last; ++k) out[k] = {k, 2 * k};
  return out;
}

bool logContains(const ScopedLogCapture& log, const std::string& part) {
  return log.text().find(part) != std::string::npos;
}

void addRange(BTree& tree, uint64_t first, uint64_t last) {
  for (uint64_t k = first; k <= last; ++k) tree.addUpdate(U64Key(k), PairRecord(k, 2 * k));
}

// Every key of `want` present with its record, and none of `absent`.
void expectContents(BTree& tree, const Entries& want, uint64_t absentFrom, uint64_t absentTo) {
  PairRecord r;
  for (const auto& [k, v] : want) {
    ASSERT_TRUE(tree.retrieve(U64Key(k), r)) << k;
    EXPECT_EQ(PairRecord(v.first, v.second), r) << k;
  }
  for (uint64_t k = absentFrom; k <= absentTo; ++k) EXPECT_FALSE(tree.retrieve(U64Key(k), r)) << k;
}

// Writes fail with ENOSPC from call `failAt` on, `count` times.
int gFailAt = 0;
int gFailCount = 0;
int gCalls = 0;
ssize_t someFailures(int fd, const void* buf, size_t n) {
  if (++gCalls >= gFailAt && gFailCount > 0) {
    --gFailCount;
    errno = ENOSPC;
    return -1;
  }
  return ::write(fd, buf, n);
}

class CheckpointTest : public ::testing::Test {
 protected:
  Pathname db() const { return _dir.path(); }
  Pathname snapshot() const { return _dir / "snapshot"; }

  TestTempDir _dir;
  PairRecord _scratch;
  ScopedFixedClock _clock{Timeval(1000000, 0)};
};

TEST_F(CheckpointTest, FirstUpdateCheckpointsTheEmptyTreeAndRecordsTheTime) {
  ScopedLogCapture log("BTreeCP");
  BTreeCP tree(kBlank, _scratch, kInterval, 4);
  ASSERT_TRUE(tree.open(db()));
  EXPECT_TRUE(tree.lastCheckpoint().isMin());
  tree.addUpdate(U64Key(1), PairRecord(1, 2));
  EXPECT_EQ(Timeval(1000000, 0), tree.lastCheckpoint());
  EXPECT_EQ("1000000", readTestFile(snapshot() / "snap.dat"));
  // The snapshot is the tree before the update: headers only.
  EXPECT_EQ(24u, readTestFile(snapshot() / "btree_index.dat").size());
  EXPECT_EQ(16u, readTestFile(snapshot() / "btree_records.dat").size());
  EXPECT_FALSE((db() / "snapshot.tmp").exists());
  EXPECT_FALSE((db() / "snapshot.old").exists());
  EXPECT_TRUE(log.hasLine("INFO checkpoint success: created/updated " + std::string(snapshot()) +
                              " (time=1000000)"))
      << log.text();
}

TEST_F(CheckpointTest, CheckpointsOnlyOnceTheIntervalHasPassed) {
  BTreeCP tree(kBlank, _scratch, kInterval, 4);
  ASSERT_TRUE(tree.open(db()));
  addRange(tree, 1, 10);
  const struct {
    int64_t now;
    uint64_t key;
    int64_t lastCheckpoint;
    uint64_t snapshotKeys;
  } kSteps[] = {
      {1000000 + kInterval, 11, 1000000, 0},  // exactly the interval: not yet
      {1000000 + kInterval + 1, 12, 1000000 + kInterval + 1, 11},
      {1000000 + 2 * kInterval + 1, 13, 1000000 + kInterval + 1, 11},
      {1000000 + 2 * kInterval + 2, 14, 1000000 + 2 * kInterval + 2, 13},
  };
  for (const auto& s : kSteps) {
    SCOPED_TRACE(s.key);
    _clock.set(Timeval(s.now, 0));
    tree.addUpdate(U64Key(s.key), PairRecord(s.key, 2 * s.key));
    EXPECT_EQ(s.lastCheckpoint, tree.lastCheckpoint().tv_sec);
    EXPECT_EQ(std::to_string(s.lastCheckpoint), readTestFile(snapshot() / "snap.dat"));
    EXPECT_EQ(s.snapshotKeys, readLayoutTree(snapshot()).entries.size());
  }
  tree.close();
  BTreeCP again(kBlank, _scratch, kInterval, 4);
  ASSERT_TRUE(again.open(db()));
  EXPECT_EQ(1000000 + 2 * kInterval + 2, again.lastCheckpoint().tv_sec);
}

TEST_F(CheckpointTest, TruncatedIndexIsSetAsideAndTheSnapshotRestored) {
  {
    BTreeCP tree(kBlank, _scratch, kInterval, 4);
    ASSERT_TRUE(tree.open(db()));
    addRange(tree, 1, 30);
    ASSERT_TRUE(tree.checkpoint());
    addRange(tree, 31, 40);
  }
  std::string index = readTestFile(db() / "btree_index.dat");
  const std::string records = readTestFile(db() / "btree_records.dat");
  index.resize(10);
  writeTestFile(db() / "btree_index.dat", index);

  ScopedLogCapture log("BTree");
  BTreeCP tree(kBlank, _scratch, kInterval, 4);
  ASSERT_TRUE(tree.open(db()));
  EXPECT_TRUE(log.hasLine("ERROR index header invalid"));
  EXPECT_EQ(index, readTestFile(db() / "corrupt" / "btree_index.dat"));
  EXPECT_EQ(records, readTestFile(db() / "corrupt" / "btree_records.dat"));
  expectContents(tree, entries(1, 30), 31, 40);
  EXPECT_TRUE(tree.checkValid(_scratch));
}

TEST_F(CheckpointTest, DamageThatOnlyValidationSeesIsRecoveredAtOpen) {
  {
    BTreeCP tree(kBlank, _scratch, kInterval, 3);
    ASSERT_TRUE(tree.open(db()));
    addRange(tree, 1, 20);
    ASSERT_TRUE(tree.checkpoint());
    addRange(tree, 21, 25);
  }
  // A leaf's first record offset moves off the entry grid.
  const std::string index = readTestFile(db() / "btree_index.dat");
  std::string patched = index;
  patched[24 + bt::nodeBytes(3, 8) + bt::nodeChildPos(3, 8, 0)] += 1;
  writeTestFile(db() / "btree_index.dat", patched);
  ScopedLogCapture log("BTreeCP");
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  EXPECT_TRUE(log.hasLine("ERROR open: CheckValidException caught: BTree::Exception: Validation "
                          "failed in open"))
      << log.text();
  expectContents(tree, entries(1, 20), 21, 25);
}

TEST_F(CheckpointTest, CorruptionFoundAtCheckpointTimeRestoresAndRetries) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  addRange(tree, 1, 20);  // checkpointed at the first update: empty
  _clock.set(Timeval(1000000 + kInterval + 1, 0));
  tree.addUpdate(U64Key(21), PairRecord(21, 42));  // checkpoints 1..20 first
  addRange(tree, 22, 30);
  // Damage a node below the root on disk while the tree is open.
  std::string index = readTestFile(db() / "btree_index.dat");
  index[24 + bt::nodeBytes(3, 8) + bt::nodeChildPos(3, 8, 0)] += 1;
  writeTestFile(db() / "btree_index.dat", index);

  ScopedLogCapture log("BTreeCP");
  _clock.set(Timeval(1000000 + 2 * kInterval + 2, 0));
  tree.addUpdate(U64Key(99), PairRecord(99, 198));
  EXPECT_TRUE(log.hasLine("ERROR addUpdate CheckValidException caught: BTree::Exception: "
                          "Validation failed in checkpoint"))
      << log.text();
  // The snapshot was taken before 21 went in.
  Entries want = entries(1, 20);
  want[99] = {99, 198};
  expectContents(tree, want, 21, 30);
  EXPECT_TRUE(tree.checkValid(_scratch));
  // The failed checkpoint left the good snapshot alone.
  EXPECT_EQ(entries(1, 20), readLayoutTree(snapshot()).entries);
}

TEST_F(CheckpointTest, AnIOExceptionRestoresAndTheUpdateIsTriedAgain) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  addRange(tree, 1, 5);
  ASSERT_TRUE(tree.checkpoint());
  addRange(tree, 6, 8);
  ScopedLogCapture log("BTreeCP");
  gCalls = 0;
  gFailAt = 1;
  gFailCount = 1;
  const bt::WriteCall previous = bt::setWriteCall(&someFailures);
  tree.addUpdate(U64Key(50), PairRecord(50, 100));
  bt::setWriteCall(previous);
  EXPECT_TRUE(logContains(log, "ERROR addUpdate: IOException caught: BTree::Exception: "
                               "Record::writeLE failure(2) in Node::_leafAddUpdate"))
      << log.text();
  Entries want = entries(1, 5);
  want[50] = {50, 100};
  expectContents(tree, want, 6, 8);
}

TEST_F(CheckpointTest, ARestoreThatCannotCopyClosesAndThrows) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  addRange(tree, 1, 5);
  ScopedLogCapture log("BTreeCP");
  std::string text;
  {
    ScopedFullDisk full;
    text = thrownText<BTree::IOException>([&] { tree.addUpdate(U64Key(9), PairRecord(9, 9)); });
  }
  EXPECT_EQ("BTree::Exception: failed to restore checkpoint", text);
  EXPECT_FALSE(tree.isOpen());
  EXPECT_TRUE(log.hasLine("ERROR BTree::Exception: Checkpoint restore failure.  Try shutting "
                          "down kestro, copying contents of " +
                              std::string(snapshot()) + " to " + std::string(db()) +
                              " manually, and restart"))
      << log.text();
  EXPECT_EQ("BTree::Exception: BTreeCP is not open in addUpdate",
            thrownText<BTree::IOException>([&] { tree.addUpdate(U64Key(9), PairRecord(9, 9)); }));
}

TEST_F(CheckpointTest, OpenTwiceAndFailedRecoveryThrow) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  EXPECT_EQ("BTree::Exception: attempt to open BTreeCP twice",
            thrownText<BTree::IOException>([&] { tree.open(db()); }));
  tree.close();
  // No directory at all: the tree cannot open, and neither can recovery.
  BTreeCP missing(kBlank, _scratch, kInterval, 3);
  EXPECT_EQ("BTree::Exception: open failed to restore checkpoint",
            thrownText<BTree::IOException>([&] { missing.open(db() / "absent"); }));
  EXPECT_FALSE(missing.isOpen());
}

TEST_F(CheckpointTest, NoSnapshotMeansAnEmptyTree) {
  {
    BTree plain(kBlank, 3);
    ASSERT_TRUE(plain.open(db()));
    addRange(plain, 1, 10);
  }
  writeTestFile(db() / "btree_records.dat", "garbage");
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  expectContents(tree, {}, 1, 10);
  EXPECT_EQ("garbage", readTestFile(db() / "corrupt" / "btree_records.dat"));
  addRange(tree, 3, 4);
  expectContents(tree, entries(3, 4), 1, 2);
}

TEST_F(CheckpointTest, ACheckpointKilledBetweenItsRenamesLeavesOldToRestore) {
  {
    BTreeCP tree(kBlank, _scratch, kInterval, 3);
    ASSERT_TRUE(tree.open(db()));
    addRange(tree, 1, 12);
    ASSERT_TRUE(tree.checkpoint());
  }
  ASSERT_TRUE(snapshot().renameTo(db() / "snapshot.old"));
  writeTestFile(db() / "btree_index.dat", "broken");
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  expectContents(tree, entries(1, 12), 13, 13);
}

TEST_F(CheckpointTest, CopyFailureKeepsThePreviousSnapshot) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  addRange(tree, 1, 6);
  ASSERT_TRUE(tree.checkpoint());
  addRange(tree, 7, 9);
  ScopedLogCapture log("BTreeCP");
  {
    ScopedFullDisk full;
    EXPECT_FALSE(tree.checkpoint());
  }
  EXPECT_TRUE(log.hasLine("ERROR failed: failed to copy/move " + std::string(db() / "btree_index.dat") +
                              " to " + std::string(db() / "snapshot.tmp" / "btree_index.dat") +
                              ": No space left on device"))
      << log.text();
  EXPECT_EQ(entries(1, 6), readLayoutTree(snapshot()).entries);
  EXPECT_TRUE(tree.checkpoint());
  EXPECT_EQ(entries(1, 9), readLayoutTree(snapshot()).entries);
}

TEST_F(CheckpointTest, CopyBTreeAndAtomicMoveReportTheirFailures) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  ScopedLogCapture log("BTreeCP");
  const Pathname deep = db() / "missing" / "sub";
  EXPECT_FALSE(tree.copyBTree(deep, true));
  EXPECT_TRUE(log.hasLine("ERROR failed: failed to mkdir " + std::string(deep) +
                              ": No such file or directory"));

  writeTestFile(db() / "target" / "keep", "old contents");
  const Pathname tmp = db() / "never-made";
  EXPECT_FALSE(BTreeCP::atomicMove(tmp, db() / "target", db() / "target.old"));
  EXPECT_TRUE(log.hasLine("ERROR failed: failed to rename " + std::string(tmp) + " to " +
                              std::string(db() / "target") + ": No such file or directory"));
  EXPECT_EQ("old contents", readTestFile(db() / "target" / "keep"));
  EXPECT_FALSE((db() / "target.old").exists());

  writeTestFile(db() / "fresh" / "keep", "new contents");
  EXPECT_TRUE(BTreeCP::atomicMove(db() / "fresh", db() / "target", db() / "target.old"));
  EXPECT_EQ("new contents", readTestFile(db() / "target" / "keep"));
  EXPECT_FALSE((db() / "target.old").exists());
  EXPECT_FALSE((db() / "fresh").exists());
}

TEST_F(CheckpointTest, ATimeThatCannotBeWrittenIsLoggedAndTheCheckpointStands) {
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  ScopedLogCapture log("BTreeCP");
  // Writes 1 and 2 copy the two small files; write 3 is snap.dat.
  gCalls = 0;
  gFailAt = 3;
  gFailCount = 1;
  const bt::WriteCall previous = bt::setWriteCall(&someFailures);
  EXPECT_TRUE(tree.checkpoint());
  bt::setWriteCall(previous);
  EXPECT_TRUE(log.hasLine("ERROR unable to serialize checkpoint time to " +
                              std::string(snapshot() / "snap.dat")))
      << log.text();
  EXPECT_EQ(Timeval(1000000, 0), tree.lastCheckpoint());
  EXPECT_TRUE(readLayoutTree(snapshot()).ok);
}

TEST(BTreeCPTime, SerialisesWholeSecondsAndReadsThemBack) {
  for (int64_t s : {int64_t{0}, int64_t{1}, int64_t{1700000000}, int64_t{-5}, INT64_MAX}) {
    Timeval back = Timeval::min();
    ASSERT_TRUE(BTreeCP::deserializeTime(BTreeCP::serializeTime(Timeval(s, 999)), back)) << s;
    EXPECT_EQ(Timeval(s, 0), back);
  }
  EXPECT_EQ("1700000000", BTreeCP::serializeTime(Timeval(1700000000, 5)));
  for (const char* bad : {"", "abc", "12x", "1.5", "99999999999999999999"}) {
    Timeval t(7, 0);
    EXPECT_FALSE(BTreeCP::deserializeTime(bad, t)) << bad;
    EXPECT_EQ(Timeval(7, 0), t) << bad;
  }
}

TEST_F(CheckpointTest, UnreadableSnapTimeForcesACheckpoint) {
  {
    BTreeCP tree(kBlank, _scratch, kInterval, 3);
    ASSERT_TRUE(tree.open(db()));
    addRange(tree, 1, 3);
  }
  writeTestFile(snapshot() / "snap.dat", "not a time");
  BTreeCP tree(kBlank, _scratch, kInterval, 3);
  ASSERT_TRUE(tree.open(db()));
  EXPECT_TRUE(tree.lastCheckpoint().isMin());
  addRange(tree, 4, 4);
  EXPECT_EQ(entries(1, 3), readLayoutTree(snapshot()).entries);
}

}  // namespace
