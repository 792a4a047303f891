#include "libbundle/Property.h"

#include "libbundle/IniFile.h"

const Str Property::DEFAULT_APPLICATION("system");
const Str Property::DISABLED_KEY("disabled");

void Property::init() {
  _value.clear();
  _sourceType = SOURCE_UNSET;
  _sourceUser = User::NOBODY_USER;
  _sourceApplication = DEFAULT_APPLICATION;
  _sourceStanza.clear();
  _sourceRemovable = false;
  _sourceModTime = Timeval();
  _permissions = ConfPathPermissionsReference();
}

const Str& Property::getPropertySourceName() const {
  return _sourceType == SOURCE_USER ? _sourceUser.name() : _sourceApplication;
}

bool Property::isPropertySourceStanzaDefault() const { return _sourceStanza == IniFile::DEFAULT_STANZA; }
