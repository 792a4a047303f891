#include "util/BTree.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "util/BTreeFormat.h"
#include "util/FileStar.h"
#include "util/testing/BTreeLayoutReader.h"
#include "util/testing/BTreeTestTypes.h"
#include "util/testing/LogCapture.h"
#include "util/testing/TestTempDir.h"
#include "util/testing/ThrownText.h"

namespace {

using bt::BTree;

const U64Key kBlank(0);

std::string le64Bytes(uint64_t v) {
  std::string out(8, '\0');
  for (int i = 0; i < 8; ++i) out[i] = static_cast<char>(v >> (8 * i));
  return out;
}

// Overwrites 8 bytes of `path` at `offset` with `v`, little-endian.
void patchLE64(const Pathname& path, uint64_t offset, uint64_t v) {
  std::fstream f(std::string(path), std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(static_cast<std::streamoff>(offset));
  const std::string bytes = le64Bytes(v);
  f.write(bytes.data(), 8);
  ASSERT_TRUE(f.good()) << path;
}

void truncateTo(const Pathname& path, size_t size) {
  std::string bytes = readTestFile(path);
  bytes.resize(size);
  writeTestFile(path, bytes);
}

// Fills a tree in `dir` with keys 1..count, record (k, 2k).
void fill(const Pathname& dir, uint32_t order, uint64_t count) {
  BTree tree(kBlank, order);
  ASSERT_TRUE(tree.open(dir));
  for (uint64_t k = 1; k <= count; ++k) tree.addUpdate(U64Key(k), PairRecord(k, 2 * k));
  tree.close();
}

TEST(BTreeLayout, FreshPairHoldsOnlyTheHeaders) {
  TestTempDir dir;
  BTree tree(kBlank, 255);
  ASSERT_TRUE(tree.open(dir.path()));
  EXPECT_EQ(std::string("MAGIC_IND_01\n\n\n\0", 16) + le64Bytes(255),
            readTestFile(dir / "btree_index.dat"));
  EXPECT_EQ(std::string("MAGIC_REC_01\n\n\n\0", 16), readTestFile(dir / "btree_records.dat"));
  PairRecord r;
  EXPECT_FALSE(tree.retrieve(U64Key(1), r));
  EXPECT_TRUE(tree.checkValid(r));
}

TEST(BTreeLayout, FirstEntryIsOneLeafAtTwentyFourAndOneEntryAtSixteen) {
  TestTempDir dir;
  fill(dir.path(), 3, 1);
  const std::string index = readTestFile(dir / "btree_index.dat");
  const std::string records = readTestFile(dir / "btree_records.dat");
  // Order 3 with 8-byte keys: 3 key slots and 4 child slots, 56 bytes.
  ASSERT_EQ(24u + 56u, index.size());
  EXPECT_EQ(le64Bytes(1) + le64Bytes(0) + le64Bytes(0) + le64Bytes(16) +
                le64Bytes(UINT64_MAX) + le64Bytes(UINT64_MAX) + le64Bytes(UINT64_MAX),
            index.substr(24));
  EXPECT_EQ(le64Bytes(1) + le64Bytes(2) + le64Bytes(1), records.substr(16));
}

TEST(BTreeLayout, The256thKeyAtOrder255SplitsTheRootInPlace) {
  TestTempDir dir;
  fill(dir.path(), 255, 255);
  EXPECT_EQ(24u + 4088u, readTestFile(dir / "btree_index.dat").size());
  fill(dir.path(), 255, 256);  // rewrites 1..255 in place and adds 256
  const LayoutTree t = readLayoutTree(dir.path());
  ASSERT_TRUE(t.ok) << t.error;
  EXPECT_EQ(2u, t.height);
  EXPECT_EQ(3u, t.nodeCount);
  ASSERT_EQ(256u, t.entries.size());
  for (const auto& [k, rec] : t.entries) EXPECT_EQ(std::make_pair(k, 2 * k), rec) << k;
  const std::string index = readTestFile(dir / "btree_index.dat");
  EXPECT_EQ(24u + 3 * 4088u, index.size());
  // The root: one key, the separator 129 (the first key of the right half,
  // which starts at index 256 / 2), and two children appended after it.
  EXPECT_EQ(le64Bytes(129) + le64Bytes(0), index.substr(24, 16));
  const size_t children = 24 + bt::nodeChildPos(255, 8, 0);
  EXPECT_EQ(le64Bytes(24 + 2 * 4088) + le64Bytes(24 + 4088) + le64Bytes(UINT64_MAX),
            index.substr(children, 24));
  EXPECT_EQ(16u + 256u * 24u, readTestFile(dir / "btree_records.dat").size());
}

TEST(BTreeLayout, IndependentReaderAgreesAtEveryHeight) {
  for (uint32_t order : {2u, 3u, 5u, 64u}) {
    TestTempDir dir;
    BTree tree(kBlank, order);
    ASSERT_TRUE(tree.open(dir.path()));
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> model;
    // Descending, then interleaved, so that splits happen at both ends.
    for (uint64_t i = 0; i < 400; ++i) {
      const uint64_t k = i < 200 ? 1000 - i : 2 * i + 1;
      tree.addUpdate(U64Key(k), PairRecord(i, k));
      model[k] = {i, k};
    }
    PairRecord scratch;
    ASSERT_TRUE(tree.checkValid(scratch)) << order;
    tree.close();
    const LayoutTree t = readLayoutTree(dir.path());
    ASSERT_TRUE(t.ok) << order << ": " << t.error;
    EXPECT_EQ(order, t.order);
    EXPECT_EQ(model, t.entries) << order;
    EXPECT_GE(t.height, order <= 5 ? 3u : 2u) << order;
  }
}

TEST(BTreeUpdate, SameKeyTwiceRewritesInPlace) {
  TestTempDir dir;
  fill(dir.path(), 4, 50);
  const size_t before = readTestFile(dir / "btree_records.dat").size();
  const std::string indexBefore = readTestFile(dir / "btree_index.dat");
  BTree tree(kBlank, 4);
  ASSERT_TRUE(tree.open(dir.path()));
  for (uint64_t k = 1; k <= 50; k += 7) tree.addUpdate(U64Key(k), PairRecord(99, k));
  PairRecord r;
  ASSERT_TRUE(tree.retrieve(U64Key(8), r));
  EXPECT_EQ(PairRecord(99, 8), r);
  ASSERT_TRUE(tree.retrieve(U64Key(9), r));
  EXPECT_EQ(PairRecord(9, 18), r);
  tree.close();
  EXPECT_EQ(before, readTestFile(dir / "btree_records.dat").size());
  EXPECT_EQ(indexBefore, readTestFile(dir / "btree_index.dat"));
  EXPECT_EQ(std::make_pair(uint64_t{99}, uint64_t{22}), readLayoutTree(dir.path()).entries[22]);
}

TEST(BTreeOpen, StoredOrderWins) {
  TestTempDir dir;
  fill(dir.path(), 7, 100);
  ScopedLogCapture log("BTree");
  BTree tree(kBlank, 255);
  ASSERT_TRUE(tree.open(dir.path()));
  EXPECT_EQ(7u, tree.order());
  EXPECT_TRUE(log.hasLine("DEBUG existing btree has order 7, will use this order"));
  tree.addUpdate(U64Key(500), PairRecord(1, 1));
  PairRecord r;
  EXPECT_TRUE(tree.checkValid(r));
  tree.close();
  EXPECT_EQ(7u, readLayoutTree(dir.path()).order);
  EXPECT_EQ(101u, readLayoutTree(dir.path()).entries.size());
}

TEST(BTreeOpen, RefusesDamagedPairsWithTheirMessages) {
  const struct {
    const char* name;
    void (*damage)(const Pathname& dir);
    std::vector<std::string> lines;
  } kCases[] = {
      {"index truncated to 10 bytes",
       [](const Pathname& d) { truncateTo(d / "btree_index.dat", 10); },
       {"ERROR index header invalid", "ERROR verifyHeaders failed"}},
      {"index magic changed",
       [](const Pathname& d) { patchLE64(d / "btree_index.dat", 0, 0x4141414141414141); },
       {"ERROR index header invalid", "ERROR verifyHeaders failed"}},
      {"record magic changed",
       [](const Pathname& d) { patchLE64(d / "btree_records.dat", 8, 0); },
       {"ERROR record header invalid", "ERROR verifyHeaders failed"}},
      {"record file emptied",
       [](const Pathname& d) { truncateTo(d / "btree_records.dat", 0); },
       {"ERROR record header invalid", "ERROR verifyHeaders failed"}},
      {"order past 32 bits",
       [](const Pathname& d) { patchLE64(d / "btree_index.dat", 16, 1ull << 33); },
       {"ERROR order in header is too high, maybe corrupt: 8589934592",
        "ERROR verifyHeaders failed"}},
      {"order past one block",
       [](const Pathname& d) { patchLE64(d / "btree_index.dat", 16, 256); },
       {"ERROR order in header is too high, maybe corrupt: 256", "ERROR verifyHeaders failed"}},
      {"order one",
       [](const Pathname& d) { patchLE64(d / "btree_index.dat", 16, 1); },
       {"ERROR order in header is too low, maybe corrupt: 1", "ERROR verifyHeaders failed"}},
      {"root cut short",
       [](const Pathname& d) { truncateTo(d / "btree_index.dat", 24 + 100); },
       {"ERROR unable to reader 4088 bytes: bytes=100 Success"}},
      {"root without its header",
       [](const Pathname& d) { truncateTo(d / "btree_index.dat", 0); },
       {}},
      {"entries but no root",
       [](const Pathname& d) { truncateTo(d / "btree_index.dat", 24); },
       {}},
      {"key after a blank slot",
       [](const Pathname& d) {
         patchLE64(d / "btree_index.dat", 24 + 8, 0);  // key slot 1 of the root leaf
       },
       {"ERROR node @24 breaks its layout: !blankFound"}},
      {"missing child below the key count",
       [](const Pathname& d) { patchLE64(d / "btree_index.dat", 24 + 255 * 8, UINT64_MAX); },
       {"ERROR node @24 breaks its layout: foff != BTree::Invalid_Offset"}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TestTempDir dir;
    fill(dir.path(), 255, 20);
    c.damage(dir.path());
    ScopedLogCapture log("BTree");
    BTree tree(kBlank, 255);
    EXPECT_FALSE(tree.open(dir.path()));
    EXPECT_FALSE(tree.isOpen());
    for (const auto& line : c.lines) EXPECT_TRUE(log.hasLine(line)) << line << "\n" << log.text();
  }
}

TEST(BTreeOpen, NoRootWithEntriesNamesBothFiles) {
  TestTempDir dir;
  fill(dir.path(), 255, 3);
  truncateTo(dir / "btree_index.dat", 0);
  ScopedLogCapture log("BTree");
  BTree tree(kBlank, 255);
  EXPECT_FALSE(tree.open(dir.path()));
  EXPECT_TRUE(log.hasLine("ERROR no root in " + std::string(dir / "btree_index.dat") +
                              " with non-empty recordFile " +
                              std::string(dir / "btree_records.dat")))
      << log.text();
}

TEST(BTreeOpen, AFileThatCannotBeOpenedIsNamed) {
  TestTempDir dir;
  writeTestFile(dir / "btree_index.dat" / "inside", "");  // a directory in the file's place
  ScopedLogCapture log("BTree");
  BTree tree(kBlank, 255);
  EXPECT_FALSE(tree.open(dir.path()));
  EXPECT_TRUE(log.hasLine("ERROR cannot open or create file " +
                              std::string(dir / "btree_index.dat") + ": Is a directory"))
      << log.text();
}

TEST(BTreeRetrieve, DamagedChildOffsetsThrowNamingTheStep) {
  const struct {
    uint64_t at;     // a child slot of the root, order 3, keys 1..12
    uint64_t value;
    uint64_t key;    // looked up through that slot
    const char* text;
  } kCases[] = {
      {24 + bt::nodeChildPos(3, 8, 0), 25, 1,
       "BTree::Exception: invalid child found in Node::retrieve, Node @24"},
      {24 + bt::nodeChildPos(3, 8, 0), 24 + 1000 * bt::nodeBytes(3, 8), 1,  // past the end
       "BTree::Exception: Node::readLE failure in Node::retrieve, Node @24"},
  };
  for (const auto& c : kCases) {
    TestTempDir dir;
    fill(dir.path(), 3, 12);
    patchLE64(dir / "btree_index.dat", c.at, c.value);
    BTree tree(kBlank, 3);
    ASSERT_TRUE(tree.open(dir.path()));
    PairRecord r;
    EXPECT_EQ(0u, thrownText<BTree::IOException>([&] { tree.retrieve(U64Key(c.key), r); })
                      .find(c.text))
        << c.text;
  }
  // A leaf whose record offset falls inside the header.
  TestTempDir dir;
  fill(dir.path(), 3, 2);
  patchLE64(dir / "btree_index.dat", 24 + bt::nodeChildPos(3, 8, 1), 8);
  BTree tree(kBlank, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  PairRecord r;
  EXPECT_EQ(0u, thrownText<BTree::IOException>([&] { tree.retrieve(U64Key(2), r); })
                    .find("BTree::Exception: invalid child found(2) in Node::retrieve, Node @24"));
  EXPECT_TRUE(tree.retrieve(U64Key(1), r));
}

TEST(BTreeOpen, DirectoryMustBeReadWritable) {
  TestTempDir dir;
  ScopedLogCapture log("BTree");
  BTree tree(kBlank, 255);
  EXPECT_FALSE(tree.open(dir / "missing"));
  EXPECT_TRUE(log.hasLine("ERROR " + std::string(dir / "missing") +
                              " is not rw-able No such file or directory"))
      << log.text();
}

TEST(BTreeMisuse, BlankKeyAndClosedTreeThrowTheirTexts) {
  TestTempDir dir;
  BTree tree(kBlank, 4);
  PairRecord r;
  EXPECT_EQ("BTree::Exception: called retrieve on btree that isn't open",
            thrownText<BTree::IOException>([&] { tree.retrieve(U64Key(1), r); }));
  // addUpdate borrows debug's text.
  EXPECT_EQ("BTree::Exception: called debug on btree that isn't open",
            thrownText<BTree::IOException>([&] { tree.addUpdate(U64Key(1), r); }));
  EXPECT_EQ("BTree::Exception: called accept on btree that isn't open",
            thrownText<BTree::IOException>([&] {
              BTree::Visitor v;
              tree.accept(v, r);
            }));
  FileStar out(stdout);
  EXPECT_EQ("BTree::Exception: called debug on btree that isn't open",
            thrownText<BTree::IOException>([&] { tree.debug(out, r); }));
  EXPECT_FALSE(tree.checkValid(r));

  ASSERT_TRUE(tree.open(dir.path()));
  const std::string blankAdd =
      thrownText<BTree::InvalidKeyException>([&] { tree.addUpdate(kBlank, r); });
  EXPECT_EQ(0u, blankAdd.find("BTree::Exception: ")) << blankAdd;
  EXPECT_NE("<nothing thrown>", thrownText<BTree::InvalidKeyException>(
                                    [&] { tree.retrieve(U64Key(0), r); }));
  EXPECT_EQ(24u, readTestFile(dir / "btree_index.dat").size());
}

TEST(BTreeDebug, PrintsEveryNodeKeyAndRecord) {
  TestTempDir dir;
  fill(dir.path(), 2, 3);
  BTree tree(kBlank, 2);
  ASSERT_TRUE(tree.open(dir.path()));
  ScopedFileStar out(FileStar::openTemporaryFile());
  PairRecord scratch;
  tree.debug(out, scratch);
  std::fflush(out.get());
  std::rewind(out.get());
  std::string text;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, out.get())) > 0;) text.append(buf, n);
  // Order 2: keys 1, 2, 3 split the root leaf at index 1.
  EXPECT_EQ(
      "BTree order=2\n"
      "Node @24 keys=1 children=2 (Internal)\n"
      "  key 0x2\n"
      "  Node @104 keys=1 children=1 (Leaf)\n"
      "    key 0x1\n"
      "    record a=1 b=2\n"
      "  Node @64 keys=2 children=2 (Leaf)\n"
      "    key 0x2\n"
      "    key 0x3\n"
      "    record a=2 b=4\n"
      "    record a=3 b=6\n",
      text);
}

TEST(BTreeCheckValid, ReportsEachDamageWithItsMessage) {
  // Order 3 with keys 1..12: a root, internal nodes and leaves. Offsets are
  // found with the layout reader's rules: node n starts at 24 + 56 n.
  const size_t node = bt::nodeBytes(3, 8);
  const struct {
    const char* name;
    void (*damage)(const Pathname& dir, size_t node);
    std::string line;
  } kCases[] = {
      {"leaf record offset past the file",
       [](const Pathname& d, size_t n) {
         patchLE64(d / "btree_index.dat", 24 + n + bt::nodeChildPos(3, 8, 0), 1 << 20);
       },
       "ERROR 0th child has invalid offset: indexsize=%I recordsize=%R, (Leaf)"},
      {"leaf record offset off the entry grid",
       [](const Pathname& d, size_t n) {
         patchLE64(d / "btree_index.dat", 24 + n + bt::nodeChildPos(3, 8, 0), 17);
       },
       "ERROR 0th child has invalid offset: indexsize=%I recordsize=%R, (Leaf)"},
      {"internal child off the node grid",
       [](const Pathname& d, size_t) {
         patchLE64(d / "btree_index.dat", 24 + bt::nodeChildPos(3, 8, 1), 25);
       },
       "ERROR 1th child has invalid offset: indexsize=%I recordsize=%R, (Internal)"},
      {"keys out of order in a leaf",
       [](const Pathname& d, size_t n) { patchLE64(d / "btree_index.dat", 24 + n, 1000); },
       "ERROR 1th key is not above the one before it, node @%N"},
      {"a subtree under the wrong separator",
       [](const Pathname& d, size_t) {
         // The root's first child becomes its second: keys at or above the
         // separator now sit left of it.
         const std::string index = readTestFile(d / "btree_index.dat");
         patchLE64(d / "btree_index.dat", 24 + bt::nodeChildPos(3, 8, 0),
                   layout_reader_detail::le64(index, 24 + bt::nodeChildPos(3, 8, 1)));
       },
       "ERROR 0th key is outside its parent's range, node @%C: 0x%K"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    TestTempDir dir;
    fill(dir.path(), 3, 12);
    // The first leaf written is the root's leftmost descendant at node 1.
    c.damage(dir.path(), node);
    BTree tree(kBlank, 3);
    ASSERT_TRUE(tree.open(dir.path()));
    ScopedLogCapture log("BTree");
    PairRecord scratch;
    EXPECT_FALSE(tree.checkValid(scratch));
    std::string want = c.line;
    auto put = [&](const std::string& tag, const std::string& value) {
      const size_t at = want.find(tag);
      if (at != std::string::npos) want.replace(at, tag.size(), value);
    };
    put("%I", std::to_string(readTestFile(dir / "btree_index.dat").size()));
    put("%R", std::to_string(readTestFile(dir / "btree_records.dat").size()));
    put("%N", std::to_string(24 + node));
    const std::string index = readTestFile(dir / "btree_index.dat");
    put("%C", std::to_string(layout_reader_detail::le64(index, 24 + bt::nodeChildPos(3, 8, 0))));
    char firstKey[32];
    std::snprintf(firstKey, sizeof firstKey, "%llx",
                  static_cast<unsigned long long>(layout_reader_detail::le64(
                      index, layout_reader_detail::le64(index, 24 + bt::nodeChildPos(3, 8, 0)))));
    put("%K", firstKey);
    const auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(want, lines[0]);
  }
}

TEST(BTreeCheckValid, TwoKeysSharingOneEntryAreCaught) {
  TestTempDir dir;
  fill(dir.path(), 4, 3);
  // The root leaf's second key gets the first key's entry.
  patchLE64(dir / "btree_index.dat", 24 + bt::nodeChildPos(4, 8, 1), 16);
  BTree tree(kBlank, 4);
  ASSERT_TRUE(tree.open(dir.path()));
  ScopedLogCapture log("BTree");
  PairRecord scratch;
  EXPECT_FALSE(tree.checkValid(scratch));
  EXPECT_NE(std::string::npos,
            log.text().find("ERROR checkValid: BTree::Exception: 1th record's key copy differs "
                            "in BTree::accept, Node @24 keys=[0x1,0x2,0x3] children=[16,16,64]"))
      << log.text();
}

TEST(BTreeCheckValid, OrderChangedUnderAnOpenTree) {
  TestTempDir dir;
  fill(dir.path(), 3, 5);
  BTree tree(kBlank, 3);
  ASSERT_TRUE(tree.open(dir.path()));
  patchLE64(dir / "btree_index.dat", 16, 5);
  ScopedLogCapture log("BTree");
  EXPECT_FALSE(tree.validate());
  PairRecord scratch;
  EXPECT_FALSE(tree.checkValid(scratch));
  EXPECT_TRUE(log.hasLine("ERROR order mismatch, inmemory_order=3, header_order=5"));
}

TEST(BTreeCheckValid, EmptyRootAndLoopsAreCaught) {
  {
    TestTempDir dir;
    fill(dir.path(), 3, 1);
    patchLE64(dir / "btree_index.dat", 24, 0);  // the only key becomes blank
    patchLE64(dir / "btree_index.dat", 24 + bt::nodeChildPos(3, 8, 0), UINT64_MAX);
    BTree tree(kBlank, 3);
    ASSERT_TRUE(tree.open(dir.path()));
    ScopedLogCapture log("BTree");
    PairRecord scratch;
    EXPECT_FALSE(tree.checkValid(scratch));
    EXPECT_TRUE(log.hasLine("ERROR keys.size=0")) << log.text();
    EXPECT_FALSE(tree.retrieve(U64Key(1), scratch));
  }
  {
    // An internal node whose two children are the same node.
    TestTempDir dir;
    fill(dir.path(), 3, 40);
    const std::string index = readTestFile(dir / "btree_index.dat");
    const uint64_t first = layout_reader_detail::le64(index, 24 + bt::nodeChildPos(3, 8, 0));
    patchLE64(dir / "btree_index.dat", 24 + bt::nodeChildPos(3, 8, 1), first);
    BTree tree(kBlank, 3);
    ASSERT_TRUE(tree.open(dir.path()));
    ScopedLogCapture log("BTree");
    PairRecord scratch;
    EXPECT_FALSE(tree.checkValid(scratch));
    EXPECT_NE(std::string::npos, log.text().find("ERROR checkValid: BTree::Exception: node "
                                                 "reached twice in BTree::accept, Node @24"))
        << log.text();
  }
}

}  // namespace
