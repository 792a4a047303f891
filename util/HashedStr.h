// Hashed keys: immutable text blocks that carry their length and 64-bit
// djb2 hash, so that comparing two keys is almost always one integer compare.
// Also the pool, vector and generator that own such blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "util/StrMem.h"
#include "util/StrSegmentVocabulary.h"

class HashedStr;

// One key block, one allocation: this header, then the text, then a NUL.
// The text area is length + 1 rounded up to a multiple of 8, so the block
// size is sizeof(HashedStrKeyBlock) + that. The header is 32 bytes and the
// text starts 8-aligned right after it.
struct HashedStrKeyBlock {
  HashedStrKeyBlock* next;         // next block in the owning pool's list
  HashedStrKeyBlock** back_link;   // slot that points here; null: permanent
  size_t length;                   // bytes of text, NUL excluded
  uint64_t hash;                   // djb2_hash of the text

  char* text() { return reinterpret_cast<char*>(this + 1); }
  const char* text() const { return reinterpret_cast<const char*>(this + 1); }
};
static_assert(sizeof(HashedStrKeyBlock) == 32 && alignof(HashedStrKeyBlock) == 8);

// A handle to a key block: one pointer, aimed at the text, so the key reads
// as a C string; length and hash sit just ahead of it. Copying copies the
// handle, never the block, and the handle owns nothing: it is valid while
// its block lives (see the owners below).
// Thread story: the block is immutable, so const use is safe from any thread
// while the block lives.
class HashedStrReference : public StrSegmentVocabulary<HashedStrReference> {
 public:
  typedef size_t size_type;

  // The key's text (NUL-terminated), its length and its hash.
  const char* c_str() const { return _text; }
  const char* data() const { return _text; }
  size_type size() const { return _block()->length; }
  size_type length() const { return _block()->length; }
  bool empty() const { return _block()->length == 0; }
  uint64_t hash() const { return _block()->hash; }
  // Whether the block belongs to no pool (its back_link is null).
  bool isPermanent() const { return _block()->back_link == nullptr; }

  // Hash and length of `cstr` in one pass, then hash, length, bytes.
  bool operator==(const char* cstr) const;
  // Same block, else hash and length, else bytes.
  bool operator==(const HashedStrReference& other) const;

  // A new block outside any pool (back_link and next null), holding a copy
  // of the bytes. `hash` must be djb2_hash of the bytes; the other shapes
  // compute it. Throws std::bad_alloc. The caller owns the block and frees
  // it with _freeMem().
  static HashedStrReference _allocMem(const char* bytes, size_type length, uint64_t hash);
  static HashedStrReference _allocMem(const char* bytes, size_type length);
  static HashedStrReference _allocMem(const char* cstr);
  // Frees a block from _allocMem. REQUIRES: the block is in no pool.
  void _freeMem() const;
  // Stores `next` into the slot at back_link, points the following block's
  // back_link at that slot, and frees the block.
  // REQUIRES: the block is pooled (back_link non-null).
  void _really_unlink_and_free() const;

 protected:
  explicit constexpr HashedStrReference(const char* text) : _text(text) {}

 private:
  friend class HashedStrMap_KeyPool;
  const HashedStrKeyBlock* _block() const {
    return reinterpret_cast<const HashedStrKeyBlock*>(_text) - 1;
  }
  HashedStrKeyBlock* _mutableBlock() const { return const_cast<HashedStrKeyBlock*>(_block()); }

  const char* _text;
};

// A permanent key: its block is in no pool and lives for the process, or
// until the HashedStrMapKeyGenerator that made it frees its keys. Maps store
// permanent keys without copying them.
// Thread story: immutable, safe from any thread.
class HashedStr : public HashedStrReference {
 public:
  // Allocates a block that is never freed: meant for keys held in static
  // constants (`static const HashedStr KEY_HOST("host");`). Keys made at run
  // time come from a HashedStrMapKeyGenerator. Throws std::bad_alloc.
  explicit HashedStr(const char* cstr);
  explicit HashedStr(const StrSegment& text);

  // The permanent empty key (hash 5381). Constant-initialised, so it is
  // usable from any static initialiser.
  static const HashedStr EMPTY_STR;

 private:
  friend class HashedStrMapKeyGenerator;
  explicit constexpr HashedStr(const char* text, int) : HashedStrReference(text) {}
};

// The list of key blocks owned by one map, linked through next and
// back_link, newest first. Frees every block on destruction.
// Thread story: one owner at a time.
class HashedStrMap_KeyPool {
 public:
  HashedStrMap_KeyPool() = default;
  HashedStrMap_KeyPool(const HashedStrMap_KeyPool&) = delete;
  HashedStrMap_KeyPool& operator=(const HashedStrMap_KeyPool&) = delete;
  ~HashedStrMap_KeyPool() { freeAll(); }

  // A new pooled block holding a copy of the bytes; valid until freeAll,
  // its own _really_unlink_and_free, or the pool's end. `hash` must be
  // djb2_hash of the bytes; the other shapes compute it. Throws
  // std::bad_alloc and then leaves the pool as it was.
  HashedStrReference create(const char* bytes, size_t length, uint64_t hash);
  HashedStrReference create(const char* bytes, size_t length);
  HashedStrReference create(const char* cstr);
  // Frees every block; handles into the pool dangle afterwards.
  void freeAll();
  // Exchanges the lists, fixing the first blocks' back_links.
  void swap(HashedStrMap_KeyPool& other);
  bool empty() const { return _head == nullptr; }

 private:
  HashedStrKeyBlock* _head = nullptr;
};

// Keys in insertion order, each block allocated by _allocMem and owned by
// the vector: they live until _freeMem or the vector's end.
// Thread story: one owner at a time.
class HashedStrVector {
 public:
  HashedStrVector() = default;
  HashedStrVector(const HashedStrVector&) = delete;
  HashedStrVector& operator=(const HashedStrVector&) = delete;
  ~HashedStrVector() { _freeMem(); }

  // Appends a key holding a copy of the bytes and returns it. Throws
  // std::bad_alloc and then leaves the vector as it was.
  HashedStrReference push_back(const char* bytes, size_t length);
  // Frees every key and empties the vector.
  void _freeMem();

  size_t size() const { return _keys.size(); }
  bool empty() const { return _keys.empty(); }
  const HashedStrReference& operator[](size_t i) const { return _keys[i]; }
  std::vector<HashedStrReference>::const_iterator begin() const { return _keys.begin(); }
  std::vector<HashedStrReference>::const_iterator end() const { return _keys.end(); }

 private:
  std::vector<HashedStrReference> _keys;
};

// Hands out one permanent key per distinct text: asking twice for the same
// bytes gives the same HashedStr object and block. The keys live until
// free_all or the generator's end.
// Thread story: not locked; the user guards a shared generator.
class HashedStrMapKeyGenerator {
 public:
  HashedStrMapKeyGenerator() = default;
  HashedStrMapKeyGenerator(const HashedStrMapKeyGenerator&) = delete;
  HashedStrMapKeyGenerator& operator=(const HashedStrMapKeyGenerator&) = delete;
  ~HashedStrMapKeyGenerator() { free_all(); }

  // The key for these bytes, made on first request. `hash` must be
  // djb2_hash of the bytes; the other shapes compute it. Throws
  // std::bad_alloc.
  const HashedStr& get(const char* bytes, size_t length, uint64_t hash);
  const HashedStr& get(const char* bytes, size_t length);
  const HashedStr& get(const char* cstr);
  // Frees every key handed out; they all dangle afterwards.
  void free_all();
  size_t size() const { return _keys.size(); }

 private:
  std::multimap<uint64_t, HashedStr> _keys;
};
