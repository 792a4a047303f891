// The decoding core of the Unicode readers: pulls bytes from a source,
// settles the encoding from the first of them, and hands out lines of UTF-8.
// util/ReadableUnicodeStream.h puts the string types of the system on it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "libzero/FileEncoding.h"

class UTF8Converter;

// One owner at a time. A subclass supplies the bytes.
class UnicodeLineDecoder {
 public:
  // With FILE_ENCODING_UNKNOWN or FILE_ENCODING_EMPTY, the encoding is
  // detected from the first FILE_ENCODING_READ_AHEAD bytes by
  // detectFileEncoding. Any other kind is decoded as given, and an unknown
  // kind is detected as well.
  explicit UnicodeLineDecoder(FileEncoding encoding = FILE_ENCODING_UNKNOWN);
  virtual ~UnicodeLineDecoder();
  UnicodeLineDecoder(const UnicodeLineDecoder&) = delete;
  UnicodeLineDecoder& operator=(const UnicodeLineDecoder&) = delete;

  // The next byte of input, 0 to 255, or -1 at the end or on a read error.
  virtual int read_byte() = 0;
  // Up to `n` bytes into `buf`; the count, 0 at the end. The default asks
  // read_byte for each; a source with a block read overrides it.
  virtual size_t read_bytes(unsigned char* buf, size_t n);

  // The next line as UTF-8, without its end: a line ends at "\n", and one
  // "\r" directly before it, or at the very end of the input, is cut off; a
  // "\r" elsewhere stays. A final line without "\n" counts; an input that
  // ends with "\n" has no empty line after it. *data points into this
  // object and stays valid until the next call. False when no line is left.
  //   "a\r\nb\rc\r" -> "a", "b\rc"       "\n\n" -> "", ""       "" -> none
  bool nextLine(const char** data, size_t* len);

  // FILE_ENCODING_UNKNOWN until the first line is asked for; then the
  // detected encoding, with FILE_ENCODING_HAS_BOM when a mark was found, or
  // the one given to the constructor. FILE_ENCODING_EMPTY for no input.
  FileEncoding getFileEncoding() const { return _encoding; }

 private:
  // Decodes the next block of input into _decoded; false at the end.
  bool decodeMore();
  void settleEncoding();

  FileEncoding _encoding;
  bool _settled = false;
  bool _atEnd = false;
  const UTF8Converter* _engine = nullptr;
  std::vector<unsigned char> _block;  // read buffer, allocated on first use
  std::string _raw;      // input bytes not yet decoded (a unit cut short)
  std::string _decoded;  // UTF-8 not yet handed out starts at _pos
  size_t _pos = 0;
  size_t _searched = 0;  // no "\n" in _decoded between _pos and this
};
