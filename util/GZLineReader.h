// GZLineReader: the lines of a gzip file, decompressed on the way into the
// BufferedLineReader's blocks. Offsets count decompressed bytes.
#pragma once

#include <sys/types.h>

#include "util/BufferedLineReader.h"
#include "util/FileDescriptor.h"
#include "util/GzipFileDescriptor.h"
#include "util/Pathname.h"

// Folds CRLF as every BufferedLineReader does. Damaged or truncated gzip
// data ends the lines early with errno ENOEXEC, after the last whole line
// before the damage and the partial line it cut. Members of a multi-member
// file read as one text. seek_set reads forward and discards, since
// compressed data cannot be entered in the middle. One owner at a time.
class GZLineReader : public BufferedLineReader {
 public:
  // Opens `path` read-only and owns the descriptor; check valid().
  explicit GZLineReader(const Pathname& path);
  // Borrows `fd`; with `rewindFirst`, seeks it to the start.
  GZLineReader(FileDescriptor fd, bool rewindFirst);
  ~GZLineReader() override;
  GZLineReader(const GZLineReader&) = delete;
  GZLineReader& operator=(const GZLineReader&) = delete;

  // Seeks the file to 0 and starts the decompressor over; false when the
  // descriptor cannot seek (a pipe).
  bool rewind() override;
  // Closes the descriptor, borrowed or owned.
  void close() override;
  bool valid() const override { return _gz.fd().valid(); }

 protected:
  // Decompressed bytes: ReadableGzipStream::read without a time limit.
  ssize_t do_read(void* buf, size_t size) override;

 private:
  ReadableGzipFileDescriptor _gz;
  bool _owned;
};
