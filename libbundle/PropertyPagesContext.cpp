#include "libbundle/PropertyPagesContext.h"

bool PropertyPagesContext::operator<(const PropertyPagesContext& other) const {
  if (_bundlesSetup != other._bundlesSetup) return _bundlesSetup < other._bundlesSetup;
  if (_application != other._application) return _application < other._application;
  return _user.compareIgnoreCase(other._user) < 0;
}

Str PropertyPagesContext::toString() const {
  return Str().format("[setup=%s, user=%s, app=%s]", _bundlesSetup.toString().c_str(),
                      _user.name().c_str(), _application.c_str());
}
