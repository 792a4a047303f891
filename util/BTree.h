// bt::BTree: a small persistent ordered map of fixed-size keys to fixed-size
// records in two little-endian files of one directory (layout in
// util/BTreeFormat.h). Nodes go straight to and from the files; only the
// root stays in memory. Keys are never deleted.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <unordered_set>
#include <vector>

#include "util/BTreeFormat.h"
#include "util/FileDescriptor.h"
#include "util/Pathname.h"
#include "util/Str.h"

class FileStar;

namespace bt {

// Thread story: one owner at a time; every operation, lookups included,
// moves the files' positions, so the caller serialises all access.
// Failures: open() and the validation calls return false after a log line;
// operations on an open tree throw IOException; a blank key throws
// InvalidKeyException; broken invariants end the process.
class BTree {
 public:
  static constexpr size_t Block_Size = BLOCK_SIZE;
  static constexpr int64_t Invalid_Offset = INVALID_OFFSET;
  // A path from the root deeper than this can only be a loop in a damaged
  // file: a tree of fan-out 2 this deep would hold 2^48 keys.
  static constexpr unsigned MAX_DEPTH = 48;

  class Visitor;
  class Node;

  // what() is always "BTree::Exception: " and the message.
  class Exception : public std::exception {
   public:
    explicit Exception(const Str& message);
    const char* what() const noexcept override { return _text.c_str(); }

   private:
    Str _text;
  };
  class IOException : public Exception {
    using Exception::Exception;
  };
  class InvalidKeyException : public Exception {
    using Exception::Exception;
  };
  class CheckValidException : public Exception {
    using Exception::Exception;
  };

  // A fixed-size value that reads and writes itself at a descriptor's
  // position. writeLE / readLE return false on any I/O failure; readLE may
  // then leave the object half filled.
  class Serializable {
   public:
    virtual ~Serializable() = default;
    virtual bool writeLE(const FileDescriptor& fd) const = 0;
    virtual bool readLE(const FileDescriptor& fd) = 0;
    // The same for every object of one class.
    virtual size_t serialBytes() const = 0;
  };

  // One class of key per tree. outputLE / inputLE move serialBytes() at
  // buffer[offset], false (touching nothing) when that would pass capacity.
  class Key : public Serializable {
   public:
    virtual bool outputLE(size_t offset, void* buffer, size_t capacity) const = 0;
    virtual bool inputLE(size_t offset, const void* buffer, size_t capacity) = 0;
    // A strict weak order; REQUIRES: `other` is of this key's class.
    virtual bool operator<(const Key& other) const = 0;
    virtual bool operator==(const Key& other) const = 0;
    virtual std::unique_ptr<Key> clone() const = 0;
    // Calls v.visit(*this, depth) and returns its answer.
    virtual bool accept(Visitor& v, unsigned depth) const;
    virtual Str toString() const = 0;
    virtual bool validate() const { return true; }
  };

  class Record : public Serializable {
   public:
    virtual bool operator==(const Record& other) const = 0;
    virtual Str toString() const = 0;
    virtual bool accept(Visitor& v, unsigned depth) const;
    virtual bool validate() const { return true; }
  };

  // The index file's first 24 bytes. readLE logs "reading one headers
  // failed: %m" when the read fails and "index header invalid" when it is
  // short or the magic differs.
  class IndexHeader : public Serializable {
   public:
    explicit IndexHeader(uint64_t order) : _order(order) {}
    bool writeLE(const FileDescriptor& fd) const override;
    bool readLE(const FileDescriptor& fd) override;
    size_t serialBytes() const override { return INDEX_HEADER_BYTES; }
    uint64_t order() const { return _order; }

   private:
    uint64_t _order;
  };

  // The record file's 16 bytes of magic; "record header invalid" as above.
  class RecordHeader : public Serializable {
   public:
    bool writeLE(const FileDescriptor& fd) const override;
    bool readLE(const FileDescriptor& fd) override;
    size_t serialBytes() const override { return RECORD_HEADER_BYTES; }
  };

  // Walks are depth-first: the tree, then each node, its keys and, in a
  // leaf, its records. A visit that returns false stops the walk.
  class Visitor {
   public:
    virtual ~Visitor() = default;
    virtual bool visit(const BTree&) { return true; }
    virtual bool visit(const Node&, unsigned /*depth*/) { return true; }
    virtual bool visit(const Record&, unsigned /*depth*/) { return true; }
    virtual bool visit(const Key&, unsigned /*depth*/) { return true; }
  };

  // `blankKey` marks unused slots and is refused as a key; the tree keeps a
  // clone. REQUIRES: order >= 2 and a node of that order fits Block_Size.
  BTree(const Key& blankKey, uint32_t order);
  virtual ~BTree();
  BTree(const BTree&) = delete;
  BTree& operator=(const BTree&) = delete;

  // Opens or creates the two files in directory `dir`. A pair written with
  // another order is used at the stored order. False, with the files closed
  // and a log line, when the directory is not read-writable, a file cannot
  // be opened or sized, the headers are bad, the index has no root but the
  // record file has entries, or the root cannot be read.
  // REQUIRES: !isOpen().
  virtual bool open(const Pathname& dir);
  // Forgets the root and closes both files. Harmless when closed.
  virtual void close();
  // Inserts `key` or overwrites its record in place. Throws IOException
  // "called debug on btree that isn't open" when closed (debug's text, as
  // the system has always said), InvalidKeyException for the blank key, and
  // IOException naming the failed step for any file failure, e.g.
  // "Record::writeLE failure(2) in Node::_leafAddUpdate, Node @24 keys=[..]
  // children=[..]"; the root in memory is then read back from the file.
  // REQUIRES: `key` is of the blank key's class ("typeid(key) ==
  // typeid(blank)").
  virtual void addUpdate(const Key& key, const Record& record);
  // True and `record` filled when `key` is present; false otherwise. Throws
  // as addUpdate, with "called retrieve on btree that isn't open" when
  // closed and e.g. "rfs seek_set failure in Node::retrieve" for damage.
  virtual bool retrieve(const Key& key, Record& record);
  // Validates the headers and every node reachable from the root: the node
  // checks of Node::validate, ascending keys within the parent's range, all
  // leaves at one depth, no node reached twice, each record entry's key copy
  // equal to its key. `scratch` is read into and gives the record size.
  // False after logging the first failure; never throws.
  virtual bool checkValid(Record& scratch);
  // Writes the whole tree, one line per node, key and record, to `out`.
  virtual void debug(FileStar& out, Record& scratch);
  // Walks the tree; records are read into `scratch`. Returns false when a
  // visit stopped the walk. Throws IOException when a node or record cannot
  // be read, a node is reached twice, the path passes MAX_DEPTH, or an
  // entry's key copy differs from its key.
  virtual bool accept(Visitor& visitor, Record& scratch);
  // "BTree order=255 open", "... open, no root" or "... closed".
  virtual Str toString() const;
  // Re-reads the headers and compares the stored order with the one in use;
  // logs "order mismatch, inmemory_order=%u, header_order=%u".
  virtual bool validate();
  virtual bool isOpen() const { return _indexFile != nullptr; }

  uint32_t order() const { return _order; }
  const Key& blankKey() const { return *_blankKey; }
  // The two files; REQUIRES: isOpen().
  const FileDescriptor& indexFile() const { return *_indexFile; }
  const FileDescriptor& recordFile() const { return *_recordFile; }

 protected:
  // Throws IOException with `closedText` unless open.
  void requireOpen(const char* closedText) const;

 private:
  bool _initFiles();
  bool _readHeaders(uint64_t order);
  bool _openFiles(const Pathname& dir);
  void _addFirst(const Key& key, const Record& record);
  void _reloadRoot();
  bool _walk(Visitor& visitor, Record& scratch, const Node& node, unsigned depth,
             std::unordered_set<int64_t>& seen);

  std::unique_ptr<ScopedFileDescriptor> _indexFile;
  std::unique_ptr<ScopedFileDescriptor> _recordFile;
  std::unique_ptr<Node> _root;  // null while the tree has no key
  std::unique_ptr<Key> _blankKey;
  uint32_t _order;
};

}  // namespace bt

#include "util/BTreeNode.h"
