#include "util/ReaddirCache.h"

const ReaddirCache::LeafSet& ReaddirCache::read(const Pathname& dir) {
  Entry& entry = _entries[dir];
  if (entry.wasRead) return entry.leaves;
  entry.wasRead = true;
  DirectoryIterator it(dir, &_dirent);
  Pathname leaf;
  while (it.getNext(leaf)) entry.leaves.insert(leaf);
  return entry.leaves;
}
