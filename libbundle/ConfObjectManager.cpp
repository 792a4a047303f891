#include "libbundle/ConfObjectManager.h"

#include <algorithm>
#include <functional>

#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathMetadata.h"
#include "libbundle/ConfPathTrie.h"
#include "util/Logger.h"

namespace {

Logger gLogger("ConfObjectManager");

const Pathname LOCAL_META("local.meta");

bool matchesQuery(const ConfPathBase& query, const std::vector<Str>& rel) {
  for (size_t i = 0; i < rel.size(); ++i) {
    const Str& want = query.segment(ConfPathBase::LEVEL_TYPE - 1 + i);
    if (!want.empty() && want != rel[i]) return false;
  }
  return true;
}

}  // namespace

ConfObjectManager::ConfObjectManager(BundleHandlerData& data)
    : BaseConfPathMapper("confdb", data, data.path().toLeaf() == LOCAL_META) {}

const IniFile& ConfObjectManager::loadLocked() {
  if (!_loaded) {
    _ini = IniFile();
    if (_path.exists()) _ini.fromPath(_path);
    _ini.setPath(_path);
    _loaded = true;
  }
  return _ini;
}

bool ConfObjectManager::cpmSearch(const ConfPathBase& query, ConfPathTrie& out) {
  if (!admits(query)) return false;
  ScopedLock lock(_mutex);
  const IniFile& ini = loadLocked();
  Timeval fileTime;
  if (!_path.getMtime(&fileTime)) fileTime = Timeval();
  bool found = false;
  for (auto st = ini.stanzas().begin(); st != ini.stanzas().end(); ++st) {
    if (st.key() == IniFile::DEFAULT_STANZA && st.value().settings().empty()) continue;
    std::vector<Str> rel;
    if (!ConfPathMetadata::decodeStanzaName(st.key(), rel) ||
        rel.size() > ConfPathBase::MAX_LEVEL - ConfPathBase::LEVEL_APPLICATION) {
      gLogger.warn("Ignoring metadata stanza [%s] in %s", st.key().c_str(), _path.c_str());
      continue;
    }
    if (!matchesQuery(query, rel)) continue;
    ConfPathBase nodePath = bundleBase();
    for (const Str& s : rel) nodePath.push(s);
    ConfPathMetadata md(st.value());
    md.setRemovable(_writable);
    if (md.modTime().tv_sec == 0) md.setModTime(fileTime);
    ConfPathTrie::Node& node = out.insert(nodePath);
    if (!node.hasMetadata()) node.setMetadata(md);
    found = true;
  }
  return found;
}

void ConfObjectManager::cpmReload(const Str&) {
  ScopedLock lock(_mutex);
  _loaded = false;
}

IConfPathMapper::State ConfObjectManager::cpmNewState(const Str&) {
  return State{fingerprintOf(_path)};
}

bool ConfObjectManager::cpmHasChangedSince(const Str& type, State& state) {
  State now = cpmNewState(type);
  if (now.fingerprint == state.fingerprint) return false;
  state = std::move(now);
  cpmReload(type);
  return true;
}

bool ConfObjectManager::cpmChangeNotify(const Pathname& path) {
  if (path != _path) return true;
  ScopedLock lock(_mutex);
  const Str before = fingerprintOf(_path);
  _loaded = false;
  loadLocked();
  const bool complete = before == fingerprintOf(_path);
  if (!complete) _loaded = false;
  return complete;
}

void ConfObjectManager::cpmMerge(const ConfPathTrie& changes) {
  requireWritable();
  const ConfPathTrie::Node* base = ownSubtree(changes);
  if (base == nullptr) return;
  ScopedLock lock(_mutex);
  _loaded = false;
  IniFile ini = loadLocked();
  bool changed = false;
  std::vector<Str> rel;
  std::vector<std::pair<Str, Str>> settings;
  // Depth at most three below the bundle: type, stanza, setting.
  std::function<void(const ConfPathTrie::Node&)> visit = [&](const ConfPathTrie::Node& node) {
    if (node.hasMetadata()) {
      const Str name = ConfPathMetadata::encodeStanzaName(rel);
      ini.erase(name);
      ini.stanzas().insert(name, IniStanza());
      node.metadata().toSettings(settings);
      for (const auto& [k, v] : settings) ini.set(name, k, v);
      changed = true;
    }
    for (const auto& [segment, child] : node.children()) {
      rel.push_back(segment);
      visit(*child);
      rel.pop_back();
    }
  };
  visit(*base);
  _loaded = false;
  if (!changed) return;
  if (!_path.toParent().exists() && !_path.toParent().mkdir_p(Pathname::MKDIR_PUBLIC)) {
    throw ConfPathException(Str().format("Cannot create metadata directory: %s", _path.c_str()));
  }
  ini.setPath(_path);
  if (!ini.flush()) {
    throw ConfPathException(Str().format("Cannot write metadata file: %s", _path.c_str()));
  }
}

bool ConfObjectManager::cpmRemoveLayer(const ConfPathBase&) { return false; }

bool ConfObjectManager::cpmRemoveMetadata(const ConfPathBase& path) {
  requireWritable();
  if (!admits(path) || path.level() < ConfPathBase::LEVEL_APPLICATION) return false;
  ScopedLock lock(_mutex);
  _loaded = false;
  IniFile ini = loadLocked();
  _loaded = false;
  const std::vector<Str> target(path.segments().begin() + ConfPathBase::LEVEL_APPLICATION,
                                path.segments().end());
  std::vector<Str> doomed;
  for (auto st = ini.stanzas().begin(); st != ini.stanzas().end(); ++st) {
    std::vector<Str> rel;
    if (!ConfPathMetadata::decodeStanzaName(st.key(), rel) || rel.size() < target.size()) continue;
    if (std::equal(target.begin(), target.end(), rel.begin())) doomed.push_back(st.key());
  }
  for (const Str& name : doomed) ini.erase(name);
  if (!doomed.empty() && !ini.flush()) {
    throw ConfPathException(Str().format("Cannot write metadata file: %s", _path.c_str()));
  }
  return !doomed.empty();
}
