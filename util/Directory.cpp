#include "util/Directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

bool DirectoryDescriptor::close() {
  if (_dir == nullptr) return true;
  const int rv = ::closedir(_dir);
  _dir = nullptr;
  return rv == 0;
}

ScopedDirectoryDescriptor& ScopedDirectoryDescriptor::operator=(DirectoryDescriptor d) {
  if (d.get() != _dir) close();
  _dir = d.get();
  return *this;
}

size_t DirectoryEntry::sizeNeededForUncached(const Pathname& path) {
  long nameMax = ::pathconf(path.c_str(), _PC_NAME_MAX);
  if (nameMax < 0) nameMax = ::pathconf("/", _PC_NAME_MAX);
  if (nameMax < 4096) nameMax = 4096;
  return static_cast<size_t>(nameMax) + 20;
}

size_t DirectoryEntry::sizeNeededFor(const Pathname& path) {
  static std::mutex mutex;
  static std::map<dev_t, size_t> byDevice;  // guarded by mutex

  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return sizeNeededForUncached(path);
  {
    std::lock_guard<std::mutex> lock(mutex);
    const auto it = byDevice.find(st.st_dev);
    if (it != byDevice.end()) return it->second;
  }
  const size_t size = sizeNeededForUncached(path);
  std::lock_guard<std::mutex> lock(mutex);
  byDevice.emplace(st.st_dev, size);
  return size;
}

void DirectoryEntry::allocate(size_t size) {
  if (_entry != nullptr && _size >= size) return;
  if (size < sizeof(struct dirent)) size = sizeof(struct dirent);
  void* p = std::malloc(size);
  if (p == nullptr) throw std::bad_alloc();
  std::memset(p, 0, size);
  _entry.reset(static_cast<struct dirent*>(p));
  _size = size;
}

namespace {

bool isSkippedName(const char* name) {
  return name[0] == '\0' || name[0] == '/' || std::strcmp(name, ".") == 0 ||
         std::strcmp(name, "..") == 0;
}

}  // namespace

bool DirectoryIterator::getNext(Pathname& leaf) {
  if (!_dir.valid()) {
    _dir = _path.opendir();
    if (!_dir.valid()) return false;
    _entry->allocate(DirectoryEntry::sizeNeededFor(_path));
  }
  for (;;) {
    struct dirent* result = nullptr;
    // readdir_r into a buffer sized from pathconf: the entry belongs to this
    // iterator, not to the stream, so it survives further reads.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const int rv = ::readdir_r(_dir.get(), _entry->get(), &result);
#pragma GCC diagnostic pop
    if (rv != 0) {
      errno = rv;
      return false;
    }
    if (result == nullptr) {
      errno = 0;
      return false;
    }
    if (isSkippedName(result->d_name)) continue;
    leaf.assign(result->d_name);
    return true;
  }
}
