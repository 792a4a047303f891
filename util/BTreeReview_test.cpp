// Independent checks of the disk B-tree: the bytes of both files read back
// with a reader written here from the layout alone, the shape of splits,
// the texts of failures, and the checkpoint directories of BTreeCP.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "util/BTree.h"
#include "util/BTreeCP.h"
#include "util/BTreeFormat.h"
#include "util/FileStar.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/testing/FixedClock.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

namespace fs = std::filesystem;

// Sizes of the test key and record, restated here on purpose.
constexpr size_t KEY = 8;
constexpr size_t REC = 16;
constexpr size_t ENTRY = REC + KEY;
const std::string IMAGIC("MAGIC_IND_01\n\n\n\0", 16);
const std::string RMAGIC("MAGIC_REC_01\n\n\n\0", 16);

uint64_t le64(const std::string& b, size_t at) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(b.at(at + i));
  return v;
}
std::string putLe64(uint64_t v) {
  std::string out;
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
  return out;
}

struct DiskNode {
  std::vector<uint64_t> keys;     // up to the first blank slot
  std::vector<int64_t> children;  // up to the first -1 slot
};

size_t nodeSize(uint64_t order) { return order * KEY + (order + 1) * 8; }

DiskNode readNode(const std::string& index, uint64_t order, int64_t off) {
  DiskNode n;
  for (uint64_t i = 0; i < order; ++i) {
    const uint64_t k = le64(index, off + i * KEY);
    if (k == 0) break;
    n.keys.push_back(k);
  }
  for (uint64_t i = 0; i <= order; ++i) {
    const int64_t c = static_cast<int64_t>(le64(index, off + order * KEY + i * 8));
    if (c == -1) break;
    n.children.push_back(c);
  }
  return n;
}

std::string encodeNode(uint64_t order, const std::vector<uint64_t>& keys,
                       const std::vector<int64_t>& children) {
  std::string out;
  for (uint64_t i = 0; i < order; ++i) out += putLe64(i < keys.size() ? keys[i] : 0);
  for (uint64_t i = 0; i <= order; ++i)
    out += putLe64(i < children.size() ? static_cast<uint64_t>(children[i]) : ~0ull);
  return out;
}

std::string entry(uint64_t a, uint64_t b, uint64_t key) {
  return putLe64(a) + putLe64(b) + putLe64(key);
}

// Every key below `off`, in order, with the leaves' depths, checked against
// the record file's entries.
void collect(const std::string& index, const std::string& records, uint64_t order, int64_t off,
             unsigned depth, std::vector<uint64_t>& keys, std::vector<unsigned>& leafDepths,
             std::vector<std::vector<uint64_t>>* shape) {
  ASSERT_LT(depth, 20u);
  const DiskNode n = readNode(index, order, off);
  ASSERT_EQ(0u, (off - 24) % nodeSize(order)) << off;
  if (shape != nullptr) shape->push_back(n.keys);
  if (n.children.size() == n.keys.size()) {
    leafDepths.push_back(depth);
    for (size_t i = 0; i < n.keys.size(); ++i) {
      ASSERT_LE(static_cast<size_t>(n.children[i]) + ENTRY, records.size());
      EXPECT_EQ(n.keys[i], le64(records, n.children[i] + REC)) << "key copy of " << n.keys[i];
      keys.push_back(n.keys[i]);
    }
    return;
  }
  ASSERT_EQ(n.keys.size() + 1, n.children.size()) << off;
  for (size_t i = 0; i < n.children.size(); ++i) {
    collect(index, records, order, n.children[i], depth + 1, keys, leafDepths, shape);
  }
}

struct Files {
  std::string index, records;
};
Files readFiles(const Pathname& dir) {
  return {readTestFile(dir / "btree_index.dat"), readTestFile(dir / "btree_records.dat")};
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

PairRecord rec(uint64_t k) { return PairRecord(k * 10, k * 100); }

// ---------------------------------------------------------------- layout

TEST(BTreeReviewLayout, RecordsAppendInOrderOfFirstInsertion) {
  TestTempDir dir;
  bt::BTree tree(U64Key(0), 3);
  ASSERT_TRUE(tree.open(dir.path()));
  const uint64_t keys[] = {50, 10, 40, 20, 30, 5};
  for (uint64_t k : keys) tree.addUpdate(U64Key(k), rec(k));
  tree.close();
  const Files f = readFiles(dir.path());
  std::string want = RMAGIC;
  for (uint64_t k : keys) want += entry(k * 10, k * 100, k);
  EXPECT_EQ(want, f.records);
}

TEST(BTreeReviewLayout, LeafKeysAscendWithTheirRecordOffsets) {
  TestTempDir dir;
  bt::BTree tree(U64Key(0), 7);
  ASSERT_TRUE(tree.open(dir.path()));
  for (uint64_t k : {30, 10, 20}) tree.addUpdate(U64Key(k), rec(k));
  tree.close();
  const Files f = readFiles(dir.path());
  // 30 went in first, at 16; then 10 at 40, 20 at 64.
  EXPECT_EQ(encodeNode(7, {10, 20, 30}, {40, 64, 16}), f.index.substr(24));
}

TEST(BTreeReviewLayout, SplitsFollowTheHalvingRules) {
  // Order 3, keys 1..10 ascending: leaves split at index 2 and the right
  // half's first key goes up; the root of four keys [3,5,7,9] splits at
  // index 2, sending 7 up and keeping neither copy below.
  TestTempDir dir;
  bt::BTree tree(U64Key(0), 3);
  ASSERT_TRUE(tree.open(dir.path()));
  for (uint64_t k = 1; k <= 10; ++k) tree.addUpdate(U64Key(k), rec(k));
  tree.close();
  const Files f = readFiles(dir.path());
  std::vector<uint64_t> keys;
  std::vector<unsigned> depths;
  std::vector<std::vector<uint64_t>> shape;
  collect(f.index, f.records, 3, 24, 0, keys, depths, &shape);
  const std::vector<std::vector<uint64_t>> want = {
      {7}, {3, 5}, {1, 2}, {3, 4}, {5, 6}, {9}, {7, 8}, {9, 10}};
  EXPECT_EQ(want, shape);
  EXPECT_EQ(std::vector<unsigned>(5, 2), depths);
  // Eight nodes in all, each in one slot after the header.
  EXPECT_EQ(24 + 8 * nodeSize(3), f.index.size());
}

// ---------------------------------------------------------------- walks

struct CountingVisitor : bt::BTree::Visitor {
  int trees = 0, nodes = 0, keys = 0, records = 0;
  std::vector<uint64_t> recordA;
  int stopAfterRecords = -1;
  bool visit(const bt::BTree&) override { return ++trees, true; }
  bool visit(const bt::BTree::Node&, unsigned) override { return ++nodes, true; }
  bool visit(const bt::BTree::Key&, unsigned) override { return ++keys, true; }
  bool visit(const bt::BTree::Record& r, unsigned) override {
    recordA.push_back(static_cast<const PairRecord&>(r).a());
    return ++records != stopAfterRecords;
  }
};

TEST(BTreeReviewAccept, VisitsEveryNodeKeyAndRecordDepthFirst) {
  TestTempDir dir;
  bt::BTree tree(U64Key(0), 3);
  ASSERT_TRUE(tree.open(dir.path()));
  for (uint64_t k = 10; k >= 1; --k) tree.addUpdate(U64Key(k), rec(k));
  PairRecord scratch;
  CountingVisitor v;
  EXPECT_TRUE(tree.accept(v, scratch));
  EXPECT_EQ(1, v.trees);
  EXPECT_EQ(10, v.records);
  EXPECT_GE(v.keys, 10);
  std::vector<uint64_t> want;
  for (uint64_t k = 1; k <= 10; ++k) want.push_back(k * 10);
  EXPECT_EQ(want, v.recordA);
  const Files f = readFiles(dir.path());
  EXPECT_EQ(static_cast<int>((f.index.size() - 24) / nodeSize(3)), v.nodes);

  CountingVisitor stop;
  stop.stopAfterRecords = 3;
  EXPECT_FALSE(tree.accept(stop, scratch));
  EXPECT_EQ(3, stop.records);
}

// ---------------------------------------------------------------- BTreeCP

constexpr int64_t T0 = 1700000000;

bool exists(const Pathname& p) { return fs::exists(std::string(p)); }

// Fills a BTreeCP at T0 with keys 1..10, checkpoints them at T0 + 1000 while
// adding 11, and leaves the clock there.
void fillWithSnapshot(bt::BTreeCP& tree, ScopedFixedClock& clock, const Pathname& dir) {
  ASSERT_TRUE(tree.open(dir));
  for (uint64_t k = 1; k <= 10; ++k) tree.addUpdate(U64Key(k), rec(k));
  clock.set(Timeval(T0 + 1000, 0));
  tree.addUpdate(U64Key(11), rec(11));
}

// Damages the right-hand internal node of the ten-key tree so that an
// insert beneath it cannot read its child.
void damageRightInternal(const Pathname& dir) {
  const Files f = readFiles(dir);
  const DiskNode root = readNode(f.index, 3, 24);
  ASSERT_EQ(2u, root.children.size());
  std::fstream io(std::string(dir / "btree_index.dat"),
                  std::ios::in | std::ios::out | std::ios::binary);
  io.seekp(root.children[1] + 3 * KEY + 8);
  const std::string far = putLe64(1ull << 40);
  io.write(far.data(), 8);
}

TEST(BTreeReviewCP, ACorruptTreeNeverReplacesTheSnapshot) {
  TestTempDir dir;
  ScopedFixedClock clock(Timeval(T0, 0));
  PairRecord scratch;
  bt::BTreeCP tree(U64Key(0), scratch, 100, 3);
  fillWithSnapshot(tree, clock, dir.path());
  const Files snap = readFiles(dir / "snapshot");
  damageRightInternal(dir.path());
  clock.set(Timeval(T0 + 5000, 0));
  EXPECT_EQ("BTree::Exception: Validation failed in checkpoint",
            thrownText<bt::BTree::CheckValidException>([&] { tree.checkpoint(); }));
  const Files after = readFiles(dir / "snapshot");
  EXPECT_EQ(snap.index, after.index);
  EXPECT_EQ(snap.records, after.records);
  EXPECT_EQ("1700001000", readTestFile(dir / "snapshot" / "snap.dat"));
  EXPECT_FALSE(exists(dir / "snapshot.tmp"));
}

TEST(BTreeReviewCP, CopyAndMoveTheLiveFiles) {
  TestTempDir dir;
  PairRecord scratch;
  bt::BTreeCP tree(U64Key(0), scratch, 100000, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  const Files live = readFiles(dir.path());
  writeTestFile(dir / "copy" / "stale", "x");
  ASSERT_TRUE(tree.copyBTree(dir / "copy", true));
  EXPECT_FALSE(exists(dir / "copy" / "stale"));
  EXPECT_EQ(live.index, readTestFile(dir / "copy" / "btree_index.dat"));
  EXPECT_EQ(live.records, readTestFile(dir / "copy" / "btree_records.dat"));
  EXPECT_TRUE(exists(dir / "btree_index.dat"));
  tree.close();
  ASSERT_TRUE(tree.copyBTree(dir / "moved", false));
  EXPECT_EQ(live.index, readTestFile(dir / "moved" / "btree_index.dat"));
  EXPECT_FALSE(exists(dir / "btree_index.dat"));
  EXPECT_FALSE(exists(dir / "btree_records.dat"));
}

TEST(BTreeReviewCP, CheckpointClearsAStaleOldAndLogsSuccess) {
  TestTempDir dir;
  ScopedFixedClock clock(Timeval(T0 + 7, 0));
  writeTestFile(dir / "snapshot.old" / "junk", "j");
  writeTestFile(dir / "snapshot.tmp" / "junk", "j");
  PairRecord scratch;
  bt::BTreeCP tree(U64Key(0), scratch, 100, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  ScopedLogCapture log("BTreeCP");
  EXPECT_TRUE(tree.checkpoint());
  EXPECT_FALSE(exists(dir / "snapshot.old"));
  EXPECT_FALSE(exists(dir / "snapshot.tmp"));
  EXPECT_FALSE(exists(dir / "snapshot" / "junk"));
  EXPECT_EQ("1700000007", readTestFile(dir / "snapshot" / "snap.dat"));
  EXPECT_TRUE(has(log.text(), "checkpoint success: created/updated " +
                                  std::string(dir / "snapshot") + " (time=1700000007)"))
      << log.text();
}

TEST(BTreeReviewCP, SnapshotThatCannotStepAsideStays) {
  TestTempDir dir;
  ScopedLogCapture log("BTreeCP");
  // The snapshot cannot step aside onto a non-empty directory.
  writeTestFile(dir / "t" / "f", "tmp");
  writeTestFile(dir / "s" / "f", "target");
  writeTestFile(dir / "o" / "f", "old");
  EXPECT_FALSE(bt::BTreeCP::atomicMove(dir / "t", dir / "s", dir / "o"));
  EXPECT_EQ("target", readTestFile(dir / "s" / "f"));
  EXPECT_TRUE(has(log.text(), "failed: failed to rename " + std::string(dir / "s") + " to " +
                                  std::string(dir / "o") + ": Directory not empty"))
      << log.text();
}

TEST(BTreeReviewOpen, StoredOrdersThatFitAreTakenAndSplitThere) {
  for (uint64_t stored : {2ull, 3ull, 100ull, 255ull}) {
    TestTempDir dir;
    writeTestFile(dir / "btree_index.dat", IMAGIC + putLe64(stored));
    writeTestFile(dir / "btree_records.dat", RMAGIC);
    bt::BTree tree(U64Key(0), 7);
    ASSERT_TRUE(tree.open(dir.path())) << stored;
    EXPECT_EQ(stored, tree.order());
    for (uint64_t k = 1; k <= stored + 1; ++k) tree.addUpdate(U64Key(k), rec(k));
    tree.close();
    const Files f = readFiles(dir.path());
    EXPECT_EQ(1u, readNode(f.index, stored, 24).keys.size()) << stored;
  }
}

}  // namespace
