#include "util/BTreeFormat.h"

#include <endian.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "util/FileDescriptor.h"
#include "util/Logger.h"

namespace bt {

namespace {

Logger gLogger("BTree");

std::atomic<WriteCall> gWriteCall{&systemWrite};

}  // namespace

uint64_t HOST_TO_LITTLE(uint64_t v) { return htole64(v); }
uint64_t LITTLE_TO_HOST(uint64_t v) { return le64toh(v); }

bool outputLE64(uint64_t v, size_t offset, void* buffer, size_t capacity) {
  if (offset > capacity || capacity - offset < NUMBER_BYTES) return false;
  const uint64_t le = HOST_TO_LITTLE(v);
  std::memcpy(static_cast<char*>(buffer) + offset, &le, NUMBER_BYTES);
  return true;
}

bool inputLE64(uint64_t* v, size_t offset, const void* buffer, size_t capacity) {
  if (offset > capacity || capacity - offset < NUMBER_BYTES) return false;
  uint64_t le;
  std::memcpy(&le, static_cast<const char*>(buffer) + offset, NUMBER_BYTES);
  *v = LITTLE_TO_HOST(le);
  return true;
}

bool writeLE64(const FileDescriptor& fd, uint64_t v) {
  char buf[NUMBER_BYTES];
  outputLE64(v, 0, buf, sizeof buf);
  return writeFully(fd, buf, sizeof buf);
}

bool readLE64(const FileDescriptor& fd, uint64_t* v) {
  char buf[NUMBER_BYTES];
  if (!readFully(fd, buf, sizeof buf)) return false;
  return inputLE64(v, 0, buf, sizeof buf);
}

WriteCall setWriteCall(WriteCall call) { return gWriteCall.exchange(call); }

ssize_t systemWrite(int fd, const void* buf, size_t n) { return ::write(fd, buf, n); }

bool writeFully(const FileDescriptor& fd, const void* buf, size_t n) {
  const WriteCall call = gWriteCall.load();
  const char* p = static_cast<const char*>(buf);
  while (n > 0) {
    const ssize_t rv = call(fd.fd(), p, n);
    if (rv < 0 && errno == EINTR) continue;
    if (rv < 0) return false;
    if (rv == 0) {
      errno = ENOSPC;
      return false;
    }
    p += rv;
    n -= static_cast<size_t>(rv);
  }
  return true;
}

bool readFully(const FileDescriptor& fd, void* buf, size_t n) {
  errno = 0;
  const ssize_t got = fd.read(buf, n);
  if (got == static_cast<ssize_t>(n)) return true;
  gLogger.error("unable to reader %lu bytes: bytes=%ld %m", static_cast<unsigned long>(n),
                static_cast<long>(got));
  return false;
}

}  // namespace bt
