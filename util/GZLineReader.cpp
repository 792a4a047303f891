#include "util/GZLineReader.h"

#include <unistd.h>

#include <cerrno>

GZLineReader::GZLineReader(const Pathname& path)
    : _gz(path.openReadOnlySequential()), _owned(true) {}

GZLineReader::GZLineReader(FileDescriptor fd, bool rewindFirst) : _gz(fd), _owned(false) {
  if (rewindFirst && fd.valid()) rewind();
}

GZLineReader::~GZLineReader() {
  if (_owned) {
    FileDescriptor fd = _gz.fd();
    fd.close_saveErrno();
  }
}

bool GZLineReader::rewind() {
  if (!_gz.fd().valid() || ::lseek(_gz.fd().fd(), 0, SEEK_SET) < 0) return false;
  _gz.reset();
  resetBuffer(0);
  return true;
}

void GZLineReader::close() {
  FileDescriptor fd = _gz.fd();
  fd.close_saveErrno();
  _gz.setFd(FileDescriptor());
}

ssize_t GZLineReader::do_read(void* buf, size_t size) {
  if (!_gz.fd().valid()) {
    errno = EBADF;
    return -1;
  }
  return _gz.read(buf, size);
}
