#include "util/StrMem.h"

#include <algorithm>
#include <cstring>

#include "util/CharacterClass.h"

bool mem_startswith(const char* data, size_t len, const char* prefix, size_t plen) {
  return plen <= len && (plen == 0 || std::memcmp(data, prefix, plen) == 0);
}

bool mem_endswith(const char* data, size_t len, const char* suffix, size_t slen) {
  return slen <= len && (slen == 0 || std::memcmp(data + len - slen, suffix, slen) == 0);
}

size_t mem_bytes_for_substring(size_t len, size_t pos, size_t count) {
  if (pos >= len) return 0;
  if (count == static_cast<size_t>(-1)) return len - pos;
  // pos + count may wrap for huge counts; compare without adding.
  return count > len - pos ? len - pos : count;
}

size_t cclass_rfind(const CharacterClass& cc, const char* data, size_t len, size_t start,
                    bool wanted) {
  if (len == 0) return static_cast<size_t>(-1);
  size_t i = start >= len ? len - 1 : start;
  for (;;) {
    if (cc.contains(data[i]) == wanted) return i;
    if (i == 0) return static_cast<size_t>(-1);
    --i;
  }
}

uint64_t djb2_hash(const char* cstr) {
  size_t len;
  return djb2_hash_and_strlen(cstr, &len);
}

uint64_t djb2_hash_and_strlen(const char* cstr, size_t* len) {
  uint64_t h = DJB2_SEED;
  const char* p = cstr;
  for (; *p != '\0'; ++p) h = djb2_step(h, *p);
  *len = static_cast<size_t>(p - cstr);
  return h;
}
