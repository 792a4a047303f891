#include "util/DateParserConfigRef.h"

#include <atomic>
#include <cerrno>
#include <map>
#include <memory>

#include "util/DateParseException.h"
#include "util/DateParserRegexConf.h"
#include "util/FileDescriptor.h"
#include "util/Logger.h"
#include "util/Mutex.h"
#include "util/XmlDocument.h"

namespace {

Logger gLogger("LoadDateParserRegexes");

// A file is looked at no more than once in this many seconds.
constexpr int64_t RECHECK_SECONDS = 30;

// Process-wide and never destroyed, so that a parser torn down by a static
// destructor can still release its configuration.
Mutex& cacheMutex() {
  static Mutex* mutex = new Mutex;
  return *mutex;
}
// GUARDED_BY(cacheMutex()); holds one reference to every configuration.
std::map<Pathname, DateParserRegexConf*>& cache() {
  static auto* entries = new std::map<Pathname, DateParserRegexConf*>;
  return *entries;
}

std::atomic<CachedDateParserConfig::ClockFunction> gClock{nullptr};

int64_t readClock() {
  CachedDateParserConfig::ClockFunction clock = gClock.load(std::memory_order_acquire);
  return clock != nullptr ? clock() : ::time(nullptr);
}

[[noreturn]] void failWithErrno(Logger* errLogger, int errnum, const char* format,
                                const Pathname& path) {
  Str text;
  Logger::format(text, errnum, format, path.c_str());
  throw DateParseException(errLogger, text.c_str());
}

// Builds the configuration of the file at `path`, read at `now`.
// REQUIRES: the cache mutex is held.
std::unique_ptr<DateParserRegexConf> loadFile(const Pathname& path, int64_t now,
                                              Logger* errLogger) {
  auto conf = std::make_unique<DateParserRegexConf>();
  ScopedSaferFileDescriptor fd(path);
  if (!fd.valid()) {
    failWithErrno(errLogger, errno, "Can't open DatePaser XML configuration file \"%s\": %m",
                  path);
  }
  XmlDocument doc(fd, path.c_str(), true, false);
  if (doc.empty() || !doc.get_root().valid()) {
    // Not well-formed XML: reported in the words of a broken define, since
    // the reader never got as far as the first one.
    Str text;
    Logger::format(text, "Error parsing regex XML file: %s - %s", path.c_str(),
                   doc.error().empty() ? "no root element" : doc.error().c_str());
    throw DateParseException(errLogger, text.c_str());
  }
  conf->readPatterns(doc.get_root(), path, errLogger);
  if (!fd.getMtime(&conf->mtime)) {
    failWithErrno(errLogger, errno,
                  "Can't get modification time of DatePaser XML configuration file \"%s\": %m",
                  path);
  }
  conf->lastChecked = now;
  conf->refCount.store(2, std::memory_order_relaxed);
  return conf;
}

}  // namespace

DateParserConfigRef::DateParserConfigRef(const DateParserConfigRef& other) : _conf(other._conf) {
  if (_conf != nullptr && _conf != currentValue()) _conf->addRef();
}

DateParserConfigRef& DateParserConfigRef::operator=(const DateParserConfigRef& other) {
  if (this != &other) {
    if (other._conf != nullptr && other._conf != currentValue()) other._conf->addRef();
    release();
    _conf = other._conf;
  }
  return *this;
}

void DateParserConfigRef::load(const Pathname& path, bool logErrors) {
  release();
  if (path == "NONE") return;
  if (path == "CURRENT") {
    _conf = currentValue();
    return;
  }
  _conf = CachedDateParserConfig::acquire(path, logErrors);
}

void DateParserConfigRef::release() {
  DateParserRegexConf* conf = _conf;
  _conf = nullptr;
  if (conf != nullptr && conf != currentValue() && conf->dropRef()) delete conf;
}

DateParserRegexConf* CachedDateParserConfig::acquire(const Pathname& path, bool logErrors) {
  Logger* errLogger = logErrors ? &gLogger : nullptr;
  ScopedLock lock(cacheMutex());
  const int64_t now = readClock();
  auto& entries = cache();
  auto it = entries.find(path);
  if (it != entries.end()) {
    DateParserRegexConf* conf = it->second;
    if (conf->lastChecked <= now && now < conf->lastChecked + RECHECK_SECONDS) {
      conf->addRef();
      return conf;
    }
    Timeval mtime;
    if (path.getMtime(&mtime) && mtime == conf->mtime) {
      conf->lastChecked = now;
      conf->addRef();
      return conf;
    }
    // Changed or gone: holders of the old configuration keep it until they
    // let go, and the last of them deletes it.
    entries.erase(it);
    if (conf->dropRef()) delete conf;
  }
  std::unique_ptr<DateParserRegexConf> conf = loadFile(path, now, errLogger);
  entries.emplace(path, conf.get());
  return conf.release();
}

CachedDateParserConfig::ClockFunction CachedDateParserConfig::setClock(ClockFunction clock) {
  return gClock.exchange(clock, std::memory_order_acq_rel);
}

size_t CachedDateParserConfig::size() {
  ScopedLock lock(cacheMutex());
  return cache().size();
}

bool CachedDateParserConfig::contains(const Pathname& path) {
  ScopedLock lock(cacheMutex());
  return cache().count(path) != 0;
}
