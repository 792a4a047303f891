// HorspoolStr: a substring search with a precomputed skip table, for the
// literals of wildcard patterns that are searched once per event.
#pragma once

#include <cstddef>

#include "util/StrSegment.h"

// Borrows its needle: the NUL-terminated bytes given to init must outlive
// it, and a copy borrows the same bytes. Immutable after init, so findIn is
// safe from any thread.
class HorspoolStr {
 public:
  HorspoolStr() { init(nullptr); }
  explicit HorspoolStr(const char* needle) { init(needle); }

  // Takes the NUL-terminated `needle` (null is the empty needle) and builds
  // the skip table. Only the last 256 bytes of a longer needle are indexed,
  // since a skip must fit in a byte; the search stays correct, only slower.
  void init(const char* needle);

  // The first position at or after `start` where the needle lies wholly
  // inside `haystack`, or npos. An empty needle is never found, nor is one
  // that would not fit: "abc" in "xabc" from 2 is npos.
  size_t findIn(const StrSegment& haystack, size_t start) const;

  const char* getNeedle() const { return _needle; }
  size_t length() const { return _len; }

 private:
  const char* _needle;
  size_t _len;
  unsigned char _skip[256];
};
