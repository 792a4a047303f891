#include "libbundle/ApplicationManager.h"

#include <map>
#include <memory>

#include "libbundle/ConfPath.h"
#include "libbundle/IniFile.h"
#include "util/Mutex.h"

namespace {

Mutex gMutex;

// The trimmed "state" of "[install]" in `file`; empty when it says none.
Str installState(const Pathname& file) {
  if (!file.exists()) return Str();
  IniFile ini(file);
  const IniStanza* stanza = ini.findStanza(ApplicationManager::INSTALL_STANZA);
  if (stanza == nullptr) return Str();
  for (auto it = stanza->settings().begin(); it != stanza->settings().end(); ++it) {
    if (it.key().trim() == ApplicationManager::STATE_KEY) return it.value().value().trim();
  }
  return Str();
}

}  // namespace

ApplicationManager& ApplicationManager::instance(const BundlesSetup& setup) {
  static auto* const managers = new std::map<BundlesSetup, std::unique_ptr<ApplicationManager>>;
  ScopedLock lock(gMutex);
  std::unique_ptr<ApplicationManager>& slot = (*managers)[setup];
  if (slot == nullptr) slot.reset(new ApplicationManager(setup));
  return *slot;
}

bool ApplicationManager::getApplicationInfo(const Str& name, ApplicationInfo& out) const {
  if (name == ConfPath::getDefaultApplication()) {
    out = ApplicationInfo{name, _setup.getSystem(), false};
    return true;
  }
  if (name.empty() || name.find('/') != Str::npos || name == "." || name == "..") return false;
  const Pathname dir = _setup.getApps() / name;
  PathnameStat st;
  if (!dir.stat(&st) || !st.isDir()) return false;
  Str state = installState(dir / BundlesSetup::BUNDLES_PATH_LOCAL / APP_CONF);
  if (state.empty()) state = installState(dir / BundlesSetup::BUNDLES_PATH_DEFAULT / APP_CONF);
  out = ApplicationInfo{name, dir, state == STATE_DISABLED};
  return true;
}

bool ApplicationManager::isDisabled(const Str& name) const {
  ApplicationInfo info;
  return getApplicationInfo(name, info) && info.disabled;
}
