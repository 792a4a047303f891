// Vectors of owned strings and of segments, with appending and joining.
// Thread story: as std::vector.
#pragma once

#include <vector>

#include "util/Str.h"
#include "util/StrSegment.h"

class StrVector : public std::vector<Str> {
 public:
  using std::vector<Str>::vector;

  void append(const char* s) { emplace_back(s); }
  void append(const StrSegment& s) { emplace_back(s); }
  void append(const StrVector& other) { insert(end(), other.begin(), other.end()); }
  void append(const std::vector<StrSegment>& segs);

  // Appends the elements to `out`, separated; a non-empty `out` gets a
  // separator first, so joining continues a list. An empty vector leaves
  // `out` alone. Sized once.
  void joinInto(Str& out, const char* separator) const;
  void joinInto(Str& out, char separator) const;

  // Removes later duplicates, keeping the order of first appearances;
  // returns how many were removed.
  size_t dedup();
};

// Refers to bytes it does not own: the texts must outlive the vector.
class StrSegmentVector : public std::vector<StrSegment> {
 public:
  using std::vector<StrSegment>::vector;

  void append(const char* s) { emplace_back(s); }
  void append(const StrSegment& s) { push_back(s); }
  void append(const StrSegmentVector& other) { insert(end(), other.begin(), other.end()); }
  void append(const std::vector<StrSegment>& segs) { insert(end(), segs.begin(), segs.end()); }
  // Views of the vector's strings: `other` must outlive this vector.
  void append(const StrVector& other);

  void joinInto(Str& out, const char* separator) const;
  void joinInto(Str& out, char separator) const;
};
