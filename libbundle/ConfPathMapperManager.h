// ConfPathMapperManager: the process-wide registry of the mappers of every
// configuration root, and the cursor through which the caches read them.
//
// Thread story: every member is safe from any thread; one mutex guards the
// map of collections. Mappers are never destroyed, so the pointers handed
// out stay valid for the life of the process.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "libbundle/BundlesSetup.h"
#include "libbundle/ConfPath.h"
#include "libbundle/IConfPathMapper.h"
#include "util/Mutex.h"

class ConfPathMapperCollection;

class ConfPathMapperManager {
 public:
  // A snapshot of the mappers of one root, in bootstrap order. A plain
  // value; the mappers it points to live for the process.
  class Mappers {
   public:
    explicit Mappers(std::vector<IConfPathMapper*> mappers) : _mappers(std::move(mappers)) {}
    bool isDone() const { return _at >= _mappers.size(); }
    // REQUIRES: !isDone().
    IConfPathMapper* data() const;
    void next() { ++_at; }
    size_t size() const { return _mappers.size(); }

   private:
    std::vector<IConfPathMapper*> _mappers;
    size_t _at = 0;
  };

  static ConfPathMapperManager& instance();

  // Builds the collection of `setup` when it has none (runBaseSetup).
  // False when the setup fails; the root then has no mappers.
  bool setupMappers(const BundlesSetup& setup);
  // redoSetup() of the collection (built first when missing).
  bool setupNewMappers(const BundlesSetup& setup);
  // The mappers of `setup`, setting it up on first use. Empty for a root
  // whose setup failed.
  Mappers getMappers(const BundlesSetup& setup);
  // The mapper at `path`, or null.
  IConfPathMapper* getUpdateMapper(const BundlesSetup& setup, const Pathname& path);
  // The mapper that takes writes of `path` (toMapperPath, getCreateMapper).
  // Logs "Found writer IConfPathMapper for %s [%x]: %s", or "Could not find
  // writer for: %s [%x] [%s]" and throws ConfPathHasNoWriter.
  IConfPathMapper& getWriteMapper(const BundlesSetup& setup, const ConfPathBase& path,
                                  unsigned flags);
  // The mapper of the bundle that holds `file` (the longest mapper path
  // that is `file` or a directory above it), or null. For the change
  // watcher.
  IConfPathMapper* findMapperForFile(const BundlesSetup& setup, const Pathname& file);
  // Runs `fn` on the collection of `setup` under the manager's mutex
  // (built first when missing); for tests and the fixer.
  template <class Fn>
  auto withCollection(const BundlesSetup& setup, Fn fn) {
    ScopedLock lock(_mutex);
    return fn(collectionLocked(setup));
  }
  // Forgets every collection of non-default roots: for tests that build
  // trees one after another. The mappers handed out stay alive.
  void forgetNonDefault();

 private:
  ConfPathMapperManager() = default;
  ConfPathMapperCollection& collectionLocked(const BundlesSetup& setup);

  Mutex _mutex;  // guards everything below
  std::map<BundlesSetup, std::unique_ptr<ConfPathMapperCollection>> _collections;
  std::vector<std::unique_ptr<ConfPathMapperCollection>> _retired;
};
