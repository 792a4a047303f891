// The encoding core of the Unicode writers: takes UTF-8 text and writes it
// out in a chosen encoding, with or without a byte-order mark. A subclass
// puts the bytes somewhere (util/WritableUnicodeFileStar.h: a C stream).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "libzero/FileEncoding.h"

class UTF8Converter;

// One owner at a time.
class WritableUnicodeStream {
 public:
  // Writes in the encoding kind of `encoding`; a kind below
  // FILE_ENCODING_UTF8 means UTF-8. With FILE_ENCODING_HAS_BOM the kind's
  // mark goes out ahead of the first byte, or at the first flush when
  // nothing was written, so that an empty text keeps its mark. A kind that
  // no engine knows leaves the stream unusable: valid() is false and every
  // write fails.
  explicit WritableUnicodeStream(FileEncoding encoding);
  virtual ~WritableUnicodeStream();
  WritableUnicodeStream(const WritableUnicodeStream&) = delete;
  WritableUnicodeStream& operator=(const WritableUnicodeStream&) = delete;

  bool valid() const { return _engine != nullptr; }
  // The encoding written, with the mark flag as given.
  FileEncoding getFileEncoding() const { return _encoding; }

  // One byte to the destination; false when it could not be written.
  virtual bool write_byte(int c) = 0;
  // `n` bytes to the destination; the default calls write_byte for each.
  virtual bool write_bytes(const unsigned char* data, size_t n);

  // Writes UTF-8 text. To UTF-8 the bytes go out as they are; to the other
  // encodings each character is re-encoded, a malformed byte is skipped, and
  // a character cut by the end of `text` is completed by the next put (or
  // dropped at the end). False when the stream is unusable or a write
  // failed; what failed may be partly written.
  bool put(std::string_view text);
  bool put(const char* data, size_t len) { return put(std::string_view(data, len)); }
  // printf-style, then put.
  bool format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  bool vformat(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));
  bool format_signed(long long v);           // "%lld"
  bool format_unsigned(unsigned long long v);  // "%llu"
  bool format_double(double v);              // "%lf"

 protected:
  // Writes the mark if it is still due; subclasses call it from flush().
  bool internal_writePendingMark();

 private:
  FileEncoding _encoding;
  const UTF8Converter* _engine;
  bool _markPending;
  std::string _carry;    // the start of a character cut by the end of a put
  std::string _encoded;  // scratch for the re-encoded text
};
