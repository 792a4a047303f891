// Reading one entry of a packed zone file (layout in util/
// TimezonePackFormat.h) out of bytes that the caller has mapped.
#include <cstring>

#include "util/Timezone.h"
#include "util/TimezonePackFormat.h"

namespace {

// Compares the lookup key with the NUL-terminated name at `offset`. A name
// that runs to the end of the file without its NUL stops the search, as an
// offset past the end does.
bool compareName(const char* data, size_t size, uint32_t offset, const Str& key, int* order) {
  if (offset >= size) return false;
  const char* name = data + offset;
  const size_t room = size - offset;
  const size_t len = strnlen(name, room);
  if (len == room) return false;
  *order = std::strcmp(key.c_str(), name);
  return true;
}

}  // namespace

bool Timezone::fromPackedZoneinfoData(const char* data, unsigned long len, const char* name,
                                      bool useFooter) {
  internal_reset();
  if (data == nullptr || name == nullptr || len < TZPACK_HEADER_SIZE ||
      std::memcmp(data, TZPACK_MAGIC, TZPACK_MAGIC_SIZE) != 0) {
    return false;
  }
  const uint32_t count = tzpackRead32(data + TZPACK_COUNT_OFFSET);
  if (count == 0 || count >= len / TZPACK_RECORD_SIZE) return false;

  Str key(name);
  for (char& c : key) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c == '\\') c = '/';
  }
  uint32_t lo = 1, hi = count;
  while (lo <= hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    const char* record = data + tzpackRecordOffset(mid);
    int order = 0;
    if (!compareName(data, len, tzpackRead32(record + TZPACK_RECORD_NAME_OFFSET), key, &order)) {
      return false;
    }
    if (order < 0) {
      hi = mid - 1;
    } else if (order > 0) {
      lo = mid + 1;
    } else {
      const uint64_t paragraph = tzpackRead32(record + TZPACK_RECORD_DATA_PARAGRAPH);
      const uint64_t length = tzpackRead32(record + TZPACK_RECORD_DATA_LENGTH);
      if (paragraph >= (len + TZPACK_PARAGRAPH_SIZE - 1) / TZPACK_PARAGRAPH_SIZE) return false;
      const uint64_t start = paragraph * TZPACK_PARAGRAPH_SIZE;
      if (start + length > len) return false;
      return fromZoneinfoData(data + start, static_cast<unsigned long>(length), useFooter);
    }
  }
  return false;
}
