#include "libbundle/PropertiesMapMetadata.h"

#include "libbundle/PropertiesMap.h"
#include "libbundle/Property.h"

const Str PropertiesMapMetadata::SHARE_USER_WORD("user");
const Str PropertiesMapMetadata::SHARE_APP_WORD("app");
const Str PropertiesMapMetadata::SHARE_GLOBAL_WORD("global");
const Str PropertiesMapMetadata::SHARE_SYSTEM_WORD("system");

namespace {

PropertiesMapMetadata::ShareLevel sharingOf(PropertySourceType type) {
  switch (type) {
    case SOURCE_USER:
      return PropertiesMapMetadata::SHARE_USER;
    case SOURCE_APP:
      return PropertiesMapMetadata::SHARE_APP;
    case SOURCE_GLOBAL_SAME_APP:
    case SOURCE_GLOBAL_OTHER_APP:
      return PropertiesMapMetadata::SHARE_GLOBAL;
    default:
      return PropertiesMapMetadata::SHARE_SYSTEM;
  }
}

}  // namespace

void PropertiesMapMetadata::initFromOneProperty(const Property& p) {
  _owner = p.sourceUser().name();
  _application = p.sourceApplication();
}

void PropertiesMapMetadata::initFrom(const PropertiesMap& map) {
  _initialized = true;
  _removable = map.getEmbeddedProperty().isSourceRemovable();
  _owner = "system";
  _owner.toLowercase();
  _application = "system";
  _sharing = SHARE_SYSTEM;
  _permissions = map.getMergedPermissions().get();

  const bool skipDefault = map.isEmbeddedPropertyFromNonDefault();
  PropertySourceType best = SOURCE_UNSET;
  auto offer = [&](const Property& p) {
    if (p.sourceType() > best) {
      best = p.sourceType();
      initFromOneProperty(p);
    }
  };
  offer(map.getEmbeddedProperty());
  for (const auto& entry : map) {
    if (skipDefault && entry.second.isPropertySourceStanzaDefault()) continue;
    offer(entry.second);
  }
  _sharing = sharingOf(best);
}

bool PropertiesMapMetadata::setSharing(const Str& word) {
  static const struct {
    const Str* word;
    ShareLevel level;
  } kWords[] = {{&SHARE_USER_WORD, SHARE_USER},
                {&SHARE_APP_WORD, SHARE_APP},
                {&SHARE_GLOBAL_WORD, SHARE_GLOBAL},
                {&SHARE_SYSTEM_WORD, SHARE_SYSTEM}};
  for (const auto& w : kWords) {
    if (word == *w.word) {
      _sharing = w.level;
      return true;
    }
  }
  return false;
}

const Str& PropertiesMapMetadata::getSharingAsStr() const {
  switch (_sharing) {
    case SHARE_USER:
      return SHARE_USER_WORD;
    case SHARE_APP:
      return SHARE_APP_WORD;
    case SHARE_GLOBAL:
      return SHARE_GLOBAL_WORD;
    default:
      return SHARE_SYSTEM_WORD;
  }
}
