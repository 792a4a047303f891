// The identifier of a position in a stream: three unsigned 64-bit numbers,
// with a compact text form in a 64-digit alphabet.
#pragma once

#include <cstdint>

#include "util/Str.h"

// Text form: digits "A"-"Z", "a"-"z", "0"-"9", "+", "/" (six bits each,
// lowest digit first, no padding): exactly 11 digits for `first`, then
// `second` with as many digits as it needs (none for zero), then "." and
// `third` with at least one digit. All zeros print as "AAAAAAAAAAA.A".
// Thread story: a plain value.
struct PipelineDataStreamId {
  uint64_t first = 0;
  uint64_t second = 0;
  uint64_t third = 0;

  // Reads the text form. Needs at least 11 digits; without a "." the third
  // number is zero. Returns false, with the fields in an undefined state,
  // for fewer than 11 digits, a byte outside the alphabet, a "." with
  // nothing after it, or a number past 64 bits.
  bool parse(const char* begin, const char* end);
  // Appends the text form to *out.
  void serialize(Str* out) const;

  friend bool operator==(const PipelineDataStreamId&, const PipelineDataStreamId&) = default;
};
