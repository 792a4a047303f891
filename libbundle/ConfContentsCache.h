// ConfContentsCache: files read whole and shared between readers, such as
// lookup tables, held with the MD5 of their contents so that a change on
// disk is noticed; and transient contents, named "fake://<n>", that exist
// only in memory until written somewhere.
//
// Thread story: a process-wide singleton; every member takes its mutex.
#pragma once

#include <map>

#include "util/Mutex.h"
#include "util/Pathname.h"
#include "util/Str.h"

struct ConfContents {
  bool transient = false;
  Str contents;
  Str checksum;  // XMLAndStringUtil::md5 of contents, hex; empty until loaded

  // Reads `path` through the unicode stream, lines joined with "\n" (so a
  // final line end and carriage returns are dropped), and sums it. False
  // when the file cannot be read; the contents are left alone then.
  bool loadContentsFromDisk(const Pathname& path);
};

class ConfContentsCache {
 public:
  static constexpr const char* TRANSIENT_PREFIX = "fake://";

  static ConfContentsCache& instance();

  // Adds `path` with no contents (an existing entry stays as it is).
  void allowLoading(const Pathname& path);
  // Removes the entry of `path`.
  void disallowLoading(const Pathname& path);
  // Whether `path` has an entry.
  bool isAllowed(const Pathname& path) const;
  // The contents of an allowed path, read from disk on first use. False
  // for a path not allowed or a file that cannot be read.
  bool loadContents(const Pathname& path, Str& contents, Str& checksum);
  // False when `path` is not cached or has no contents yet. Otherwise
  // reads it again: true, with the new contents kept, when the checksum
  // differs; false when equal or unreadable.
  bool isContentStale(const Pathname& path);
  // Stores `text` under "fake://<n>" (n counting from 1 in the process)
  // and returns that name.
  Pathname addTransientContents(const Str& text);
  // Moves contents from `from` to `to`; both must be cached, else false.
  // A non-transient `from`: the contents go to `to`'s entry and the file
  // is copied, unless the paths are equal ("Cannot copy: %s -> %s: %m",
  // false). A transient `from`: `to` gets the contents, written with
  // writeAtomic, and `from`'s entry is dropped.
  bool updateCacheAndStorage(const Pathname& from, const Pathname& to);

  // Writes `text` to `path` + ".tmp" (writeToTmp), then renames it over
  // `path` ("Cannot rename: %s -> %s: %m"). False on failure, with the
  // error logged; `path` is then untouched.
  static bool writeAtomic(const Pathname& path, const Str& text);
  // Writes `text` to `tmp`, replacing it. Errors, logged: "Cannot open
  // temporary file: %s: %m", "Write to file failed with data remaining:
  // %s: %m", "Cannot flush temporary file: %s: %m"; false then.
  static bool writeToTmp(const Pathname& tmp, const Str& text);

 private:
  ConfContentsCache() = default;

  mutable Mutex _mutex;  // guards the members below
  std::map<Pathname, ConfContents> _contents;
  unsigned long long _transientCounter = 0;
};
