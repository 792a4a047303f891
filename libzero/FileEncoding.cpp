#include "libzero/FileEncoding.h"

namespace {

const unsigned char MARK_UTF8[] = {0xEF, 0xBB, 0xBF};
const unsigned char MARK_UTF16LE[] = {0xFF, 0xFE};
const unsigned char MARK_UTF16BE[] = {0xFE, 0xFF};
const unsigned char MARK_UTF32LE[] = {0xFF, 0xFE, 0x00, 0x00};
const unsigned char MARK_UTF32BE[] = {0x00, 0x00, 0xFE, 0xFF};

bool startsWith(const unsigned char* data, size_t len, const unsigned char* mark, size_t n) {
  if (len < n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (data[i] != mark[i]) return false;
  }
  return true;
}

uint32_t littleEndian32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// FF FE 00 00 is also UTF-16 LE text that starts with U+0000, so the mark
// alone does not settle it: the groups that follow must look like code points.
bool looksLikeUtf32LittleEndian(const unsigned char* data, size_t len) {
  if (len < 8 || littleEndian32(data + 4) == 0) return false;
  for (size_t at = 0; at + 4 <= len; at += 4) {
    if (littleEndian32(data + at) > 0x10FFFF) return false;
  }
  return true;
}

}  // namespace

FileEncoding detectFileEncoding(const unsigned char* data, size_t len) {
  if (len == 0) return FILE_ENCODING_EMPTY;
  if (startsWith(data, len, MARK_UTF8, 3)) return FILE_ENCODING_UTF8 | FILE_ENCODING_HAS_BOM;
  if (startsWith(data, len, MARK_UTF32BE, 4)) {
    return FILE_ENCODING_UTF32BE | FILE_ENCODING_HAS_BOM;
  }
  if (startsWith(data, len, MARK_UTF32LE, 4) && looksLikeUtf32LittleEndian(data, len)) {
    return FILE_ENCODING_UTF32LE | FILE_ENCODING_HAS_BOM;
  }
  if (startsWith(data, len, MARK_UTF16BE, 2)) {
    return FILE_ENCODING_UTF16BE | FILE_ENCODING_HAS_BOM;
  }
  if (startsWith(data, len, MARK_UTF16LE, 2)) {
    return FILE_ENCODING_UTF16LE | FILE_ENCODING_HAS_BOM;
  }
  if (len < 8) return FILE_ENCODING_UTF8;
  size_t oddZeros = 0;
  size_t evenZeros = 0;
  for (size_t i = 0; i < len; ++i) {
    if (data[i] == 0) ++(i % 2 == 0 ? evenZeros : oddZeros);
  }
  const size_t units = len / 2;
  if (oddZeros > (2 * units) / 3 && evenZeros < (2 * units) / 4) return FILE_ENCODING_UTF16LE;
  return FILE_ENCODING_UTF8;
}

size_t fileEncodingMark(FileEncoding e, const unsigned char** bytes) {
  switch (fileEncodingKind(e)) {
    case FILE_ENCODING_UTF8: *bytes = MARK_UTF8; return sizeof MARK_UTF8;
    case FILE_ENCODING_UTF16LE: *bytes = MARK_UTF16LE; return sizeof MARK_UTF16LE;
    case FILE_ENCODING_UTF16BE: *bytes = MARK_UTF16BE; return sizeof MARK_UTF16BE;
    case FILE_ENCODING_UTF32LE: *bytes = MARK_UTF32LE; return sizeof MARK_UTF32LE;
    case FILE_ENCODING_UTF32BE: *bytes = MARK_UTF32BE; return sizeof MARK_UTF32BE;
    default: *bytes = nullptr; return 0;
  }
}
