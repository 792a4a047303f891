// The read-only vocabulary of StrSegment, offered with the same meaning by
// the types that own or reference text (Str, HashedStrReference). Each call
// forwards to a StrSegment over the owner's data() and size(), so the logic
// exists once, in StrSegment.
#pragma once

#include <utility>

#include "util/StrSegment.h"

template <class Owner>
class StrSegmentVocabulary {
 public:
  typedef StrSegment::size_type size_type;

#define KESTRO_FORWARD_TO_SEGMENT(name)                        \
  template <class... Args>                                     \
  auto name(Args&&... args) const {                            \
    return segment().name(std::forward<Args>(args)...);        \
  }
  KESTRO_FORWARD_TO_SEGMENT(find)
  KESTRO_FORWARD_TO_SEGMENT(rfind)
  KESTRO_FORWARD_TO_SEGMENT(find_first_of)
  KESTRO_FORWARD_TO_SEGMENT(find_first_not_of)
  KESTRO_FORWARD_TO_SEGMENT(find_last_of)
  KESTRO_FORWARD_TO_SEGMENT(find_last_not_of)
  KESTRO_FORWARD_TO_SEGMENT(contains)
  KESTRO_FORWARD_TO_SEGMENT(startswith)
  KESTRO_FORWARD_TO_SEGMENT(endswith)
  KESTRO_FORWARD_TO_SEGMENT(compare)
  KESTRO_FORWARD_TO_SEGMENT(compareIgnoreCase)
  KESTRO_FORWARD_TO_SEGMENT(equals)
  KESTRO_FORWARD_TO_SEGMENT(count_char)
  KESTRO_FORWARD_TO_SEGMENT(containsWhitespace)
  KESTRO_FORWARD_TO_SEGMENT(copy)
  KESTRO_FORWARD_TO_SEGMENT(copystr)
  KESTRO_FORWARD_TO_SEGMENT(strdup)
  KESTRO_FORWARD_TO_SEGMENT(split)
  KESTRO_FORWARD_TO_SEGMENT(splitNonEmpty)
  KESTRO_FORWARD_TO_SEGMENT(splitlines)
  KESTRO_FORWARD_TO_SEGMENT(trim)
  KESTRO_FORWARD_TO_SEGMENT(substr)
  KESTRO_FORWARD_TO_SEGMENT(len_utf8)
  KESTRO_FORWARD_TO_SEGMENT(tryToBool)
  KESTRO_FORWARD_TO_SEGMENT(toBool)
  KESTRO_FORWARD_TO_SEGMENT(tryToLong)
  KESTRO_FORWARD_TO_SEGMENT(toLong)
  KESTRO_FORWARD_TO_SEGMENT(tryToUnsignedLong)
  KESTRO_FORWARD_TO_SEGMENT(toUnsignedLong)
  KESTRO_FORWARD_TO_SEGMENT(tryToLongLong)
  KESTRO_FORWARD_TO_SEGMENT(toLongLong)
  KESTRO_FORWARD_TO_SEGMENT(tryToUnsignedLongLong)
  KESTRO_FORWARD_TO_SEGMENT(toUnsignedLongLong)
  KESTRO_FORWARD_TO_SEGMENT(tryToDouble)
  KESTRO_FORWARD_TO_SEGMENT(toDouble)
#undef KESTRO_FORWARD_TO_SEGMENT

  template <class Vec, class Delim>
  void splitInto(Vec& target, const Delim& delim, size_type maxsplits = StrSegment::npos) const {
    segment().splitInto(target, delim, maxsplits);
  }
  template <class Vec, class Delim>
  void splitNonEmptyInto(Vec& target, const Delim& delim,
                         size_type maxsplits = StrSegment::npos) const {
    segment().splitNonEmptyInto(target, delim, maxsplits);
  }
  template <class Vec>
  void splitlinesInto(Vec& target) const {
    segment().splitlinesInto(target);
  }

  // The owner's bytes as a segment.
  StrSegment segment() const {
    const Owner& o = static_cast<const Owner&>(*this);
    return StrSegment(o.data(), o.size());
  }
};
