// LStrContainer: text that is always held folded to lower case, for
// settings whose values are compared without regard to case ("sharing",
// user names read from configuration).
// A plain value: one owner at a time, const methods safe to share.
#pragma once

#include "util/Str.h"

class LStrContainer {
 public:
  LStrContainer() = default;
  // Holds `text` folded by Str::toLowercase (the C library below 0x80, the
  // Unicode tables above): "ÄBC" is held as "äbc".
  explicit LStrContainer(const Str& text) { assign(text); }
  LStrContainer& operator=(const Str& text) { return assign(text); }
  LStrContainer& assign(const Str& text) {
    _text = text;
    _text.toLowercase();
    return *this;
  }

  const Str& str() const { return _text; }
  bool empty() const { return _text.empty(); }
  bool operator==(const LStrContainer& other) const { return _text == other._text; }

 private:
  Str _text;
};
