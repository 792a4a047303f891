#include "util/StringMgr.h"

#include <cstdarg>

#include "util/Assert.h"

StringMgr* StringMgr::_instance = nullptr;
StringMgr::LiteralsLoader StringMgr::_loader = nullptr;

void StringMgr::setLiteralsLoader(LiteralsLoader loader) {
  kassert(_instance == nullptr);
  _loader = loader;
}

StringMgr& StringMgr::instance() {
  // Never deleted: str() hands out pointers that must outlive every static.
  static StringMgr* const mgr = [] {
    auto* m = new StringMgr;
    if (_loader != nullptr) _loader(*m);
    _instance = m;
    return m;
  }();
  return *mgr;
}

void StringMgr::addLiteral(const Str& stanza, const Str& setting, const Str& value) {
  Str key;
  key.reserve(stanza.size() + 1 + setting.size());
  key.append(stanza).append(1, '_').append(setting);
  _literals.emplace(std::move(key), value);
}

const char* StringMgr::str(const char* key) {
  kassert(_instance);
  return _instance->_lookup(key);
}

Str StringMgr::fStr(const char* key, ...) {
  const char* format = str(key);
  Str out;
  va_list args;
  va_start(args, key);
  out.vformat(format, args);
  va_end(args);
  return out;
}

Str StringMgr::_normalise(const char* key) {
  Str out;
  for (const char* p = key; *p != '\0'; ++p) {
    if (*p == '%') continue;
    out.push_back(*p >= 'a' && *p <= 'z' ? static_cast<char>(*p - 'a' + 'A') : *p);
  }
  return out;
}

const char* StringMgr::_lookup(const char* key) {
  Str normalised = _normalise(key);
  auto it = _literals.find(normalised);
  if (it != _literals.end()) return it->second.c_str();

  static const char MISS_PREFIX[] = "String not found in literals.conf: ";
  const std::string given(key);
  Str text(MISS_PREFIX);
  const size_t split = given.find("__");
  if (split == std::string::npos) {
    text.append(given);
  } else {
    text.append(given, 0, split)
        .append(" Arguments: ")
        .append(given, split + 2, std::string::npos);
  }
  return _literals.emplace(std::move(normalised), std::move(text)).first->second.c_str();
}
