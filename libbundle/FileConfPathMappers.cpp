#include "libbundle/FileConfPathMappers.h"

#include "libbundle/ConfContentsCache.h"
#include "libbundle/ConfPathException.h"
#include "libbundle/ConfPathTrie.h"
#include "util/ReaddirCache.h"

namespace {

bool isRegularFile(const Pathname& p) {
  PathnameStat st;
  return p.stat(&st) && st.isReg();
}

bool isDirectory(const Pathname& p) {
  PathnameStat st;
  return p.stat(&st) && st.isDir();
}

}  // namespace

FileConfPathMapper::FileConfPathMapper(const Str& handler, BundleHandlerData& data,
                                       bool writable)
    : BaseConfPathMapper(handler, data, writable) {}

bool FileConfPathMapper::cpmSearch(const ConfPathBase& query, ConfPathTrie& out) {
  if (!admits(query)) return false;
  ScopedLock lock(_mutex);
  bool found = false;
  for (const Entry& e : listEntries()) {
    if (!query.type().empty() && query.type() != e.type) continue;
    if (!query.stanza().empty() && query.stanza() != e.stanza) continue;
    Timeval mtime;
    if (!e.file.getMtime(&mtime)) mtime = Timeval();
    ConfPathTrie::Node& node = out.insert(bundleBase().child(e.type).child(e.stanza));
    if (!node.hasValue()) node.setValue(valueOf(e), _writable, mtime);
    found = true;
  }
  return found;
}

void FileConfPathMapper::cpmReload(const Str&) {}

IConfPathMapper::State FileConfPathMapper::cpmNewState(const Str& type) {
  ScopedLock lock(_mutex);
  State state;
  for (const Entry& e : listEntries()) {
    if (type.empty() || type == e.type) state.fingerprint += fingerprintOf(e.file);
  }
  return state;
}

bool FileConfPathMapper::cpmHasChangedSince(const Str& type, State& state) {
  State now = cpmNewState(type);
  if (now.fingerprint == state.fingerprint) return false;
  state = std::move(now);
  return true;
}

bool FileConfPathMapper::cpmChangeNotify(const Pathname& path) {
  const Str before = fingerprintOf(path);
  ConfContentsCache::instance().isContentStale(path);
  return before == fingerprintOf(path);
}

void FileConfPathMapper::cpmMerge(const ConfPathTrie& changes) {
  requireWritable();
  const ConfPathTrie::Node* base = ownSubtree(changes);
  if (base == nullptr) return;
  ScopedLock lock(_mutex);
  const std::vector<Entry> existing = listEntries();
  for (const auto& [type, typeNode] : base->children()) {
    for (const auto& [stanza, node] : typeNode->children()) {
      if (!node->hasValue()) continue;
      Pathname file = fileFor(type, stanza);
      for (const Entry& e : existing) {
        if (e.type == type && e.stanza == stanza) file = e.file;
      }
      const Pathname dir = file.toParent();
      if (!dir.exists() && !dir.mkdir_p(Pathname::MKDIR_PUBLIC)) {
        throw ConfPathException(Str().format("Cannot create bundle directory: %s", dir.c_str()));
      }
      if (!ConfContentsCache::writeAtomic(file, node->value())) {
        throw ConfPathException(Str().format("Cannot write file: %s", file.c_str()));
      }
    }
  }
}

bool FileConfPathMapper::cpmRemoveLayer(const ConfPathBase& path) {
  requireWritable();
  if (path.level() != ConfPathBase::LEVEL_STANZA || !admits(path)) return false;
  ScopedLock lock(_mutex);
  for (const Entry& e : listEntries()) {
    if (e.type == path.type() && e.stanza == path.stanza()) return e.file.unlink();
  }
  return false;
}

JSONConfPathMapper::JSONConfPathMapper(BundleHandlerData& data)
    : FileConfPathMapper("xml", data,
                         data.path().toParent().toLeaf() == BundlesSetup::BUNDLES_PATH_LOCAL) {}

std::vector<FileConfPathMapper::Entry> JSONConfPathMapper::listEntries() const {
  std::vector<Entry> out;
  ReaddirCache readdir;
  for (const Pathname& type : readdir.read(_path)) {
    const Pathname dir = _path / type;
    if (type.front() == '.' || !isDirectory(dir)) continue;
    for (const Pathname& leaf : readdir.read(dir)) {
      const Pathname ext = leaf.ext();
      if (leaf.front() == '.' || (ext != "xml" && ext != "json")) continue;
      if (!isRegularFile(dir / leaf)) continue;
      out.push_back(Entry{type, leaf.basenameWithoutExt(), dir / leaf});
    }
  }
  return out;
}

Pathname JSONConfPathMapper::fileFor(const Str& type, const Str& stanza) const {
  return _path / type / (Pathname(stanza) + ".json");
}

Str JSONConfPathMapper::valueOf(const Entry& entry) const {
  ConfContents contents;
  contents.loadContentsFromDisk(entry.file);
  return contents.contents;
}

LookupTableConfPathMapper::LookupTableConfPathMapper(const Str& handler, BundleHandlerData& data)
    : FileConfPathMapper(handler, data, true) {}

std::vector<FileConfPathMapper::Entry> LookupTableConfPathMapper::listEntries() const {
  std::vector<Entry> out;
  ReaddirCache readdir;
  for (const Pathname& leaf : readdir.read(_path)) {
    if (leaf.front() == '.' || leaf.endswith(".tmp") || !isRegularFile(_path / leaf)) continue;
    out.push_back(Entry{_handler, leaf, _path / leaf});
  }
  return out;
}

Pathname LookupTableConfPathMapper::fileFor(const Str&, const Str& stanza) const {
  return _path / stanza;
}

Str LookupTableConfPathMapper::valueOf(const Entry& entry) const { return entry.file; }
