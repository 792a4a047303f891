#include "libbundle/ConfPathMapperManager.h"

#include <cassert>

#include "libbundle/ConfPathMapperCollection.h"
#include "util/Logger.h"

namespace {

Logger gLogger("ConfPathMapperManager");

}  // namespace

IConfPathMapper* ConfPathMapperManager::Mappers::data() const {
  assert(!isDone());
  return _mappers[_at];
}

ConfPathMapperManager& ConfPathMapperManager::instance() {
  static auto* const manager = new ConfPathMapperManager;
  return *manager;
}

ConfPathMapperCollection& ConfPathMapperManager::collectionLocked(const BundlesSetup& setup) {
  std::unique_ptr<ConfPathMapperCollection>& slot = _collections[setup];
  if (slot == nullptr) {
    slot = std::make_unique<ConfPathMapperCollection>(setup);
    if (!slot->runBaseSetup()) {
      gLogger.error("No configuration mappers for root: %s", setup.getRoot().c_str());
    }
  }
  return *slot;
}

bool ConfPathMapperManager::setupMappers(const BundlesSetup& setup) {
  ScopedLock lock(_mutex);
  const ConfPathMapperCollection& c = collectionLocked(setup);
  return c.getSetupIni().isOpened() && c.getSetupIni().findStanza("bootstrap") != nullptr;
}

bool ConfPathMapperManager::setupNewMappers(const BundlesSetup& setup) {
  ScopedLock lock(_mutex);
  return collectionLocked(setup).redoSetup();
}

ConfPathMapperManager::Mappers ConfPathMapperManager::getMappers(const BundlesSetup& setup) {
  ScopedLock lock(_mutex);
  return Mappers(collectionLocked(setup).orderedMappers());
}

IConfPathMapper* ConfPathMapperManager::getUpdateMapper(const BundlesSetup& setup,
                                                        const Pathname& path) {
  ScopedLock lock(_mutex);
  return collectionLocked(setup).getUpdateMapper(path);
}

IConfPathMapper& ConfPathMapperManager::getWriteMapper(const BundlesSetup& setup,
                                                       const ConfPathBase& path, unsigned flags) {
  ScopedLock lock(_mutex);
  ConfPathMapperCollection& c = collectionLocked(setup);
  IConfPathMapper* m = c.getCreateMapper(path, flags);
  if (m == nullptr || !m->cpmIsWritable()) {
    Str text;
    text.format("Could not find writer for: %s [%x] [%s]", path.toString().c_str(), flags,
                m != nullptr ? m->cpmPath().c_str() : "");
    gLogger.error("%s", text.c_str());
    throw ConfPathHasNoWriter(text);
  }
  gLogger.debug("Found writer IConfPathMapper for %s [%x]: %s", path.toString().c_str(), flags,
                m->cpmPath().c_str());
  return *m;
}

IConfPathMapper* ConfPathMapperManager::findMapperForFile(const BundlesSetup& setup,
                                                          const Pathname& file) {
  ScopedLock lock(_mutex);
  ConfPathMapperCollection& c = collectionLocked(setup);
  for (Pathname p = file; p.size() > 1; p = p.toParent()) {
    if (IConfPathMapper* m = c.getUpdateMapper(p)) return m;
  }
  return nullptr;
}

void ConfPathMapperManager::forgetNonDefault() {
  ScopedLock lock(_mutex);
  for (auto it = _collections.begin(); it != _collections.end();) {
    if (it->first.isDefaultRoot()) {
      ++it;
    } else {
      _retired.push_back(std::move(it->second));
      it = _collections.erase(it);
    }
  }
}
