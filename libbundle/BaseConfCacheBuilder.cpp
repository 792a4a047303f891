#include "libbundle/BaseConfCacheBuilder.h"

#include "libbundle/ExpandedStanzaName.h"
#include "util/Logger.h"

namespace {

Logger gLogger("BaseConfCacheBuilder");

}  // namespace

PropertySourceType BaseConfCacheBuilder::pathToSourceType(const ConfPathBase& path,
                                                          const ConfPathTrie::Node& node,
                                                          PropertySourceType parentType,
                                                          const Str& contextApplication) {
  // A user node has no application yet: only from level 2 on does an empty
  // application segment mean nothing.
  if (path.level() >= ConfPathBase::LEVEL_APPLICATION && path.isApplicationDefault()) {
    return SOURCE_SYSTEM_DEFAULT;
  }
  if (!path.isUserDefault()) return SOURCE_USER;
  const ConfPathMetadata::Export exportTo =
      node.hasMetadata() ? node.metadata().exportTo() : ConfPathMetadata::EXPORT_NONE;
  switch (exportTo) {
    case ConfPathMetadata::EXPORT_APP:
      return SOURCE_APP;
    case ConfPathMetadata::EXPORT_GLOBAL:
      return path.application() == contextApplication ? SOURCE_GLOBAL_SAME_APP
                                                      : SOURCE_GLOBAL_OTHER_APP;
    case ConfPathMetadata::EXPORT_NONE:
      break;
  }
  return parentType;
}

void BaseConfCacheBuilder::build(const ConfPathTrie& trie) {
  // The type of each level of the path being visited; index 0 is above the
  // top level.
  PropertySourceType types[ConfPathBase::MAX_LEVEL + 1] = {SOURCE_APP};
  PropertiesMapWithRegex* stanza = nullptr;
  trie.walk([&](const ConfPathBase& path, const ConfPathTrie::Node& node) {
    const size_t level = path.level();
    const PropertySourceType type =
        pathToSourceType(path, node, types[level - 1], _contextApplication);
    types[level] = type;
    if (level == ConfPathBase::LEVEL_STANZA) {
      const auto [it, created] = _stanzas.try_emplace(path.stanza());
      stanza = &it->second;
      if (node.hasMetadata()) stanza->mergePermissions(node.metadata().permissions());
      setExpandedName(*stanza, path);
      Property& embedded = stanza->getEmbeddedProperty();
      setProperty(embedded, embedded.sourceType() == SOURCE_UNSET, path, node, type);
    } else if (level == ConfPathBase::LEVEL_SETTING && node.hasValue() && stanza != nullptr) {
      Property* existing = stanza->getProperty(path.setting());
      if (existing == nullptr) {
        stanza->put(path.setting(), node.value());
        existing = stanza->getProperty(path.setting());
        setProperty(*existing, true, path, node, type);
      } else {
        setProperty(*existing, false, path, node, type);
      }
    }
    return level < ConfPathBase::LEVEL_SETTING;
  });
}

void BaseConfCacheBuilder::setExpandedName(PropertiesMap& stanza, const ConfPathBase& path) {
  Pathname root;
  if (path.isApplicationDefault()) {
    root = _setup.getSystem();
  } else if (!path.isUserDefault()) {
    root = _setup.getUsers() / path.user().name() / path.application();
  } else {
    root = _setup.getApps() / path.application();
  }
  const ExpandedStanzaName expanded(path.stanza(), root);
  if (!expanded.isExpanded()) return;
  const Str& existing = stanza.getExpandedName();
  if (existing.empty()) {
    stanza.setExpandedName(expanded.str());
  } else if (existing != expanded.str()) {
    gLogger.warn("Stanza has an expansion [%s], ignoring alternate expansion [%s] in %s.conf",
                 existing.c_str(), expanded.str().c_str(), _confName.c_str());
  }
}

void BaseConfCacheBuilder::setProperty(Property& target, bool isNew, const ConfPathBase& path,
                                       const ConfPathTrie::Node& node, PropertySourceType type) {
  if (!isNew && (!_overwrite || type < target.sourceType())) return;
  const ConfPathMetadata* metadata = node.hasMetadata() ? &node.metadata() : nullptr;
  target.setValue(node.hasValue() ? node.value() : Str::EMPTY_STR);
  target.setSourceType(type);
  target.setSourceApplication(path.application());
  target.setSourceModTime(node.valueModTime());
  target.setSourceUser(metadata != nullptr && !metadata->owner().empty() ? metadata->owner()
                                                                        : path.user());
  target.setPermissions(metadata != nullptr ? metadata->permissions()
                                            : ConfPathPermissionsReference());
  target.setSourceRemovable(metadata != nullptr ? metadata->isRemovable()
                                                : node.isValueRemovable());
}
