// Reading text files in any of the Unicode encodings as lines of UTF-8:
// ReadableUnicodeStream gives the lines as the system's string types, and
// ReadableUnicodeFileStar reads them from a C stream. The decoding and the
// detection of the encoding are libzero's (UnicodeLineDecoder, FileEncoding).
#pragma once

#include <cstddef>

#include "libzero/UnicodeLineDecoder.h"
#include "util/FileStar.h"

class Str;
class StrSegment;

// One owner at a time. A subclass supplies the bytes (read_byte).
class ReadableUnicodeStream : public UnicodeLineDecoder {
 public:
  explicit ReadableUnicodeStream(FileEncoding encoding = FILE_ENCODING_UNKNOWN)
      : UnicodeLineDecoder(encoding) {}

  // The next line, as UnicodeLineDecoder::nextLine cuts it. The segment
  // points into this stream and stays valid until the next read; the Str
  // form copies. False, with `out` left alone, when no line is left.
  bool readline(StrSegment& out);
  bool readline(Str& out);
};

// Reads from a C stream that the caller keeps open (the handle is
// borrowed). A read error ends the input like the end of the file; the
// stream's error flag tells them apart.
class ReadableUnicodeFileStar : public ReadableUnicodeStream {
 public:
  explicit ReadableUnicodeFileStar(FileStar file,
                                   FileEncoding encoding = FILE_ENCODING_UNKNOWN)
      : ReadableUnicodeStream(encoding), _file(file) {}

  bool valid() const { return _file.valid(); }
  const FileStar& file() const { return _file; }

  int read_byte() override;
  size_t read_bytes(unsigned char* buf, size_t n) override;

 private:
  FileStar _file;
};
