#include "util/Logger.h"

#include <unistd.h>

#include <cstring>

#include "util/Assert.h"
#include "util/LogAppender.h"
#include "util/LogChannel.h"
#include "util/LogConfig.h"
#include "util/LogDedupper.h"
#include "util/LogFormat.h"
#include "util/Mutex.h"
#include "util/ScopedErrnoSaver.h"

namespace {

// Guards the pending list and the switch to initialised. Made on first use
// (loggers are made by static constructors) and never destroyed (they are
// destroyed by static destructors).
Mutex& pendingMutex() {
  static Mutex* const mutex = new Mutex;
  return *mutex;
}
Logger* gPendingHead = nullptr;  // guarded by pendingMutex()
std::atomic<bool> logger_initialized{false};
std::atomic<bool> gQuiet{false};

// Ends the pending list, so that a logger in the list always has a non-null
// _next and one that never joined it (not yet constructed) has null.
Logger* pendingEnd() { return reinterpret_cast<Logger*>(&gPendingHead); }

// strerror_r in its GNU form, which may return a static text instead of
// filling the buffer.
const char* errorText(int errnum, char* buf, size_t size) {
  buf[0] = '\0';
  const char* text = strerror_r(errnum, buf, size);
  return text != nullptr && *text != '\0' ? text : "UNKNOWN ERROR";
}

}  // namespace

Logger::Logger(const char* name, bool dedup, unsigned seconds, unsigned count)
    : _name(name), _nameLen(std::strlen(name)), _channel(nullptr), _next(nullptr) {
  if (dedup) _dedupper = std::make_unique<LogDedupper>(this, seconds, count);
  ScopedNologLock hold(pendingMutex());
  if (logger_initialized) {
    _channel = LogChannel::find(Str(_name, _nameLen));
    return;
  }
  _next = gPendingHead != nullptr ? gPendingHead : pendingEnd();
  gPendingHead = this;
}

Logger::~Logger() {
  ScopedNologLock hold(pendingMutex());
  if (_next == nullptr) return;
  for (Logger** link = &gPendingHead; *link != nullptr && *link != pendingEnd();
       link = &(*link)->_next) {
    if (*link == this) {
      *link = _next;
      break;
    }
  }
  _next = nullptr;
}

void Logger::initialize() {
  ScopedNologLock hold(pendingMutex());
  kassert(!logger_initialized);
  Logger* l = gPendingHead;
  while (l != nullptr && l != pendingEnd()) {
    Logger* next = l->_next;
    l->_channel = LogChannel::find(Str(l->_name, l->_nameLen));
    l->_next = nullptr;
    l = next;
  }
  gPendingHead = nullptr;
  logger_initialized = true;
}

bool Logger::initialize(const Pathname& config, const char* section,
                        const std::map<Str, Pathname>& variables, bool quiet) {
  ScopedErrnoSaver keep;
  LogConfigReader reader(section, variables);
  if (!reader.readFile(config)) {
    const int err = errno;
    initialize();
    errno = err;
    LogFormat::internal(nullptr, LOGLEVEL_ERROR, "Couldn't open log file configuration \"%s\": %m",
                        config.c_str());
    return false;
  }
  reader.readFile(LogConfigReader::localCompanion(config));
  reader.applyChannels();
  initialize();
  if (!quiet) LogAppender::root().finalSetup(LogAppender::ROOT_APPENDER_NAME, false);
  LogAppender::finalSetupAll();
  reader.reportErrors();
  return true;
}

bool Logger::isInitialized() { return logger_initialized.load(); }

void Logger::setQuiet(bool quiet) { gQuiet = quiet; }

bool Logger::internal_isPending() const {
  ScopedNologLock hold(pendingMutex());
  return _next != nullptr;
}

LogChannel* Logger::channel() const {
  LogChannel* ch = _channel.load(std::memory_order_acquire);
  return ch != nullptr ? ch : &LogChannel::root();
}

bool Logger::isEnabled(LogLevel level) const {
  const LogChannel* ch = _channel.load(std::memory_order_acquire);
  if (ch != nullptr) return level >= ch->level();
  // Before initialize(): pending loggers use the root channel; one that is
  // not yet constructed writes everything straight out.
  if (!logger_initialized && !internal_isPending()) return true;
  return level >= LogChannel::root().level();
}

void cpp_do_log(Logger* logger, LogLevel level, const Str& message) {
  ScopedErrnoSaver keep;
  LogChannel* ch = logger->_channel.load(std::memory_order_acquire);
  if (ch == nullptr) {
    if (!logger_initialized && !logger->internal_isPending()) {
      if (gQuiet) return;
      Str line(logLevelText(level));
      line.append(" - ");
      line.append(message);
      line.push_back('\n');
      // One write, so that the line is not torn by other writers.
      if (::write(2, line.data(), line.size()) < 0) return;
      return;
    }
    ch = &LogChannel::root();
  }
  if (level < ch->level()) return;
  ch->write(LogMsgMetadata(logger, level), message);
}

void cpp_do_log(Logger* logger, LogLevel level, const char* fmt, va_list args) {
  ScopedErrnoSaver keep;
  Str message;
  Logger::vformat(message, keep.saved(), fmt, args);
  cpp_do_log(logger, level, message);
}

void Logger::vlog(LogLevel level, const char* fmt, va_list args) {
  if (!isEnabled(level)) return;
  ScopedErrnoSaver keep;
  if (_dedupper != nullptr) {
    _dedupper->log(level, keep.saved(), fmt, args);
    return;
  }
  cpp_do_log(this, level, fmt, args);
}

void Logger::log(LogLevel level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(level, fmt, args);
  va_end(args);
}

void Logger::debug(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(LOGLEVEL_DEBUG, fmt, args);
  va_end(args);
}

void Logger::info(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(LOGLEVEL_INFO, fmt, args);
  va_end(args);
}

void Logger::warn(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(LOGLEVEL_WARN, fmt, args);
  va_end(args);
}

void Logger::error(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(LOGLEVEL_ERROR, fmt, args);
  va_end(args);
}

void Logger::crit(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(LOGLEVEL_CRIT, fmt, args);
  va_end(args);
}

void Logger::fatal(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vlog(LOGLEVEL_FATAL, fmt, args);
  va_end(args);
}

void Logger::logException(LogLevel level, const std::exception& e) {
  if (!isEnabled(level)) return;
  ScopedErrnoSaver keep;
  cpp_do_log(this, level, Str(e.what()));
}

Str& Logger::format(Str& out, const char* fmt, ...) {
  const int errnum = errno;
  va_list args;
  va_start(args, fmt);
  vformat(out, errnum, fmt, args);
  va_end(args);
  return out;
}

Str& Logger::format(Str& out, int errnum, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vformat(out, errnum, fmt, args);
  va_end(args);
  return out;
}

Str& Logger::vformat(Str& out, int errnum, const char* fmt, va_list args) {
  ScopedErrnoSaver keep;
  if (std::strstr(fmt, "%m") == nullptr) return out.vformat(fmt, args);
  char buf[1000];
  const char* text = errorText(errnum, buf, sizeof buf);
  Str rewritten;
  for (const char* p = fmt; *p != '\0'; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      rewritten.append("%%");
      ++p;
    } else if (p[0] == '%' && p[1] == 'm') {
      rewritten.append(text);
      ++p;
    } else {
      rewritten.push_back(*p);
    }
  }
  return out.vformat(rewritten.c_str(), args);
}

void Logger::flushDedup() {
  if (_dedupper != nullptr) _dedupper->flush();
}

void Logger::getAllChannels(std::map<Str, Str>& out) {
  for (const auto& entry : LogChannel::getAll()) {
    out[entry.first] = logLevelText(entry.second->level());
  }
}

bool Logger::setChannelLevel(const char* channel, const Str& level) {
  LogLevel parsed;
  if (!logLevelFromText(level, &parsed)) return false;
  LogChannel::find(Str(channel))->setLevel(parsed);
  return true;
}
