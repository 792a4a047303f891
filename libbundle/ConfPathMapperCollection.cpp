#include "libbundle/ConfPathMapperCollection.h"

#include <algorithm>

#include "libbundle/BundlesIterator.h"
#include "libbundle/ConfObjectManager.h"
#include "libbundle/ConfPathMapper.h"
#include "libbundle/ConfSettings.h"
#include "libbundle/FileConfPathMappers.h"
#include "libbundle/GlobalConfSettings.h"
#include "util/Glob.h"
#include "util/Logger.h"
#include "util/PathnameVector.h"

namespace {

Logger gLogger("ConfPathMapperCollection");

const Str BOOTSTRAP_STANZA("bootstrap");
const Str WRITES_STANZA("writes");

// The bundle directory directly under `dir` that `path` lies in, or "".
Pathname firstElementUnder(const Pathname& path, const Pathname& dir) {
  if (!path.startswith(StrSegment(dir)) || path.size() <= dir.size() + 1 || path[dir.size()] != Pathname::SEP) {
    return Pathname();
  }
  PathnameVector rest;
  Pathname(path.substr(dir.size())).splitOnSepInto(rest);
  return rest.empty() ? Pathname() : rest[0];
}

// Whether the leaf, or any element between the root (or the pooled
// storage) and the leaf, begins with ".": "apps/.old/default" is as hidden
// as "apps/.old" itself.
bool hasDotElement(const Pathname& path, const BundlesSetup& setup) {
  if (path.toLeaf().startswith('.')) return true;
  Pathname base;
  for (const Pathname& candidate : {setup.getPooledStorageOrRoot(), setup.getRoot()}) {
    if (candidate.size() > base.size() && path.startswith(StrSegment(candidate)) &&
        path.size() > candidate.size() && path[candidate.size()] == Pathname::SEP) {
      base = candidate;
    }
  }
  if (base.empty()) return false;
  PathnameVector rest;
  Pathname(path.substr(base.size())).splitOnSepInto(rest);
  for (const Pathname& element : rest) {
    if (element.startswith('.')) return true;
  }
  return false;
}

}  // namespace

ConfPathMapperCollection::ConfPathMapperCollection(const BundlesSetup& setup) : _setup(setup) {}

ConfPathMapperCollection::~ConfPathMapperCollection() = default;

bool ConfPathMapperCollection::runBaseSetup() {
  _ini = ConfSettings::forSetup(_setup)->bootstrapIni();
  if (!_ini.isOpened()) {
    gLogger.error("Could not read bootstrap configuration: %s", _setup.getBootstrapConf().c_str());
    return false;
  }
  const IniStanza* bootstrap = _ini.findStanza(BOOTSTRAP_STANZA);
  if (bootstrap == nullptr) {
    gLogger.error("Could not find '%s' stanza in bootstrapping conf: %s", BOOTSTRAP_STANZA.c_str(),
                  _ini.path().c_str());
    return false;
  }
  ReaddirCache readdir;
  for (auto it = bootstrap->settings().begin(); it != bootstrap->settings().end(); ++it) {
    Pathname pattern;
    if (!realizePath(it.key().trim(), ConfPathBase(), pattern)) {
      gLogger.warn("Unknown variable in bootstrap pattern: %s", it.key().c_str());
    }
    globPattern(pattern, it.value().value().trim(), readdir);
  }
  return true;
}

bool ConfPathMapperCollection::redoSetup() {
  ReaddirCache readdir;
  for (auto it = _patterns.begin(); it != _patterns.end(); ++it) {
    globPattern(it.key(), it.value().handler, readdir);
  }
  return true;
}

bool ConfPathMapperCollection::globPattern(const Pathname& pattern, const Str& handler,
                                           ReaddirCache& readdir) {
  if (_patterns.get(pattern) == nullptr) _patterns.insert(pattern, PatternMatches{handler, {}});
  PathnameVector paths;
  Glob::glob(pattern, paths, readdir);
  const IniStanza* settings = _ini.findStanza(handler);
  for (const Pathname& path : paths) {
    if (!path.exists() || !_seen.insert(path).second) continue;
    BundleHandlerData data(_setup, path, settings != nullptr ? *settings : IniStanza(), _usernames,
                           readdir);
    callHandler(handler, path, data, pattern);
  }
  return true;
}

bool ConfPathMapperCollection::callHandler(const Str& handler, const Pathname& path,
                                           BundleHandlerData& data, const Pathname& pattern) {
  if (_byPath.count(path) != 0) return true;
  if (hasDotElement(path, _setup)) {
    gLogger.info("Ignoring dot file: %s", path.c_str());
    return false;
  }
  Pathname root;
  User user;
  Str application;
  get_user_app_from_path(data, root, user, application);
  if (!GlobalConfSettings::isAppWhitelisted(application)) {
    gLogger.info("Skipping path in omitted application: %s", path.c_str());
    return false;
  }
  if (!GlobalConfSettings::isUserWhitelisted(user.name())) {
    gLogger.info("Skipping path for omitted user: %s", path.c_str());
    return false;
  }
  const Pathname legacyLeaf = firstElementUnder(path, _setup.getLegacy());
  if (!legacyLeaf.empty()) {
    const Pathname app = _setup.getApps() / legacyLeaf;
    PathnameStat st;
    if (app.stat(&st) && st.isDir()) {
      gLogger.info("Overridden bundle: %s, by: %s", path.c_str(), app.c_str());
      gLogger.info("Skipping path in overridden application: %s", path.c_str());
      return false;
    }
  }
  if (handler == "default") {
    PathnameStat st;
    if (path.stat(&st) && st.isDir()) BundlesIterator::registerIteratorPath(_setup, path);
    return false;
  }
  if (handler == "ignore") return false;
  const bool all = GlobalConfSettings::useAllConfData();
  if (!all && !User(user).isSameUser(ConfPath::getDefaultUser())) {
    gLogger.info("Skipping user-specific data during minimal init: %s", path.c_str());
    return false;
  }
  std::unique_ptr<IConfPathMapper> mapper;
  if (handler == "conf") {
    mapper = std::make_unique<ConfPathMapper>(data);
  } else if (!all && application != ConfPath::getDefaultApplication()) {
    gLogger.info("Skipping non-conf app data during minimal init: %s", path.c_str());
    return false;
  } else if (handler == "confdb") {
    if (path.ext() != "meta") {
      gLogger.info("Skipping non-meta file: %s", path.c_str());
      return false;
    }
    mapper = std::make_unique<ConfObjectManager>(data);
  } else if (handler == "xml") {
    mapper = std::make_unique<JSONConfPathMapper>(data);
  } else if (handler == "lookups" || handler == "searchscripts" || handler == "history") {
    mapper = std::make_unique<LookupTableConfPathMapper>(handler, data);
  } else {
    gLogger.error("Unrecognized handler name '%s' for path: %s", handler.c_str(), path.c_str());
    return false;
  }
  IConfPathMapper* raw = mapper.get();
  _owned.push_back(std::move(mapper));
  _byPath[path] = raw;
  PatternMatches* matches = _patterns.get(pattern);
  if (matches == nullptr) {
    _patterns.insert(pattern, PatternMatches{handler, {}});
    matches = _patterns.get(pattern);
  }
  auto at = std::lower_bound(
      matches->mappers.begin(), matches->mappers.end(), path,
      [](const IConfPathMapper* m, const Pathname& p) { return m->cpmPath() < p; });
  matches->mappers.insert(at, raw);
  gLogger.info("Added IConfPathMapper: %s", path.c_str());
  return true;
}

TemplateString::Variables ConfPathMapperCollection::templateVariables(
    const ConfPathBase& path) const {
  const Str user = path.user().name();
  return TemplateString::Variables{
      {"apps-base", _setup.getApps()},
      {"users-base", _setup.getUsers()},
      {"user-restriction", GlobalConfSettings::getUserRestrictionPattern()},
      {"app", path.application()},
      {"user", user},
      {"user-case-handler",
       _usernames.isSafeUsername(user) ? user : _usernames.getSafeUsername(user)},
      {"type", path.type()},
  };
}

bool ConfPathMapperCollection::realizePath(const Str& text, const ConfPathBase& path,
                                           Pathname& out) const {
  Str realized;
  const bool ok = TemplateString::realize(text, templateVariables(path), realized);
  Pathname result(realized);
  if (!result.isAbsolute()) result = _setup.getRoot() / result;
  result.removeDoubleSeps();
  out = result;
  return ok;
}

bool ConfPathMapperCollection::toMapperPath(const ConfPathBase& path, unsigned flags,
                                            Pathname& out) const {
  const char* prefix = (flags & ConfPath::WRITE_PACK) != 0   ? "pack:"
                       : (flags & ConfPath::WRITE_META) != 0 ? "meta:"
                                                             : "data:";
  Str key(prefix);
  key.append(path.user().name()).append(":").append(path.application()).append(":");
  key.append(path.type());
  gLogger.debug("Searching for write configuration for: %s", key.c_str());
  const IniStanza* writes = _ini.findStanza(WRITES_STANZA);
  if (writes == nullptr) {
    gLogger.error("Could not find '%s' stanza in bootstrapping conf: %s", WRITES_STANZA.c_str(),
                  _ini.path().c_str());
    gLogger.error("No write configuration for: %s", key.c_str());
    return false;
  }
  const Str* templ = nullptr;
  for (auto it = writes->settings().begin(); it != writes->settings().end(); ++it) {
    if (it.key().trim() == key) templ = &it.value().value();
  }
  if (templ == nullptr) {
    const TemplateString::Variables vars = templateVariables(path);
    for (auto it = writes->settings().begin(); it != writes->settings().end(); ++it) {
      Str realized;
      if (TemplateString::realize(it.key().trim(), vars, realized) && realized == key) {
        templ = &it.value().value();
        break;
      }
    }
  }
  if (templ == nullptr) {
    gLogger.error("No write configuration for: %s", key.c_str());
    return false;
  }
  return realizePath(templ->trim(), path, out);
}

IConfPathMapper* ConfPathMapperCollection::getUpdateMapper(const Pathname& path) const {
  auto it = _byPath.find(path);
  return it == _byPath.end() ? nullptr : it->second;
}

IConfPathMapper* ConfPathMapperCollection::getCreateMapper(const ConfPathBase& path,
                                                           unsigned flags) {
  Pathname bundle;
  if (!toMapperPath(path, flags, bundle)) return nullptr;
  if (IConfPathMapper* m = getUpdateMapper(bundle)) return m;
  return insertMapperAtPath(bundle);
}

IConfPathMapper* ConfPathMapperCollection::insertMapperAtPath(const Pathname& path) {
  if (IConfPathMapper* m = getUpdateMapper(path)) return m;
  ReaddirCache readdir;
  for (auto it = _patterns.begin(); it != _patterns.end(); ++it) {
    if (!Glob::wouldGlob(it.key(), path)) continue;
    const IniStanza* settings = _ini.findStanza(it.value().handler);
    BundleHandlerData data(_setup, path, settings != nullptr ? *settings : IniStanza(), _usernames,
                           readdir);
    _seen.insert(path);
    if (!callHandler(it.value().handler, path, data, it.key())) return nullptr;
    return getUpdateMapper(path);
  }
  return nullptr;
}

std::vector<IConfPathMapper*> ConfPathMapperCollection::orderedMappers() const {
  std::vector<IConfPathMapper*> out;
  for (auto it = _patterns.begin(); it != _patterns.end(); ++it) {
    out.insert(out.end(), it.value().mappers.begin(), it.value().mappers.end());
  }
  return out;
}
