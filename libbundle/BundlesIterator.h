// BundlesIterator: the bundle directories registered for a root, in the
// order they were first registered, without those of disabled
// applications; and BundleFilesBySuffixIterator, which finds one given file
// in every such bundle.
//
// Thread story: registration and snapshots take one process-wide mutex; an
// iterator itself belongs to one thread.
#pragma once

#include <vector>

#include "libbundle/BundlesSetup.h"
#include "util/Pathname.h"

class BundlesIterator {
 public:
  // Appends `path` to the list of `setup`, once; logs "Registered iterator
  // path: %s" when it is new.
  static void registerIteratorPath(const BundlesSetup& setup, const Pathname& path);
  // Empties the list of `setup`; for tests.
  static void clearIteratorPaths(const BundlesSetup& setup);

  // Snapshots the list, leaving out paths under getApps() whose
  // application is disabled: "Skipping path into disabled app: %s".
  explicit BundlesIterator(const BundlesSetup& setup);
  virtual ~BundlesIterator() = default;

  // The next bundle into `out`; false at the end, `out` left alone.
  virtual bool getNext(Pathname& out);

 private:
  std::vector<Pathname> _paths;
  size_t _at = 0;
};

class BundleFilesBySuffixIterator : public BundlesIterator {
 public:
  // `suffix` is relative: "datetime.xml", "static/app.css".
  BundleFilesBySuffixIterator(const BundlesSetup& setup, const Pathname& suffix);
  // The next bundle / suffix that exists.
  bool getNext(Pathname& out) override;

 private:
  Pathname _suffix;
};
