#include "util/BufferedLineReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/Assert.h"

bool BufferedLineReader::readline(Str& out) {
  if (!nextLine(out)) return false;
  if (!out.empty() && out.back() == '\r') out.pop_back();
  return true;
}

bool BufferedLineReader::readlineKeepCR(Str& out) { return nextLine(out); }

bool BufferedLineReader::nextLine(Str& out) {
  out.clear();
  bool gathered = false;
  for (;;) {
    if (_p != _end) {
      kassert(_p < _end);
      const size_t avail = static_cast<size_t>(_end - _p);
      const char* nl = static_cast<const char*>(std::memchr(_p, '\n', avail));
      if (nl != nullptr) {
        out.append(_p, static_cast<size_t>(nl - _p));
        _p += (nl - _p) + 1;
        break;
      }
      out.append(_p, avail);
      gathered = true;
      _p = _end;
    }
    kassert(_p == _end);
    const ssize_t rv = do_read(_buf, sizeof(_buf));
    if (rv <= 0) {
      _p = _end = _buf;
      if (!gathered) return false;
      break;
    }
    kassert(rv <= (ssize_t) sizeof(_buf));
    _total += rv;
    _p = _buf;
    _end = _buf + rv;
  }
  return true;
}

int BufferedLineReader::seekDirectly(file_offset_t) { return 0; }

void BufferedLineReader::resetBuffer(file_offset_t total) {
  _p = _end = _buf;
  _total = total;
}

bool BufferedLineReader::rewind() {
  if (seekDirectly(0) != 2) return false;
  resetBuffer(0);
  return true;
}

file_offset_t BufferedLineReader::curPos() const { return _total - (_end - _p); }

bool BufferedLineReader::seek_set(file_offset_t offset) {
  kassert(offset >= curPos());
  if (offset <= _total) {
    _p += offset - curPos();
    kassert(_p >= &_buf[0]);
    kassert(_p <= _end);
    return true;
  }
  const int direct = seekDirectly(offset);
  if (direct == 1) return false;
  _p = _end = _buf;
  if (direct == 2) {
    _total = offset;
    return true;
  }
  while (_total < offset) {
    const size_t to_read = static_cast<size_t>(
        std::min<file_offset_t>(static_cast<file_offset_t>(sizeof(_buf)), offset - _total));
    const ssize_t rv = do_read(_buf, to_read);
    if (rv < 0) return false;
    kassert(rv <= (ssize_t) to_read);
    if (rv == 0) {
      _total = offset;
      return true;
    }
    _total += rv;
  }
  return true;
}

FileDescriptorLineReader::FileDescriptorLineReader(const Pathname& path)
    : _fd(path.openReadOnlySequential()), _owned(true) {}

FileDescriptorLineReader::FileDescriptorLineReader(FileDescriptor fd, bool rewindFirst)
    : _fd(fd), _owned(false) {
  if (rewindFirst && _fd.valid()) rewind();
}

FileDescriptorLineReader::~FileDescriptorLineReader() {
  if (_owned) _fd.close_saveErrno();
}

void FileDescriptorLineReader::close() { _fd.close_saveErrno(); }

ssize_t FileDescriptorLineReader::do_read(void* buf, size_t size) {
  if (!_fd.valid()) {
    errno = EBADF;
    return -1;
  }
  ssize_t rv;
  do {
    rv = ::read(_fd.fd(), buf, size);
  } while (rv < 0 && errno == EINTR);
  return rv;
}

int FileDescriptorLineReader::seekDirectly(file_offset_t offset) {
  if (::lseek(_fd.fd(), static_cast<off_t>(offset), SEEK_SET) >= 0) return 2;
  return errno == EINVAL ? 1 : 0;
}
