// The writing half of PropertyPages: every write runs in the frame of
// deferredWrite (write mutex, then ScopedConfMutex, then the store), and a
// ScopedCacheUpdater refreshes the pages of the type afterwards.
#include <exception>
#include <functional>

#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfPathTrie.h"
#include "libbundle/FillLayers.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/ScopedConfMutex.h"
#include "libbundle/UserChangeDetector.h"
#include "util/Logger.h"

namespace {

Logger gLogger("PropertyPages");

const char LEARNED_APPLICATION[] = "learned";

// Serialises every write of every page in this process. Never freed.
Mutex& gWriteMutex() {
  static Mutex* mutex = new Mutex;
  return *mutex;
}

// Marks every page of the type dirty when the write is over, whether it
// succeeded or not: a failed write may still have changed files.
class ScopedCacheUpdater {
 public:
  explicit ScopedCacheUpdater(PropertyPages& page) : _page(page) {}
  ~ScopedCacheUpdater() { _page.updateCache(); }
  ScopedCacheUpdater(const ScopedCacheUpdater&) = delete;
  ScopedCacheUpdater& operator=(const ScopedCacheUpdater&) = delete;

 private:
  PropertyPages& _page;
};

// The metadata the store holds at `path` into `out`; false, `out` left
// alone, without any.
bool findMetadata(const ConfPath& path, ConfPathMetadata& out) {
  ConfPathTrie found;
  for (auto mappers = ConfPathMapperManager::instance().getMappers(path.bundlesSetup());
       !mappers.isDone(); mappers.next()) {
    mappers.data()->cpmSearch(path, found);
  }
  const ConfPathTrie::Node* node = found.find(path);
  if (node == nullptr || !node->hasMetadata()) return false;
  out = node->metadata();
  return true;
}

// Removes what `path` names from its writing layer: its data through the
// data writer, its metadata and its children's through the metadata
// writer. A missing writer is worth a warning only: there is then nothing
// of this kind to remove.
void removeFromWriters(const ConfPath& path) {
  ConfPathMapperManager& manager = ConfPathMapperManager::instance();
  try {
    manager.getWriteMapper(path.bundlesSetup(), path, ConfPath::WRITE_DATA).cpmRemoveLayer(path);
  } catch (const ConfPathHasNoWriter&) {
    gLogger.warn("Unexpected lack of conf remover for: %s", path.toString().c_str());
  }
  try {
    manager.getWriteMapper(path.bundlesSetup(), path, ConfPath::WRITE_META)
        .cpmRemoveMetadata(path);
  } catch (const ConfPathHasNoWriter&) {
    gLogger.warn("Unexpected lack of meta remover for: %s", path.toString().c_str());
  }
}

PropertiesMap oneSetting(const Str& key, const Str& value) {
  PropertiesMap map;
  map.put(key, value);
  return map;
}

}  // namespace

const Str& PropertyPages::writeApplication() const {
  return _context.hasApplicationContext() ? _context.application()
                                          : ConfPath::getDefaultApplication();
}

ConfPath PropertyPages::makeConfPath(const Str& application, const Str& stanza,
                                     const Str& setting) const {
  const User& user = _context.hasUserContext() ? _context.user() : ConfPath::getDefaultUser();
  ConfPath path(_context.bundlesSetup(), ConfPathBase(user, application, _name, stanza, setting));
  path.sudo(_actingUser, UserChangeDetector::instance().getRoles(_actingUser));
  return path;
}

void PropertyPages::deferredWrite(const Str& application, const Str& stanza,
                                  const PropertiesMap& desired, bool overwriteAll, bool toMeta) {
  const ConfPath path = makeConfPath(application, stanza);
  const Str what = Str().format("writing with overwriteAll == %s: %s",
                                overwriteAll ? "true" : "false", path.toString().c_str());
  gLogger.info("%s", what.c_str());
  ScopedLock writeLock(gWriteMutex());
  ScopedConfMutex confMutex(_context.bundlesSetup(), what);
  ConfPathTrie changes;
  ConfPathMetadata metadata;
  if (!findMetadata(path, metadata)) changes.setMetadata(path, metadata);
  // Only a replacement of the whole stanza asks first: it removes what
  // others wrote, while a plain write adds only its difference to the
  // caller's own layer.
  if (overwriteAll) {
    path.verifyCanModify();
    removeFromWriters(path);
    _cache->markDirty();
  }
  if (!toMeta) {
    PropertiesMap existing;
    fillLayersImpl(*_cache, &existing, stanza, false);
    PropertiesMap difference;
    desired.difference(existing, difference);
    changes.setValue(path, desired.getEmbeddedProperty().value());
    for (const auto& [key, property] : difference) {
      changes.setValue(path.child(key), property.value());
    }
  }
  path.cmergeNoLock(changes);
}

void PropertyPages::saveStanza(const Str& name, const PropertiesMap& props, bool overwriteAll) {
  saveStanzaToApp(writeApplication(), name, props, overwriteAll);
}

void PropertyPages::saveStanzaToApp(const Str& application, const Str& name,
                                    const PropertiesMap& props, bool overwriteAll) {
  ScopedCacheUpdater updater(*this);
  deferredWrite(application, name, props, overwriteAll, false);
}

bool PropertyPages::putDefault(const char* name, const PropertiesMap* props) {
  try {
    saveStanzaToApp(writeApplication(), name, *props, false);
    return true;
  } catch (const std::exception& e) {
    gLogger.error("Failed to save stanza [%s] %s to default: %s", name, _name.c_str(), e.what());
    return false;
  }
}

bool PropertyPages::putLocal(const char* name, const PropertiesMap* props, bool overwriteAll) {
  try {
    saveStanzaToApp(writeApplication(), name, *props, overwriteAll);
    return true;
  } catch (const std::exception& e) {
    gLogger.error("Failed to save stanza [%s] %s: %s", name, _name.c_str(), e.what());
    return false;
  }
}

bool PropertyPages::putLocalNS(const Str& application, const char* name,
                               const PropertiesMap* props, bool overwriteAll) {
  try {
    saveStanzaToApp(application, name, *props, overwriteAll);
    return true;
  } catch (const std::exception& e) {
    gLogger.error("Failed to save stanza [%s] %s to app %s: %s", name, _name.c_str(),
                  application.c_str(), e.what());
    return false;
  }
}

bool PropertyPages::putLearned(const char* name, const PropertiesMap* props) {
  return putLocalNS(LEARNED_APPLICATION, name, props, false);
}

void PropertyPages::putAttribute(const Str& stanza, const Str& key, const Str& value) {
  saveStanza(stanza, oneSetting(key, value), false);
}

void PropertyPages::disableStanza(const char* name) {
  putAttribute(name, Property::DISABLED_KEY, "1");
}

void PropertyPages::deleteAttribute(const Str& stanza, const Str& key) {
  ScopedCacheUpdater updater(*this);
  const ConfPath path = makeConfPath(writeApplication(), stanza, key);
  ScopedLock writeLock(gWriteMutex());
  ScopedConfMutex confMutex(_context.bundlesSetup(), "deleting: " + path.toString());
  path.verifyCanRemove();
  removeFromWriters(path);
}

void PropertyPages::deleteStanza(const Str& stanza) { deleteAttribute(stanza, Str::EMPTY_STR); }

void PropertyPages::moveAttribute(const Str& stanza, const Str& key, const Str& toApplication) {
  PropertiesMap current;
  getStanza(stanza, current);
  saveStanzaToApp(toApplication, stanza, oneSetting(key, current.get(key)), false);
  deleteAttribute(stanza, key);
}

void PropertyPages::moveStanza(const Str& stanza, const Str& toApplication) {
  PropertiesMap current;
  getStanza(stanza, current);
  saveStanzaToApp(toApplication, stanza, current, true);
  deleteStanza(stanza);
}

bool PropertyPages::canDelete(const Str& stanza, const Str& attribute) {
  const ConfPath path = makeConfPath(writeApplication(), stanza, attribute);
  ScopedLock writeLock(gWriteMutex());
  try {
    path.verifyCanRemove();
    return true;
  } catch (const ConfPathException& e) {
    gLogger.debug("Cannot delete %s: %s", path.toString().c_str(), e.what());
    return false;
  }
}

// ---- Sharing and permissions ----

void PropertyPages::writeMetadata(const Str& stanza, const Str& key,
                                  const std::function<void(ConfPathMetadata&)>& change) {
  ScopedCacheUpdater updater(*this);
  PropertiesMap current;
  if (!getStanza(stanza, current) || (!key.empty() && current.getProperty(key) == nullptr)) {
    Str entity = stanza;
    if (!key.empty()) entity += "/" + key;
    gLogger.debug("No eligible entity: %s", entity.c_str());
    throw ConfPathException(
        Str().format("No entity '%s' exists and is eligible for an access control", entity.c_str()));
  }
  const ConfPath path = makeConfPath(writeApplication(), stanza, key);
  const Str what = "changing access control: " + path.toString();
  ScopedLock writeLock(gWriteMutex());
  ScopedConfMutex confMutex(_context.bundlesSetup(), what);
  path.verifyCanModify();
  ConfPathMetadata metadata;
  findMetadata(path, metadata);
  change(metadata);
  ConfPathTrie changes;
  changes.setMetadata(path, metadata);
  path.cmergeNoLock(changes);
}

void PropertyPages::shareAndChmod(const Str& stanza, bool global,
                                  const ConfPathPermissions& permissions) {
  shareAndChmodAttr(stanza, Str::EMPTY_STR, global, permissions);
}

void PropertyPages::shareAndChmodAttr(const Str& stanza, const Str& key, bool global,
                                      const ConfPathPermissions& permissions) {
  writeMetadata(stanza, key, [&](ConfPathMetadata& m) {
    m.setExport(global ? ConfPathMetadata::EXPORT_GLOBAL : ConfPathMetadata::EXPORT_APP);
    m.setPermissions(ConfPathPermissionsReference(permissions));
  });
}

void PropertyPages::unshare(const Str& stanza) {
  writeMetadata(stanza, Str::EMPTY_STR,
                [](ConfPathMetadata& m) { m.setExport(ConfPathMetadata::EXPORT_NONE); });
}

void PropertyPages::chmodAttr(const Str& stanza, const Str& key,
                              const ConfPathPermissions& permissions) {
  writeMetadata(stanza, key, [&](ConfPathMetadata& m) {
    m.setPermissions(ConfPathPermissionsReference(permissions));
  });
}

void PropertyPages::chmodStanza(const Str& stanza, const ConfPathPermissions& permissions) {
  chmodAttr(stanza, Str::EMPTY_STR, permissions);
}

void PropertyPages::shareWithApplication(const Str& stanza) {
  writeMetadata(stanza, Str::EMPTY_STR,
                [](ConfPathMetadata& m) { m.setExport(ConfPathMetadata::EXPORT_APP); });
}

void PropertyPages::shareWithSystem(const Str& stanza) {
  writeMetadata(stanza, Str::EMPTY_STR,
                [](ConfPathMetadata& m) { m.setExport(ConfPathMetadata::EXPORT_GLOBAL); });
}
