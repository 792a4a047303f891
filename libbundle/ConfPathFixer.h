// ConfPathFixer: finds configuration data left in the system layer of a
// pooled root that belongs to a user or another application (see
// DanglingDataPruner) and moves it to its proper place.
//
// Thread story: one owner; fixDanglingData takes the ScopedConfMutex.
#pragma once

#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPathTrie.h"
#include "util/Str.h"

class ConfPathFixer {
 public:
  explicit ConfPathFixer(const BundlesSetup& setup) : _setup(setup) {}

  // Limits the search to one type / one application (the data's target).
  void restrictToType(const Str& type) { _type = type; }
  void restrictToApp(const Str& application) { _application = application; }

  // Fills `out` with the dangling data of the system layer, with its
  // metadata; true when there is any.
  bool findDanglingData(ConfPathTrie& out);
  // Only with pooling on, under a ScopedConfMutex ("fixing dangling data:
  // %s"): reloads every mapper, finds the dangling data, cuts it below
  // level 4, and writes each stanza to the layer of its owner and
  // application with cmergeNoLock, removing it from the system layer.
  // Logs "Found dangling data at: %s%s%s" per stanza, "No dangling data
  // found: %s", or "Cannot run check for dangling data: %s" on failure.
  // Returns the number of stanzas moved.
  size_t fixDanglingData();

 private:
  BundlesSetup _setup;
  Str _type;
  Str _application;
};
