// The two files of the disk B-tree, byte by byte, and the only paths by which
// numbers reach them. Every reader and writer of those files, the tree's own
// and the tests' and tools', includes this header and no other description.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

class FileDescriptor;

namespace bt {

// ---- Common ----
// Every number in both files is 64 bits wide and little-endian, whatever the
// host order. An offset of -1 (all bits set) marks an unused child slot.
inline constexpr size_t NUMBER_BYTES = 8;
inline constexpr int64_t INVALID_OFFSET = -1;
// A serialised node never exceeds one block; the order is chosen to fit.
inline constexpr size_t BLOCK_SIZE = 4096;
// Both magics are 15 visible bytes and a closing NUL.
inline constexpr size_t MAGIC_BYTES = 16;

// ---- Index file "btree_index.dat" ----
//   offset 0   16 bytes  "MAGIC_IND_01\n\n\n" and NUL
//   offset 16   8 bytes  order: the most keys a node holds
//   offset 24  node      the root node, always here once the tree has a key
//   then       node      every other node, appended in creation order
// A node is nodeBytes(order, keyBytes) long:
//   order key slots of keyBytes each, keys ascending, unused slots holding
//     the blank key's bytes;
//   order + 1 child slots of 8 bytes each, unused slots holding -1.
// In a leaf, child i is the record file offset of the entry for key i, so a
// leaf has as many children as keys. In an internal node the children are
// index file offsets of nodes, one more than the keys; child i holds keys
// at or above key i - 1 and below key i.
inline constexpr char INDEX_FILE[] = "btree_index.dat";
inline constexpr char INDEX_MAGIC[MAGIC_BYTES] = "MAGIC_IND_01\n\n\n";
inline constexpr int64_t INDEX_ORDER_OFFSET = 16;
inline constexpr int64_t INDEX_HEADER_BYTES = 24;
inline constexpr int64_t ROOT_OFFSET = INDEX_HEADER_BYTES;

constexpr size_t nodeBytes(uint64_t order, size_t keyBytes) {
  return order * keyBytes + (order + 1) * NUMBER_BYTES;
}
// Where key slot `i` and child slot `i` start inside a serialised node.
constexpr size_t nodeKeyPos(size_t i, size_t keyBytes) { return i * keyBytes; }
constexpr size_t nodeChildPos(uint64_t order, size_t keyBytes, size_t i) {
  return order * keyBytes + i * NUMBER_BYTES;
}

// ---- Record file "btree_records.dat" ----
//   offset 0   16 bytes  "MAGIC_REC_01\n\n\n" and NUL
//   offset 16  entries   each the record's bytes, then a copy of its key's,
//                        in order of first insertion; an update overwrites
//                        its entry in place and never moves it.
inline constexpr char RECORD_FILE[] = "btree_records.dat";
inline constexpr char RECORD_MAGIC[MAGIC_BYTES] = "MAGIC_REC_01\n\n\n";
inline constexpr int64_t RECORD_HEADER_BYTES = 16;
inline constexpr int64_t FIRST_RECORD_OFFSET = RECORD_HEADER_BYTES;

constexpr size_t recordEntryBytes(size_t recordBytes, size_t keyBytes) {
  return recordBytes + keyBytes;
}

// ---- Byte order ----
uint64_t HOST_TO_LITTLE(uint64_t v);
uint64_t LITTLE_TO_HOST(uint64_t v);

// Stores `v` little-endian at buffer[offset]. False, writing nothing, when
// the 8 bytes would pass `capacity`.
bool outputLE64(uint64_t v, size_t offset, void* buffer, size_t capacity);
// Reads 8 little-endian bytes at buffer[offset] into *v. False, leaving *v,
// when they would pass `capacity`.
bool inputLE64(uint64_t* v, size_t offset, const void* buffer, size_t capacity);
// One number at the descriptor's position, through writeFully / readFully.
bool writeLE64(const FileDescriptor& fd, uint64_t v);
bool readLE64(const FileDescriptor& fd, uint64_t* v);

// ---- The write seam ----
// Every byte the tree writes, the checkpoint copies included, passes through
// one call with write(2)'s contract. Tests put a failing call here to play a
// full disk or a short write. Process-wide and unlocked: swap it only while
// no tree is in use. Returns the call it replaces.
using WriteCall = ssize_t (*)(int fd, const void* buf, size_t n);
WriteCall setWriteCall(WriteCall call);
// write(2) itself, the default.
ssize_t systemWrite(int fd, const void* buf, size_t n);

// All `n` bytes through the write call, EINTR restarted. A call that moves
// nothing counts as ENOSPC. True when every byte went out; otherwise errno
// tells why and an unknown prefix may have been written.
bool writeFully(const FileDescriptor& fd, const void* buf, size_t n);
// All `n` bytes, or false after logging "unable to reader %lu bytes:
// bytes=%ld %m" with what the read returned (errno is 0 at the end of file).
bool readFully(const FileDescriptor& fd, void* buf, size_t n);

}  // namespace bt
