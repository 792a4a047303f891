#include "util/BTree.h"

#include <cerrno>
#include <cstring>
#include <typeinfo>
#include <unordered_set>

#include "util/Assert.h"
#include "util/BTreeVisitors.h"
#include "util/FileStar.h"
#include "util/Logger.h"

namespace bt {

namespace {

Logger gLogger("BTree");

// The largest order whose node of `keyBytes` keys fits one block.
uint64_t maxOrder(size_t keyBytes) {
  return (BTree::Block_Size - NUMBER_BYTES) / (keyBytes + NUMBER_BYTES);
}

}  // namespace

BTree::Exception::Exception(const Str& message) : _text("BTree::Exception: " + message) {}

bool BTree::Key::accept(Visitor& v, unsigned depth) const { return v.visit(*this, depth); }

bool BTree::Record::accept(Visitor& v, unsigned depth) const { return v.visit(*this, depth); }

bool BTree::IndexHeader::writeLE(const FileDescriptor& fd) const {
  char buf[INDEX_HEADER_BYTES];
  std::memcpy(buf, INDEX_MAGIC, MAGIC_BYTES);
  outputLE64(_order, INDEX_ORDER_OFFSET, buf, sizeof buf);
  return writeFully(fd, buf, sizeof buf);
}

bool BTree::IndexHeader::readLE(const FileDescriptor& fd) {
  char buf[INDEX_HEADER_BYTES];
  const ssize_t got = fd.read(buf, sizeof buf);
  if (got < 0) {
    gLogger.error("reading one headers failed: %m");
    return false;
  }
  if (got != static_cast<ssize_t>(sizeof buf) || std::memcmp(buf, INDEX_MAGIC, MAGIC_BYTES) != 0) {
    gLogger.error("index header invalid");
    return false;
  }
  return inputLE64(&_order, INDEX_ORDER_OFFSET, buf, sizeof buf);
}

bool BTree::RecordHeader::writeLE(const FileDescriptor& fd) const {
  return writeFully(fd, RECORD_MAGIC, MAGIC_BYTES);
}

bool BTree::RecordHeader::readLE(const FileDescriptor& fd) {
  char buf[RECORD_HEADER_BYTES];
  const ssize_t got = fd.read(buf, sizeof buf);
  if (got < 0) {
    gLogger.error("reading one headers failed: %m");
    return false;
  }
  if (got != static_cast<ssize_t>(sizeof buf) || std::memcmp(buf, RECORD_MAGIC, MAGIC_BYTES) != 0) {
    gLogger.error("record header invalid");
    return false;
  }
  return true;
}

BTree::BTree(const Key& blankKey, uint32_t order) : _blankKey(blankKey.clone()), _order(order) {
  kassert(order >= 2);
  kassert(order <= maxOrder(blankKey.serialBytes()));
}

BTree::~BTree() = default;

void BTree::requireOpen(const char* closedText) const {
  if (!isOpen()) throw IOException(closedText);
}

bool BTree::_openFiles(const Pathname& dir) {
  const Pathname indexPath = dir / INDEX_FILE;
  const Pathname recordPath = dir / RECORD_FILE;
  _indexFile = std::make_unique<ScopedFileDescriptor>(
      indexPath.openReadWriteOrCreate(Pathname::CREATE_NORMAL));
  if (!_indexFile->valid()) {
    gLogger.error("cannot open or create file %s: %m", indexPath.c_str());
    return false;
  }
  _recordFile = std::make_unique<ScopedFileDescriptor>(
      recordPath.openReadWriteOrCreate(Pathname::CREATE_NORMAL));
  if (!_recordFile->valid()) {
    gLogger.error("cannot open or create file %s: %m", recordPath.c_str());
    return false;
  }
  long indexSize = 0;
  long recordSize = 0;
  if (!_indexFile->getSize(&indexSize)) {
    gLogger.error("cannot get size of file %s: %m", indexPath.c_str());
    return false;
  }
  if (!_recordFile->getSize(&recordSize)) {
    gLogger.error("cannot get size of file %s: %m", recordPath.c_str());
    return false;
  }
  if (indexSize == 0 && recordSize != 0) {
    gLogger.error("no root in %s with non-empty recordFile %s", indexPath.c_str(),
                  recordPath.c_str());
    return false;
  }
  if (indexSize == 0) {
    if (_initFiles()) return true;
    gLogger.error("cannot write the headers of %s and %s: %m", indexPath.c_str(),
                  recordPath.c_str());
    return false;
  }
  if (!_readHeaders(_order)) {
    gLogger.error("verifyHeaders failed");
    return false;
  }
  if (indexSize == INDEX_HEADER_BYTES) {
    if (recordSize == RECORD_HEADER_BYTES) return true;
    gLogger.error("no root in %s with non-empty recordFile %s", indexPath.c_str(),
                  recordPath.c_str());
    return false;
  }
  auto root = std::make_unique<Node>(_order, *_blankKey, ROOT_OFFSET);
  if (!_indexFile->seek_set(ROOT_OFFSET) || !root->readLE(*_indexFile)) {
    gLogger.error("cannot read the root node of %s", indexPath.c_str());
    return false;
  }
  _root = std::move(root);
  return true;
}

bool BTree::open(const Pathname& dir) {
  kassert(!isOpen());
  if (!dir.rw_ok()) {
    gLogger.error("%s is not rw-able %m", dir.c_str());
    return false;
  }
  if (_openFiles(dir)) return true;
  close();
  return false;
}

bool BTree::_initFiles() {
  kassert(_order > 0);
  return _indexFile->seek_set(0) && _recordFile->seek_set(0) &&
         IndexHeader(_order).writeLE(*_indexFile) && RecordHeader().writeLE(*_recordFile);
}

bool BTree::_readHeaders(uint64_t order) {
  if (!_indexFile->seek_set(0) || !_recordFile->seek_set(0)) {
    gLogger.error("unable to seek: %m");
    return false;
  }
  IndexHeader index(0);
  RecordHeader record;
  if (!index.readLE(*_indexFile) || !record.readLE(*_recordFile)) return false;
  const uint64_t stored = index.order();
  if (order == 0) {
    if (stored == _order) return true;
    gLogger.error("order mismatch, inmemory_order=%u, header_order=%u", _order,
                  static_cast<unsigned>(stored));
    return false;
  }
  if (stored == order) return true;
  // The node buffers are one block, so an order past that is as corrupt as
  // one past 32 bits.
  if (stored > 0xFFFFFFFFull || stored > maxOrder(_blankKey->serialBytes())) {
    gLogger.error("order in header is too high, maybe corrupt: %llu",
                  static_cast<unsigned long long>(stored));
    return false;
  }
  // Order 1 cannot split an internal node into two non-empty halves.
  if (stored < 2) {
    gLogger.error("order in header is too low, maybe corrupt: %llu",
                  static_cast<unsigned long long>(stored));
    return false;
  }
  _order = static_cast<uint32_t>(stored);
  gLogger.debug("existing btree has order %u, will use this order", _order);
  return true;
}

bool BTree::validate() {
  if (!isOpen()) {
    gLogger.error("called validate on btree that isn't open");
    return false;
  }
  return _readHeaders(0);
}

void BTree::close() {
  _root.reset();
  _indexFile.reset();
  _recordFile.reset();
}

void BTree::addUpdate(const Key& key, const Record& record) {
  requireOpen("called debug on btree that isn't open");
  const Key& blank = *_blankKey;
  kassert(typeid(key) == typeid(blank));
  if (key == *_blankKey) {
    throw InvalidKeyException("cannot add the blank key " + key.toString());
  }
  if (!_root) {
    _addFirst(key, record);
    return;
  }
  const Node::Files files{*_indexFile, *_recordFile};
  try {
    Node::Deferred deferred;
    int64_t rightOff = Invalid_Offset;
    std::unique_ptr<Key> separator = _root->addUpdate(files, key, record, &rightOff, deferred, 0);
    if (separator) {
      // The root keeps its offset: its left half moves to a new node and
      // the root becomes the parent of both halves, in one overwrite.
      auto left = _root->copyAt(
          Node::appendOffset(*_indexFile, _root->serialBytes(), "BTree::addUpdate"));
      if (!left->writeLE(*_indexFile)) left->raise("Node::writeLE failure in BTree::addUpdate");
      _root->overwrite(*separator, left->offset(), rightOff);
      if (!_root->writeLE(*_indexFile)) _root->raise("Node::writeLE failure(2) in BTree::addUpdate");
    }
    for (const auto& node : deferred) {
      if (!node->writeLE(*_indexFile)) {
        node->raise(node->isLeaf() ? "Node::writeLE failure in Node::_splitLeaf"
                                   : "Node::writeLE failure in Node::_splitInternal");
      }
    }
  } catch (const Exception&) {
    // The root in memory may be ahead of the file now; the file is what
    // the next operation must see.
    _reloadRoot();
    throw;
  }
}

void BTree::_addFirst(const Key& key, const Record& record) {
  auto root = std::make_unique<Node>(_order, *_blankKey, ROOT_OFFSET);
  const long indexEnd = _indexFile->seekEof() ? _indexFile->curPos() : -1;
  const long recordEnd = _recordFile->seekEof() ? _recordFile->curPos() : -1;
  if (indexEnd != ROOT_OFFSET || recordEnd != FIRST_RECORD_OFFSET) {
    root->raise(Str().format("files hold no root but index ends at %ld and records at %ld in "
                             "BTree::addUpdate",
                             indexEnd, recordEnd));
  }
  root->setSingleEntry(key, FIRST_RECORD_OFFSET);
  if (!root->writeLE(*_indexFile)) root->raise("Node::writeLE failure in BTree::addUpdate");
  _root = std::move(root);
  if (!_recordFile->seek_set(FIRST_RECORD_OFFSET) || !record.writeLE(*_recordFile)) {
    _root->raise("Record::writeLE failure in BTree::addUpdate");
  }
  if (!key.writeLE(*_recordFile)) _root->raise("Key::writeLE failure in BTree::addUpdate");
}

void BTree::_reloadRoot() {
  _root.reset();
  long indexSize = 0;
  if (!_indexFile->getSize(&indexSize) || indexSize <= ROOT_OFFSET) return;
  auto root = std::make_unique<Node>(_order, *_blankKey, ROOT_OFFSET);
  if (_indexFile->seek_set(ROOT_OFFSET) && root->readLE(*_indexFile)) {
    _root = std::move(root);
  } else {
    gLogger.error("cannot read the root node back after a failed update");
  }
}

bool BTree::retrieve(const Key& key, Record& record) {
  requireOpen("called retrieve on btree that isn't open");
  const Key& blank = *_blankKey;
  kassert(typeid(key) == typeid(blank));
  if (key == *_blankKey) {
    throw InvalidKeyException("cannot retrieve the blank key " + key.toString());
  }
  if (!_root) return false;
  return _root->retrieve(Node::Files{*_indexFile, *_recordFile}, key, record, 0);
}

bool BTree::accept(Visitor& visitor, Record& scratch) {
  requireOpen("called accept on btree that isn't open");
  if (!visitor.visit(*this)) return false;
  if (!_root) return true;
  std::unordered_set<int64_t> seen{ROOT_OFFSET};
  return _walk(visitor, scratch, *_root, 0, seen);
}

bool BTree::_walk(Visitor& visitor, Record& scratch, const Node& node, unsigned depth,
                  std::unordered_set<int64_t>& seen) {
  if (depth > MAX_DEPTH) node.raise("tree too deep in BTree::accept");
  if (!visitor.visit(node, depth)) return false;
  for (const auto& key : node.keys()) {
    if (!key->accept(visitor, depth)) return false;
  }
  const auto& children = node.children();
  for (size_t i = 0; i < children.size(); ++i) {
    if (node.isLeaf()) {
      if (!_recordFile->seek_set(children[i])) node.raise("rfs seek_set failure in BTree::accept");
      if (!scratch.readLE(*_recordFile)) node.raise("Record::readLE failure in BTree::accept");
      // The entry's key copy ties it to its key: two keys sharing one entry
      // would overwrite each other's records.
      std::unique_ptr<Key> copy = _blankKey->clone();
      if (!copy->readLE(*_recordFile) || !(*copy == *node.keys()[i])) {
        node.raise(Str().format("%zuth record's key copy differs in BTree::accept", i));
      }
      if (!scratch.accept(visitor, depth)) return false;
      continue;
    }
    std::unique_ptr<Node> child = node.readChild(*_indexFile, i, "BTree::accept");
    if (!seen.insert(child->offset()).second) node.raise("node reached twice in BTree::accept");
    if (!_walk(visitor, scratch, *child, depth + 1, seen)) return false;
  }
  return true;
}

bool BTree::checkValid(Record& scratch) {
  if (!isOpen()) {
    gLogger.error("called checkValid on btree that isn't open");
    return false;
  }
  long indexSize = 0;
  long recordSize = 0;
  if (!_indexFile->getSize(&indexSize) || !_recordFile->getSize(&recordSize)) {
    gLogger.error("cannot get size of file %s: %m", INDEX_FILE);
    return false;
  }
  if (!validate()) return false;
  if (!_root && indexSize > INDEX_HEADER_BYTES) {
    gLogger.error("no root read, but the index file holds %ld bytes", indexSize);
    return false;
  }
  ValidateVisitor visitor(static_cast<uint64_t>(indexSize), static_cast<uint64_t>(recordSize),
                          recordEntryBytes(scratch.serialBytes(), _blankKey->serialBytes()));
  try {
    return accept(visitor, scratch);
  } catch (const Exception& e) {
    gLogger.error("checkValid: %s", e.what());
    return false;
  }
}

void BTree::debug(FileStar& out, Record& scratch) {
  requireOpen("called debug on btree that isn't open");
  PrintVisitor visitor(out);
  accept(visitor, scratch);
}

Str BTree::toString() const {
  return Str().format("BTree order=%u %s", _order,
                      !isOpen() ? "closed" : (_root ? "open" : "open, no root"));
}

}  // namespace bt
