#include "libbundle/BundlesSetup.h"

#include <atomic>

#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/ConfSettings.h"
#include "loaderinfo/LoaderInfo.h"
#include "util/EnvironmentSubstitution.h"
#include "util/Logger.h"

namespace {

Logger gLogger("BundlesSetup");

// 0: not run, 1: running, 2: succeeded, 3: failed. A setup that asks for
// the default root while the default setup runs sees it as valid.
std::atomic<int> gDefaultState{0};

}  // namespace

const Pathname BundlesSetup::BUNDLES_PATH_DEFAULT("default");
const Pathname BundlesSetup::BUNDLES_PATH_LOCAL("local");
const Pathname BundlesSetup::SYSTEM_DIR("system");
const Pathname BundlesSetup::APPS_DIR("apps");
const Pathname BundlesSetup::USERS_DIR("users");
const Pathname BundlesSetup::LEGACY_DIR("bundles");
const Pathname BundlesSetup::BOOTSTRAP_CONF("conf.conf");
const Pathname BundlesSetup::SENTINEL_FILE("sentinel.txt");
const Pathname BundlesSetup::POOLING_DIR("pooling");
const Pathname BundlesSetup::POOLING_INI("pooling.ini");
const Str BundlesSetup::LOOKUP_STAGING_NAME("lookup_tmp");

BundlesSetup::BundlesSetup() = default;

BundlesSetup::BundlesSetup(const Pathname& root) {
  Str expanded;
  substituteEnvironmentVariables(root, expanded);
  Pathname cleaned(expanded);
  cleaned.removeDoubleSeps();
  if (cleaned.size() > 1) cleaned.removeTrailingSeps();
  if (cleaned.empty() || cleaned == commonConfigPath()) {
    _valid = defaultInit();
  } else {
    _root = cleaned;
  }
}

Pathname BundlesSetup::commonConfigPath() {
  const LoaderInfo& info = LoaderInfo::getInstance();
  const Pathname& common = info.getCommonConfigPath();
  if (common.isAbsolute()) return common;
  return info.getKestroHome() / common;
}

bool BundlesSetup::valid() const {
  if (!isDefaultRoot()) return _valid && ConfPathMapperManager::instance().isSetupValid(*this);
  // Asking is what sets the default root up: a setup that never ran has
  // not succeeded.
  return defaultInit();
}

bool BundlesSetup::defaultInit() {
  int expected = 0;
  if (gDefaultState.compare_exchange_strong(expected, 1)) {
    BundlesSetup dflt;
    const bool ok = dflt.runSetup();
    gDefaultState.store(ok ? 2 : 3);
    if (!ok) gLogger.error("Setup of the default configuration root failed: %s", dflt.getRoot().c_str());
    return ok;
  }
  return expected != 3;
}

bool BundlesSetup::runSetup() const { return ConfPathMapperManager::instance().setupMappers(*this); }

Pathname BundlesSetup::getRoot() const { return isDefaultRoot() ? commonConfigPath() : _root; }

Pathname BundlesSetup::getUnexpandedRoot() const {
  const Pathname root = getRoot();
  const Pathname& home = LoaderInfo::getInstance().getKestroHome();
  if (!home.empty() && root.startswith(StrSegment(home)) &&
      (root.size() == home.size() || root[home.size()] == Pathname::SEP)) {
    return Pathname("$KESTRO_HOME") + root.substr(home.size());
  }
  return root;
}

Pathname BundlesSetup::getSystem() const { return getRoot() / SYSTEM_DIR; }
Pathname BundlesSetup::getSystemDefault() const { return getSystem() / BUNDLES_PATH_DEFAULT; }
Pathname BundlesSetup::getSystemLocal() const { return getSystem() / BUNDLES_PATH_LOCAL; }
Pathname BundlesSetup::getBootstrapConf() const { return getSystemDefault() / BOOTSTRAP_CONF; }

Pathname BundlesSetup::getFallbackBootstrapConf() {
  return commonConfigPath() / SYSTEM_DIR / BUNDLES_PATH_DEFAULT / BOOTSTRAP_CONF;
}

Pathname BundlesSetup::getLegacy() const { return getRoot() / LEGACY_DIR; }
Pathname BundlesSetup::getLegacyDefault() const { return getLegacy() / BUNDLES_PATH_DEFAULT; }

namespace {

// The install's configuration path relative to KESTRO_HOME: "etc".
Pathname relativeConfigPath() {
  const LoaderInfo& info = LoaderInfo::getInstance();
  const Pathname& common = info.getCommonConfigPath();
  if (!common.isAbsolute()) return common;
  const Pathname& home = info.getKestroHome();
  if (!home.empty() && common.startswith(StrSegment(home)) && common.size() > home.size() &&
      common[home.size()] == Pathname::SEP) {
    return common.substr(home.size() + 1);
  }
  return common.toLeaf();
}

}  // namespace

Pathname BundlesSetup::getPooledStorageOrRoot() const {
  const auto settings = ConfSettings::forSetup(*this);
  if (!settings->isPoolingEnabled()) return getRoot();
  return settings->getPoolingStorage() / relativeConfigPath();
}

Pathname BundlesSetup::getApps() const { return getPooledStorageOrRoot() / APPS_DIR; }
Pathname BundlesSetup::getUsers() const { return getPooledStorageOrRoot() / USERS_DIR; }
Pathname BundlesSetup::getSentinel() const { return getApps() / SENTINEL_FILE; }

Pathname BundlesSetup::getPoolingInfo() const {
  const auto settings = ConfSettings::forSetup(*this);
  if (!settings->isPoolingEnabled()) {
    throw ConfPathException(Str().format("No pooling configured for: %s", toString().c_str()));
  }
  return settings->getPoolingStorage() / relativeConfigPath() / POOLING_DIR / POOLING_INI;
}

Pathname BundlesSetup::getLookupStagingArea() const {
  return ConfSettings::forSetup(*this)->getPooledStorageSubdir(LOOKUP_STAGING_NAME);
}

Str BundlesSetup::toString() const { return isDefaultRoot() ? Str("default") : Str(_root); }
