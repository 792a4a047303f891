// Property: one configured value together with where it came from: the
// layer's type, user, application and stanza, whether that layer lets it be
// deleted, when it was changed, and who may read or write it.
#pragma once

#include "libbundle/ConfPathPermissions.h"
#include "libbundle/PropertySourceType.h"
#include "libbundle/User.h"
#include "util/Str.h"
#include "util/Timeval.h"

// A plain value: one owner at a time, const methods safe to share. Copies
// share the permissions object, never change it.
class Property {
 public:
  // The application of a value that no layer has claimed yet: "system".
  static const Str DEFAULT_APPLICATION;
  // The setting that turns a stanza off: "disabled".
  static const Str DISABLED_KEY;

  // As init() leaves it.
  Property() { init(); }
  // Back to a value that no layer has set: empty value, SOURCE_UNSET, user
  // "nobody", application "system", empty stanza, not removable,
  // modification time zero, no permissions.
  void init();

  const Str& value() const { return _value; }
  PropertySourceType sourceType() const { return _sourceType; }
  const User& sourceUser() const { return _sourceUser; }
  const Str& sourceApplication() const { return _sourceApplication; }
  // The stanza the value was read from; empty until a layer sets it.
  const Str& sourceStanza() const { return _sourceStanza; }
  // Whether the layer that supplied the value lets it be deleted.
  bool isSourceRemovable() const { return _sourceRemovable; }
  const Timeval& sourceModTime() const { return _sourceModTime; }
  const ConfPathPermissionsReference& permissions() const { return _permissions; }

  void setValue(const Str& value) { _value = value; }
  void setSourceType(PropertySourceType type) { _sourceType = type; }
  void setSourceUser(const User& user) { _sourceUser = user; }
  void setSourceApplication(const Str& application) { _sourceApplication = application; }
  void setSourceStanza(const Str& stanza) { _sourceStanza = stanza; }
  void setSourceRemovable(bool removable) { _sourceRemovable = removable; }
  void setSourceModTime(const Timeval& t) { _sourceModTime = t; }
  void setPermissions(const ConfPathPermissionsReference& p) { _permissions = p; }

  // Who to name as the value's source: the user's name for SOURCE_USER,
  // the application for every other type.
  const Str& getPropertySourceName() const;
  // Whether the value was read from the stanza "default", exactly (case
  // counts: "Default" is an ordinary stanza).
  bool isPropertySourceStanzaDefault() const;

 private:
  Str _value;
  PropertySourceType _sourceType;
  User _sourceUser;
  Str _sourceApplication;
  Str _sourceStanza;
  bool _sourceRemovable;
  Timeval _sourceModTime;
  ConfPathPermissionsReference _permissions;
};
