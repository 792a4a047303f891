#include "util/OutputStream.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "util/Assert.h"
#include "util/HashedStr.h"
#include "util/Str.h"
#include "util/StrSegment.h"

namespace {

unsigned char* allocate(uint64_t size) {
  void* p = std::malloc(size);
  if (p == nullptr) throw std::bad_alloc();
  return static_cast<unsigned char*>(p);
}

}  // namespace

OutputStream::OutputStream(unsigned long size, unsigned int multiplier)
    : _owned(true),
      _start(nullptr),
      _pos(nullptr),
      _capacity(size),
      _initialSize(size),
      _reallocOnOverflowMultiplier(multiplier) {
  kassert(size > 0);
  _start = _pos = allocate(size);
}

OutputStream::OutputStream(unsigned long size, unsigned char* buffer, unsigned int multiplier)
    : _owned(multiplier >= 3),
      _start(buffer),
      _pos(buffer),
      _capacity(size),
      _initialSize(size),
      _reallocOnOverflowMultiplier(multiplier) {
  kassert(size > 0);
  kassert(buffer != nullptr);
}

OutputStream::~OutputStream() {
  if (_owned) std::free(_start);
}

void OutputStream::internal_grow(uint64_t needed) {
  kassert(_reallocOnOverflowMultiplier > 1);
  while (_capacity < needed) {
    uint64_t next;
    const bool overflow =
        _growths == 0 ? __builtin_mul_overflow(_capacity, uint64_t{_reallocOnOverflowMultiplier}, &next)
                      : __builtin_add_overflow(_capacity, _initialSize, &next);
    if (overflow) throw std::bad_alloc();
    unsigned char* grown = allocate(next);
    const uint64_t used = size();
    std::memcpy(grown, _start, used);
    std::free(_start);
    _start = grown;
    _pos = grown + used;
    _capacity = next;
    _owned = true;
    ++_growths;
  }
}

void OutputStream::write(unsigned long length, const unsigned char* data) {
  uint64_t needed;
  if (__builtin_add_overflow(size(), uint64_t{length}, &needed)) throw std::bad_alloc();
  if (needed > _capacity) internal_grow(needed);
  if (length == 0) return;
  std::memcpy(_pos, data, length);
  _pos += length;
}

void OutputStream::write(const StrSegment& s) {
  static const unsigned char nul = 0;
  write_32(static_cast<unsigned int>(s.size() + 1));
  write(s.size(), reinterpret_cast<const unsigned char*>(s.data()));
  write(1, &nul);
}

void OutputStream::write(const Str& s) { write(StrSegment(s.data(), s.size())); }

void OutputStream::write(const HashedStrReference& key) {
  write_32(static_cast<unsigned int>(key.size() + 1));
  write(key.size() + 1, reinterpret_cast<const unsigned char*>(key.data()));
}

void OutputStream::resetBufferSize(unsigned long size) {
  kassert(size > 0);
  std::free(_start);
  _start = _pos = nullptr;
  _start = _pos = allocate(size);
  _capacity = size;
  _owned = true;
  _growths = 0;
}

void NativeByteOrderOutputStream::write_32(unsigned int v) {
  unsigned char bytes[4];
  std::memcpy(bytes, &v, 4);
  write(4, bytes);
}

void SwappedByteOrderOutputStream::write_32(unsigned int v) {
  const uint32_t swapped = __builtin_bswap32(v);
  unsigned char bytes[4];
  std::memcpy(bytes, &swapped, 4);
  write(4, bytes);
}
