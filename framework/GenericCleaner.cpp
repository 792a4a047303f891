#include "framework/GenericCleaner.h"

#include <cstdlib>

#include "framework/LimitsStanza.h"
#include "libbundle/PropertiesMap.h"
#include "util/Logger.h"
#include "util/Mutex.h"

namespace {

Logger gLogger("GenericCleaner");

CharacterClass defaultMajor() { return CharacterClass::ALL_WHITESPACES; }

CharacterClass defaultMinor() {
  CharacterClass c(false);
  for (int b = 0; b < 0x80; ++b) {
    const char ch = static_cast<char>(b);
    if (!CharacterClass::ALPHA_NUM_UNDER.contains(ch)) c.set(ch, true);
  }
  return c;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// One entry of a breaker list as a byte; -1 when it is not one.
int entryByte(const Str& e) {
  if (e.size() == 1) return static_cast<unsigned char>(e[0]);
  if (e.size() == 2 && e[0] == '\\') {
    switch (e[1]) {
      case 's': return ' ';
      case 't': return '\t';
      case 'n': return '\n';
      case 'r': return '\r';
      case '\\': return '\\';
      default: return -1;
    }
  }
  if (e.size() == 3 && e[0] == '%' && hexDigit(e[1]) >= 0 && hexDigit(e[2]) >= 0) {
    return hexDigit(e[1]) * 16 + hexDigit(e[2]);
  }
  return -1;
}

// The breakers listed in `value`, or `dflt` when it lists none.
CharacterClass breakers(const Str& value, const CharacterClass& dflt) {
  CharacterClass out(false);
  bool any = false;
  size_t i = 0;
  while (i < value.size()) {
    while (i < value.size() && CharacterClass::ALL_WHITESPACES.contains(value[i])) ++i;
    size_t j = i;
    while (j < value.size() && !CharacterClass::ALL_WHITESPACES.contains(value[j])) ++j;
    if (j == i) break;
    const Str entry = value.substr(i, j - i);
    const int b = entryByte(entry);
    if (b < 0) {
      gLogger.warn("Ignoring breaker '%s' in segmenters: not one byte", entry.c_str());
    } else {
      out.set(static_cast<char>(b), true);
      any = true;
    }
    i = j;
  }
  return any ? out : dflt;
}

Mutex gSharedMutex;
const GenericCleaner* gShared = nullptr;  // guarded by gSharedMutex

}  // namespace

GenericCleaner::GenericCleaner() : _major(defaultMajor()), _minor(defaultMinor()) {}

GenericCleaner::GenericCleaner(const PropertiesMap& stanza)
    : _major(breakers(stanza.get("MAJOR"), defaultMajor())),
      _minor(breakers(stanza.get("MINOR"), defaultMinor())) {}

const GenericCleaner* GenericCleaner::getShared() {
  ScopedLock lock(gSharedMutex);
  if (gShared == nullptr) {
    PropertiesMap stanza;
    gShared = getConfStanza("segmenters", "search", nullptr, stanza) ? new GenericCleaner(stanza)
                                                                       : new GenericCleaner();
  }
  return gShared;
}

void GenericCleaner::clean(const StrSegment& text, ICleanCallback& callback) const {
  const char* p = text.data();
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    while (i < n && _major.contains(p[i])) ++i;
    size_t end = i;
    while (end < n && !_major.contains(p[end])) ++end;
    if (end == i) break;
    if (!callback.acceptToken(p + i, end - i, i)) return;
    for (size_t k = i; k < end;) {
      while (k < end && _minor.contains(p[k])) ++k;
      size_t m = k;
      while (m < end && !_minor.contains(p[m])) ++m;
      if (m > k && m - k < end - i && !callback.acceptToken(p + k, m - k, k)) return;
      k = m;
    }
    i = end;
  }
}
