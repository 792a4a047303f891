// The packed zone file: every zone of a zoneinfo directory in one file,
// "zoneinfo.tzpack" beside the directory. The layout below is shared by the
// reader (Timezone::fromPackedZoneinfoData) and the packer (tools/tzpack).
#pragma once

#include <cstddef>
#include <cstdint>

// Byte layout. Every integer is 32-bit unsigned big-endian; every offset is
// from the start of the file.
//
//   bytes 0-11    magic, the 12 bytes "KestroTZpk1!" (no NUL)
//   bytes 12-15   count: number of index records, at least 1
//   bytes 16-31   index record 1
//   ...
//   16n-16n+15    index record n, for n from 1 to count
//   after that    names and zone data in any order
//
// An index record, 16 bytes:
//
//   bytes 0-3     nameOffset: where the zone's NUL-terminated name starts
//   bytes 4-7     dataParagraph: where its TZif bytes start, in 16-byte
//                 units (the data is aligned to 16)
//   bytes 8-11    dataLength: how many TZif bytes
//   bytes 12-15   reserved, written as 0 and never read
//
// Names are lower case with "/" between elements ("america/new_york"), and
// the records are sorted by strcmp on them so that a reader can bisect.
// Several records may share one block of data (aliases).
//
// A reader refuses a file under 16 bytes, a wrong magic, a count of 0 or a
// count of size / 16 or more, a name offset at or past the end, and data that
// starts at or runs past the end.

inline constexpr char TZPACK_MAGIC[] = "KestroTZpk1!";
inline constexpr size_t TZPACK_MAGIC_SIZE = 12;
inline constexpr size_t TZPACK_COUNT_OFFSET = 12;
inline constexpr size_t TZPACK_HEADER_SIZE = 16;
inline constexpr size_t TZPACK_RECORD_SIZE = 16;
inline constexpr size_t TZPACK_PARAGRAPH_SIZE = 16;

// Offsets of the fields inside an index record.
inline constexpr size_t TZPACK_RECORD_NAME_OFFSET = 0;
inline constexpr size_t TZPACK_RECORD_DATA_PARAGRAPH = 4;
inline constexpr size_t TZPACK_RECORD_DATA_LENGTH = 8;
inline constexpr size_t TZPACK_RECORD_RESERVED = 12;

// Index record n (from 1) starts at 16 x n: record 1 right behind the header.
inline constexpr size_t tzpackRecordOffset(uint32_t n) { return TZPACK_RECORD_SIZE * n; }

// The 32-bit big-endian value at `p`. REQUIRES: 4 readable bytes.
inline uint32_t tzpackRead32(const char* p) {
  const auto* u = reinterpret_cast<const unsigned char*>(p);
  return (uint32_t{u[0]} << 24) | (uint32_t{u[1]} << 16) | (uint32_t{u[2]} << 8) | u[3];
}

// Stores `v` big-endian at `p`. REQUIRES: 4 writable bytes.
inline void tzpackWrite32(char* p, uint32_t v) {
  p[0] = static_cast<char>(v >> 24);
  p[1] = static_cast<char>(v >> 16);
  p[2] = static_cast<char>(v >> 8);
  p[3] = static_cast<char>(v);
}
