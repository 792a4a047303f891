// ReadableFileMapping: a whole file mapped read-only and private, unmapped
// when the mapping goes away.
#pragma once

#include <cstddef>

#include "util/FileDescriptor.h"

// Owns the mapping. Const use is safe from any thread while it lives; the
// file's bytes may still change underneath if another process writes them.
class ReadableFileMapping {
 public:
  // Maps the whole file behind `fd` (which may be closed afterwards). A bad
  // descriptor, a failed getSize or a failed mmap gives an invalid mapping
  // with errno set; an empty file maps as valid with length 0 and a null
  // address that must not be read.
  explicit ReadableFileMapping(FileDescriptor fd);
  ~ReadableFileMapping();
  ReadableFileMapping(const ReadableFileMapping&) = delete;
  ReadableFileMapping& operator=(const ReadableFileMapping&) = delete;

  bool valid() const { return _addr != INVALID; }
  // The mapped bytes. REQUIRES: valid().
  const char* data() const { return static_cast<const char*>(_addr); }
  size_t size() const { return _len; }

 private:
  static inline void* const INVALID = reinterpret_cast<void*>(~static_cast<size_t>(0));
  void* _addr;
  size_t _len;
};
