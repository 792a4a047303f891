// Directory streams: the descriptor wrappers, the entry buffer that readdir_r
// fills, and an iterator that yields the leaf names of one directory.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "util/Pathname.h"

// A directory stream pointer, null when closed. Copying copies the pointer:
// it borrows and never closes on its own. One owner at a time.
class DirectoryDescriptor {
 public:
  DirectoryDescriptor() : _dir(nullptr) {}
  explicit DirectoryDescriptor(DIR* dir) : _dir(dir) {}

  DIR* get() const { return _dir; }
  bool valid() const { return _dir != nullptr; }
  // True when already closed; else closedir's success. Null afterwards.
  bool close();

 protected:
  DIR* _dir;
};

// Owns its stream and closes it on destruction. One owner at a time.
class ScopedDirectoryDescriptor : public DirectoryDescriptor {
 public:
  ScopedDirectoryDescriptor() = default;
  explicit ScopedDirectoryDescriptor(DirectoryDescriptor d) : DirectoryDescriptor(d) {}
  ~ScopedDirectoryDescriptor() { close(); }
  ScopedDirectoryDescriptor(const ScopedDirectoryDescriptor&) = delete;
  ScopedDirectoryDescriptor& operator=(const ScopedDirectoryDescriptor&) = delete;
  // Closes the stream held and takes ownership of `d`.
  ScopedDirectoryDescriptor& operator=(DirectoryDescriptor d);
};

// The buffer readdir_r writes an entry into, sized for the longest name the
// filesystem allows. Owns its buffer; one owner at a time.
class DirectoryEntry {
 public:
  DirectoryEntry() = default;

  // Bytes an entry of a directory at `path` may need: pathconf's name-length
  // limit there (or on "/" when that fails), at least 4096, plus 20.
  static size_t sizeNeededForUncached(const Pathname& path);
  // As above, remembered per filesystem (device); safe from any thread, the
  // cache being guarded inside.
  static size_t sizeNeededFor(const Pathname& path);

  // Makes room for `size` bytes, keeping a larger buffer already held.
  // Throws std::bad_alloc when memory runs out.
  void allocate(size_t size);
  bool allocated() const { return _entry != nullptr; }
  size_t size() const { return _size; }
  // The buffer. REQUIRES: allocated().
  struct dirent* get() const { return _entry.get(); }

 private:
  struct FreeDeleter {
    void operator()(struct dirent* p) const { std::free(p); }
  };
  std::unique_ptr<struct dirent, FreeDeleter> _entry;
  size_t _size = 0;
};

// Yields the leaf names of one directory, skipping ".", ".." and any name
// that is empty or begins with "/". Order is the filesystem's. One owner at
// a time.
class DirectoryIterator {
 public:
  explicit DirectoryIterator(const Pathname& dir) : _path(dir), _entry(&_ownEntry) {}
  // Reads through `shared`, which outlives the iterator and is used by one
  // iterator at a time (a ReaddirCache lends its one buffer this way).
  DirectoryIterator(const Pathname& dir, DirectoryEntry* shared) : _path(dir), _entry(shared) {}
  DirectoryIterator(const DirectoryIterator&) = delete;
  DirectoryIterator& operator=(const DirectoryIterator&) = delete;

  const Pathname& path() const { return _path; }
  // The next leaf into `leaf`. Opens the directory on first use. False at
  // the end (errno 0) or on failure (errno set, `leaf` untouched).
  bool getNext(Pathname& leaf);

 private:
  ScopedDirectoryDescriptor _dir;
  Pathname _path;
  DirectoryEntry _ownEntry;
  DirectoryEntry* _entry;  // _ownEntry or a borrowed one
};
