#include "util/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "util/EventLoopException.h"
#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/Timeval.h"

namespace {

// The loop shared by read and write: all of `n`, EINTR restarted, stopping
// at the first zero or error.
template <class Call>
ssize_t moveAll(size_t n, Call call) {
  size_t moved = 0;
  while (moved < n) {
    const ssize_t rv = call(moved, n - moved);
    if (rv < 0 && errno == EINTR) continue;
    if (rv <= 0) return moved > 0 ? static_cast<ssize_t>(moved) : rv;
    moved += static_cast<size_t>(rv);
  }
  return static_cast<ssize_t>(moved);
}

}  // namespace

ssize_t FileDescriptor::read(void* buf, size_t n) const {
  char* p = static_cast<char*>(buf);
  return moveAll(n, [&](size_t off, size_t len) { return ::read(_fd, p + off, len); });
}

ssize_t FileDescriptor::write(const void* buf, size_t n) const {
  const char* p = static_cast<const char*>(buf);
  return moveAll(n, [&](size_t off, size_t len) { return ::write(_fd, p + off, len); });
}

ssize_t FileDescriptor::writev(const struct iovec* iov, int count) const {
  ssize_t rv;
  do {
    rv = ::writev(_fd, iov, count);
  } while (rv < 0 && errno == EINTR);
  return rv;
}

ssize_t FileDescriptor::put(const char* s) const {
  const StrSegment seg(s);
  return write(seg.data(), seg.size());
}

ssize_t FileDescriptor::format(const char* fmt, ...) const {
  va_list args;
  va_start(args, fmt);
  const ssize_t rv = vformat(fmt, args);
  va_end(args);
  return rv;
}

ssize_t FileDescriptor::vformat(const char* fmt, va_list args) const {
  Str text;
  text.vformat(fmt, args);
  return write(text.data(), text.size());
}

ssize_t FileDescriptor::format_double(double d) const {
  Str text;
  text.append_double(d);
  return write(text.data(), text.size());
}

ssize_t FileDescriptor::format_longlong(long long v) const {
  Str text;
  text.append_longlong(v);
  return write(text.data(), text.size());
}

ssize_t FileDescriptor::format_unsignedlonglong(unsigned long long v) const {
  Str text;
  text.append_unsignedlonglong(v);
  return write(text.data(), text.size());
}

bool FileDescriptor::chmod(mode_t mode) const { return ::fchmod(_fd, mode) == 0; }

bool FileDescriptor::stat(FileDescriptorStat* out) const { return ::fstat(_fd, &out->st) == 0; }

bool FileDescriptor::getMtime(Timeval* out) const {
  FileDescriptorStat s;
  if (!stat(&s)) return false;
  *out = Timeval(s.st.st_mtim.tv_sec, s.st.st_mtim.tv_nsec / 1000);
  return true;
}

bool FileDescriptor::getSize(long* sizep) const {
  FileDescriptorStat s;
  if (!stat(&s)) return false;
  *sizep = s.st.st_size;
  return true;
}

bool FileDescriptor::isReg() const {
  FileDescriptorStat s;
  return stat(&s) && s.isReg();
}

bool FileDescriptor::isDir() const {
  FileDescriptorStat s;
  return stat(&s) && s.isDir();
}

bool FileDescriptor::seek_set(long offset) const { return ::lseek(_fd, offset, SEEK_SET) == offset; }

bool FileDescriptor::seekEof() const { return ::lseek(_fd, 0, SEEK_END) >= 0; }

long FileDescriptor::curPos() const { return ::lseek(_fd, 0, SEEK_CUR); }

bool FileDescriptor::seek_set_and_truncate(long offset) const {
  return seek_set(offset) && ::ftruncate(_fd, offset) == 0;
}

bool FileDescriptor::sync() const { return ::fsync(_fd) == 0; }

bool FileDescriptor::copyTo(FileDescriptor to) const {
  char buf[8192];
  for (;;) {
    const ssize_t got = read(buf, sizeof(buf));
    if (got < 0) return false;
    if (got == 0) return true;
    const ssize_t put = to.write(buf, static_cast<size_t>(got));
    if (put < 0) return false;
    if (put < got) {
      // write() already retried the short write; a stall here means no room.
      errno = ENOSPC;
      return false;
    }
  }
}

bool FileDescriptor::copyTo(const Pathname& target) const {
  FileDescriptor out = target.openCreateOrReplace(*this);
  if (!out.valid()) return false;
  const bool copied = copyTo(out);
  if (!copied) {
    out.close_saveErrno();
    return false;
  }
  return out.close();
}

bool FileDescriptor::fadvise_sequential() const {
  return ::posix_fadvise(_fd, 0, 0, POSIX_FADV_SEQUENTIAL) == 0;
}

bool FileDescriptor::fadvise_random() const {
  return ::posix_fadvise(_fd, 0, 0, POSIX_FADV_RANDOM) == 0;
}

void FileDescriptor::setCloseOnExec(bool on) const {
  const int flags = ::fcntl(_fd, F_GETFD);
  if (flags < 0) throw EventLoopException("can't F_GETFD");
  const int wanted = on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
  if (wanted != flags && ::fcntl(_fd, F_SETFD, wanted) < 0) {
    throw EventLoopException("can't F_SETFD!");
  }
}

bool FileDescriptor::close() {
  if (_fd < 0) return true;
  const int rv = ::close(_fd);
  _fd = -1;
  return rv == 0;
}

bool FileDescriptor::close_saveErrno() {
  const int saved = errno;
  const bool ok = close();
  if (!ok) errno = saved;
  return ok;
}

FileStar FileDescriptor::fdopen(const char* mode) {
  FILE* f = ::fdopen(_fd, mode);
  if (f == nullptr) {
    close_saveErrno();
    return FileStar();
  }
  _fd = -1;
  return FileStar(f);
}

ScopedFileDescriptor& ScopedFileDescriptor::operator=(FileDescriptor fd) {
  if (fd.fd() != _fd) close_saveErrno();
  _fd = fd.fd();
  return *this;
}

void ScopedFileDescriptor::claimObjectFrom(ScopedFileDescriptor& other) {
  if (&other == this) return;
  close_saveErrno();
  _fd = other._fd;
  other._fd = -1;
}

ScopedSaferFileDescriptor::ScopedSaferFileDescriptor(const Pathname& path)
    : ScopedFileDescriptor(path.openReadOnlySafer()) {}
