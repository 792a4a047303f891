// PropertiesMapMetadata: a whole stanza's provenance summed up as one owner,
// one application and one level of sharing, with the permissions of the
// stanza, as listings and access checks show them.
#pragma once

#include <cstdint>

#include "libbundle/ConfPathPermissions.h"
#include "util/Str.h"

class PropertiesMap;
class Property;

// A plain value: one owner at a time, const methods safe to share.
class PropertiesMapMetadata {
 public:
  // How widely a stanza is shared. Stored as a 32-bit value; not to be
  // renumbered.
  enum ShareLevel : int32_t { SHARE_USER = 0, SHARE_APP = 1, SHARE_GLOBAL = 2, SHARE_SYSTEM = 3 };
  // The words of the levels, compared case-sensitively: "user", "app",
  // "global", "system".
  static const Str SHARE_USER_WORD;
  static const Str SHARE_APP_WORD;
  static const Str SHARE_GLOBAL_WORD;
  static const Str SHARE_SYSTEM_WORD;

  // Not initialised: no permissions, not removable, empty owner and
  // application, SHARE_SYSTEM.
  PropertiesMapMetadata() = default;

  // Sums up `map`: removable from its embedded property; the permissions
  // are a copy of its merged permissions; owner and application those of
  // the property with the strictly greatest source type among the
  // embedded one and then every entry in key order (the first wins ties),
  // "system" and "system" while none beats 0. Entries from stanza "default"
  // are passed over when the embedded property is from another named
  // stanza. Sharing follows that type: SOURCE_UNSET and
  // SOURCE_SYSTEM_DEFAULT give SHARE_SYSTEM, the two global types
  // SHARE_GLOBAL, SOURCE_APP SHARE_APP, SOURCE_USER SHARE_USER. Overwrites
  // everything held before.
  void initFrom(const PropertiesMap& map);

  // Takes one of the four words exactly; anything else, "Global" included,
  // gives false and leaves sharing alone.
  bool setSharing(const Str& word);
  void setSharing(ShareLevel level) { _sharing = level; }
  // The word of the current level.
  const Str& getSharingAsStr() const;

  const ConfPathPermissions& permissions() const { return _permissions; }
  bool isRemovable() const { return _removable; }
  // True once initFrom has run.
  bool isInitialized() const { return _initialized; }
  const Str& owner() const { return _owner; }
  const Str& application() const { return _application; }
  ShareLevel sharing() const { return _sharing; }

 private:
  // Owner and application from `p`, the best property found so far.
  void initFromOneProperty(const Property& p);

  ConfPathPermissions _permissions;
  bool _removable = false;
  bool _initialized = false;
  Str _owner;
  Str _application;
  ShareLevel _sharing = SHARE_SYSTEM;
};
