// OutputStream: the growing buffer that event records and queue entries are
// serialised into, in the machine's byte order or the other one.
#pragma once

#include <cstdint>

class HashedStrReference;
class Str;
class StrSegment;

// A write position in one heap buffer. Numbers go in as 32 bits (the byte
// order is the subclass's); a string goes in as a 32-bit count that includes
// a closing NUL, then the bytes, then the NUL, so "abc" costs 8 bytes.
//
// Growth: a write that would pass the capacity grows the buffer step by
// step until the data fits; the stream's first growth multiplies the
// capacity by the multiplier, every later one adds the initial size. With
// size 100 and multiplier 2, one write of 1000 bytes grows to 200, 300, ...
// 1000, each step a fresh allocation. REQUIRES: a multiplier above 1 for a
// stream that is to grow ("_reallocOnOverflowMultiplier > 1").
//
// Buffers are malloc'ed and freed with free. One owner at a time.
class OutputStream {
 public:
  // Allocates `size` bytes and owns them. REQUIRES: size > 0.
  OutputStream(unsigned long size, unsigned int multiplier);
  // Writes into the caller's `buffer` of `size` bytes, which must come from
  // malloc. The multiplier also settles who frees it: the stream owns it
  // (and frees it on destruction) only when `multiplier` is 3 or more. A
  // growth or resetBufferSize frees the current buffer whoever owns it,
  // and the buffer that replaces it is the stream's.
  OutputStream(unsigned long size, unsigned char* buffer, unsigned int multiplier);
  virtual ~OutputStream();
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;

  // Appends a number, 4 bytes in the subclass's byte order.
  virtual void write_32(unsigned int v) = 0;

  // Appends `length` bytes, growing as needed. Throws std::bad_alloc when
  // memory runs out or the capacity would pass 64 bits.
  void write(unsigned long length, const unsigned char* data);
  // write_32(length + 1), the bytes, one NUL.
  void write(const StrSegment& s);
  void write(const Str& s);
  // The same form from the key block, whose NUL it already holds.
  void write(const HashedStrReference& key);

  // Frees the buffer, allocates `size` bytes that the stream owns, and
  // empties it; the count of growths starts again, the initial size stays.
  void resetBufferSize(unsigned long size);
  // Forgets what was written; the buffer stays.
  void rewind() { _pos = _start; }

  // The bytes written so far, valid until the next write.
  const unsigned char* data() const { return _start; }
  uint64_t size() const { return static_cast<uint64_t>(_pos - _start); }
  uint64_t capacity() const { return _capacity; }
  uint32_t growthCount() const { return _growths; }
  bool ownsBuffer() const { return _owned; }

 private:
  void internal_grow(uint64_t needed);

  bool _owned;
  unsigned char* _start;
  unsigned char* _pos;
  uint64_t _capacity;
  uint64_t _initialSize;
  uint32_t _reallocOnOverflowMultiplier;
  uint32_t _growths = 0;
};

// Numbers as they stand in this machine's memory.
class NativeByteOrderOutputStream : public OutputStream {
 public:
  using OutputStream::OutputStream;
  void write_32(unsigned int v) override;
};

// Numbers with their bytes reversed: the form for the other byte order.
class SwappedByteOrderOutputStream : public OutputStream {
 public:
  using OutputStream::OutputStream;
  void write_32(unsigned int v) override;
};
