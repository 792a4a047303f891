// The Unicode character data behind case folding, character classes and the
// resolution of combining marks. The tables are generated into
// util/UnicodeTables.cpp by util/gen_unicode_tables.py; never edit them by hand.
#pragma once

#include <cstddef>
#include <cstdint>

// Every key below is a character's UTF-8 bytes packed big-end first into 32
// bits: U+0080 is 0xC280, U+20AC is 0xE282AC, "A" is 0x41. Packed values sort
// in code point order.
//
// All tables are immutable constant data, safe from any thread.

// Flags word of a character row.
inline constexpr uint32_t UNICODE_ALPHA = 0x80000000;
// Case kind, bits 30 and 29. UPPER: the lower case is the packed value XOR
// the delta. LOWER: the upper case is the packed value XOR the delta. PAIRS:
// a run of alternating pairs, upper case at the even packed value, lower case
// at the odd one above it; the delta is unused.
inline constexpr uint32_t UNICODE_CASE_MASK = 0x60000000;
inline constexpr uint32_t UNICODE_CASE_UPPER = 0x20000000;
inline constexpr uint32_t UNICODE_CASE_LOWER = 0x40000000;
inline constexpr uint32_t UNICODE_CASE_PAIRS = 0x60000000;
inline constexpr uint32_t UNICODE_DIGIT = 0x10000000;
inline constexpr uint32_t UNICODE_SPACE = 0x08000000;
inline constexpr uint32_t UNICODE_CNTRL = 0x04000000;
inline constexpr uint32_t UNICODE_PRINT = 0x02000000;
inline constexpr uint32_t UNICODE_PUNCT = 0x01000000;
inline constexpr uint32_t UNICODE_DELTA_MASK = 0x00FFFFFF;

// One row covers the packed values from `utf8bytes` up to the next row's key.
// Rows are sorted; the first key is 0xC280 and the last is 0xFFFFFFFF with no
// flags. The Basic Multilingual Plane is itemised; all four-byte characters
// share one row, printable and nothing else.
struct UnicodeCharacterRow {
  uint32_t utf8bytes;
  uint32_t flags;
};
inline constexpr size_t UNICODE_CHARACTER_ROWS = 1600;
extern const UnicodeCharacterRow UNICODE_CHARACTER_TABLE[UNICODE_CHARACTER_ROWS];

// A combining mark that canonical composition attaches to a base, with its
// own bit of the 64-bit mark mask. Sorted by `utf8bytes`.
struct UnicodeCombiningMark {
  uint32_t utf8bytes;
  uint64_t maskBit;
};
inline constexpr size_t UNICODE_COMBINING_MARK_ROWS = 63;
extern const UnicodeCombiningMark UNICODE_COMBINING_MARKS[UNICODE_COMBINING_MARK_ROWS];

// A base character and the precomposed character that replaces it together
// with the marks of one combination.
struct UnicodeBaseReplacement {
  uint32_t base;
  uint32_t replacement;
};

// The set of marks that follow a base, as a mask, and its replacements:
// UNICODE_BASE_REPLACEMENTS[first] onwards, `count` of them, sorted by base.
// Combinations are sorted by mask.
struct UnicodeMarkCombination {
  uint64_t mask;
  uint32_t first;
  uint32_t count;
};
inline constexpr size_t UNICODE_MARK_COMBINATION_ROWS = 116;
extern const UnicodeMarkCombination UNICODE_MARK_COMBINATIONS[UNICODE_MARK_COMBINATION_ROWS];
extern const UnicodeBaseReplacement UNICODE_BASE_REPLACEMENTS[];

// A mask cannot tell the order of its marks, and for one base it matters:
// "u" with diaeresis then macron is U+01D6 (0xC796), with macron then
// diaeresis U+1E7B. The combination table gives `replacement`; when the first
// mark after `base` was `firstMark`, `variant` is the right character.
struct UnicodeMarkOrderVariant {
  uint32_t base;
  uint32_t replacement;
  uint32_t firstMark;
  uint32_t variant;
};
inline constexpr size_t UNICODE_MARK_ORDER_VARIANT_ROWS = 2;
extern const UnicodeMarkOrderVariant UNICODE_MARK_ORDER_VARIANTS[UNICODE_MARK_ORDER_VARIANT_ROWS];
