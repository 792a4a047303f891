// Case folding of whole strings and the resolution of combining marks into
// precomposed characters, both driven by util/UnicodeTables.h.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iterator>

#include "util/Str.h"
#include "util/UnicodeCodepoint.h"
#include "util/UnicodeTables.h"
#include "util/Utf8.h"

namespace {

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Copies `in` to `out` with every character passed through `fold`. From 0x80
// up a lead byte is packed with the continuation bytes after it, at most
// three since a packed value has 32 bits. A packed value below 0xC280 names
// no character, so its first byte is copied alone and the walk goes on from
// the next byte.
void foldInto(const Str& in, Str* out, int (*asciiFold)(int), uint32_t (*fold)(uint32_t)) {
  const unsigned char* const p = reinterpret_cast<const unsigned char*>(in.data());
  const size_t len = in.size();
  out->clear();
  out->reserve(len);
  for (size_t i = 0; i < len;) {
    if (p[i] < 0x80) {
      out->push_back(static_cast<char>(asciiFold(p[i])));
      ++i;
      continue;
    }
    uint32_t packed = p[i];
    size_t n = 1;
    while (n < 4 && i + n < len && isContinuation(p[i + n])) packed = (packed << 8) | p[i + n++];
    if (packed < 0xC280) {
      out->push_back(static_cast<char>(p[i]));
      ++i;
      continue;
    }
    char bytes[4];
    out->append(bytes, UnicodeCodepoint::writeUtf8(fold(packed), bytes));
    i += n;
  }
}

int asciiToLower(int c) { return std::tolower(c); }
int asciiToUpper(int c) { return std::toupper(c); }

// The mask bit of a combining mark, or 0 for any other character.
uint64_t getMarkBit(uint32_t utf8bytes) {
  const UnicodeCombiningMark* const end = std::end(UNICODE_COMBINING_MARKS);
  const UnicodeCombiningMark* const m = std::lower_bound(
      std::begin(UNICODE_COMBINING_MARKS), end, utf8bytes,
      [](const UnicodeCombiningMark& row, uint32_t v) { return row.utf8bytes < v; });
  return (m != end && m->utf8bytes == utf8bytes) ? m->maskBit : 0;
}

// The precomposed character for `base` followed by the marks of `mask`, the
// first of them `firstMark`; 0 when there is none.
uint32_t getReplacement(uint32_t base, uint64_t mask, uint32_t firstMark) {
  const UnicodeMarkCombination* const cend = std::end(UNICODE_MARK_COMBINATIONS);
  const UnicodeMarkCombination* const combo = std::lower_bound(
      std::begin(UNICODE_MARK_COMBINATIONS), cend, mask,
      [](const UnicodeMarkCombination& row, uint64_t v) { return row.mask < v; });
  if (combo == cend || combo->mask != mask) return 0;
  const UnicodeBaseReplacement* const first = UNICODE_BASE_REPLACEMENTS + combo->first;
  const UnicodeBaseReplacement* const last = first + combo->count;
  const UnicodeBaseReplacement* const pair =
      std::lower_bound(first, last, base, [](const UnicodeBaseReplacement& row, uint32_t v) {
        return row.base < v;
      });
  if (pair == last || pair->base != base) return 0;
  // The mask forgot the order of the marks; where the order picks another
  // character (U+01D5/U+01D6 against U+1E7A/U+1E7B), one more step.
  for (const UnicodeMarkOrderVariant& v : UNICODE_MARK_ORDER_VARIANTS) {
    if (v.base == base && v.replacement == pair->replacement && v.firstMark == firstMark) {
      return v.variant;
    }
  }
  return pair->replacement;
}

}  // namespace

void Str::str_tolower(const Str& in, Str* out) {
  foldInto(in, out, asciiToLower, UnicodeCodepoint::getLowercase);
}

void Str::str_toupper(const Str& in, Str* out) {
  foldInto(in, out, asciiToUpper, UnicodeCodepoint::getUppercase);
}

void Str::toLowercase() {
  Str folded;
  str_tolower(*this, &folded);
  swap(folded);
}

void Str::toUppercase() {
  Str folded;
  str_toupper(*this, &folded);
  swap(folded);
}

void Str::resolveUnicodeCombiningMarks() {
  const unsigned char* const p = reinterpret_cast<const unsigned char*>(data());
  const size_t len = size();
  if (std::all_of(p, p + len, [](unsigned char c) { return c < 0x80; })) return;

  Str out;
  out.reserve(len);
  bool replaced = false;
  // The open cluster: a base at `start` and the marks gathered after it.
  size_t start = npos;
  uint32_t base = 0;
  uint64_t mask = 0;
  uint32_t firstMark = 0;
  auto closeCluster = [&](size_t end) {
    if (start == npos) return;
    const uint32_t r = mask == 0 ? 0 : getReplacement(base, mask, firstMark);
    if (r != 0) {
      char bytes[4];
      out.append(bytes, UnicodeCodepoint::writeUtf8(r, bytes));
      replaced = true;
    } else {
      out.append(data() + start, end - start);
    }
    start = npos;
  };

  for (size_t i = 0; i < len;) {
    const size_t n = std::min(utf8_char_len(p[i]), len - i);
    uint32_t packed = 0;
    for (size_t k = 0; k < n; ++k) packed = (packed << 8) | p[i + k];
    const uint64_t bit = getMarkBit(packed);
    if (bit != 0 && start != npos) {
      // A mask holds each mark once, so a doubled mark counts as one.
      if (mask == 0) firstMark = packed;
      mask |= bit;
    } else {
      closeCluster(i);
      if (bit != 0) {
        out.append(data() + i, n);  // a mark with no base before it
      } else {
        start = i;
        base = packed;
        mask = 0;
      }
    }
    i += n;
  }
  closeCluster(len);
  if (replaced) swap(out);
}
