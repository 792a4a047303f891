#include "util/CaselessCompare.h"

#include <cstdint>

#include "util/StrSegment.h"
#include "util/UnicodeCodepoint.h"
#include "util/Utf8.h"

namespace {

uint32_t foldAsciiLetter(uint32_t c) { return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c; }

// Lower case by the tables, or A-Z only below 0x80: the C library's tolower
// would make the order depend on the locale.
uint32_t foldUnit(uint32_t unit) {
  return unit < 0x80 ? foldAsciiLetter(unit) : UnicodeCodepoint::getLowercase(unit);
}

// The unit at p[*pos], packed, and *pos moved past it.
uint32_t takeUnit(const unsigned char* p, size_t len, size_t* pos) {
  const unsigned char lead = p[*pos];
  size_t n = lead >= 0xC2 ? utf8_char_len(lead) : 1;
  if (n > len - *pos) n = 1;
  uint32_t unit = 0;
  for (size_t i = 0; i < n; ++i) unit = (unit << 8) | p[*pos + i];
  *pos += n;
  return unit;
}

}  // namespace

int mem_compare_caseless(const char* a, size_t alen, const char* b, size_t blen) {
  const unsigned char* const left = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* const right = reinterpret_cast<const unsigned char*>(b);
  size_t i = 0;
  size_t j = 0;
  for (;;) {
    if (i >= alen) return j >= blen ? 0 : -1;
    if (j >= blen) return 1;
    uint32_t l;
    uint32_t r;
    if (left[i] < 0x80) {
      l = foldAsciiLetter(left[i++]);
      r = foldAsciiLetter(right[j++]);
    } else {
      l = takeUnit(left, alen, &i);
      r = takeUnit(right, blen, &j);
      if (l != r) l = foldUnit(l);
      if (l != r) r = foldUnit(r);
    }
    if (l != r) return l < r ? -1 : 1;
  }
}

int StrSegment::compareIgnoreCase(const StrSegment& other) const {
  return mem_compare_caseless(_data, _len, other._data, other._len);
}
