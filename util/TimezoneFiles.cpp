// Where zones come from on disk: the one place that opens and maps zone
// files, packed or not, and that turns a zone name into a path that cannot
// leave the zone directories.
#include <cstring>

#include "util/FileDescriptor.h"
#include "util/Pathname.h"
#include "util/ReadableFileMapping.h"
#include "util/Timezone.h"
#include "util/TimezoneCache.h"
#include "util/TimezoneTables.h"

namespace {

const char* const ETC_LOCALTIME = "/etc/localtime";
const char* const SYSTEM_ZONEINFO_DIR = "/usr/share/zoneinfo";
const char* const PACKED_SUFFIX = ".tzpack";

bool isAsciiAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Maps the whole regular file behind `fd`; an invalid mapping otherwise.
bool mapRegularFile(const FileDescriptor& fd, std::unique_ptr<ReadableFileMapping>* out) {
  if (!fd.valid() || !fd.isReg()) return false;
  *out = std::make_unique<ReadableFileMapping>(fd);
  return (*out)->valid() && (*out)->size() > 0;
}

}  // namespace

Str Timezone::cleanZoneName(const char* name) {
  Str out;
  for (const char* p = name; *p != '\0';) {
    while (*p == '/') ++p;
    if (*p == '\0') break;
    if (!out.empty()) out.push_back('/');
    for (bool first = true; *p != '\0' && *p != '/'; ++p, first = false) {
      const char c = *p;
      const bool inner = c == ' ' || c == '+' || c == '-' || c == '.' || c == ':';
      out.push_back(isAsciiAlnum(c) || (inner && !first) ? c : '_');
    }
  }
  return out;
}

bool Timezone::fromPathOrPosix(const char* name) {
  internal_reset();
  if (name == nullptr) return false;
  if (*name == '\0') return setToGmt();
  if (*name == ':') return fromZoneinfoPath(name + 1, true);
  if (fromZoneinfoPath(name, true)) return true;
  const char* mapped = mapSystemZoneName(name);
  if (mapped != nullptr && fromZoneinfoPath(mapped, true)) return true;
  return fromPosixString(name);
}

bool Timezone::fromZoneinfoPath(const char* name, bool useFooter) {
  internal_reset();
  if (name == nullptr) return false;
  if (*name == '/') return fromExactZoneinfoPath(Pathname(name), useFooter);
  const Str clean = cleanZoneName(name);
  if (clean.empty()) return false;
  if (clean == "localtime" && fromExactZoneinfoPath(Pathname(ETC_LOCALTIME), useFooter)) {
    return true;
  }
  Pathname dir = getZoneinfoDirectory();
  dir.removeTrailingSeps();
  if (!dir.empty()) {
    if (fromExactZoneinfoPath(dir / clean, useFooter)) return true;
    if (fromPackedZoneinfoPath(dir + PACKED_SUFFIX, clean.c_str(), useFooter)) return true;
  }
  return fromExactZoneinfoPath(Pathname(SYSTEM_ZONEINFO_DIR) / clean, useFooter);
}

bool Timezone::fromExactZoneinfoPath(const Pathname& path, bool useFooter) {
  internal_reset();
  ScopedFileDescriptor fd(path.openReadOnlySafer());
  return fromZoneinfoFile(fd, useFooter);
}

bool Timezone::fromZoneinfoFile(const FileDescriptor& fd, bool useFooter) {
  internal_reset();
  std::unique_ptr<ReadableFileMapping> map;
  if (!mapRegularFile(fd, &map)) return false;
  return fromZoneinfoData(map->data(), map->size(), useFooter);
}

bool Timezone::fromPackedZoneinfoPath(const Pathname& packPath, const char* name,
                                      bool useFooter) {
  internal_reset();
  ScopedFileDescriptor fd(packPath.openReadOnlySafer());
  std::unique_ptr<ReadableFileMapping> map;
  if (!mapRegularFile(fd, &map)) return false;
  return fromPackedZoneinfoData(map->data(), map->size(), name, useFooter);
}
