#include "libbundle/ConfPathPermissions.h"

namespace {

const char* const kActionWords[ConfPathPermissions::ACTION_COUNT] = {"read", "write"};

}  // namespace

bool ConfPathPermissions::empty() const {
  for (const RoleSet& roles : _roles) {
    if (!roles.empty()) return false;
  }
  return true;
}

bool ConfPathPermissions::operator==(const ConfPathPermissions& other) const {
  for (int a = 0; a < ACTION_COUNT; ++a) {
    if (_roles[a] != other._roles[a]) return false;
  }
  return true;
}

Str ConfPathPermissions::toString() const {
  Str out;
  for (int a = 0; a < ACTION_COUNT; ++a) {
    if (a > 0) out += ", ";
    out += kActionWords[a];
    out += " : [ ";
    bool first = true;
    for (const Str& role : _roles[a]) {
      if (!first) out += ", ";
      out += role;
      first = false;
    }
    out += first ? "]" : " ]";
  }
  return out;
}

const ConfPathPermissions& ConfPathPermissionsReference::get() const {
  static const ConfPathPermissions* const kNone = new ConfPathPermissions;
  return _shared != nullptr ? *_shared : *kNone;
}
