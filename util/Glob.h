// Glob: expansion of whole-element "*" wildcards in a path, reading each
// directory once per call through a ReaddirCache.
#pragma once

#include "util/Pathname.h"
#include "util/PathnameVector.h"
#include "util/ReaddirCache.h"

// Stateless: every call works on its own cache or the caller's.
class Glob {
 public:
  // The element that matches any one leaf. Only a whole element is a
  // wildcard: "a*" is a literal name.
  static const Pathname WILDCARD_STAR;

  // Expands `pattern` into `out` (replaced), in sorted order under each
  // wildcard; names beginning with "." are matched like any other. The
  // literal prefix up to the first "*" must exist, else the result is false
  // and `out` is left alone. Otherwise `out` receives the paths found (the
  // prefix alone when there is no wildcard) and the result says whether a
  // wildcard was expanded. Relative patterns give relative paths.
  static bool glob(const Pathname& pattern, PathnameVector& out);
  // As above, listing directories through `cache`.
  static bool glob(const Pathname& pattern, PathnameVector& out, ReaddirCache& cache);

  // Whether `path` is one of the paths `pattern` could expand to: the same
  // number of elements, each "*" or equal. No disk access:
  // ("/a/*/c", "/a/b/c") is true, ("/a/*", "/a/b/c") is false.
  static bool wouldGlob(const Pathname& pattern, const Pathname& path);
};
