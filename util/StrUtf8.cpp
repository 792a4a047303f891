// Character-wise length, truncation and substrings of UTF-8 text. All of them
// step by the lead byte alone (utf8_char_len) and never validate: they must
// give the same answer on any bytes, so that a cut made here is repeatable.
#include <stdexcept>

#include "util/Str.h"
#include "util/StrSegment.h"
#include "util/Utf8.h"

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The byte position after `count` characters from `pos`, stopping at `len`.
size_t stepCharacters(const char* data, size_t len, size_t pos, size_t count) {
  for (; count != 0 && pos < len; --count) {
    pos += utf8_char_len(static_cast<unsigned char>(data[pos]));
  }
  return pos < len ? pos : len;
}

}  // namespace

StrSegment::size_type StrSegment::len_utf8() const {
  size_type count = 0;
  for (size_type pos = 0; pos < _len; ++count) {
    pos += utf8_char_len(static_cast<unsigned char>(_data[pos]));
  }
  return count;
}

StrSegment::size_type StrSegment::utf8_aware_truncate(size_type n) {
  if (_len <= n) return _len;
  size_type cut = n;
  while (cut > 0 && isContinuation(_data[cut])) --cut;
  _len = cut;
  return cut;
}

void StrSegment::utf8_character_count_truncate(size_type n) {
  if (_len <= n) return;
  _len = stepCharacters(_data, _len, 0, n);
}

Str Str::substr_utf8(size_type start, size_type count) const {
  size_type pos = 0;
  for (; start != 0; --start) {
    pos += utf8_char_len(static_cast<unsigned char>((*this)[pos]));
    if (pos >= size()) throw std::out_of_range(*this + " accessed out of range");
  }
  const size_type end = count == npos ? size() : stepCharacters(data(), size(), pos, count);
  return Str(data() + pos, end - pos);
}
