// BufferedLineReader: lines cut out of 16384-byte blocks with memchr, over
// any source that can read bytes; FileDescriptorLineReader reads a
// descriptor. Both fold CRLF.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "util/FileDescriptor.h"
#include "util/LineReader.h"

// Buffers for a subclass that supplies do_read (and seekDirectly when the
// source can seek). One owner at a time.
//
// Invariants: &_buf[0] <= _p <= _end <= &_buf[BUF_SIZE]; the bytes in
// [_p, _end) are unread; _total counts every byte taken from the source.
class BufferedLineReader : public LineReader {
 public:
  static constexpr size_t BUF_SIZE = 16384;

  BufferedLineReader() : _p(_buf), _end(_buf) {}

  // The next line, without its line feed and without one carriage return at
  // its end. A last line without a line feed is delivered; false at the end
  // (or a read error) with nothing gathered.
  bool readline(Str& out) override;
  // As readline, with the carriage return left in place.
  bool readlineKeepCR(Str& out) override;
  // seekDirectly(0), then an empty buffer and a total of 0; false when the
  // source cannot seek.
  bool rewind() override;
  // The total taken from the source less what is still unread.
  file_offset_t curPos() const override;
  // Forward only: REQUIRES offset >= curPos(). Inside the buffer it moves
  // the read pointer; else seekDirectly, and when the source cannot seek it
  // reads forward and discards. Running out of input while skipping still
  // succeeds (curPos() is then `offset`); a hard seek failure or a read
  // error is false.
  bool seek_set(file_offset_t offset) override;

 protected:
  // Up to `size` bytes into `buf`: the count, 0 at the end, -1 on error.
  virtual ssize_t do_read(void* buf, size_t size) = 0;
  // 2 done, 1 hard failure, 0 the source cannot seek (the base).
  virtual int seekDirectly(file_offset_t offset);
  // Forgets buffered bytes and sets the total, after the subclass moved the
  // source.
  void resetBuffer(file_offset_t total);

 private:
  // The next line without its line feed, bytes otherwise untouched.
  bool nextLine(Str& out);
  char _buf[BUF_SIZE];
  char* _p;
  char* _end;
  file_offset_t _total = 0;
};

// Lines of a descriptor. One owner at a time.
class FileDescriptorLineReader : public BufferedLineReader {
 public:
  // Opens `path` read-only and owns the descriptor; check valid().
  explicit FileDescriptorLineReader(const Pathname& path);
  // Borrows `fd`; with `rewindFirst`, seeks it to the start.
  FileDescriptorLineReader(FileDescriptor fd, bool rewindFirst);
  ~FileDescriptorLineReader() override;
  FileDescriptorLineReader(const FileDescriptorLineReader&) = delete;
  FileDescriptorLineReader& operator=(const FileDescriptorLineReader&) = delete;

  // Closes the descriptor, borrowed or owned.
  void close() override;
  bool valid() const override { return _fd.valid(); }

 protected:
  ssize_t do_read(void* buf, size_t size) override;
  // lseek: 2 on success, 1 for EINVAL, 0 otherwise (a pipe).
  int seekDirectly(file_offset_t offset) override;

 private:
  FileDescriptor _fd;
  bool _owned;
};
