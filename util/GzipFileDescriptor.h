// The gzip streams over a descriptor: a .gz file written or read through
// WritableGzipStream and ReadableGzipStream.
#pragma once

#include "util/FileDescriptor.h"
#include "util/GzipStream.h"
#include "util/Timeval.h"

// Compresses into a borrowed descriptor, which the caller closes after
// finish(). One owner at a time.
class WritableGzipFileDescriptor : public WritableGzipStream {
 public:
  static constexpr unsigned long DEFAULT_BUFFER_SIZE = 65536;

  // A first member stamped with the current time.
  explicit WritableGzipFileDescriptor(FileDescriptor fd, int level = 6,
                                      unsigned long bufferSize = DEFAULT_BUFFER_SIZE);
  WritableGzipFileDescriptor(FileDescriptor fd, const Timeval& time, int level,
                             unsigned long bufferSize = DEFAULT_BUFFER_SIZE);

  FileDescriptor fd() const { return _fd; }

 protected:
  // FileDescriptor::write: all of it, or what moved before a failure.
  ssize_t write_stream(const void* data, size_t len) override;

 private:
  FileDescriptor _fd;
};

// Decompresses from a borrowed descriptor. One owner at a time.
class ReadableGzipFileDescriptor : public ReadableGzipStream {
 public:
  static constexpr unsigned long DEFAULT_BUFFER_SIZE = 65536;

  explicit ReadableGzipFileDescriptor(FileDescriptor fd,
                                      unsigned long bufferSize = DEFAULT_BUFFER_SIZE);

  FileDescriptor fd() const { return _fd; }
  // Switches to another descriptor (or -1) and starts over.
  void setFd(FileDescriptor fd);

 protected:
  // One read(2), restarted on EINTR, so that a pipe or socket gives what it
  // has without waiting for a full buffer.
  ssize_t read_stream(void* buf, size_t len) override;

 private:
  FileDescriptor _fd;
};
