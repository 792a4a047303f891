// ContextProperties: one stanza labelled with the user and application it
// was read for, as listings across contexts return it; and
// ContextPropertiesVector, a sequence of them.
#pragma once

#include <vector>

#include "libbundle/PropertiesMap.h"
#include "libbundle/User.h"
#include "util/Str.h"

// A plain value: one owner at a time, const methods safe to share.
class ContextProperties {
 public:
  ContextProperties() = default;
  ContextProperties(const Str& name, const User& user, const Str& application,
                    const PropertiesMap& map)
      : _name(name), _user(user), _application(application), _map(map) {}

  // The stanza's name.
  const Str& name() const { return _name; }
  const User& user() const { return _user; }
  const Str& application() const { return _application; }
  const PropertiesMap& map() const { return _map; }
  PropertiesMap& map() { return _map; }

  // Same name, the same user without regard to case, the same application
  // and equal maps (PropertiesMap::operator==, which logs at debug level).
  bool operator==(const ContextProperties& other) const;
  bool operator!=(const ContextProperties& other) const { return !(*this == other); }
  // "(user: <user>, application: <application>, name: <name>)".
  Str toDebugString() const;

 private:
  Str _name;
  User _user;
  Str _application;
  PropertiesMap _map;
};

// As std::vector, one owner at a time.
class ContextPropertiesVector : public std::vector<ContextProperties> {
 public:
  using std::vector<ContextProperties>::vector;
  // The debug strings of the elements in order, joined with ", "; "" when
  // empty.
  Str getNamesString() const;
};
