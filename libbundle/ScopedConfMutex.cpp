#include "libbundle/ScopedConfMutex.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "libbundle/ConfSettings.h"
#include "libbundle/GlobalConfSettings.h"
#include "util/FileStar.h"
#include "util/Logger.h"
#include "util/Timeval.h"

namespace {

Logger gLogger("ScopedConfMutex");

}  // namespace

ScopedConfMutex::ScopedConfMutex(const BundlesSetup& setup, const Str& reason)
    : _setup(setup), _reason(reason) {
  const auto settings = ConfSettings::forSetup(setup);
  if (!settings->isPoolingEnabled()) return;
  auto lock = std::make_unique<FileBasedMutex>(setup.getSentinel(), settings->getLockTimeout());
  lock->lock();
  _lock = std::move(lock);
  logToLockedFile("starts " + _reason);
}

ScopedConfMutex::~ScopedConfMutex() {
  if (_lock == nullptr) return;
  logToLockedFile("finishes " + _reason);
  _lock->unlock();
}

void ScopedConfMutex::logToLockedFile(const Str& text) {
  if (_lock != nullptr) logToSentinelFile(_setup, text);
}

void ScopedConfMutex::logToSentinelFile(const BundlesSetup& setup, const Str& text) {
  if (!ConfSettings::forSetup(setup)->shouldLogToSentinel()) return;
  const Pathname sentinel = setup.getSentinel();
  ScopedFileStar file(sentinel, "a");
  if (!file.valid()) {
    const int saved = errno;
    gLogger.error("Cannot update sentinel file %s with debug info: %s", sentinel.c_str(),
                  std::strerror(saved));
    return;
  }
  const Timeval now = Timeval::now();
  const time_t secs = static_cast<time_t>(now.tv_sec);
  tm parts{};
  gmtime_r(&secs, &parts);
  char stamp[64];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &parts);
  std::fprintf(file.get(), "[%s] %s %s\n", stamp, GlobalConfSettings::getConfSystemGuid().c_str(),
               text.c_str());
}
