// Primitive operations on caller-owned byte ranges, shared by Str,
// StrSegment and the hashed keys. Pure functions: no allocation, no shared
// state, safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/CharacterClass.h"

// True when the `len` bytes at `data` begin (end) with the `plen` bytes at
// `prefix`. An empty prefix is always found.
bool mem_startswith(const char* data, size_t len, const char* prefix, size_t plen);
bool mem_endswith(const char* data, size_t len, const char* suffix, size_t slen);

// Bytes that a substring (pos, count) of a `len`-byte text holds: 0 when pos
// is at or past len; the rest of the text when count is all ones; else
// min(pos + count, len) - pos.
size_t mem_bytes_for_substring(size_t len, size_t pos, size_t count);

// The first position at or after `start` whose membership in `cc` equals
// `wanted`, or all ones.
// Inline: it is the inner loop of trimming, escaping and class searches.
inline size_t cclass_find(const CharacterClass& cc, const char* data, size_t len, size_t start,
                          bool wanted) {
  for (size_t i = start; i < len; ++i) {
    if (cc.contains(data[i]) == wanted) return i;
  }
  return static_cast<size_t>(-1);
}
// The last position at or before `start` whose membership equals `wanted`, or
// all ones. A start of all ones, or past the end, means the last byte.
size_t cclass_rfind(const CharacterClass& cc, const char* data, size_t len, size_t start,
                    bool wanted);

// The 64-bit djb2 hash: h = 5381, then h = h * 33 + c for each byte, with c
// the byte sign-extended from 8 bits. Bytes from 0x80 up therefore subtract;
// hashes are stored, so this must never change. All forms agree for one text.
inline constexpr uint64_t DJB2_SEED = 5381;
inline uint64_t djb2_step(uint64_t h, char c) {
  return h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}
inline uint64_t djb2_hash(const char* data, size_t len) {
  uint64_t h = DJB2_SEED;
  for (size_t i = 0; i < len; ++i) h = djb2_step(h, data[i]);
  return h;
}
// Of a NUL-terminated text.
uint64_t djb2_hash(const char* cstr);
// Of a NUL-terminated text, also storing its length in *len in the same pass.
uint64_t djb2_hash_and_strlen(const char* cstr, size_t* len);
