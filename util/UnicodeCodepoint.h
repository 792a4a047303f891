// One character and its Unicode properties (classes, case) from the
// generated tables of util/UnicodeTables.h.
#pragma once

#include <cstddef>
#include <cstdint>

// A character held as its UTF-8 bytes packed big-end first into 32 bits, the
// form in which the tables key it: "A" is 0x41, U+00C4 is 0xC384, U+20AC is
// 0xE282AC. Below 0x80 every question goes to the C library (isalpha and
// kin, tolower, toupper); from 0x80 up to the character table.
//
// Values from 0x80 to 0xC27F are no character: asking one anything but its
// value ends the process with "utf8bytes >= 0xC280". Every four-byte
// character counts as printable, with no other class and no case.
//
// A plain value; the tables behind it are immutable, so any thread may ask.
class UnicodeCodepoint {
 public:
  constexpr UnicodeCodepoint() = default;
  constexpr explicit UnicodeCodepoint(uint32_t utf8bytes) : _utf8bytes(utf8bytes) {}

  // The packed bytes.
  uint32_t utf8bytes() const { return _utf8bytes; }

  // Classes. isAlnum is alphabetic or digit; isGraph is printable but not
  // space. isUpper and isLower follow the case kind: a character without a
  // case mapping (U+00AA, U+00DF) is neither.
  bool isAlnum() const;
  bool isAlpha() const;
  bool isCntrl() const;
  bool isGraph() const;
  bool isPrint() const;
  bool isPunct() const;
  bool isSpace() const;
  bool isLower() const;
  bool isUpper() const;

  // The simple case mapping, or the character itself when it has none. The
  // result may change length: U+212A KELVIN SIGN lowers to "k" (0x6B),
  // U+0131 uppers to "I". A title-case letter (U+01C5) only lowers.
  UnicodeCodepoint toLowercase() const { return UnicodeCodepoint(getLowercase(_utf8bytes)); }
  UnicodeCodepoint toUppercase() const { return UnicodeCodepoint(getUppercase(_utf8bytes)); }

  // Shifts one more byte of a UTF-8 sequence in at the low end. Starting
  // from 0 and feeding a character's bytes in order yields its packed value.
  void _accumulateUtf8Byte(unsigned char byte) { _utf8bytes = (_utf8bytes << 8) | byte; }

  // The flags word (util/UnicodeTables.h) of the row covering `utf8bytes`.
  // REQUIRES: utf8bytes >= 0xC280 (checked; the process ends otherwise).
  static uint32_t getFlags(uint32_t utf8bytes);
  // Packed forms of toLowercase and toUppercase.
  static uint32_t getLowercase(uint32_t utf8bytes);
  static uint32_t getUppercase(uint32_t utf8bytes);
  // Writes the packed bytes big-end first, without leading zero bytes, to
  // `out` (room for 4) and returns how many: 0x41 gives 1 byte, 0xE282AC 3.
  // Zero writes one NUL byte.
  static size_t writeUtf8(uint32_t utf8bytes, char* out);

 private:
  uint32_t _utf8bytes = 0;
};
