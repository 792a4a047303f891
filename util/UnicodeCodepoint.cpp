#include "util/UnicodeCodepoint.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include "util/Assert.h"
#include "util/UnicodeTables.h"

namespace {

bool isAscii(uint32_t v) { return v < 0x80; }

// Case kinds, with the lowest bit deciding inside a run of pairs.
bool isUpperFlags(uint32_t utf8bytes, uint32_t flags) {
  const uint32_t kind = flags & UNICODE_CASE_MASK;
  return kind == UNICODE_CASE_UPPER || (kind == UNICODE_CASE_PAIRS && (utf8bytes & 1) == 0);
}

bool isLowerFlags(uint32_t utf8bytes, uint32_t flags) {
  const uint32_t kind = flags & UNICODE_CASE_MASK;
  return kind == UNICODE_CASE_LOWER || (kind == UNICODE_CASE_PAIRS && (utf8bytes & 1) != 0);
}

}  // namespace

uint32_t UnicodeCodepoint::getFlags(uint32_t utf8bytes) {
  kassert(utf8bytes >= 0xC280);
  const UnicodeCharacterRow* const begin = std::begin(UNICODE_CHARACTER_TABLE);
  const UnicodeCharacterRow* const row =
      std::upper_bound(begin, std::end(UNICODE_CHARACTER_TABLE), utf8bytes,
                       [](uint32_t v, const UnicodeCharacterRow& r) { return v < r.utf8bytes; });
  // The first key is 0xC280, so the row found is never ahead of the table.
  return row[-1].flags;
}

uint32_t UnicodeCodepoint::getLowercase(uint32_t utf8bytes) {
  if (isAscii(utf8bytes)) return static_cast<uint32_t>(std::tolower(static_cast<int>(utf8bytes)));
  const uint32_t flags = getFlags(utf8bytes);
  switch (flags & UNICODE_CASE_MASK) {
    case UNICODE_CASE_UPPER:
      return utf8bytes ^ (flags & UNICODE_DELTA_MASK);
    case UNICODE_CASE_PAIRS:
      return utf8bytes | 1;
    default:
      return utf8bytes;
  }
}

uint32_t UnicodeCodepoint::getUppercase(uint32_t utf8bytes) {
  if (isAscii(utf8bytes)) return static_cast<uint32_t>(std::toupper(static_cast<int>(utf8bytes)));
  const uint32_t flags = getFlags(utf8bytes);
  switch (flags & UNICODE_CASE_MASK) {
    case UNICODE_CASE_LOWER:
      return utf8bytes ^ (flags & UNICODE_DELTA_MASK);
    case UNICODE_CASE_PAIRS:
      return utf8bytes & ~uint32_t{1};
    default:
      return utf8bytes;
  }
}

size_t UnicodeCodepoint::writeUtf8(uint32_t utf8bytes, char* out) {
  size_t n = 1;
  while (n < 4 && (utf8bytes >> (8 * n)) != 0) ++n;
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(utf8bytes >> (8 * (n - 1 - i)));
  return n;
}

bool UnicodeCodepoint::isAlnum() const {
  if (isAscii(_utf8bytes)) return std::isalnum(static_cast<int>(_utf8bytes)) != 0;
  return (getFlags(_utf8bytes) & (UNICODE_ALPHA | UNICODE_DIGIT)) != 0;
}

bool UnicodeCodepoint::isAlpha() const {
  if (isAscii(_utf8bytes)) return std::isalpha(static_cast<int>(_utf8bytes)) != 0;
  return (getFlags(_utf8bytes) & UNICODE_ALPHA) != 0;
}

bool UnicodeCodepoint::isCntrl() const {
  if (isAscii(_utf8bytes)) return std::iscntrl(static_cast<int>(_utf8bytes)) != 0;
  return (getFlags(_utf8bytes) & UNICODE_CNTRL) != 0;
}

bool UnicodeCodepoint::isGraph() const {
  if (isAscii(_utf8bytes)) return std::isgraph(static_cast<int>(_utf8bytes)) != 0;
  const uint32_t flags = getFlags(_utf8bytes);
  return (flags & UNICODE_PRINT) != 0 && (flags & UNICODE_SPACE) == 0;
}

bool UnicodeCodepoint::isPrint() const {
  if (isAscii(_utf8bytes)) return std::isprint(static_cast<int>(_utf8bytes)) != 0;
  return (getFlags(_utf8bytes) & UNICODE_PRINT) != 0;
}

bool UnicodeCodepoint::isPunct() const {
  if (isAscii(_utf8bytes)) return std::ispunct(static_cast<int>(_utf8bytes)) != 0;
  return (getFlags(_utf8bytes) & UNICODE_PUNCT) != 0;
}

bool UnicodeCodepoint::isSpace() const {
  if (isAscii(_utf8bytes)) return std::isspace(static_cast<int>(_utf8bytes)) != 0;
  return (getFlags(_utf8bytes) & UNICODE_SPACE) != 0;
}

bool UnicodeCodepoint::isLower() const {
  if (isAscii(_utf8bytes)) return std::islower(static_cast<int>(_utf8bytes)) != 0;
  return isLowerFlags(_utf8bytes, getFlags(_utf8bytes));
}

bool UnicodeCodepoint::isUpper() const {
  if (isAscii(_utf8bytes)) return std::isupper(static_cast<int>(_utf8bytes)) != 0;
  return isUpperFlags(_utf8bytes, getFlags(_utf8bytes));
}
