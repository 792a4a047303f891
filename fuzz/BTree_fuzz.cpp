// Mutated B-tree file pairs: the input becomes an index file and a record
// file, optionally behind valid headers so that mutations reach the nodes,
// and the tree opens and walks them: validation, a full walk, lookups of
// keys taken from the input. A pair that validates also takes inserts and
// updates and must validate afterwards. Nothing may crash, hang or read out
// of bounds; damage is an error return or a BTree::Exception.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/FuzzWorkDir.h"
#include "util/Assert.h"
#include "util/BTree.h"
#include "util/BTreeFormat.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/testing/BTreeTestTypes.h"

namespace {

// Counts what a walk reaches.
class CountingVisitor : public bt::BTree::Visitor {
 public:
  bool visit(const bt::BTree::Node&, unsigned) override { return ++_nodes < 100000; }
  bool visit(const bt::BTree::Record&, unsigned) override { return true; }

 private:
  unsigned _nodes = 0;
};

const Pathname& workDir() {
  static const Pathname dir = makeQuietFuzzDir("/tmp/kestro-btree-fuzz-XXXXXX", {"BTree", "BTreeCP"});
  return dir;
}

uint64_t takeKey(const uint8_t*& data, size_t& size) {
  uint64_t k = 0;
  const size_t n = size < 8 ? size : 8;
  std::memcpy(&k, data, n);
  data += n;
  size -= n;
  return k;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const Pathname& dir = workDir();
  // Byte 0: bit 0 puts a valid index header in front, bit 1 a valid record
  // header, bits 2-7 pick the order written into that index header.
  // Bytes 1-2: where the index bytes end and the record bytes begin.
  const uint8_t flags = data[0];
  const size_t split = (data[1] | (data[2] << 8)) % (size - 2);
  const uint8_t* body = data + 3;
  const size_t bodySize = size - 3;
  std::string index;
  std::string records;
  if (flags & 1) {
    index.assign(bt::INDEX_MAGIC, bt::MAGIC_BYTES);
    char order[8];
    bt::outputLE64(2 + (flags >> 2), 0, order, sizeof order);
    index.append(order, sizeof order);
  }
  if (flags & 2) records.assign(bt::RECORD_MAGIC, bt::MAGIC_BYTES);
  const size_t indexPart = split < bodySize ? split : bodySize;
  index.append(reinterpret_cast<const char*>(body), indexPart);
  records.append(reinterpret_cast<const char*>(body + indexPart), bodySize - indexPart);
  writeFuzzFile(dir / bt::INDEX_FILE, index);
  writeFuzzFile(dir / bt::RECORD_FILE, records);

  const U64Key blank(0);
  PairRecord scratch;
  bt::BTree tree(blank, 255);
  if (!tree.open(dir)) return 0;
  const uint8_t* keys = body;
  size_t keyBytes = bodySize < 64 ? bodySize : 64;
  try {
    const bool valid = tree.checkValid(scratch);
    CountingVisitor counter;
    tree.accept(counter, scratch);
    for (int i = 0; i < 4 && keyBytes > 0; ++i) {
      const uint64_t k = takeKey(keys, keyBytes);
      if (k != 0) tree.retrieve(U64Key(k), scratch);
    }
    if (valid) {
      for (uint64_t k = 1; k <= 40; ++k) tree.addUpdate(U64Key(k * 0x9e3779b97f4a7c15ull), PairRecord(k, k));
      kassert(tree.checkValid(scratch));
      for (uint64_t k = 1; k <= 40; ++k) {
        kassert(tree.retrieve(U64Key(k * 0x9e3779b97f4a7c15ull), scratch));
        kassert(scratch == PairRecord(k, k));
      }
    }
  } catch (const bt::BTree::Exception&) {
    // Damage found on the way: the expected outcome for most inputs.
  }
  tree.close();
  return 0;
}
