// The segmenter that cuts event text into the tokens searches match terms
// against: major tokens between major breakers (whitespace by default) and
// the minor tokens inside them.
#pragma once

#include <cstddef>

#include "util/CharacterClass.h"
#include "util/Str.h"
#include "util/StrSegment.h"

class PropertiesMap;

// Receives the tokens of a text, in order of position.
class ICleanCallback {
 public:
  virtual ~ICleanCallback() = default;
  // One token: `length` bytes at `bytes`, `position` bytes into the text.
  // Returning false ends the cleaning: the receiver has what it needs.
  virtual bool acceptToken(const char* bytes, size_t length, size_t position) = 0;
};

// Immutable once built: clean() is safe from any thread.
//
// A major token is a run of bytes without major breakers. Inside it, each
// run without minor breakers is a minor token, passed on after the major
// token when it is not the whole of it. With the defaults,
// "id=web01.example, ok" gives "id=web01.example,", "id", "web01",
// "example", then "ok". Breakers are bytes; every byte from 0x80 is part
// of a word, so UTF-8 text stays whole.
class GenericCleaner {
 public:
  // Major: whitespace. Minor: every ASCII byte that is not a letter, a
  // digit or "_" (whitespace too, for when MAJOR leaves it out).
  GenericCleaner();
  // Breakers from settings "MAJOR" and "MINOR" of a "segmenters" stanza,
  // each a list of entries separated by blanks: a byte as itself, or "\s"
  // (blank), "\t", "\n", "\r", "\\", or "%XX" (hex). An absent or empty
  // setting keeps its default. An entry of any other shape is skipped with
  // a warning "Ignoring breaker '<entry>' in segmenters: not one byte".
  explicit GenericCleaner(const PropertiesMap& stanza);

  // The process-wide cleaner, made once, under a lock, from stanza
  // "search" of conf "segmenters" (the defaults without configuration).
  // Never destroyed.
  static const GenericCleaner* getShared();

  // Feeds the tokens of `text` to `callback` until it returns false.
  void clean(const StrSegment& text, ICleanCallback& callback) const;

  bool isMajor(unsigned char c) const { return _major.contains(c); }
  bool isMinor(unsigned char c) const { return _minor.contains(c); }

 private:
  CharacterClass _major;
  CharacterClass _minor;
};
