// The listing half of PropertyPages: stanzas of one page by name, and
// stanzas across every (user, application) context of the store.
#include <exception>

#include "libbundle/BaseConfCacheBuilder.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfPathPruners.h"
#include "libbundle/PropertyPages.h"
#include "libbundle/UserChangeDetector.h"
#include "util/Logger.h"

namespace {

Logger gLogger("PropertyPages");

bool selected(const Str& name, const Str& text, unsigned modes) {
  if (text.empty()) return true;
  if ((modes & PropertyPages::GET_BY_FILTER) == 0) return name.compare(0, text.size(), text) == 0;
  Str lowerName(name);
  Str lowerText(text);
  lowerName.toLowercase();
  lowerText.toLowercase();
  return lowerName.find(lowerText) != Str::npos;
}

// Keeps the nodes of `level` whose segment is in `names`; every node at
// other levels stays.
FunctionPruner keepNamesAtLevel(const std::set<Str>& names, size_t level) {
  return FunctionPruner([&names, level](const ConfPathBase& path, const ConfPathTrie::Node&) {
    return path.level() != level || names.count(path.segment(level - 1)) != 0;
  });
}

}  // namespace

void PropertyPages::propsObjByFilterAndMode(const Str& text, unsigned modes,
                                            StanzaCollection& out) {
  propsObjByPrefixAndMode(text, modes | GET_BY_FILTER, out);
}

void PropertyPages::propsObjByPrefixAndMode(const Str& text, unsigned modes,
                                            StanzaCollection& out) {
  out.clear();
  {
    ScopedIConfCacheLock lock(*_cache);
    for (auto it = _cache->begin(); !it->isDone(); it->next()) {
      if (selected(it->getConfName(), text, modes)) it->addLayerTo(out[it->getConfName()], true);
    }
  }
  if ((modes & GET_EXPANDED_NAMES) != 0) out.expandStanzaNames(nullptr);
}

void PropertyPages::propsWithContext(const std::set<Str>& users,
                                     const std::set<Str>& applications,
                                     ContextPropertiesVector& out) {
  propsWithContextByMode(users, applications, out, GET_BY_PREFIX);
}

void PropertyPages::propsWithContextByMode(const std::set<Str>& users,
                                           const std::set<Str>& applications,
                                           ContextPropertiesVector& out, unsigned modes) {
  const BundlesSetup& setup = _context.bundlesSetup();
  ConfPathTrie trie;
  for (auto mappers = ConfPathMapperManager::instance().getMappers(setup); !mappers.isDone();
       mappers.next()) {
    mappers.data()->cpmSearch(ConfPathBase(User(), Str::EMPTY_STR, _name), trie);
  }
  trie.cut(ConfPathBase::LEVEL_SETTING);
  DanglingMetadataPruner danglingMetadata;
  trie.prune(danglingMetadata);
  DanglingDataPruner danglingData;
  trie.prune(danglingData);
  DisabledApplicationPruner disabled(setup);
  trie.prune(disabled);
  if (!applications.empty()) {
    FunctionPruner onlyApplications = keepNamesAtLevel(applications, ConfPathBase::LEVEL_APPLICATION);
    trie.prune(onlyApplications);
  }
  PermissionPruner permissions(_actingUser, UserChangeDetector::instance().getRoles(_actingUser));
  trie.prune(permissions);
  if (!users.empty()) {
    FunctionPruner onlyUsers = keepNamesAtLevel(users, ConfPathBase::LEVEL_USER);
    trie.prune(onlyUsers);
  }

  for (const auto& [userName, userNode] : trie.root().children()) {
    for (const auto& [application, applicationNode] : userNode->children()) {
      const PropertyPagesContext context(setup, User(userName), application);
      try {
        canContextBeUsed(context);
      } catch (const PropertyPagesException& e) {
        gLogger.info("Skipping entities from context: %s: %s", context.toString().c_str(),
                     e.what());
        continue;
      }
      const ConfPathBase at(User(userName), application);
      ConfPathTrie one;
      one.mergeAt(at, *applicationNode);
      BaseConfCache::StanzaMap stanzas;
      BaseConfCacheBuilder(stanzas, setup, _name, application, true).build(one);
      StanzaCollection collection;
      for (auto& [name, map] : stanzas) collection.emplace(name, map);
      if ((modes & GET_EXPANDED_NAMES) != 0) collection.expandStanzaNames(nullptr);
      for (const auto& [name, map] : collection) {
        out.push_back(ContextProperties(name, User(userName), application, map));
      }
    }
  }
}
