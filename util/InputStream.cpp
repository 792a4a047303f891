#include "util/InputStream.h"

#include <cstring>

#include "util/Str.h"
#include "util/StrSegment.h"

InputStream::InputStream(const void* data, size_t length)
    : _start(static_cast<const unsigned char*>(data)), _pos(_start), _end(_start + length) {}

InputStream::~InputStream() = default;

bool InputStream::internal_read32(unsigned int& out, bool swapped) {
  if (remaining() < 4) return false;
  uint32_t v;
  std::memcpy(&v, _pos, 4);
  out = swapped ? __builtin_bswap32(v) : v;
  _pos += 4;
  return true;
}

bool InputStream::internal_readSeg(StrSegment& out, bool swapped) {
  const unsigned char* const before = _pos;
  unsigned int n;
  if (!internal_read32(n, swapped)) return false;
  if (n > remaining()) {
    _pos = before;
    return false;
  }
  if (static_cast<uint32_t>(n - 1) >= MAX_STRING_LENGTH) return false;
  out = StrSegment(reinterpret_cast<const char*>(_pos), n - 1);
  _pos += n;
  return true;
}

bool InputStream::internal_readStr(Str& out, bool swapped) {
  StrSegment seg;
  if (!internal_readSeg(seg, swapped)) return false;
  out.assign(seg.data(), seg.size());
  return true;
}
