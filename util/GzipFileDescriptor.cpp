#include "util/GzipFileDescriptor.h"

#include <unistd.h>

#include <cerrno>

WritableGzipFileDescriptor::WritableGzipFileDescriptor(FileDescriptor fd, int level,
                                                       unsigned long bufferSize)
    : WritableGzipStream(level, bufferSize), _fd(fd) {}

WritableGzipFileDescriptor::WritableGzipFileDescriptor(FileDescriptor fd, const Timeval& time,
                                                       int level, unsigned long bufferSize)
    : WritableGzipStream(time, level, bufferSize), _fd(fd) {}

ssize_t WritableGzipFileDescriptor::write_stream(const void* data, size_t len) {
  return _fd.write(data, len);
}

ReadableGzipFileDescriptor::ReadableGzipFileDescriptor(FileDescriptor fd, unsigned long bufferSize)
    : ReadableGzipStream(bufferSize), _fd(fd) {}

void ReadableGzipFileDescriptor::setFd(FileDescriptor fd) {
  _fd = fd;
  reset();
}

ssize_t ReadableGzipFileDescriptor::read_stream(void* buf, size_t len) {
  if (!_fd.valid()) {
    errno = EBADF;
    return -1;
  }
  ssize_t rv;
  do {
    rv = ::read(_fd.fd(), buf, len);
  } while (rv < 0 && errno == EINTR);
  return rv;
}
