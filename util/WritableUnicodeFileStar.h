// Writing UTF-8 text to a C stream in any of the Unicode encodings.
#pragma once

#include <cstddef>

#include "libzero/WritableUnicodeStream.h"
#include "util/FileStar.h"

// Writes to a C stream that the caller keeps open (the handle is borrowed;
// closing it is the caller's). One owner at a time.
class WritableUnicodeFileStar : public WritableUnicodeStream {
 public:
  // See WritableUnicodeStream for `encoding`. An invalid handle leaves the
  // stream unusable like an unknown encoding does.
  WritableUnicodeFileStar(FileStar file, FileEncoding encoding)
      : WritableUnicodeStream(encoding), _file(file) {}

  // Usable: a valid handle and a known encoding.
  bool valid() const { return _file.valid() && WritableUnicodeStream::valid(); }

  bool write_byte(int c) override;
  bool write_bytes(const unsigned char* data, size_t n) override;
  // Writes a mark still due, then fflush; false, errno set, when either
  // fails or the stream's error flag is up.
  bool flush();

 private:
  FileStar _file;
};
