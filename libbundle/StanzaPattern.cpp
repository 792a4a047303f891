#include "libbundle/StanzaPattern.h"

#include <map>
#include <memory>
#include <utility>

#include "util/Logger.h"
#include "util/ReadWriteLock.h"
#include "util/Regex.h"
#include "util/XMLAndStringUtil.h"

namespace {

Logger gLogger("StanzaPattern");

const char HOST_PREFIX[] = "host::";

// Created on first use and never destroyed, so that pages used from static
// destructors still find their patterns.
ReadWriteLock& gPatternMutex() {
  static ReadWriteLock* lock = new ReadWriteLock;
  return *lock;
}

// Guarded by gPatternMutex(): read as a reader, inserted into as a writer.
// Entries are never removed, so a Regex* handed out stays valid.
std::map<Str, std::unique_ptr<Regex>>& gPatternToRegex() {
  static auto* patterns = new std::map<Str, std::unique_ptr<Regex>>;
  return *patterns;
}

// The regular expression text for `name`, or false when the name is no
// pattern.
bool patternText(const Str& name, bool pageFlag, Str& out) {
  const size_t colons = name.find("::");
  if (colons == Str::npos) return false;
  const bool isHost = name.compare(0, sizeof(HOST_PREFIX) - 1, HOST_PREFIX) == 0;
  Str pattern(name, colons + 2);
  if (!isHost && pattern.find('*') == Str::npos && pattern.find("...") == Str::npos) return false;
  XMLAndStringUtil::toRegex(pattern, pageFlag);
  out.assign(name, 0, colons + 2);
  if (isHost) out += "(?i)";
  out += pattern;
  return true;
}

}  // namespace

const Regex* getRegexPatternFromFilePattern(const Str& name, bool pageFlag) {
  if (name.find("::") == Str::npos) return nullptr;
  {
    ScopedReader reader(gPatternMutex());
    const auto it = gPatternToRegex().find(name);
    if (it != gPatternToRegex().end()) return it->second.get();
  }
  Str text;
  if (!patternText(name, pageFlag, text)) return nullptr;
  gLogger.info("Expanded file pattern %s into %s", name.c_str(), text.c_str());
  auto compiled = std::make_unique<Regex>();
  try {
    compiled->_internal_init(text, true, 0);
  } catch (const RegexException&) {
    // Left empty: a stanza whose name does not compile applies to nothing.
    compiled->cleanup();
  }
  ScopedWriter writer(gPatternMutex());
  // try_emplace keeps the entry of a thread that got here first.
  return gPatternToRegex().try_emplace(name, std::move(compiled)).first->second.get();
}
