// Standard base64 (RFC 4648, with "=" padding) over OpenSSL's EVP coder.
// Pure functions; safe from any thread.
#pragma once

#include "util/Str.h"

class Base64 {
 public:
  // "hi" gives "aGk=".
  static Str encode(const StrSegment& bytes);
  // The bytes `text` encodes into `out`. False, `out` untouched, for text
  // whose length is not a multiple of 4, that holds a byte outside the
  // alphabet, or that is padded anywhere but at its end. "" decodes to "".
  static bool decode(const StrSegment& text, Str& out);
};
