#include "libbundle/GlobalConfSettings.h"

#include <random>

#include "libbundle/ConfPath.h"
#include "util/Mutex.h"

namespace {

struct Settings {
  Str userRestriction = "*";
  bool hasAppWhitelist = false;
  std::set<Str> apps;
  bool hasUserWhitelist = false;
  std::set<Str> users;  // folded to lower case
  bool useAll = true;
  Str guid;
};

Mutex gMutex;
Settings& settings() {
  static auto* const s = new Settings;
  return *s;
}

Str lower(const Str& s) {
  Str out(s);
  out.toLowercase();
  return out;
}

Str makeGuid() {
  std::random_device device;
  std::mt19937_64 gen((static_cast<unsigned long long>(device()) << 32) ^ device());
  const char* hex = "0123456789abcdef";
  Str out;
  const char* shape = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
  for (const char* p = shape; *p != '\0'; ++p) {
    const unsigned r = static_cast<unsigned>(gen() & 15);
    if (*p == 'x') out.push_back(hex[r]);
    else if (*p == 'y') out.push_back(hex[8 | (r & 3)]);
    else out.push_back(*p);
  }
  return out;
}

}  // namespace

Str GlobalConfSettings::getUserRestrictionPattern() {
  ScopedLock lock(gMutex);
  return settings().userRestriction;
}

void GlobalConfSettings::setUserRestrictionPattern(const Str& pattern) {
  ScopedLock lock(gMutex);
  settings().userRestriction = pattern;
}

bool GlobalConfSettings::isAppWhitelisted(const Str& application) {
  if (application.empty() || application == ConfPath::getDefaultApplication()) return true;
  ScopedLock lock(gMutex);
  return !settings().hasAppWhitelist || settings().apps.count(application) != 0;
}

bool GlobalConfSettings::isUserWhitelisted(const Str& user) {
  if (user.empty() || User(user).isSameUser(ConfPath::getDefaultUser())) return true;
  ScopedLock lock(gMutex);
  return !settings().hasUserWhitelist || settings().users.count(lower(user)) != 0;
}

void GlobalConfSettings::setAppWhitelist(const std::set<Str>& applications) {
  ScopedLock lock(gMutex);
  settings().hasAppWhitelist = true;
  settings().apps = applications;
}

void GlobalConfSettings::setUserWhitelist(const std::set<Str>& users) {
  ScopedLock lock(gMutex);
  settings().hasUserWhitelist = true;
  settings().users.clear();
  for (const Str& u : users) settings().users.insert(lower(u));
}

void GlobalConfSettings::clearWhitelists() {
  ScopedLock lock(gMutex);
  settings().hasAppWhitelist = false;
  settings().apps.clear();
  settings().hasUserWhitelist = false;
  settings().users.clear();
}

bool GlobalConfSettings::useAllConfData() {
  ScopedLock lock(gMutex);
  return settings().useAll;
}

void GlobalConfSettings::setUseAllConfData(bool all) {
  ScopedLock lock(gMutex);
  settings().useAll = all;
}

Str GlobalConfSettings::getConfSystemGuid() {
  ScopedLock lock(gMutex);
  if (settings().guid.empty()) settings().guid = makeGuid();
  return settings().guid;
}

void GlobalConfSettings::setConfSystemGuid(const Str& guid) {
  ScopedLock lock(gMutex);
  settings().guid = guid;
}
