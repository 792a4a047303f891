#include "util/LogChannel.h"

#include <cstring>

#include "util/LogAppender.h"
#include "util/Mutex.h"

namespace {

// Guards the map. Taken only through the NOLOG forms, as all locks of the
// logging code are. Never destroyed, like the map.
Mutex& channelsMutex() {
  static Mutex* const mutex = new Mutex;
  return *mutex;
}

std::map<Str, LogChannel*>& channels() {
  static auto* map = new std::map<Str, LogChannel*>;
  return *map;
}

}  // namespace

LogChannel& LogChannel::root() {
  static LogChannel* channel = new LogChannel(LOGLEVEL_INFO, {});
  return *channel;
}

LogChannel* LogChannel::find(const Str& name) {
  LogChannel& top = root();
  ScopedNologLock hold(channelsMutex());
  auto it = channels().find(name);
  if (it != channels().end()) return it->second;
  LogChannel* made = new LogChannel(top.level(), top._appenders);
  channels().emplace(name, made);
  return made;
}

std::map<Str, LogChannel*> LogChannel::getAll() {
  ScopedNologLock hold(channelsMutex());
  return channels();
}

bool LogChannel::changeLevel(const Str& word) {
  LogLevel parsed;
  if (!logLevelFromText(word, &parsed)) return false;
  setLevel(parsed);
  return true;
}

bool LogChannel::setConfig(const char* text) {
  bool ok = true;
  bool cleared = false;
  const char* p = text;
  for (;;) {
    p += std::strspn(p, " \t,");
    if (*p == '\0') break;
    const size_t len = std::strcspn(p, " \t,");
    if (!applyConfWord(Str(p, len), &cleared)) ok = false;
    p += len;
  }
  return ok;
}

bool LogChannel::applyConfWord(const Str& word, bool* clearedAppenders) {
  if (changeLevel(word)) {
    _explicit = true;
    return true;
  }
  LogAppender* appender = LogAppender::find(word, false);
  if (appender == nullptr) return false;
  if (!*clearedAppenders) {
    _appenders.clear();
    *clearedAppenders = true;
  }
  _appenders.push_back(appender);
  return true;
}

void LogChannel::write(const LogMsgMetadata& metadata, const Str& message) const {
  write(metadata, message, nullptr);
}

void LogChannel::write(const LogMsgMetadata& metadata, const Str& message,
                       const LogAppender* exceptAppender) const {
  if (_appenders.empty()) {
    LogAppender& rootAppender = LogAppender::root();
    if (&rootAppender != exceptAppender) rootAppender.write(metadata, message);
    return;
  }
  for (LogAppender* appender : _appenders) {
    if (appender != exceptAppender) appender->write(metadata, message);
  }
}
