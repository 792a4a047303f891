#include "util/Glob.h"

#include <utility>

const Pathname Glob::WILDCARD_STAR("*");

namespace {

// `base` followed by `leaf`. An empty base is the root of an absolute
// pattern, or the working directory of a relative one.
Pathname joinLeaf(const Pathname& base, const Pathname& leaf, bool absolute) {
  if (base.empty() && !absolute) return leaf;
  return base / leaf;
}

// The directory to list for the candidates under `base`.
Pathname listingOf(const Pathname& base, bool absolute) {
  if (!base.empty()) return base;
  return Pathname(absolute ? "/" : ".");
}

// Whether the literal prefix exists, judged by its parent's listing so that
// the cache serves the later steps too. A "." leaf is judged one level up;
// a ".." leaf is never in a listing, so a prefix ending in one is missing.
bool prefixExists(Pathname p, ReaddirCache& cache) {
  for (;;) {
    if (p.find_first_not_of(Pathname::SEP) == Pathname::npos) return true;  // a root
    const Pathname leaf = p.toLeaf();
    const Pathname up = p.toParent();
    if (leaf == Pathname::cur) {
      p = up;
      continue;
    }
    return cache.read(listingOf(up, p.isAbsolute())).count(leaf) != 0;
  }
}

}  // namespace

bool Glob::glob(const Pathname& pattern, PathnameVector& out) {
  ReaddirCache cache;
  return glob(pattern, out, cache);
}

bool Glob::glob(const Pathname& pattern, PathnameVector& out, ReaddirCache& cache) {
  const bool absolute = pattern.isAbsolute();
  PathnameVector elements;
  pattern.splitOnSepInto(elements);

  Pathname prefix;
  size_t i = 0;
  for (; i < elements.size() && elements[i] != WILDCARD_STAR; ++i) {
    prefix = joinLeaf(prefix, elements[i], absolute);
  }
  if (!prefix.empty() && !prefixExists(prefix, cache)) return false;
  if (prefix.empty() && absolute) prefix = Pathname("/");

  PathnameVector candidates;
  candidates.push_back(prefix);
  bool expanded = false;
  for (; i < elements.size(); ++i) {
    const Pathname& element = elements[i];
    PathnameVector next;
    for (const Pathname& base : candidates) {
      const ReaddirCache::LeafSet& leaves = cache.read(listingOf(base, absolute));
      if (element == WILDCARD_STAR) {
        expanded = true;
        for (const Pathname& leaf : leaves) next.push_back(joinLeaf(base, leaf, absolute));
      } else if (leaves.count(element) != 0) {
        next.push_back(joinLeaf(base, element, absolute));
      }
    }
    candidates.swap(next);
  }
  out.swap(candidates);
  return expanded;
}

bool Glob::wouldGlob(const Pathname& pattern, const Pathname& path) {
  PathnameVector want, have;
  pattern.splitOnSepInto(want);
  path.splitOnSepInto(have);
  if (want.size() != have.size()) return false;
  for (size_t i = 0; i < want.size(); ++i) {
    if (want[i] != WILDCARD_STAR && want[i] != have[i]) return false;
  }
  return true;
}
