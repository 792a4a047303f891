#include "libbundle/UserChangeDetector.h"

UserChangeDetector& UserChangeDetector::instance() {
  static UserChangeDetector* detector = new UserChangeDetector;
  return *detector;
}

bool UserChangeDetector::hasChanged(const User& user, const RoleSet& roles) {
  ScopedLock lock(_mutex);
  const auto [it, inserted] = _roles.try_emplace(user.name(), roles);
  if (inserted || it->second == roles) return false;
  it->second = roles;
  return true;
}

UserChangeDetector::RoleSet UserChangeDetector::getRoles(const User& user) const {
  ScopedLock lock(_mutex);
  const auto it = _roles.find(user.name());
  return it != _roles.end() ? it->second : RoleSet();
}
