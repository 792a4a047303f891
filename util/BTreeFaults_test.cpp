// Failed writes through the tree's write seam: a full disk at each write of
// an insert, and short writes. Every failure must name its step, and the
// files must still read as the tree before the insert (or, for the one
// write that follows the parent's, as a tree that checkValid rejects while
// every key stays reachable).
#include "util/BTree.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "util/BTreeFormat.h"
#include "util/testing/BTreeLayoutReader.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

using bt::BTree;

const U64Key kBlank(0);

// The write call that fails: call number `failAt` (from 1) fails, either
// with ENOSPC before any byte or, as a short write, after half its bytes
// (the retry of the rest then moves nothing).
struct Fault {
  int failAt = 0;
  bool shortWrite = false;
  int calls = 0;
  bool stalled = false;
};
Fault gFault;

ssize_t faultyWrite(int fd, const void* buf, size_t n) {
  if (gFault.stalled) {
    gFault.stalled = false;
    return 0;
  }
  if (++gFault.calls == gFault.failAt) {
    if (gFault.shortWrite && n > 1) {
      gFault.stalled = true;
      return ::write(fd, buf, n / 2);
    }
    errno = ENOSPC;
    return -1;
  }
  return ::write(fd, buf, n);
}

class ScopedWriteFault {
 public:
  ScopedWriteFault(int failAt, bool shortWrite) : _previous(bt::setWriteCall(&faultyWrite)) {
    gFault = Fault{failAt, shortWrite, 0, false};
  }
  ~ScopedWriteFault() { bt::setWriteCall(_previous); }

 private:
  bt::WriteCall _previous;
};

std::map<uint64_t, std::pair<uint64_t, uint64_t>> entries(uint64_t count) {
  std::map<uint64_t, std::pair<uint64_t, uint64_t>> out;
  for (uint64_t k = 1; k <= count; ++k) out[k] = {k, 2 * k};
  return out;
}

void fill(const Pathname& dir, uint64_t count) {
  BTree tree(kBlank, 3);
  ASSERT_TRUE(tree.open(dir));
  for (uint64_t k = 1; k <= count; ++k) tree.addUpdate(U64Key(k), PairRecord(k, 2 * k));
}

// Runs addUpdate(key) on a tree of keys 1..count with the write `failAt`
// failing, and returns the exception text ("" when nothing was thrown).
std::string failingInsert(const Pathname& dir, uint64_t count, uint64_t key, int failAt,
                          bool shortWrite) {
  fill(dir, count);
  BTree tree(kBlank, 3);
  EXPECT_TRUE(tree.open(dir));
  std::string text;
  {
    ScopedWriteFault fault(failAt, shortWrite);
    text = thrownText<BTree::IOException>([&] { tree.addUpdate(U64Key(key), PairRecord(key, 2 * key)); });
  }
  return text == "<nothing thrown>" ? "" : text;
}

TEST(BTreeWriteFault, EachWriteOfARootSplitNamesItsStepAndKeepsTheOldTree) {
  // Keys 1..3 fill the root leaf at order 3; key 4 splits it.
  const char* kSteps[] = {
      "Record::writeLE failure(2) in Node::_leafAddUpdate, Node @24",
      "Key::writeLE failure(2) in Node::_leafAddUpdate, Node @24",
      "Node::writeLE failure(2) in Node::_splitLeaf, Node @80",
      "Node::writeLE failure in BTree::addUpdate, Node @136",
      "Node::writeLE failure(2) in BTree::addUpdate, Node @24",
  };
  for (int k = 1; k <= 6; ++k) {
    SCOPED_TRACE(k);
    TestTempDir dir;
    const std::string text = failingInsert(dir.path(), 3, 4, k, false);
    if (k == 6) {
      EXPECT_EQ("", text);
      EXPECT_EQ(entries(4), readLayoutTree(dir.path()).entries);
      continue;
    }
    EXPECT_EQ(0u, text.find(std::string("BTree::Exception: ") + kSteps[k - 1])) << text;
    const LayoutTree t = readLayoutTree(dir.path());
    ASSERT_TRUE(t.ok) << t.error;
    EXPECT_EQ(entries(3), t.entries);
    BTree tree(kBlank, 3);
    ASSERT_TRUE(tree.open(dir.path()));
    PairRecord scratch;
    EXPECT_TRUE(tree.checkValid(scratch));
  }
}

TEST(BTreeWriteFault, ALeafSplitUnderTheRootWritesTheShrunkLeafLast) {
  // Keys 1..5 at order 3: root [3] over [1,2] and [3,4,5]; key 6 splits the
  // right leaf into [3,4] and [5,6] under separator 5.
  const char* kSteps[] = {
      "Record::writeLE failure(2) in Node::_leafAddUpdate",
      "Key::writeLE failure(2) in Node::_leafAddUpdate",
      "Node::writeLE failure(2) in Node::_splitLeaf",
      "Node::writeLE failure in Node::addUpdate, Node @24",
      "Node::writeLE failure in Node::_splitLeaf",
  };
  for (int k = 1; k <= 5; ++k) {
    SCOPED_TRACE(k);
    TestTempDir dir;
    const std::string text = failingInsert(dir.path(), 5, 6, k, false);
    EXPECT_EQ(0u, text.find(std::string("BTree::Exception: ") + kSteps[k - 1])) << text;
    BTree tree(kBlank, 3);
    ASSERT_TRUE(tree.open(dir.path()));
    PairRecord scratch;
    if (k < 5) {
      EXPECT_TRUE(tree.checkValid(scratch));
      EXPECT_EQ(entries(5), readLayoutTree(dir.path()).entries);
      continue;
    }
    // The parent already routes 5 and up to the new leaf; the old leaf
    // still holds 5, which checkValid sees as out of range.
    ScopedLogCapture log("BTree");
    EXPECT_FALSE(tree.checkValid(scratch));
    EXPECT_NE(std::string::npos, log.text().find("2th key is outside its parent's range"))
        << log.text();
    for (uint64_t key = 1; key <= 6; ++key) {
      ASSERT_TRUE(tree.retrieve(U64Key(key), scratch)) << key;
      EXPECT_EQ(PairRecord(key, 2 * key), scratch);
    }
  }
}

TEST(BTreeWriteFault, AnUpdateInPlaceNamesRecordThenKey) {
  const char* kSteps[] = {"Record::writeLE failure in Node::_leafAddUpdate",
                          "Key::writeLE failure in Node::_leafAddUpdate"};
  for (int k = 1; k <= 2; ++k) {
    TestTempDir dir;
    const std::string text = failingInsert(dir.path(), 5, 2, k, false);
    EXPECT_EQ(0u, text.find(std::string("BTree::Exception: ") + kSteps[k - 1])) << text;
  }
}

TEST(BTreeWriteFault, ATornAppendIsSkippedByTheNextInsert) {
  TestTempDir dir;
  const std::string text = failingInsert(dir.path(), 2, 3, 1, true);
  EXPECT_EQ(0u, text.find("BTree::Exception: Record::writeLE failure(2) in Node::_leafAddUpdate"))
      << text;
  // Half a record is left at the end of the file.
  EXPECT_EQ(16u + 2 * 24 + 8, readTestFile(dir / "btree_records.dat").size());
  BTree tree(kBlank, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  PairRecord scratch;
  EXPECT_TRUE(tree.checkValid(scratch));
  for (uint64_t key = 3; key <= 30; ++key) tree.addUpdate(U64Key(key), PairRecord(key, 2 * key));
  EXPECT_TRUE(tree.checkValid(scratch));
  tree.close();
  // The half entry stays as a gap; every later entry is on the grid.
  EXPECT_EQ(16u + 31 * 24, readTestFile(dir / "btree_records.dat").size());
  EXPECT_EQ(entries(30), readLayoutTree(dir.path()).entries);
}

TEST(BTreeWriteFault, TheOpenTreeFollowsTheFileAfterAFailure) {
  TestTempDir dir;
  fill(dir.path(), 3);
  BTree tree(kBlank, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  {
    // The root overwrite of the split fails after half its bytes.
    ScopedWriteFault fault(5, true);
    EXPECT_NE("<nothing thrown>",
              thrownText<BTree::IOException>([&] { tree.addUpdate(U64Key(4), PairRecord(4, 8)); }));
  }
  // The torn root is what the file holds now, and what the tree sees.
  PairRecord scratch;
  EXPECT_FALSE(tree.checkValid(scratch));
  tree.close();
  BTree again(kBlank, 3);
  EXPECT_FALSE(again.open(dir.path()) && again.checkValid(scratch));
}

TEST(BTreeWriteFault, HeadersOnAFullDisk) {
  TestTempDir dir;
  ScopedLogCapture log("BTree");
  BTree tree(kBlank, 3);
  {
    ScopedWriteFault fault(1, false);
    EXPECT_FALSE(tree.open(dir.path()));
  }
  EXPECT_NE(std::string::npos, log.text().find("ERROR cannot write the headers of " +
                                                std::string(dir / "btree_index.dat") + " and " +
                                                std::string(dir / "btree_records.dat") +
                                                ": No space left on device"))
      << log.text();
}

TEST(BTreeWriteFault, ShortReadsAreLoggedWithTheirCounts) {
  TestTempDir dir;
  fill(dir.path(), 1);
  std::string records = readTestFile(dir / "btree_records.dat");
  records.resize(16 + 10);  // the only record, cut short
  writeTestFile(dir / "btree_records.dat", records);
  BTree tree(kBlank, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  ScopedLogCapture log("BTree");
  PairRecord scratch;
  EXPECT_EQ(0u, thrownText<BTree::IOException>([&] { tree.retrieve(U64Key(1), scratch); })
                    .find("BTree::Exception: Record::readLE failure in Node::retrieve, Node @24"));
  EXPECT_NE(std::string::npos,
            log.text().find("ERROR unable to reader 16 bytes: bytes=10 Success"))
      << log.text();
}

}  // namespace
