#include "libbundle/ConfPathFixer.h"

#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfPathPruners.h"
#include "libbundle/ConfSettings.h"
#include "libbundle/ScopedConfMutex.h"
#include "util/Logger.h"

namespace {

Logger gLogger("ConfPathFixer");

}  // namespace

bool ConfPathFixer::findDanglingData(ConfPathTrie& out) {
  ConfPathTrie all;
  const ConfPathBase query(ConfPath::getDefaultUser(), ConfPath::getDefaultApplication(), _type);
  for (auto m = ConfPathMapperManager::instance().getMappers(_setup); !m.isDone(); m.next()) {
    m.data()->cpmSearch(query, all);
  }
  bool found = false;
  all.walk([&](const ConfPathBase& path, const ConfPathTrie::Node& node) {
    if (!DanglingDataPruner::isDangling(path, node)) return true;
    const Str& target = node.metadata().application();
    if (!_application.empty() && target != _application) return false;
    out.mergeAt(path, node);
    found = true;
    return false;
  });
  return found;
}

size_t ConfPathFixer::fixDanglingData() {
  if (!ConfSettings::forSetup(_setup)->isPoolingEnabled()) return 0;
  const Str what = _setup.toString();
  size_t moved = 0;
  try {
    ScopedConfMutex lock(_setup, Str().format("fixing dangling data: %s", what.c_str()));
    for (auto m = ConfPathMapperManager::instance().getMappers(_setup); !m.isDone(); m.next()) {
      m.data()->cpmReload(Str());
    }
    ConfPathMapperManager::instance().setupNewMappers(_setup);
    ConfPathTrie dangling;
    if (!findDanglingData(dangling)) {
      gLogger.info("No dangling data found: %s", what.c_str());
      return 0;
    }
    dangling.cut(ConfPathBase::LEVEL_SETTING);
    std::vector<std::pair<ConfPathBase, ConfPathTrie>> moves;
    dangling.walk([&](const ConfPathBase& path, const ConfPathTrie::Node& node) {
      if (path.level() < ConfPathBase::LEVEL_STANZA) return true;
      const ConfPathMetadata* md = nullptr;
      for (const ConfPathTrie::Node* n = &node; n != nullptr && md == nullptr; n = n->parent()) {
        if (n->hasMetadata()) md = &n->metadata();
      }
      const User owner = md != nullptr && !md->owner().empty() ? md->owner()
                                                                 : ConfPath::getDefaultUser();
      const Str app = md != nullptr && !md->application().empty()
                          ? md->application()
                          : ConfPath::getDefaultApplication();
      gLogger.info("Found dangling data at: %s%s%s", path.toString().c_str(), " -> ",
                   ConfPathBase(owner, app, path.type(), path.stanza()).toString().c_str());
      const ConfPathBase target(owner, app, path.type(), path.stanza());
      ConfPathTrie moved;
      moved.mergeAt(target, node);
      // The metadata that marked it as dangling must not travel with it.
      if (ConfPathTrie::Node* n = moved.find(target)) n->clearMetadata();
      moves.emplace_back(path, std::move(moved));
      return false;
    });
    for (auto& [from, trie] : moves) {
      ConfPath(_setup, from).cmergeNoLock(trie);
      IConfPathMapper& old =
          ConfPathMapperManager::instance().getWriteMapper(_setup, from, ConfPath::WRITE_DATA);
      old.cpmRemoveLayer(from);
      try {
        ConfPathMapperManager::instance()
            .getWriteMapper(_setup, from, ConfPath::WRITE_META)
            .cpmRemoveMetadata(from);
      } catch (const ConfPathHasNoWriter&) {
        // No metadata writer: the marker stays, and the data is gone from
        // the system layer all the same.
      }
      ++moved;
    }
  } catch (const std::exception& e) {
    gLogger.error("Cannot run check for dangling data: %s", e.what());
  }
  return moved;
}
