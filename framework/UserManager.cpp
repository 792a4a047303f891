#include "framework/UserManager.h"

#include "framework/PasswordHash.h"
#include "framework/ScopedUserContext.h"
#include "libbundle/PropertiesMap.h"
#include "libbundle/PropertyPages.h"
#include "util/Logger.h"

namespace {

Logger gLogger("UserManager");

const std::string ROLE_PREFIX("role_");
const Str IMPORT_ROLES("importRoles");

// "a, b;c d" gives {a, b, c, d}.
void splitList(const Str& text, std::set<Str>& out) {
  Str word;
  for (char c : text) {
    if (c == ',' || c == ';' || c == ' ' || c == '\t') {
      if (!word.empty()) out.insert(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) out.insert(word);
}

// A stored form that never verifies, hashed for unknown users so that they
// cost as much as known ones.
const Str& decoyHash() {
  static const Str kDecoy = PasswordHash::hashWithSalt(Str("decoy"), Str("0123456789abcdef"),
                                                       PasswordHash::DEFAULT_ITERATIONS);
  return kDecoy;
}

}  // namespace

UserManager::UserManager(const BundlesSetup& setup) : _setup(setup) {}

UserManager& UserManager::instance() {
  static UserManager manager;
  return manager;
}

Str UserManager::hashPassword(const Str& password) { return PasswordHash::hash(password); }

PropertyPages* UserManager::page(const char* name) const {
  return PropertyPages::instance(Str(name), PropertyPagesContext(_setup, User(), Str()));
}

bool UserManager::findUser(const Str& name, PropertiesMap& out, Str* configured) const {
  if (name.empty()) return false;
  PropertyPages* users = page(USERS_CONF);
  if (users->getStanza(name, out)) {
    if (configured != nullptr) *configured = name;
    return true;
  }
  std::set<Str> names;
  users->keys(names);
  for (const Str& n : names) {
    if (n.compareIgnoreCase(name) == 0 && users->getStanza(n, out)) {
      if (configured != nullptr) *configured = n;
      return true;
    }
  }
  return false;
}

bool UserManager::userExists(const Str& name) const {
  PropertiesMap stanza;
  return findUser(name, stanza);
}

bool UserManager::getUserInfo(const Str& name, UserInfo& out) const {
  PropertiesMap stanza;
  Str configured;
  if (!findUser(name, stanza, &configured)) return false;
  out = UserInfo();
  out.name = configured;
  out.realName = stanza.get(Str("realname"));
  out.tz = stanza.get(Str("tz"));
  out.disabled = stanza.toBool(Str("disabled"), false);
  splitList(stanza.get(Str("roles")), out.roles);
  getCapabilities(out.roles, out.capabilities);
  return true;
}

bool UserManager::checkPassword(const Str& name, const Str& password) const {
  PropertiesMap stanza;
  if (!findUser(name, stanza)) {
    PasswordHash::verify(password, decoyHash());
    return false;
  }
  if (stanza.toBool(Str("disabled"), false)) return false;
  return PasswordHash::verify(password, stanza.get(Str("password")));
}

void UserManager::getCapabilities(const std::set<Str>& roles, std::set<Str>& out) const {
  PropertyPages* authorize = page(AUTHORIZE_CONF);
  std::set<Str> seen;
  std::vector<Str> pending(roles.begin(), roles.end());
  while (!pending.empty()) {
    Str role = pending.back();
    pending.pop_back();
    if (!seen.insert(role).second) continue;
    PropertiesMap stanza;
    if (!authorize->getStanza(ROLE_PREFIX + role, stanza)) continue;
    for (const auto& entry : stanza) {
      if (entry.first == IMPORT_ROLES) {
        std::set<Str> imported;
        splitList(entry.second.value(), imported);
        pending.insert(pending.end(), imported.begin(), imported.end());
      } else if (entry.second.value() == "enabled") {
        Str capability = entry.first;
        capability.toLowercase();
        out.insert(capability);
      }
    }
  }
}

bool UserManager::hasCapability(const Str& user, const Str& capability,
                                const Str& auditLabel) const {
  UserInfo info;
  Str wanted = capability;
  wanted.toLowercase();
  if (getUserInfo(user, info) && !info.disabled && info.capabilities.count(wanted) > 0) {
    return true;
  }
  gLogger.info("Capability '%s' refused to user '%s': %s", wanted.c_str(), user.c_str(),
               auditLabel.c_str());
  return false;
}

bool UserManager::addUser(const Str& name, const Str& password, const Str& roles) {
  PropertiesMap props;
  props.put(Str("password"), hashPassword(password));
  props.put(Str("roles"), roles);
  return page(USERS_CONF)->putLocal(name.c_str(), &props, true);
}

bool UserManager::getCurrentUser(User& out) const { return ScopedUserContext::getCurrentUser(out); }

bool UserManager::getRoles(const User& user, std::set<Str>& out) const {
  UserInfo info;
  if (!getUserInfo(user.name(), info)) return false;
  out = info.roles;
  return true;
}

bool UserManager::mayActForOthers(const User& user) const {
  UserInfo info;
  return getUserInfo(user.name(), info) && info.capabilities.count(ADMIN_ALL_OBJECTS) > 0;
}
