// Time arithmetic that saturates at the ends of `long` instead of wrapping:
// offsets and spans come from data (zone files, serialized records, log
// text) and may be arbitrarily large.
#pragma once

#include <climits>

inline long saturatingAdd(long a, long b) {
  long r;
  if (!__builtin_add_overflow(a, b, &r)) return r;
  return b < 0 ? LONG_MIN : LONG_MAX;
}

inline long saturatingSub(long a, long b) {
  long r;
  if (!__builtin_sub_overflow(a, b, &r)) return r;
  return b < 0 ? LONG_MAX : LONG_MIN;
}

// a modulo m in 0..m-1, for negative a too. REQUIRES: m > 0.
inline long floorMod(long a, long m) {
  const long r = a % m;
  return r < 0 ? r + m : r;
}
