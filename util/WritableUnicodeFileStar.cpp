#include "util/WritableUnicodeFileStar.h"

#include <cstdio>

bool WritableUnicodeFileStar::write_byte(int c) {
  return _file.valid() && putc(c, _file.get()) != EOF;
}

bool WritableUnicodeFileStar::write_bytes(const unsigned char* data, size_t n) {
  return _file.valid() && fwrite(data, 1, n, _file.get()) == n;
}

bool WritableUnicodeFileStar::flush() {
  if (!valid() || !internal_writePendingMark()) return false;
  return fflush(_file.get()) == 0 && !ferror(_file.get());
}
