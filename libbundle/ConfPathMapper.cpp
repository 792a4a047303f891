#include "libbundle/ConfPathMapper.h"

#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathTrie.h"
#include "util/Logger.h"
#include "util/ReaddirCache.h"

namespace {

Logger gLogger("ConfPathMapper");

const Str CONF_EXT(".conf");

Timeval mtimeOf(const Pathname& file) {
  Timeval t;
  if (!file.getMtime(&t)) return Timeval();
  return t;
}

}  // namespace

BaseConfPathMapper::BaseConfPathMapper(const Str& handler, BundleHandlerData& data, bool writable)
    : _handler(handler), _path(data.path()), _writable(writable) {
  get_user_app_from_path(data, _root, _user, _application);
}

bool BaseConfPathMapper::admits(const ConfPathBase& query) const {
  if (!query.segment(0).empty() && !query.user().isSameUser(_user)) return false;
  if (!query.application().empty() && query.application() != _application) return false;
  return true;
}

ConfPathBase BaseConfPathMapper::bundleBase() const { return ConfPathBase(_user, _application); }

const ConfPathTrie::Node* BaseConfPathMapper::ownSubtree(const ConfPathTrie& changes) const {
  for (const auto& [name, userNode] : changes.root().children()) {
    if (!User(name).isSameUser(_user)) continue;
    if (const ConfPathTrie::Node* app = userNode->child(_application)) return app;
  }
  return nullptr;
}

Str BaseConfPathMapper::fingerprintOf(const Pathname& file) {
  PathnameStat st;
  if (!file.stat(&st)) return Str().format("%s -\n", file.c_str());
  return Str().format("%s %ld %lu %lld.%09ld\n", file.c_str(), static_cast<long>(st.st.st_size),
                      static_cast<unsigned long>(st.st.st_ino),
                      static_cast<long long>(st.st.st_mtim.tv_sec),
                      static_cast<long>(st.st.st_mtim.tv_nsec));
}

bool BaseConfPathMapper::cpmRemoveMetadata(const ConfPathBase&) { return false; }

void BaseConfPathMapper::requireWritable() const {
  if (!_writable) {
    throw ConfPathException(Str().format("Cannot write to a read-only bundle: %s", _path.c_str()));
  }
}

ConfPathMapper::ConfPathMapper(BundleHandlerData& data)
    : BaseConfPathMapper("conf", data, data.path().toLeaf() == BundlesSetup::BUNDLES_PATH_LOCAL) {}

Pathname ConfPathMapper::fileOf(const Str& type) const { return _path / (Pathname(type) + CONF_EXT); }

const ConfPathMapper::Loaded& ConfPathMapper::loadLocked(const Str& type) {
  auto it = _loaded.find(type);
  if (it != _loaded.end()) return it->second;
  Loaded& loaded = _loaded[type];
  const Pathname file = fileOf(type);
  loaded.modTime = mtimeOf(file);
  if (file.exists()) loaded.ini.fromPath(file);
  loaded.ini.setPath(file);
  return loaded;
}

std::vector<Str> ConfPathMapper::listTypesLocked() const {
  ReaddirCache readdir;
  std::vector<Str> types;
  for (const Pathname& leaf : readdir.read(_path)) {
    if (leaf.size() > CONF_EXT.size() && leaf.endswith(StrSegment(CONF_EXT)) && leaf.front() != '.') {
      types.push_back(leaf.substr(0, leaf.size() - CONF_EXT.size()));
    }
  }
  return types;
}

bool ConfPathMapper::cpmSearch(const ConfPathBase& query, ConfPathTrie& out) {
  if (!admits(query)) return false;
  ScopedLock lock(_mutex);
  std::vector<Str> types;
  if (!query.type().empty()) {
    types.push_back(query.type());
  } else {
    types = listTypesLocked();
  }
  bool found = false;
  for (const Str& type : types) {
    const Loaded& loaded = loadLocked(type);
    const ConfPathBase typePath = bundleBase().child(type);
    for (auto st = loaded.ini.stanzas().begin(); st != loaded.ini.stanzas().end(); ++st) {
      const Str& stanzaName = st.key();
      if (!query.stanza().empty() && query.stanza() != stanzaName) continue;
      // Settings before any header make the stanza "default" only when
      // there are some.
      if (stanzaName == IniFile::DEFAULT_STANZA && st.value().settings().empty()) continue;
      found = true;
      const ConfPathBase stanzaPath = typePath.child(stanzaName);
      // Every stanza read carries an empty embedded value: it says the
      // stanza exists here, and with what provenance.
      ConfPathTrie::Node& stanzaNode = out.insert(stanzaPath);
      if (!stanzaNode.hasValue()) stanzaNode.setValue(Str(), _writable, loaded.modTime);
      for (auto s = st.value().settings().begin(); s != st.value().settings().end(); ++s) {
        const Str key = s.key().trim();
        if (!query.setting().empty() && query.setting() != key) continue;
        ConfPathTrie::Node& node = stanzaNode.getOrAddChild(key);
        if (!node.hasValue()) node.setValue(s.value().value().trim(), _writable, loaded.modTime);
      }
    }
  }
  return found;
}

void ConfPathMapper::cpmReload(const Str& type) {
  ScopedLock lock(_mutex);
  if (type.empty()) {
    _loaded.clear();
  } else {
    _loaded.erase(type);
  }
}

IConfPathMapper::State ConfPathMapper::cpmNewState(const Str& type) {
  State state;
  if (!type.empty()) {
    state.fingerprint = fingerprintOf(fileOf(type));
    return state;
  }
  ScopedLock lock(_mutex);
  for (const Str& t : listTypesLocked()) state.fingerprint += fingerprintOf(fileOf(t));
  return state;
}

bool ConfPathMapper::cpmHasChangedSince(const Str& type, State& state) {
  State now = cpmNewState(type);
  if (now.fingerprint == state.fingerprint) return false;
  state = std::move(now);
  cpmReload(type);
  return true;
}

bool ConfPathMapper::cpmChangeNotify(const Pathname& path) {
  if (!path.endswith(StrSegment(CONF_EXT)) || path.toParent() != _path) return true;
  const Pathname leaf = path.toLeaf();
  const Str type = leaf.substr(0, leaf.size() - CONF_EXT.size());
  ScopedLock lock(_mutex);
  const Str before = fingerprintOf(path);
  _loaded.erase(type);
  loadLocked(type);
  const bool complete = before == fingerprintOf(path);
  if (!complete) _loaded.erase(type);
  return complete;
}

void ConfPathMapper::cpmMerge(const ConfPathTrie& changes) {
  requireWritable();
  const ConfPathTrie::Node* base = ownSubtree(changes);
  if (base == nullptr) return;
  ScopedLock lock(_mutex);
  for (const auto& [type, typeNode] : base->children()) {
    // Always from disk, so that another writer's change is not undone.
    _loaded.erase(type);
    IniFile ini = loadLocked(type).ini;
    bool changed = false;
    for (const auto& [stanza, stanzaNode] : typeNode->children()) {
      if (stanzaNode->hasValue() && ini.findStanza(stanza) == nullptr) {
        ini.stanzas().insert(stanza, IniStanza());
        changed = true;
      }
      for (const auto& [key, settingNode] : stanzaNode->children()) {
        if (!settingNode->hasValue()) continue;
        ini.set(stanza, key, settingNode->value());
        changed = true;
      }
    }
    if (!changed) continue;
    if (!_path.exists() && !_path.mkdir_p(Pathname::MKDIR_PUBLIC)) {
      throw ConfPathException(Str().format("Cannot create bundle directory: %s", _path.c_str()));
    }
    ini.setPath(fileOf(type));
    _loaded.erase(type);
    if (!ini.flush()) {
      throw ConfPathException(
          Str().format("Cannot write configuration file: %s", fileOf(type).c_str()));
    }
    gLogger.debug("Wrote %s", fileOf(type).c_str());
  }
}

bool ConfPathMapper::cpmRemoveLayer(const ConfPathBase& path) {
  requireWritable();
  if (path.level() < ConfPathBase::LEVEL_TYPE || !admits(path)) return false;
  ScopedLock lock(_mutex);
  const Str& type = path.type();
  _loaded.erase(type);
  if (path.level() == ConfPathBase::LEVEL_TYPE) {
    const bool removed = fileOf(type).unlink();
    return removed;
  }
  IniFile ini = loadLocked(type).ini;
  _loaded.erase(type);
  bool removed = false;
  if (path.level() == ConfPathBase::LEVEL_STANZA) {
    removed = ini.erase(path.stanza());
  } else {
    IniStanza* stanza = ini.findStanza(path.stanza());
    removed = stanza != nullptr && stanza->settings().erase(path.setting());
  }
  if (removed && !ini.flush()) {
    throw ConfPathException(
        Str().format("Cannot write configuration file: %s", fileOf(type).c_str()));
  }
  return removed;
}
