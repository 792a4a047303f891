// The two walks the disk B-tree ships: a printout for debugging, and the
// structural validation behind BTree::checkValid.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "util/BTree.h"
#include "util/FileStar.h"

namespace bt {

// Writes one line per node, key and record to a borrowed stream, indented
// two spaces per level:
//   BTree order=3
//   Node @24 keys=1 children=2 (Internal)
//     key 0x5
//     Node @88 keys=2 children=2 (Leaf)
//       key 0x1
//       record a=1 b=2
// One owner at a time.
class PrintVisitor : public BTree::Visitor {
 public:
  explicit PrintVisitor(FileStar& out) : _out(out) {}
  bool visit(const BTree& tree) override;
  bool visit(const BTree::Node& node, unsigned depth) override;
  bool visit(const BTree::Record& record, unsigned depth) override;
  bool visit(const BTree::Key& key, unsigned depth) override;

 private:
  FileStar& _out;
};

// Checks each node against the file sizes (Node::validate), then what only
// a walk can see: keys ascending within a node and inside the range their
// parent gives them, every leaf at one depth, every key and record passing
// its own validate(). Logs the first failure and stops the walk. One owner
// at a time; good for one walk.
class ValidateVisitor : public BTree::Visitor {
 public:
  // `entryBytes` is a record plus a key, for the alignment of leaf offsets.
  ValidateVisitor(uint64_t indexSize, uint64_t recordSize, size_t entryBytes)
      : _indexSize(indexSize), _recordSize(recordSize), _entryBytes(entryBytes) {}
  bool visit(const BTree::Node& node, unsigned depth) override;
  bool visit(const BTree::Record& record, unsigned depth) override;
  bool visit(const BTree::Key& key, unsigned depth) override;

 private:
  // The keys of the node last visited at one depth, and how many of its
  // children the walk has entered.
  struct Level {
    std::vector<std::unique_ptr<BTree::Key>> keys;
    size_t nextChild = 0;
  };

  uint64_t _indexSize;
  uint64_t _recordSize;
  size_t _entryBytes;
  std::vector<Level> _levels;
  int64_t _leafDepth = -1;
};

}  // namespace bt
