// The system calls behind Pathname: tests, sizes, links, renames, directory
// creation and the open operations with their fixed flags and modes.
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include "util/Directory.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Pathname.h"

bool Pathname::cwd(Pathname& out) {
  std::vector<char> buf(PATH_MAX);
  for (;;) {
    if (::getcwd(buf.data(), buf.size()) != nullptr) {
      out.assign(buf.data());
      return true;
    }
    if (errno != ERANGE) return false;
    buf.resize(buf.size() * 2);
  }
}

bool Pathname::realpath(Pathname& out) const {
  char* resolved = ::realpath(c_str(), nullptr);
  if (resolved == nullptr) return false;
  out.assign(resolved);
  std::free(resolved);
  return true;
}

bool Pathname::realpathInPlace() { return realpath(*this); }

bool Pathname::stat(PathnameStat* out) const { return ::stat(c_str(), &out->st) == 0; }

bool Pathname::lstat(PathnameStat* out) const { return ::lstat(c_str(), &out->st) == 0; }

bool Pathname::exists() const { return ::access(c_str(), F_OK) == 0; }
bool Pathname::r_ok() const { return ::access(c_str(), R_OK) == 0; }
bool Pathname::w_ok() const { return ::access(c_str(), W_OK) == 0; }
bool Pathname::rw_ok() const { return ::access(c_str(), R_OK | W_OK) == 0; }

bool Pathname::isSymlink() const {
  PathnameStat s;
  return lstat(&s) && s.isSymlink();
}

bool Pathname::isFifo() const {
  PathnameStat s;
  return stat(&s) && s.isFifo();
}

int Pathname::getFileType() const {
  PathnameStat s;
  if (!stat(&s)) return 0;
  if (s.isReg()) return 1;
  if (s.isDir()) return 2;
  return 3;
}

bool Pathname::getSize(long* sizep) const {
  PathnameStat s;
  if (!stat(&s)) return false;
  *sizep = s.st.st_size;
  return true;
}

bool Pathname::getSizeOnDisk(long* sizep) const {
  PathnameStat s;
  if (!lstat(&s)) return false;
  *sizep = static_cast<long>(s.st.st_blocks) * 512;
  return true;
}

bool Pathname::isZeroLengthFile() const {
  long size = 0;
  return getSize(&size) && size == 0;
}

bool Pathname::filesystemBytesFree(unsigned long long* out) const {
  struct statvfs vfs;
  if (::statvfs(c_str(), &vfs) != 0) return false;
  if (vfs.f_blocks == 0) {
    errno = ENOTSUP;
    return false;
  }
  *out = static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize;
  return true;
}

bool Pathname::chmod(mode_t mode) const { return ::chmod(c_str(), mode) == 0; }

bool Pathname::readlink(Pathname& out) const {
  std::vector<char> buf(256);
  for (;;) {
    const ssize_t n = ::readlink(c_str(), buf.data(), buf.size());
    if (n < 0) return false;
    if (static_cast<size_t>(n) < buf.size()) {
      out.assign(buf.data(), static_cast<size_t>(n));
      return true;
    }
    buf.resize(buf.size() * 2);  // possibly cut short: ask again with more room
  }
}

bool Pathname::symlinkTo(const Pathname& target) const {
  return ::symlink(target.c_str(), c_str()) == 0;
}

bool Pathname::renameTo(const Pathname& target) const {
  return ::rename(c_str(), target.c_str()) == 0;
}

bool Pathname::truncate(long size) const { return ::truncate(c_str(), size) == 0; }

bool Pathname::remove() const { return ::remove(c_str()) == 0; }
bool Pathname::unlink() const { return ::unlink(c_str()) == 0; }
bool Pathname::rmdir() const { return ::rmdir(c_str()) == 0; }

bool Pathname::mkdir(MkdirMode mode) const { return ::mkdir(c_str(), mkdirModeBits(mode)) == 0; }

bool Pathname::mkdir_p(MkdirMode mode) const {
  if (find_first_not_of(SEP) == npos) return true;  // a root: "/", "//", ""
  if (getFileType() == 2) return true;
  Pathname self(*this);
  self.removeTrailingSeps();
  const Pathname up = self.toParent();
  if (!up.empty() && up != self && !up.mkdir_p(mode)) return false;
  if (self.mkdir(mode)) return true;
  if (errno != EEXIST) return false;
  // Lost a race to another creator: fine if what stands there now is a
  // directory, a failure with EEXIST if it is anything else.
  if (self.getFileType() == 2) return true;
  errno = EEXIST;
  return false;
}

DirectoryDescriptor Pathname::opendir() const { return DirectoryDescriptor(::opendir(c_str())); }

FileStar Pathname::fopen(const char* mode) const { return FileStar(::fopen(c_str(), mode)); }

namespace {

FileDescriptor openWith(const Pathname& p, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(p.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return FileDescriptor(fd);
}

}  // namespace

FileDescriptor Pathname::openReadOnly() const { return openWith(*this, O_RDONLY); }

FileDescriptor Pathname::openReadOnlySafer() const {
  return openWith(*this, O_RDONLY | O_NONBLOCK);
}

FileDescriptor Pathname::openReadOnlySequential() const {
  FileDescriptor fd = openWith(*this, O_RDONLY);
  if (fd.valid()) fd.fadvise_sequential();
  return fd;
}

FileDescriptor Pathname::openReadOnlyRandom() const {
  FileDescriptor fd = openWith(*this, O_RDONLY);
  if (fd.valid()) fd.fadvise_random();
  return fd;
}

FileDescriptor Pathname::openReadWriteExisting() const { return openWith(*this, O_RDWR); }

FileDescriptor Pathname::openWriteOnlyExisting() const { return openWith(*this, O_WRONLY); }

FileDescriptor Pathname::openReadWriteOrCreate(CreateMode cm) const {
  return openWith(*this, O_RDWR | O_CREAT, createModeBits(cm));
}

FileDescriptor Pathname::openCreateOrAppend(CreateMode cm) const {
  return openWith(*this, O_WRONLY | O_CREAT | O_APPEND, createModeBits(cm));
}

FileDescriptor Pathname::openCreateOrReplace(CreateMode cm) const {
  return openWith(*this, O_WRONLY | O_CREAT | O_TRUNC, createModeBits(cm));
}

FileDescriptor Pathname::openCreateOnly(CreateMode cm) const {
  return openWith(*this, O_WRONLY | O_CREAT | O_EXCL, createModeBits(cm));
}

FileDescriptor Pathname::openCreateOrReplace(FileDescriptor modeFrom) const {
  FileDescriptorStat s;
  if (!modeFrom.stat(&s)) return FileDescriptor();
  const mode_t bits = s.st.st_mode & 07777;
  FileDescriptor fd = openWith(*this, O_WRONLY | O_CREAT | O_TRUNC, bits);
  if (fd.valid() && !fd.chmod(bits)) {
    fd.close_saveErrno();
    return FileDescriptor();
  }
  return fd;
}
