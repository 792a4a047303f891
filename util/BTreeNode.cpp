#include "util/BTreeNode.h"

#include <cerrno>
#include <cstring>

#include "util/Assert.h"
#include "util/Logger.h"

namespace bt {

namespace {

Logger gLogger("BTree");

}  // namespace

BTree::Node::Node(uint32_t order, const Key& blankKey, int64_t nodeOff)
    : _order(order), _blankKey(&blankKey), _node_off(nodeOff) {}

size_t BTree::Node::serialBytes() const { return nodeBytes(_order, _blankKey->serialBytes()); }

bool BTree::Node::writeLE(const FileDescriptor& fd) const {
  kassert(_keys.size() <= _order);
  kassert(_keys.empty() || isLeaf() || _children.size() == _keys.size() + 1);
  const size_t keyBytes = _blankKey->serialBytes();
  const size_t bytes = serialBytes();
  kassert(bytes <= BTree::Block_Size);
  char buf[BTree::Block_Size];
  for (size_t i = 0; i < _order; ++i) {
    const Key& k = i < _keys.size() ? *_keys[i] : *_blankKey;
    if (!k.outputLE(nodeKeyPos(i, keyBytes), buf, bytes)) return false;
  }
  for (size_t i = 0; i <= _order; ++i) {
    const int64_t off = i < _children.size() ? _children[i] : BTree::Invalid_Offset;
    outputLE64(static_cast<uint64_t>(off), nodeChildPos(_order, keyBytes, i), buf, bytes);
  }
  if (!fd.seek_set(_node_off)) return false;
  return writeFully(fd, buf, bytes);
}

bool BTree::Node::readLE(const FileDescriptor& fd) {
  const size_t keyBytes = _blankKey->serialBytes();
  const size_t bytes = serialBytes();
  kassert(bytes <= BTree::Block_Size);
  char buf[BTree::Block_Size];
  if (!readFully(fd, buf, bytes)) return false;
  _keys.clear();
  _children.clear();
  // Blank slots are recognised by their bytes, so that only real keys
  // cost an object.
  char blank[BTree::Block_Size];
  _blankKey->outputLE(0, blank, keyBytes);
  const char* broken = nullptr;
  bool blankFound = false;
  for (size_t i = 0; i < _order && broken == nullptr; ++i) {
    const size_t pos = nodeKeyPos(i, keyBytes);
    if (std::memcmp(buf + pos, blank, keyBytes) == 0) {
      blankFound = true;
      continue;
    }
    std::unique_ptr<Key> k = _blankKey->clone();
    k->inputLE(pos, buf, bytes);
    if (*k == *_blankKey) {
      blankFound = true;
    } else if (blankFound) {
      broken = "!blankFound";
    } else {
      _keys.push_back(std::move(k));
    }
  }
  for (size_t i = 0; i <= _order && broken == nullptr; ++i) {
    uint64_t raw = 0;
    inputLE64(&raw, nodeChildPos(_order, keyBytes, i), buf, bytes);
    const int64_t foff = static_cast<int64_t>(raw);
    if (i < _keys.size()) {
      if (foff == BTree::Invalid_Offset) broken = "foff != BTree::Invalid_Offset";
      _children.push_back(foff);
    } else if (i == _keys.size()) {
      if (foff != BTree::Invalid_Offset) _children.push_back(foff);
    } else if (foff != BTree::Invalid_Offset) {
      broken = "foff == BTree::Invalid_Offset";
    }
  }
  if (broken != nullptr) {
    gLogger.error("node @%lld breaks its layout: %s", static_cast<long long>(_node_off), broken);
    _keys.clear();
    _children.clear();
    return false;
  }
  return true;
}

size_t BTree::Node::_find(const Key& key) const {
  size_t i = 0;
  while (i < _keys.size() && !(key < *_keys[i])) ++i;
  return i;
}

bool BTree::Node::_isNodeOffset(int64_t off) const {
  const int64_t bytes = static_cast<int64_t>(serialBytes());
  return off >= ROOT_OFFSET + bytes && (off - ROOT_OFFSET) % bytes == 0;
}

int64_t BTree::Node::appendOffset(const FileDescriptor& index, size_t nodeBytes,
                                  const char* where) {
  const long end = index.seekEof() ? index.curPos() : -1;
  if (end < ROOT_OFFSET) {
    throw IOException(Str().format("ifs seek_end failure in %s", where));
  }
  const int64_t bytes = static_cast<int64_t>(nodeBytes);
  const int64_t slots = (end - ROOT_OFFSET + bytes - 1) / bytes;
  return ROOT_OFFSET + slots * bytes;
}

std::unique_ptr<BTree::Node> BTree::Node::readChild(const FileDescriptor& index, size_t i,
                                                    const char* where) const {
  const int64_t off = _children[i];
  if (!_isNodeOffset(off)) raise(Str().format("invalid child found in %s", where));
  if (!index.seek_set(off)) raise(Str().format("ifs seek_set failure in %s", where));
  auto child = std::make_unique<Node>(_order, *_blankKey, off);
  if (!child->readLE(index)) raise(Str().format("Node::readLE failure in %s", where));
  return child;
}

std::unique_ptr<BTree::Key> BTree::Node::addUpdate(const Files& files, const Key& key,
                                                   const Record& record, int64_t* rightOff,
                                                   Deferred& deferred, unsigned depth) {
  if (depth > BTree::MAX_DEPTH) raise("tree too deep in Node::addUpdate");
  if (isLeaf()) return _leafAddUpdate(files, key, record, rightOff);

  const size_t idx = _find(key);
  std::unique_ptr<Node> child = readChild(files.index, idx, "Node::addUpdate");
  int64_t newChildOff = BTree::Invalid_Offset;
  std::unique_ptr<Key> newChildKey =
      child->addUpdate(files, key, record, &newChildOff, deferred, depth + 1);
  if (!newChildKey) return nullptr;

  const size_t newChildKeyIdx = _find(*newChildKey);
  kassert(!( newChildKeyIdx > 0 && *newChildKey == *(_keys[ newChildKeyIdx - 1 ]) ));
  kassert(child->_keys.empty() || *child->_keys[0] < *newChildKey);
  _keys.insert(_keys.begin() + static_cast<long>(newChildKeyIdx), std::move(newChildKey));
  _children.insert(_children.begin() + static_cast<long>(newChildKeyIdx) + 1, newChildOff);
  deferred.push_back(std::move(child));
  if (_keys.size() > _order) return _splitInternal(files, rightOff);
  if (!writeLE(files.index)) raise("Node::writeLE failure in Node::addUpdate");
  return nullptr;
}

std::unique_ptr<BTree::Key> BTree::Node::_leafAddUpdate(const Files& files, const Key& key,
                                                        const Record& record, int64_t* rightOff) {
  const size_t idx = _find(key);
  if (idx > 0 && *_keys[idx - 1] == key) {
    if (!files.records.seek_set(_children[idx - 1])) {
      raise("rfs seek_set failure in Node::_leafAddUpdate");
    }
    if (!record.writeLE(files.records)) raise("Record::writeLE failure in Node::_leafAddUpdate");
    if (!key.writeLE(files.records)) raise("Key::writeLE failure in Node::_leafAddUpdate");
    return nullptr;
  }

  const long end = files.records.seekEof() ? files.records.curPos() : -1;
  if (end < FIRST_RECORD_OFFSET) raise("rfs seek_end failure in Node::_leafAddUpdate");
  // A torn append from an earlier crash leaves a partial entry; start at
  // the next whole entry so that every offset stays on the grid.
  const int64_t entry =
      static_cast<int64_t>(recordEntryBytes(record.serialBytes(), key.serialBytes()));
  const int64_t off = FIRST_RECORD_OFFSET + (end - FIRST_RECORD_OFFSET + entry - 1) / entry * entry;
  if (off != end && !files.records.seek_set(off)) {
    raise("rfs seek_set failure in Node::_leafAddUpdate");
  }
  if (!record.writeLE(files.records)) raise("Record::writeLE failure(2) in Node::_leafAddUpdate");
  if (!key.writeLE(files.records)) raise("Key::writeLE failure(2) in Node::_leafAddUpdate");
  _keys.insert(_keys.begin() + static_cast<long>(idx), key.clone());
  _children.insert(_children.begin() + static_cast<long>(idx), off);
  if (_keys.size() > _order) return _splitLeaf(files, rightOff);
  if (!writeLE(files.index)) raise("Node::writeLE failure in Node::_leafAddUpdate");
  return nullptr;
}

std::unique_ptr<BTree::Key> BTree::Node::_splitLeaf(const Files& files, int64_t* rightOff) {
  const size_t mid = _keys.size() / 2;
  auto right = std::make_unique<Node>(_order, *_blankKey,
                                      appendOffset(files.index, serialBytes(), "Node::_splitLeaf"));
  for (size_t i = mid; i < _keys.size(); ++i) {
    right->_keys.push_back(std::move(_keys[i]));
    right->_children.push_back(_children[i]);
  }
  _keys.resize(mid);
  _children.resize(mid);
  if (!right->writeLE(files.index)) right->raise("Node::writeLE failure(2) in Node::_splitLeaf");
  *rightOff = right->_node_off;
  return right->_keys[0]->clone();
}

std::unique_ptr<BTree::Key> BTree::Node::_splitInternal(const Files& files, int64_t* rightOff) {
  const size_t mid = _keys.size() / 2;
  auto right = std::make_unique<Node>(
      _order, *_blankKey, appendOffset(files.index, serialBytes(), "Node::_splitInternal"));
  std::unique_ptr<Key> separator = std::move(_keys[mid]);
  for (size_t i = mid + 1; i < _keys.size(); ++i) right->_keys.push_back(std::move(_keys[i]));
  for (size_t i = mid + 1; i < _children.size(); ++i) right->_children.push_back(_children[i]);
  _keys.resize(mid);
  _children.resize(mid + 1);
  if (!right->writeLE(files.index)) {
    right->raise("Node::writeLE failure(2) in Node::_splitInternal");
  }
  *rightOff = right->_node_off;
  return separator;
}

bool BTree::Node::retrieve(const Files& files, const Key& key, Record& record,
                           unsigned depth) const {
  if (depth > BTree::MAX_DEPTH) raise("tree too deep in Node::retrieve");
  const size_t idx = _find(key);
  if (!isLeaf()) {
    return readChild(files.index, idx, "Node::retrieve")->retrieve(files, key, record, depth + 1);
  }
  if (idx == 0 || !(*_keys[idx - 1] == key)) return false;
  const int64_t off = _children[idx - 1];
  if (off < FIRST_RECORD_OFFSET) raise("invalid child found(2) in Node::retrieve");
  if (!files.records.seek_set(off)) raise("rfs seek_set failure in Node::retrieve");
  if (!record.readLE(files.records)) raise("Record::readLE failure in Node::retrieve");
  return true;
}

std::unique_ptr<BTree::Node> BTree::Node::copyAt(int64_t nodeOff) const {
  auto copy = std::make_unique<Node>(_order, *_blankKey, nodeOff);
  for (const auto& k : _keys) copy->_keys.push_back(k->clone());
  copy->_children = _children;
  return copy;
}

void BTree::Node::setSingleEntry(const Key& key, int64_t recordOff) {
  _keys.clear();
  _keys.push_back(key.clone());
  _children.assign({recordOff});
}

void BTree::Node::overwrite(const Key& separator, int64_t left, int64_t right) {
  _keys.clear();
  _keys.push_back(separator.clone());
  _children.assign({left, right});
}

bool BTree::Node::validate(uint64_t indexSize, uint64_t recordSize, size_t entryBytes) const {
  const unsigned nkeys = static_cast<unsigned>(_keys.size());
  const unsigned nchildren = static_cast<unsigned>(_children.size());
  if (nkeys == 0) {
    gLogger.error("keys.size=0");
    return false;
  }
  if (nkeys > _order) {
    gLogger.error("keys/order keys.size=%u, order=%u", nkeys, _order);
    return false;
  }
  if (nchildren != nkeys && nchildren != nkeys + 1) {
    gLogger.error("child/key mismatch children.size=%u, keys.size=%u", nchildren, nkeys);
    return false;
  }
  const bool leaf = isLeaf();
  for (unsigned i = 0; i < nchildren; ++i) {
    const int64_t off = _children[i];
    bool ok;
    if (leaf) {
      const int64_t entry = static_cast<int64_t>(entryBytes);
      ok = off >= FIRST_RECORD_OFFSET && static_cast<uint64_t>(off) < recordSize &&
           (entry == 0 || ((off - FIRST_RECORD_OFFSET) % entry == 0 &&
                           static_cast<uint64_t>(off + entry) <= recordSize));
    } else {
      ok = _isNodeOffset(off) && static_cast<uint64_t>(off) + serialBytes() <= indexSize;
    }
    if (!ok) {
      gLogger.error("%uth child has invalid offset: indexsize=%llu recordsize=%llu, (%s)", i,
                    static_cast<unsigned long long>(indexSize),
                    static_cast<unsigned long long>(recordSize), leaf ? "Leaf" : "Internal");
      return false;
    }
  }
  for (unsigned i = 0; i < nkeys; ++i) {
    if (!_keys[i] || *_keys[i] == *_blankKey) {
      gLogger.error("%uth key is blankKey", i);
      return false;
    }
  }
  return true;
}

void BTree::Node::raise(const Str& message) const {
  throw IOException(Str().format("%s, Node @%lld %s", message.c_str(),
                                 static_cast<long long>(_node_off), toString().c_str()));
}

Str BTree::Node::toString() const {
  Str out("keys=[");
  for (size_t i = 0; i < _keys.size(); ++i) {
    if (i > 0) out += ',';
    out += _keys[i]->toString();
  }
  out += "] children=[";
  for (size_t i = 0; i < _children.size(); ++i) {
    if (i > 0) out += ',';
    out.append_longlong(_children[i]);
  }
  out += ']';
  return out;
}

}  // namespace bt
