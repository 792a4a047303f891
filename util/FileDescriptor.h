// FileDescriptor: a thin value wrapper around a descriptor with the retry
// rules of read and write fixed once; ScopedFileDescriptor and
// ScopedSaferFileDescriptor own one and close it on destruction.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstdarg>
#include <cstddef>

class FileStar;
class Pathname;
class Timeval;

// The platform's fstat result. A plain value.
class FileDescriptorStat {
 public:
  struct stat st;

  bool isReg() const { return S_ISREG(st.st_mode); }
  bool isDir() const { return S_ISDIR(st.st_mode); }
};

// A descriptor number, -1 when closed. Copying copies the number and never
// duplicates the descriptor, so a FileDescriptor borrows and never closes on
// its own. Thread story: one owner at a time; the descriptor itself may be
// shared as the platform allows.
class FileDescriptor {
 public:
  FileDescriptor() : _fd(-1) {}
  explicit FileDescriptor(int fd) : _fd(fd) {}

  int fd() const { return _fd; }
  bool valid() const { return _fd >= 0; }

  // Moves all `n` bytes unless the end or an error intervenes; EINTR
  // restarts. Returns the bytes moved, or the failing call's result (0 at
  // the end, -1 with errno) when nothing moved.
  ssize_t read(void* buf, size_t n) const;
  ssize_t write(const void* buf, size_t n) const;
  // One gathered write, restarted on EINTR; the platform's result.
  ssize_t writev(const struct iovec* iov, int count) const;
  // write() of the C string without its NUL.
  ssize_t put(const char* s) const;
  // printf-style into a buffer, then write(); the write's result.
  ssize_t format(const char* fmt, ...) const __attribute__((format(printf, 2, 3)));
  ssize_t vformat(const char* fmt, va_list args) const __attribute__((format(printf, 2, 0)));
  ssize_t format_double(double d) const;  // "%lf"
  ssize_t format_longlong(long long v) const;
  ssize_t format_unsignedlonglong(unsigned long long v) const;

  bool chmod(mode_t mode) const;
  bool stat(FileDescriptorStat* out) const;
  bool getMtime(Timeval* out) const;
  bool getSize(long* sizep) const;
  bool isReg() const;  // false when fstat fails
  bool isDir() const;

  bool seek_set(long offset) const;
  bool seekEof() const;
  // The offset, -1 on failure.
  long curPos() const;
  // Seeks to `offset` and cuts the file there.
  bool seek_set_and_truncate(long offset) const;
  bool sync() const;

  // Copies from the current position to the end into `to`, through an
  // 8192-byte buffer. A write that moves nothing fails with ENOSPC.
  bool copyTo(FileDescriptor to) const;
  // As above into `target`, created or replaced with this file's
  // permission bits; false when opening or closing the target fails.
  bool copyTo(const Pathname& target) const;

  bool fadvise_sequential() const;
  bool fadvise_random() const;
  // Sets or clears FD_CLOEXEC. Throws EventLoopException with "can't
  // F_GETFD" or "can't F_SETFD!" when fcntl fails.
  void setCloseOnExec(bool on) const;

  // True when already closed. Otherwise closes, leaves -1 whatever
  // happened, and returns whether close() succeeded.
  bool close();
  // As close(), but a failing close leaves errno as it was before.
  bool close_saveErrno();
  // A stream over the descriptor, which it takes over (this becomes -1). On
  // failure the descriptor is closed, errno kept, and the result is null.
  FileStar fdopen(const char* mode);

 protected:
  int _fd;
};

// Owns its descriptor and closes it on destruction. One owner at a time.
class ScopedFileDescriptor : public FileDescriptor {
 public:
  ScopedFileDescriptor() = default;
  // Takes ownership of `fd`.
  explicit ScopedFileDescriptor(FileDescriptor fd) : FileDescriptor(fd) {}
  ~ScopedFileDescriptor() { close_saveErrno(); }
  ScopedFileDescriptor(const ScopedFileDescriptor&) = delete;
  ScopedFileDescriptor& operator=(const ScopedFileDescriptor&) = delete;

  // Closes the descriptor held and takes ownership of `fd`.
  ScopedFileDescriptor& operator=(FileDescriptor fd);
  // Moves the descriptor out of `other`, which becomes closed; the one held
  // before is closed.
  void claimObjectFrom(ScopedFileDescriptor& other);
};

// A ScopedFileDescriptor opened with Pathname::openReadOnlySafer, so that a
// FIFO does not hang the open. One owner at a time.
class ScopedSaferFileDescriptor : public ScopedFileDescriptor {
 public:
  ScopedSaferFileDescriptor() = default;
  // Opens `path`; check valid().
  explicit ScopedSaferFileDescriptor(const Pathname& path);
  using ScopedFileDescriptor::operator=;
};
