// bt::BTree::Node: one node of the disk B-tree in memory, read and written
// whole in one call each. Included by util/BTree.h; not for direct use.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "util/BTree.h"

namespace bt {

// A node as read from or about to be written to the index file at
// _node_off. One owner at a time; the tree's caller serialises access.
//
// Write order of an insert that splits, so that a process killed between
// two writes leaves either the old tree with unreferenced nodes at the end
// of the index file, or a tree whose stale keys fall outside their parent's
// range, which checkValid reports: a new right sibling is appended first,
// then the parent that absorbs it is written, and only then the shrunken
// left halves (the Deferred list, flushed by the tree).
class BTree::Node : public BTree::Serializable {
 public:
  // The tree's two files.
  struct Files {
    const FileDescriptor& index;
    const FileDescriptor& records;
  };
  // Shrunken nodes waiting for their parent's write.
  using Deferred = std::vector<std::unique_ptr<Node>>;

  // An empty node; `blankKey` is borrowed from the tree and outlives it.
  Node(uint32_t order, const Key& blankKey, int64_t nodeOff);

  // One write of serialBytes() at _node_off. REQUIRES: at most _order keys,
  // an internal node has one more child than keys, the node fits
  // Block_Size.
  bool writeLE(const FileDescriptor& fd) const override;
  // One read of serialBytes() at the descriptor's position, replacing the
  // contents. False after a log line for a short read or a node whose slots
  // break the layout: a key after a blank slot ("!blankFound"), a missing
  // child below the key count ("foff != BTree::Invalid_Offset"), or a used
  // slot past the last child.
  bool readLE(const FileDescriptor& fd) override;
  size_t serialBytes() const override;

  bool isLeaf() const { return _children.size() == _keys.size(); }
  int64_t offset() const { return _node_off; }
  void setOffset(int64_t nodeOff) { _node_off = nodeOff; }
  const std::vector<std::unique_ptr<Key>>& keys() const { return _keys; }
  const std::vector<int64_t>& children() const { return _children; }

  // Inserts `key` with `record` under this node, or overwrites its record.
  // When this node split, returns the separator and sets *rightOff to the
  // new right sibling, already written; this node's own shrunken contents
  // are then not yet written, and the caller writes them after the parent.
  // Split-off children of lower levels are left in `deferred`. Throws
  // IOException on any file failure.
  std::unique_ptr<Key> addUpdate(const Files& files, const Key& key, const Record& record,
                                 int64_t* rightOff, Deferred& deferred, unsigned depth);
  // Follows the keys down; at a leaf, an exact match reads its record.
  bool retrieve(const Files& files, const Key& key, Record& record, unsigned depth) const;
  // Child `i` read from the index file. Throws IOException naming `where`
  // for an offset that is no node slot, a failed seek or read.
  std::unique_ptr<Node> readChild(const FileDescriptor& index, size_t i, const char* where) const;

  // This node's contents at another offset.
  std::unique_ptr<Node> copyAt(int64_t nodeOff) const;
  // Becomes a leaf of one key, whose entry is at `recordOff`.
  void setSingleEntry(const Key& key, int64_t recordOff);
  // Becomes the root of a split: one key and two children.
  void overwrite(const Key& separator, int64_t left, int64_t right);

  // The checks of checkValid for one node, against the file sizes; an
  // entry size of 0 skips the alignment of record offsets. Logs the first
  // failure and returns false.
  bool validate(uint64_t indexSize, uint64_t recordSize, size_t entryBytes) const;
  // Throws IOException with `message`, then "Node @<offset>" and the
  // contents.
  [[noreturn]] void raise(const Str& message) const;
  // "keys=[k0,k1] children=[c0,c1]".
  Str toString() const;

  // Where a new node goes: the end of the index file, rounded up to a node
  // slot so that a torn append cannot shift every node after it.
  static int64_t appendOffset(const FileDescriptor& index, size_t nodeBytes, const char* where);

 private:
  // The first index whose key is above `key`; an exact match is one before.
  size_t _find(const Key& key) const;
  bool _isNodeOffset(int64_t off) const;
  std::unique_ptr<Key> _leafAddUpdate(const Files& files, const Key& key, const Record& record,
                                      int64_t* rightOff);
  std::unique_ptr<Key> _splitLeaf(const Files& files, int64_t* rightOff);
  std::unique_ptr<Key> _splitInternal(const Files& files, int64_t* rightOff);

  uint32_t _order;
  std::vector<std::unique_ptr<Key>> _keys;
  std::vector<int64_t> _children;
  const Key* _blankKey;
  int64_t _node_off;
};

}  // namespace bt
