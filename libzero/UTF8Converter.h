// The decoders that turn UTF-8, UTF-16 and UTF-32 text into UTF-8, and the
// encoders for the way back, one engine per encoding. Engines are immutable
// process-wide objects: safe from any thread, never freed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "libzero/FileEncoding.h"

class UTF8Converter {
 public:
  virtual ~UTF8Converter() = default;
  UTF8Converter(const UTF8Converter&) = delete;
  UTF8Converter& operator=(const UTF8Converter&) = delete;

  // Appends to `out` the UTF-8 of the code units at the start of the `len`
  // bytes at `in`, and returns how many bytes it consumed. A unit that
  // answers to no code point (a malformed UTF-8 sequence, a lone surrogate,
  // a value above 10FFFF) is skipped and leaves no mark in `out`; U+FEFF is
  // dropped wherever it stands. A unit cut off by the end of `in` is left
  // unconsumed for the next call, unless `atEnd`, when it is skipped too.
  //   UTF-8 "A\xE2\x82B"            -> "AB"
  //   UTF-16 LE "A\0\0\xD8B\0"      -> "AB"  (lone high surrogate)
  //   UTF-16 LE "A\0B", !atEnd      -> "A", 2 consumed
  virtual size_t toUtf8(const unsigned char* in, size_t len, bool atEnd,
                        std::string& out) const = 0;
  // Appends the code units of `codepoint` in this engine's encoding.
  // REQUIRES: codepoint <= 0x10FFFF and not a surrogate.
  virtual void fromCodepoint(uint32_t codepoint, std::string& out) const = 0;

  // The encoding kind (no mark flag) and its canonical name, "UTF-16LE".
  FileEncoding encoding() const { return _encoding; }
  const char* name() const { return _name; }

  // The engine for an encoding name: "UTF-8", "UTF-16LE", "UTF-16BE",
  // "UTF-32LE", "UTF-32BE", caseless, with the hyphen optional ("utf8",
  // "Utf_16be" with an underscore too). Null for any other name, the
  // order-less "UTF-16" included, since the byte order must be known.
  static const UTF8Converter* find_engine(const char* name);
  // The engine for an encoding kind (the mark flag is ignored); null below
  // FILE_ENCODING_UTF8 or above FILE_ENCODING_UTF32BE.
  static const UTF8Converter* find_engine(FileEncoding encoding);

  // Decodes one UTF-8 character at `p` (shortest form, no surrogates, at
  // most 10FFFF). Returns its length and stores the code point; 0 when the
  // `len` bytes are a valid beginning cut short; -1 when the first byte
  // starts no valid character. REQUIRES: len > 0.
  static int decodeUtf8(const unsigned char* p, size_t len, uint32_t* codepoint);
  // Appends the UTF-8 bytes of `codepoint`. REQUIRES: codepoint <= 0x10FFFF.
  static void appendUtf8(uint32_t codepoint, std::string& out);

 protected:
  UTF8Converter(FileEncoding encoding, const char* name) : _encoding(encoding), _name(name) {}

 private:
  const FileEncoding _encoding;
  const char* const _name;
};
