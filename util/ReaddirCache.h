// ReaddirCache: directory listings read once per operation, so that a glob
// or a scan over many paths lists each directory a single time.
#pragma once

#include <map>
#include <set>

#include "util/Directory.h"
#include "util/Pathname.h"

// Only as fresh as each directory's first read: make a new cache per
// operation. One owner at a time.
class ReaddirCache {
 public:
  typedef std::set<Pathname> LeafSet;

  // The leaf names of `dir`, sorted by bytes, without "." and "..". Read on
  // the first request for that exact text and kept; an unreadable directory
  // gives an empty set and counts as read. The reference stays valid for
  // the cache's life.
  const LeafSet& read(const Pathname& dir);

 private:
  struct Entry {
    LeafSet leaves;
    bool wasRead = false;
  };
  std::map<Pathname, Entry> _entries;
  // One entry buffer, shared by every read.
  DirectoryEntry _dirent;
};
