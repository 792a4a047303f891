#include "libbundle/ContextProperties.h"

bool ContextProperties::operator==(const ContextProperties& other) const {
  return _name == other._name && _user.isSameUser(other._user) &&
         _application == other._application && _map == other._map;
}

Str ContextProperties::toDebugString() const {
  return Str().format("(user: %s, application: %s, name: %s)", _user.name().c_str(),
                      _application.c_str(), _name.c_str());
}

Str ContextPropertiesVector::getNamesString() const {
  Str out;
  for (const ContextProperties& cp : *this) {
    if (!out.empty()) out += ", ";
    out += cp.toDebugString();
  }
  return out;
}
