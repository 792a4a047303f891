// InputStream: reads back what OutputStream wrote, from a buffer that the
// caller keeps alive, in the machine's byte order or the other one.
#pragma once

#include <cstddef>
#include <cstdint>

class Str;
class StrSegment;

// A read position and an end in borrowed bytes. Nothing here throws: a
// record that is too short or carries a bad length gives false, and the
// caller treats it as corrupt. One owner at a time.
//
// A string is a 32-bit count n, then n bytes whose last (a NUL by
// convention, never checked) is not part of the string:
//   - fewer than 4 bytes left, or n above what follows: false, the
//     position stays;
//   - n - 1 (in 32 bits) of 0x4000000 or more, so n = 0 too: false, and the
//     position moves past the count only;
//   - else the n - 1 bytes, and the position moves past all n.
// So a count of 0x4000000 reads 0x3FFFFFF bytes and 0x4000001 is refused.
class InputStream {
 public:
  // The largest string count minus one that is refused.
  static constexpr uint32_t MAX_STRING_LENGTH = 0x4000000;

  InputStream(const void* data, size_t length);
  virtual ~InputStream();

  // The string copied into `out`; `out` is untouched on false.
  virtual bool tryReadStr(Str& out) = 0;
  // The string as a view into the buffer; `out` is untouched on false.
  virtual bool tryReadSeg(StrSegment& out) = 0;
  // Four bytes as a number; false (nothing moved) when fewer remain.
  virtual bool tryRead32(unsigned int& out) = 0;

  size_t remaining() const { return static_cast<size_t>(_end - _pos); }
  size_t position() const { return static_cast<size_t>(_pos - _start); }

 protected:
  // The string rule above around a count reader; the one copy of it.
  bool internal_readSeg(StrSegment& out, bool swapped);
  bool internal_readStr(Str& out, bool swapped);
  bool internal_read32(unsigned int& out, bool swapped);

 private:
  const unsigned char* _start;
  const unsigned char* _pos;
  const unsigned char* _end;
};

// Numbers as this machine holds them.
class NativeByteOrderInputStream : public InputStream {
 public:
  using InputStream::InputStream;
  bool tryReadStr(Str& out) override { return internal_readStr(out, false); }
  bool tryReadSeg(StrSegment& out) override { return internal_readSeg(out, false); }
  bool tryRead32(unsigned int& out) override { return internal_read32(out, false); }
};

// Numbers with their bytes reversed.
class SwappedByteOrderInputStream : public InputStream {
 public:
  using InputStream::InputStream;
  bool tryReadStr(Str& out) override { return internal_readStr(out, true); }
  bool tryReadSeg(StrSegment& out) override { return internal_readSeg(out, true); }
  bool tryRead32(unsigned int& out) override { return internal_read32(out, true); }
};
