// A key and a record for exercising the disk B-tree: an unsigned 64-bit key
// (zero is blank) and a record of two 64-bit numbers, both little-endian
// through the tree's own number paths. Test, benchmark and fuzz code only.
#pragma once

#include <cerrno>
#include <cstdint>
#include <memory>

#include "util/BTree.h"
#include "util/BTreeFormat.h"

// 8 bytes. Plain value; one owner at a time.
class U64Key : public bt::BTree::Key {
 public:
  explicit U64Key(uint64_t v = 0) : _v(v) {}
  uint64_t value() const { return _v; }

  bool writeLE(const FileDescriptor& fd) const override { return bt::writeLE64(fd, _v); }
  bool readLE(const FileDescriptor& fd) override { return bt::readLE64(fd, &_v); }
  size_t serialBytes() const override { return 8; }
  bool outputLE(size_t offset, void* buffer, size_t capacity) const override {
    return bt::outputLE64(_v, offset, buffer, capacity);
  }
  bool inputLE(size_t offset, const void* buffer, size_t capacity) override {
    return bt::inputLE64(&_v, offset, buffer, capacity);
  }
  bool operator<(const Key& other) const override {
    return _v < static_cast<const U64Key&>(other)._v;
  }
  bool operator==(const Key& other) const override {
    return _v == static_cast<const U64Key&>(other)._v;
  }
  std::unique_ptr<Key> clone() const override { return std::make_unique<U64Key>(_v); }
  Str toString() const override { return Str().format("0x%llx", static_cast<unsigned long long>(_v)); }

 private:
  uint64_t _v;
};

// 16 bytes: a then b. Plain value; one owner at a time.
class PairRecord : public bt::BTree::Record {
 public:
  PairRecord(uint64_t a = 0, uint64_t b = 0) : _a(a), _b(b) {}
  uint64_t a() const { return _a; }
  uint64_t b() const { return _b; }

  bool writeLE(const FileDescriptor& fd) const override {
    char buf[16];
    bt::outputLE64(_a, 0, buf, sizeof buf);
    bt::outputLE64(_b, 8, buf, sizeof buf);
    return bt::writeFully(fd, buf, sizeof buf);
  }
  bool readLE(const FileDescriptor& fd) override {
    char buf[16];
    if (!bt::readFully(fd, buf, sizeof buf)) return false;
    return bt::inputLE64(&_a, 0, buf, sizeof buf) && bt::inputLE64(&_b, 8, buf, sizeof buf);
  }
  size_t serialBytes() const override { return 16; }
  bool operator==(const Record& other) const override {
    return *this == static_cast<const PairRecord&>(other);
  }
  bool operator==(const PairRecord& other) const { return _a == other._a && _b == other._b; }
  Str toString() const override {
    return Str().format("a=%llu b=%llu", static_cast<unsigned long long>(_a),
                        static_cast<unsigned long long>(_b));
  }

 private:
  uint64_t _a;
  uint64_t _b;
};

// The tree's writes fail with ENOSPC while this lives: a full disk. One at
// a time, and only while no other thread uses a tree.
class ScopedFullDisk {
 public:
  ScopedFullDisk() : _previous(bt::setWriteCall(&fail)) {}
  ~ScopedFullDisk() { bt::setWriteCall(_previous); }
  ScopedFullDisk(const ScopedFullDisk&) = delete;
  ScopedFullDisk& operator=(const ScopedFullDisk&) = delete;

 private:
  static ssize_t fail(int, const void*, size_t) {
    errno = ENOSPC;
    return -1;
  }

  bt::WriteCall _previous;
};
