#include "util/ReadableFileMapping.h"

#include <sys/mman.h>

#include <cerrno>

ReadableFileMapping::ReadableFileMapping(FileDescriptor fd) : _addr(INVALID), _len(0) {
  long size = 0;
  if (!fd.valid()) {
    errno = EBADF;
    return;
  }
  if (!fd.getSize(&size)) return;
  if (size == 0) {
    _addr = nullptr;
    return;
  }
  void* addr = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, fd.fd(), 0);
  if (addr == MAP_FAILED) return;
  _addr = addr;
  _len = static_cast<size_t>(size);
}

ReadableFileMapping::~ReadableFileMapping() {
  if (valid() && _len > 0) ::munmap(_addr, _len);
}
