// The on-disk layout of a persistent queue file, byte by byte. Reader and
// writer both include this file; nothing else may assume the layout.
#pragma once

#include <cstddef>
#include <cstdint>

// All numbers are 64-bit unsigned in this machine's byte order: a file moves
// between processes of one host, never between hosts.
//
// Offset  Size  Field
//      0     4  version: "v1" and NUL padding
//      4     4  reserved, zero
//      8    40  header block h1
//     48    40  header block h2
//     88     3  which: "h1" or "h2" and a NUL; names the valid block
//     91     5  reserved, zero
//     96   ...  the circular data area, up to the block's file size
//
// A record is an 8-byte length and that many bytes of the event's
// serialised form. Reading or writing past the file size goes on at offset
// 96, in the middle of a record (even of its length field) if need be.
//
// The last three header bytes are the commit point: an update writes the
// block that is not valid, then flips `which`, so a process killed between
// any two writes leaves the previous block in force.

// One header block: where the next record is read and written, and how
// much the area holds.
struct PersistentQueueHeaderBlock {
  uint64_t readOffset;   // file offset of the next record to read
  uint64_t writeOffset;  // file offset where the next record goes
  uint64_t fileSize;     // end of the circular area: maximum size plus 96
  uint64_t dataSize;     // 96 plus the sizes (8 + length) of stored records
  uint64_t count;        // records stored
};

struct PersistentQueueFileHeader {
  char _ver[4];
  char reserved1[4];
  PersistentQueueHeaderBlock h1;
  PersistentQueueHeaderBlock h2;
  char _which[3];
  char reserved2[5];
};

constexpr char PQ_VERSION[] = "v1";
constexpr char PQ_WHICH_H1[] = "h1";
constexpr char PQ_WHICH_H2[] = "h2";
constexpr uint64_t PQ_HEADER_SIZE = 96;
constexpr uint64_t PQ_VERSION_OFFSET = 0;
constexpr uint64_t PQ_H1_OFFSET = 8;
constexpr uint64_t PQ_H2_OFFSET = 48;
constexpr uint64_t PQ_WHICH_OFFSET = 88;
constexpr uint64_t PQ_BLOCK_SIZE = 40;
constexpr uint64_t PQ_WHICH_SIZE = 3;
constexpr uint64_t PQ_RECORD_LENGTH_SIZE = 8;

static_assert(sizeof(PersistentQueueHeaderBlock) == PQ_BLOCK_SIZE, "header block is 40 bytes");
static_assert(sizeof(PersistentQueueFileHeader) == PQ_HEADER_SIZE, "file header is 96 bytes");
static_assert(offsetof(PersistentQueueFileHeader, h1) == PQ_H1_OFFSET, "h1 at 8");
static_assert(offsetof(PersistentQueueFileHeader, h2) == PQ_H2_OFFSET, "h2 at 48");
static_assert(offsetof(PersistentQueueFileHeader, _which) == PQ_WHICH_OFFSET, "which at 88");
static_assert(PQ_H2_OFFSET + PQ_BLOCK_SIZE == PQ_WHICH_OFFSET, "h2 ends where which starts");
