#include "util/ReadableUnicodeStream.h"

#include <cstdio>

#include "util/Str.h"
#include "util/StrSegment.h"

bool ReadableUnicodeStream::readline(StrSegment& out) {
  const char* data = nullptr;
  size_t len = 0;
  if (!nextLine(&data, &len)) return false;
  out.assign(data, len);
  return true;
}

bool ReadableUnicodeStream::readline(Str& out) {
  const char* data = nullptr;
  size_t len = 0;
  if (!nextLine(&data, &len)) return false;
  out.assign(data, len);
  return true;
}

int ReadableUnicodeFileStar::read_byte() {
  if (!_file.valid()) return -1;
  const int c = getc(_file.get());
  return c == EOF ? -1 : c;
}

size_t ReadableUnicodeFileStar::read_bytes(unsigned char* buf, size_t n) {
  if (!_file.valid()) return 0;
  return fread(buf, 1, n, _file.get());
}
