#include "libbundle/ConfContentsCache.h"

#include <cerrno>
#include <cstdio>

#include "util/FileStar.h"
#include "util/Logger.h"
#include "util/ReadableUnicodeStream.h"
#include "util/XMLAndStringUtil.h"

namespace {

Logger gLogger("ConfContentsCache");

}  // namespace

bool ConfContents::loadContentsFromDisk(const Pathname& path) {
  ScopedFileStar file(path, "rb");
  if (!file.valid()) return false;
  ReadableUnicodeFileStar in(file);
  Str joined;
  Str line;
  bool first = true;
  while (in.readline(line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!first) joined.push_back('\n');
    joined.append(line);
    first = false;
  }
  if (std::ferror(file.get()) != 0) return false;
  contents = std::move(joined);
  checksum = XMLAndStringUtil::md5(contents);
  return true;
}

ConfContentsCache& ConfContentsCache::instance() {
  static auto* const cache = new ConfContentsCache;
  return *cache;
}

void ConfContentsCache::allowLoading(const Pathname& path) {
  ScopedLock lock(_mutex);
  _contents.emplace(path, ConfContents());
}

void ConfContentsCache::disallowLoading(const Pathname& path) {
  ScopedLock lock(_mutex);
  _contents.erase(path);
}

bool ConfContentsCache::isAllowed(const Pathname& path) const {
  ScopedLock lock(_mutex);
  return _contents.count(path) != 0;
}

bool ConfContentsCache::loadContents(const Pathname& path, Str& contents, Str& checksum) {
  ScopedLock lock(_mutex);
  auto it = _contents.find(path);
  if (it == _contents.end()) return false;
  ConfContents& entry = it->second;
  if (entry.checksum.empty() && !entry.transient && !entry.loadContentsFromDisk(path)) return false;
  contents = entry.contents;
  checksum = entry.checksum;
  return true;
}

bool ConfContentsCache::isContentStale(const Pathname& path) {
  ScopedLock lock(_mutex);
  auto it = _contents.find(path);
  if (it == _contents.end() || it->second.checksum.empty() || it->second.transient) return false;
  ConfContents fresh;
  if (!fresh.loadContentsFromDisk(path)) return false;
  if (fresh.checksum == it->second.checksum) return false;
  it->second = std::move(fresh);
  return true;
}

Pathname ConfContentsCache::addTransientContents(const Str& text) {
  ScopedLock lock(_mutex);
  const Pathname name(Str().format("%s%llu", TRANSIENT_PREFIX, ++_transientCounter));
  ConfContents& entry = _contents[name];
  entry.transient = true;
  entry.contents = text;
  entry.checksum = XMLAndStringUtil::md5(text);
  return name;
}

bool ConfContentsCache::updateCacheAndStorage(const Pathname& from, const Pathname& to) {
  ScopedLock lock(_mutex);
  auto src = _contents.find(from);
  auto dst = _contents.find(to);
  if (src == _contents.end() || dst == _contents.end()) return false;
  if (!src->second.transient) {
    if (from == to) return true;
    if (!from.copyTo(to)) {
      gLogger.error("Cannot copy: %s -> %s: %m", from.c_str(), to.c_str());
      return false;
    }
    dst->second.contents = src->second.contents;
    dst->second.checksum = src->second.checksum;
    dst->second.transient = false;
    return true;
  }
  if (!writeAtomic(to, src->second.contents)) return false;
  dst->second.contents = src->second.contents;
  dst->second.checksum = src->second.checksum;
  dst->second.transient = false;
  _contents.erase(src);
  return true;
}

bool ConfContentsCache::writeAtomic(const Pathname& path, const Str& text) {
  const Pathname tmp = path + ".tmp";
  if (!writeToTmp(tmp, text)) return false;
  if (!tmp.renameTo(path)) {
    gLogger.error("Cannot rename: %s -> %s: %m", tmp.c_str(), path.c_str());
    tmp.unlink();
    return false;
  }
  return true;
}

bool ConfContentsCache::writeToTmp(const Pathname& tmp, const Str& text) {
  ScopedFileStar file(tmp, "wb");
  if (!file.valid()) {
    gLogger.error("Cannot open temporary file: %s: %m", tmp.c_str());
    return false;
  }
  const size_t written = std::fwrite(text.data(), 1, text.size(), file.get());
  if (written != text.size()) {
    gLogger.error("Write to file failed with data remaining: %s: %m", tmp.c_str());
    return false;
  }
  if (std::fflush(file.get()) != 0) {
    gLogger.error("Cannot flush temporary file: %s: %m", tmp.c_str());
    return false;
  }
  return true;
}
