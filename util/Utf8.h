// UTF-8 at the byte level: validation of caller-owned bytes, the lead-byte
// stepping rule that counts characters, and the encoding of one code point.
#pragma once

#include <cstddef>
#include <cstdint>

// Whether the `len` bytes at `data` are valid UTF-8, with one deliberate gap.
// 00-7F stand alone; 80-C1 and F5-FF never lead; C2-DF take one continuation
// byte (80-BF), E0-EF two (after E0 the first is A0 or above, after ED 9F or
// below, so surrogates fail), F0-F4 three bytes that must all be present,
// of which the third and fourth must be continuation bytes. The second byte
// after F0 must be above 8F and after F4 at most 8F; after F1-F3 it is not
// looked at, so "\xF1\x41\x80\x80" passes. Pure; no allocation.
bool mem_is_valid_utf8(const char* data, size_t len);

// The length of the character that `lead` starts, from the lead byte alone:
// 1 below 0x80, 2 for 0x80-0xDF (a stray continuation byte steps like a
// two-byte lead), 3 for 0xE0-0xEF, 4 for 0xF0-0xF4 and 1 for 0xF5 and up.
// No following byte is examined, so callers clamp at the end of their text.
inline size_t utf8_char_len(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  if (lead < 0xF5) return 4;
  return 1;
}

// The UTF-8 bytes of one code point from U+0080 up, held in place (no
// allocation). A plain value; one owner at a time.
class utf8_character_buffer {
 public:
  // Encodes `codepoint` as 2, 3 or 4 bytes and returns the length. Surrogate
  // values are encoded like any other three-byte value. From 0x110000 up
  // nothing is encoded and the result, like size(), is 0.
  // REQUIRES: codepoint >= 0x80 (checked; the process ends otherwise).
  size_t _set(uint32_t codepoint);

  // The bytes of the last _set, not NUL-terminated, and their count (0
  // before any _set).
  const char* data() const { return _bytes; }
  size_t size() const { return _len; }

 private:
  char _bytes[4] = {};
  size_t _len = 0;
};
