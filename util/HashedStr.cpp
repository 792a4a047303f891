#include "util/HashedStr.h"

#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "util/Assert.h"
#include "util/Str.h"

namespace {

size_t blockSize(size_t length) {
  return sizeof(HashedStrKeyBlock) + ((length + 1 + 7) & ~static_cast<size_t>(7));
}

// A block with next and back_link null. The padding after the NUL is zeroed
// so that a block's bytes never depend on what the allocator left there.
HashedStrKeyBlock* newBlock(const char* bytes, size_t length, uint64_t hash) {
  const size_t size = blockSize(length);
  auto* block = static_cast<HashedStrKeyBlock*>(::operator new(size));
  block->next = nullptr;
  block->back_link = nullptr;
  block->length = length;
  block->hash = hash;
  char* text = block->text();
  if (length != 0) std::memcpy(text, bytes, length);
  std::memset(text + length, 0, size - sizeof(HashedStrKeyBlock) - length);
  return block;
}

void deleteBlock(HashedStrKeyBlock* block) { ::operator delete(block); }

// The empty key lives in static storage laid out exactly like a heap block,
// so EMPTY_STR needs no allocation and no dynamic initialisation.
struct EmptyKeyStorage {
  HashedStrKeyBlock head;
  char text[8];
};
static_assert(offsetof(EmptyKeyStorage, text) == sizeof(HashedStrKeyBlock));
constinit EmptyKeyStorage gEmptyKey = {{nullptr, nullptr, 0, DJB2_SEED}, {}};

}  // namespace

constinit const HashedStr HashedStr::EMPTY_STR(gEmptyKey.text, 0);

bool HashedStrReference::operator==(const char* cstr) const {
  size_t len;
  const uint64_t h = djb2_hash_and_strlen(cstr, &len);
  return h == hash() && len == length() && std::memcmp(_text, cstr, len) == 0;
}

bool HashedStrReference::operator==(const HashedStrReference& other) const {
  if (_text == other._text) return true;
  return hash() == other.hash() && length() == other.length() &&
         std::memcmp(_text, other._text, length()) == 0;
}

HashedStrReference HashedStrReference::_allocMem(const char* bytes, size_type length,
                                                 uint64_t hash) {
  return HashedStrReference(newBlock(bytes, length, hash)->text());
}

HashedStrReference HashedStrReference::_allocMem(const char* bytes, size_type length) {
  return _allocMem(bytes, length, djb2_hash(bytes, length));
}

HashedStrReference HashedStrReference::_allocMem(const char* cstr) {
  size_t len;
  const uint64_t h = djb2_hash_and_strlen(cstr, &len);
  return _allocMem(cstr, len, h);
}

void HashedStrReference::_freeMem() const {
  kassert(_block()->back_link == nullptr);
  deleteBlock(_mutableBlock());
}

void HashedStrReference::_really_unlink_and_free() const {
  HashedStrKeyBlock* block = _mutableBlock();
  kassert(block->back_link != nullptr);
  *block->back_link = block->next;
  if (block->next != nullptr) block->next->back_link = block->back_link;
  deleteBlock(block);
}

HashedStr::HashedStr(const char* cstr) : HashedStrReference(_allocMem(cstr)) {}

HashedStr::HashedStr(const StrSegment& text)
    : HashedStrReference(_allocMem(text.data(), text.size())) {}

HashedStrReference HashedStrMap_KeyPool::create(const char* bytes, size_t length, uint64_t hash) {
  HashedStrKeyBlock* block = newBlock(bytes, length, hash);
  block->next = _head;
  block->back_link = &_head;
  if (_head != nullptr) _head->back_link = &block->next;
  _head = block;
  return HashedStrReference(block->text());
}

HashedStrReference HashedStrMap_KeyPool::create(const char* bytes, size_t length) {
  return create(bytes, length, djb2_hash(bytes, length));
}

HashedStrReference HashedStrMap_KeyPool::create(const char* cstr) {
  size_t len;
  const uint64_t h = djb2_hash_and_strlen(cstr, &len);
  return create(cstr, len, h);
}

void HashedStrMap_KeyPool::freeAll() {
  while (_head != nullptr) {
    HashedStrKeyBlock* next = _head->next;
    deleteBlock(_head);
    _head = next;
  }
}

void HashedStrMap_KeyPool::swap(HashedStrMap_KeyPool& other) {
  std::swap(_head, other._head);
  // The first block of each list pointed at the other pool's head.
  if (_head != nullptr) _head->back_link = &_head;
  if (other._head != nullptr) other._head->back_link = &other._head;
}

HashedStrReference HashedStrVector::push_back(const char* bytes, size_t length) {
  _keys.reserve(_keys.size() + 1);  // so that the push below cannot throw
  _keys.push_back(HashedStrReference::_allocMem(bytes, length));
  return _keys.back();
}

void HashedStrVector::_freeMem() {
  for (const HashedStrReference& key : _keys) key._freeMem();
  _keys.clear();
}

const HashedStr& HashedStrMapKeyGenerator::get(const char* bytes, size_t length, uint64_t hash) {
  auto it = _keys.lower_bound(hash);
  for (; it != _keys.end() && it->first == hash; ++it) {
    const HashedStr& key = it->second;
    if (key.length() == length && std::memcmp(key.data(), bytes, length) == 0) return key;
  }
  const HashedStrReference block = HashedStrReference::_allocMem(bytes, length, hash);
  try {
    return _keys.emplace_hint(it, hash, HashedStr(block.data(), 0))->second;
  } catch (const std::bad_alloc&) {
    block._freeMem();
    throw;
  }
}

const HashedStr& HashedStrMapKeyGenerator::get(const char* bytes, size_t length) {
  return get(bytes, length, djb2_hash(bytes, length));
}

const HashedStr& HashedStrMapKeyGenerator::get(const char* cstr) {
  size_t len;
  const uint64_t h = djb2_hash_and_strlen(cstr, &len);
  return get(cstr, len, h);
}

void HashedStrMapKeyGenerator::free_all() {
  for (const auto& entry : _keys) entry.second._freeMem();
  _keys.clear();
}

Str::Str(const HashedStrReference& key) : std::string(key.data(), key.size()) {}

Str& Str::append(const HashedStrReference& key) {
  std::string::append(key.data(), key.size());
  return *this;
}

Str& Str::assign(const HashedStrReference& key) {
  std::string::assign(key.data(), key.size());
  return *this;
}

Str& Str::prepend(const HashedStrReference& key) {
  insert(0, key.data(), key.size());
  return *this;
}
