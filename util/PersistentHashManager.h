// PersistentHashManager: the seam to an older key-value store of file
// positions, consulted by FileTracker for files that its own bucket has not
// seen. The store itself lives outside this library; whoever has one
// installs it here.
#pragma once

#include "util/Str.h"

// Implementations are called under FileTracker's mutex, one call at a time.
// The installed pointer itself is atomic: install before readers start.
class PersistentHashManager {
 public:
  virtual ~PersistentHashManager() = default;

  // True and `value` set when `key` is stored; false, leaving `value` alone,
  // when it is not or the store cannot be read.
  virtual bool lookup(const Str& key, Str& value) = 0;

  // The installed store, or null when there is none (the default).
  static PersistentHashManager* getInstance();
  // Installs `store` (borrowed; null removes it) and returns the previous one.
  static PersistentHashManager* setInstance(PersistentHashManager* store);
};
