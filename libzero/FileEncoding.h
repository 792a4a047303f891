// The character encodings a text file may come in, as the Unicode streams and
// the ini files record them, and the detection of one from a file's first
// bytes. Pure functions over caller-owned bytes; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// The encoding in the low byte; FILE_ENCODING_HAS_BOM (bit 15) says that the
// file began with a byte-order mark.
typedef uint32_t FileEncoding;

constexpr FileEncoding FILE_ENCODING_UNKNOWN = 0;  // the reader is to detect it
constexpr FileEncoding FILE_ENCODING_EMPTY = 1;    // the input held no byte
constexpr FileEncoding FILE_ENCODING_UTF8 = 2;     // mark EF BB BF
constexpr FileEncoding FILE_ENCODING_UTF16LE = 3;  // mark FF FE
constexpr FileEncoding FILE_ENCODING_UTF16BE = 4;  // mark FE FF
constexpr FileEncoding FILE_ENCODING_UTF32LE = 5;  // mark FF FE 00 00
constexpr FileEncoding FILE_ENCODING_UTF32BE = 6;  // mark 00 00 FE FF
constexpr FileEncoding FILE_ENCODING_HAS_BOM = 0x8000;
constexpr FileEncoding FILE_ENCODING_KIND_MASK = 0xFF;

// How many bytes the detection looks at.
constexpr size_t FILE_ENCODING_READ_AHEAD = 64;

inline FileEncoding fileEncodingKind(FileEncoding e) { return e & FILE_ENCODING_KIND_MASK; }
inline bool fileEncodingHasBom(FileEncoding e) { return (e & FILE_ENCODING_HAS_BOM) != 0; }

// The encoding of a file that starts with the `len` bytes at `data` (the
// caller passes up to FILE_ENCODING_READ_AHEAD of them, fewer only when the
// file is shorter). Marks are tried in the order UTF-8, UTF-32 BE, UTF-32 LE,
// UTF-16 BE, UTF-16 LE; a match gives the encoding with FILE_ENCODING_HAS_BOM.
// FF FE 00 00 counts as UTF-32 LE only with at least 8 bytes, a nonzero
// group right after the mark and every complete 4-byte group at most 10FFFF;
// otherwise it is UTF-16 LE with a mark. Without a mark, fewer than 8 bytes
// are UTF-8; else the zero bytes at odd and at even offsets decide: UTF-16 LE
// when, over the n = len / 2 two-byte units, more than (2 * n) / 3 odd bytes
// and fewer than (2 * n) / 4 even bytes are zero; UTF-8 otherwise.
//   ""                         -> FILE_ENCODING_EMPTY
//   "EF BB BF"                 -> UTF-8 | HAS_BOM
//   "FF FE 00 00 41 00 00 00"  -> UTF-32 LE | HAS_BOM
//   "FF FE 00 00 00 00 00 00"  -> UTF-16 LE | HAS_BOM (a zero group follows)
//   "FF FE 00 00 41 00"        -> UTF-16 LE | HAS_BOM (too short for UTF-32)
//   "a\0b\0c\0d\0"             -> UTF-16 LE
//   ten blanks                 -> UTF-8
FileEncoding detectFileEncoding(const unsigned char* data, size_t len);

// The byte-order mark of encoding kind `e` (the flag bit is ignored) into
// *bytes, and its length; 0 (and *bytes null) for a kind below
// FILE_ENCODING_UTF8 or an unknown one.
size_t fileEncodingMark(FileEncoding e, const unsigned char** bytes);
