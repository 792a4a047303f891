#include "libbundle/PropertyPages.h"

#include <map>
#include <tuple>

#include "libbundle/ApplicationManager.h"
#include "libbundle/ConfCaches.h"
#include "libbundle/ConfPath.h"
#include "libbundle/ConfPathMapperManager.h"
#include "libbundle/FillLayers.h"
#include "libbundle/UserChangeDetector.h"
#include "libbundle/UserInfoProvider.h"
#include "util/Assert.h"
#include "util/Logger.h"

namespace {

Logger gLogger("PropertyPages");

// The key of a page within its root: (name, (context, acting user)),
// ordered by name bytewise, then context, then acting user caseless.
struct PageKey {
  Str name;
  PropertyPagesContext context;
  User actingUser;

  bool operator<(const PageKey& other) const {
    if (name != other.name) return name < other.name;
    if (context < other.context) return true;
    if (other.context < context) return false;
    return actingUser.compareIgnoreCase(other.actingUser) < 0;
  }
};

typedef std::map<PageKey, std::unique_ptr<PropertyPages>> PageMap;

// The instances mutex and the pages of every root it guards. Never freed:
// pages live for the process.
Mutex& gInstancesMutex() {
  static Mutex* mutex = new Mutex;
  return *mutex;
}
std::map<BundlesSetup, PageMap>& gInstances() {
  static auto* instances = new std::map<BundlesSetup, PageMap>;
  return *instances;
}

// Runs `fn` on every page that `select` accepts, under the instances mutex.
template <class Select, class Fn>
void forEachPage(Select select, Fn fn) {
  ScopedLock lock(gInstancesMutex());
  for (auto& [setup, pages] : gInstances()) {
    for (auto& [key, page] : pages) {
      if (select(setup, *page)) fn(*page);
    }
  }
}

std::unique_ptr<PropertyPages> makePage(const Str& name, const PropertyPagesContext& context,
                                        const User& actingUser) {
  if (!context.hasUserContext() && !context.hasApplicationContext()) {
    return std::make_unique<LegacyPropertyPages>(name, context, actingUser);
  }
  return std::make_unique<UserPropertyPages>(name, context, actingUser);
}

}  // namespace

// ---- Getting a page ----

void PropertyPages::getUserToActAs(const PropertyPagesContext& context, User& out) {
  out = User::EMPTY_USER;
  if (!context.hasUserContext()) return;
  const IUserInfoProvider* provider = UserInfoProviderRegistry::getProvider();
  if (provider == nullptr) {
    throw PropertyPagesException("Cannot get user to act as: No user info provider registered " +
                                 context.toString());
  }
  out = context.user();
  User current;
  if (!provider->getCurrentUser(current)) return;
  if (out.isSameUser(current)) return;
  const bool mayActForOthers = provider->mayActForOthers(current);
  if (out.isSameUser(ConfPath::getDefaultUser())) {
    if (!mayActForOthers) out = current;
    return;
  }
  if (!mayActForOthers) {
    throw PropertyPagesImpersonationException("User '" + current.name() +
                                              "' could not act as: " + context.user().name());
  }
}

void PropertyPages::canContextBeUsed(const PropertyPagesContext& context) {
  User ignored;
  getUserToActAs(context, ignored);
}

PropertyPages* PropertyPages::instance(const Str& name) {
  return instance(name, PropertyPagesContext());
}

PropertyPages* PropertyPages::instance(const Str& name, const PropertyPagesContext& context) {
  User actingUser;
  getUserToActAs(context, actingUser);
  PropertyPages* page;
  {
    ScopedLock lock(gInstancesMutex());
    PageMap& pages = gInstances()[context.bundlesSetup()];
    PageKey key{name, context, actingUser};
    auto it = pages.find(key);
    if (it == pages.end()) {
      it = pages.emplace(std::move(key), makePage(name, context, actingUser)).first;
    }
    page = it->second.get();
  }
  if (page->roleChangeOccured()) updateRoleMappings(actingUser);
  return page;
}

PropertyPages* PropertyPages::propsInstance() { return instance("props"); }
PropertyPages* PropertyPages::propsInstance(const PropertyPagesContext& context) {
  return instance("props", context);
}
PropertyPages* PropertyPages::regexInstance() { return instance("transforms"); }
PropertyPages* PropertyPages::regexInstance(const PropertyPagesContext& context) {
  return instance("transforms", context);
}
PropertyPages* PropertyPages::inputInstance() { return instance("inputs"); }

PropertyPages::PropertyPages(const Str& name, const PropertyPagesContext& context,
                             const User& actingUser)
    : _name(name), _context(context), _actingUser(actingUser) {
  if (_name != "app" && _context.hasApplicationContext()) {
    ApplicationInfo info;
    if (!ApplicationManager::instance(_context.bundlesSetup())
             .getApplicationInfo(_context.application(), info) ||
        info.disabled) {
      throw PropertyPagesContextException("Application is disabled: " + _context.application());
    }
  }
  if (_context.hasUserContext() && !_context.hasApplicationContext()) {
    Str message = toDebugString();
    message += ": Invalid configuration context: Missing app context";
    throw PropertyPagesContextException(message);
  }
}

PropertyPages::~PropertyPages() = default;

void PropertyPages::setCache(std::unique_ptr<IConfCache> cache) {
  kassert(_cache == nullptr);
  _cache = std::move(cache);
}

Str PropertyPages::toDebugString() const {
  return "PropertyPages(" + _name + ", " + _context.toString() + ")";
}

LegacyPropertyPages::LegacyPropertyPages(const Str& name, const PropertyPagesContext& context,
                                         const User& actingUser)
    : PropertyPages(name, context, actingUser) {
  setCache(std::make_unique<LegacyConfCache>(name, context.bundlesSetup()));
}

UserPropertyPages::UserPropertyPages(const Str& name, const PropertyPagesContext& context,
                                     const User& actingUser)
    : PropertyPages(name, context, actingUser) {
  setCache(std::make_unique<UserConfCache>(name, context.bundlesSetup(), context.user(),
                                           context.application(), actingUser));
}

bool UserPropertyPages::roleChangeOccured() {
  if (actingUser().empty() || actingUser().isSameUser(ConfPath::getDefaultUser())) return false;
  const IUserInfoProvider* provider = UserInfoProviderRegistry::getProvider();
  if (provider == nullptr) return false;
  std::set<Str> roles;
  provider->getRoles(actingUser(), roles);
  return UserChangeDetector::instance().hasChanged(actingUser(), roles);
}

// ---- Reading ----

void PropertyPages::fillLayers(PropertiesMap* out, const StrSegment& context, bool patternMatch) {
  fillLayersImpl(*_cache, out, context, patternMatch);
}

bool PropertyPages::getStanza(const Str& name, PropertiesMap& out) {
  ScopedIConfCacheLock lock(*_cache);
  const auto it = _cache->findConf(name);
  if (it == nullptr) return false;
  it->addLayerTo(out, true);
  return true;
}

bool PropertyPages::propsExist(const char* name) {
  ScopedIConfCacheLock lock(*_cache);
  return _cache->findConf(name) != nullptr;
}

bool PropertyPages::getEnabledProps(const Str& name, PropertiesMap& out) {
  return getStanza(name, out) && !out.isDisabled();
}

void PropertyPages::keys(std::set<Str>& out) {
  ScopedIConfCacheLock lock(*_cache);
  for (auto it = _cache->begin(); !it->isDone(); it->next()) out.insert(it->getConfName());
}

// ---- Recomputing ----

void PropertyPages::recomputeAll(const BundlesSetup& setup) {
  forEachPage([&setup](const BundlesSetup& s, PropertyPages&) { return s == setup; },
              [](PropertyPages& page) { page.cache().markDirty(); });
}

void PropertyPages::recomputeAllFromDisk(const BundlesSetup& setup) {
  for (auto mappers = ConfPathMapperManager::instance().getMappers(setup); !mappers.isDone();
       mappers.next()) {
    mappers.data()->cpmReload(Str::EMPTY_STR);
  }
  ConfPathMapperManager::instance().setupNewMappers(setup);
  recomputeAll(setup);
}

void PropertyPages::confChanged(const BundlesSetup& setup, IConfPathMapper*) {
  recomputeAll(setup);
}

void PropertyPages::updateRoleMappings(const User& user) {
  forEachPage([&user](const BundlesSetup&,
                      PropertyPages& page) { return page.actingUser().isSameUser(user); },
              [](PropertyPages& page) { page.cache().markDirty(); });
}

void PropertyPages::updateCache() {
  const BundlesSetup& setup = _context.bundlesSetup();
  const Str& name = _name;
  forEachPage([&](const BundlesSetup& s,
                  PropertyPages& page) { return s == setup && page.name() == name; },
              [](PropertyPages& page) { page.cache().markDirty(); });
}

void PropertyPages::updateConfigs() {
  const BundlesSetup& setup = _context.bundlesSetup();
  for (auto mappers = ConfPathMapperManager::instance().getMappers(setup); !mappers.isDone();
       mappers.next()) {
    mappers.data()->cpmReload(_name);
  }
  ConfPathMapperManager::instance().setupNewMappers(setup);
  updateCache();
}
