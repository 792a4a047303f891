#include "libbundle/BundlesIterator.h"

#include <map>
#include <set>

#include "libbundle/ApplicationManager.h"
#include "util/Logger.h"
#include "util/Mutex.h"

namespace {

Logger gLogger("BundlesIterator");

struct Registered {
  std::set<Pathname> seen;
  std::vector<Pathname> order;
};

Mutex gIteratorMutex;
std::map<BundlesSetup, Registered>& registry() {
  static auto* const r = new std::map<BundlesSetup, Registered>;
  return *r;
}

// The application `path` lies in under getApps(), or "".
Str appOf(const BundlesSetup& setup, const Pathname& path) {
  const Pathname apps = setup.getApps();
  if (!path.startswith(StrSegment(apps)) || path.size() <= apps.size() + 1 || path[apps.size()] != '/') {
    return Str();
  }
  const size_t from = apps.size() + 1;
  const size_t slash = path.find('/', from);
  return path.substr(from, slash == Str::npos ? Str::npos : slash - from);
}

}  // namespace

void BundlesIterator::registerIteratorPath(const BundlesSetup& setup, const Pathname& path) {
  ScopedLock lock(gIteratorMutex);
  Registered& r = registry()[setup];
  if (!r.seen.insert(path).second) return;
  r.order.push_back(path);
  gLogger.debug("Registered iterator path: %s", path.c_str());
}

void BundlesIterator::clearIteratorPaths(const BundlesSetup& setup) {
  ScopedLock lock(gIteratorMutex);
  registry().erase(setup);
}

BundlesIterator::BundlesIterator(const BundlesSetup& setup) {
  std::vector<Pathname> all;
  {
    ScopedLock lock(gIteratorMutex);
    auto it = registry().find(setup);
    if (it != registry().end()) all = it->second.order;
  }
  const ApplicationManager& apps = ApplicationManager::instance(setup);
  for (const Pathname& path : all) {
    const Str app = appOf(setup, path);
    if (!app.empty() && apps.isDisabled(app)) {
      gLogger.debug("Skipping path into disabled app: %s", path.c_str());
      continue;
    }
    _paths.push_back(path);
  }
}

bool BundlesIterator::getNext(Pathname& out) {
  if (_at >= _paths.size()) return false;
  out = _paths[_at++];
  return true;
}

BundleFilesBySuffixIterator::BundleFilesBySuffixIterator(const BundlesSetup& setup,
                                                         const Pathname& suffix)
    : BundlesIterator(setup), _suffix(suffix) {}

bool BundleFilesBySuffixIterator::getNext(Pathname& out) {
  Pathname bundle;
  while (BundlesIterator::getNext(bundle)) {
    const Pathname file = bundle / _suffix;
    if (file.exists()) {
      out = file;
      return true;
    }
  }
  return false;
}
