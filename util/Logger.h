// Logger: the per-component handle through which all code logs, the start-up
// of the logging system, and the printf-style formatting that understands
// "%m".
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <exception>
#include <map>
#include <memory>

#include "util/LogLevel.h"
#include "util/LoggerStream.h"
#include "util/Pathname.h"
#include "util/Str.h"

class LogChannel;
class LogDedupper;
class MAuditSigner;

// One per component, usually a file-level static: `Logger gLogger("IniFile")`.
// Loggers made before Logger::initialize wait in a pending list and log
// through the root channel (standard error until configured); a logger used
// by another static initialiser before its own constructor ran writes
// "LEVEL - message" straight to standard error. Every method is safe from
// any thread, and every logging call leaves errno as it found it.
class Logger {
 public:
  // `name` is the channel name and is borrowed: it must outlive the logger
  // (a string literal). With `dedup`, printf-style calls with the same
  // format are suppressed past `count` within `seconds` (see LogDedupper).
  explicit Logger(const char* name, bool dedup = false, unsigned seconds = 60,
                  unsigned count = 100);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Connects every logger to its channel. Needs no file: without one,
  // everything goes through the root channel to standard error. Runs once
  // per process ("!logger_initialized").
  static void initialize();
  // Reads `config` and its "-local" companion (see LogConfigReader), then
  // initialize(). `section`, when not null, selects the lines of that
  // "[section]"; `variables` fill "${KEY}" in appender attributes. Unless
  // `quiet`, the root appender is set up as the configuration says (and
  // disabled when it names no file). Returns false, after initialize() and
  // the ERROR "Couldn't open log file configuration \"%s\": %m", when
  // `config` cannot be read.
  static bool initialize(const Pathname& config, const char* section,
                         const std::map<Str, Pathname>& variables, bool quiet);
  static bool isInitialized();
  // When on, nothing is written straight to standard error by a logger used
  // before its construction.
  static void setQuiet(bool quiet);

  // The stream forms: text gathered by << is logged when the stream dies.
  // A disabled level gives an inert stream that formats nothing.
  LoggerStream debug() { return stream(LOGLEVEL_DEBUG); }
  LoggerStream info() { return stream(LOGLEVEL_INFO); }
  LoggerStream warn() { return stream(LOGLEVEL_WARN); }
  LoggerStream error() { return stream(LOGLEVEL_ERROR); }
  LoggerStream crit() { return stream(LOGLEVEL_CRIT); }
  LoggerStream fatal() { return stream(LOGLEVEL_FATAL); }
  // The printf forms; "%m" is the text of errno at the call. A disabled
  // level returns before any formatting.
  void debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void warn(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void crit(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void fatal(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // Logs e.what(), never deduplicated.
  void debug(const std::exception& e) { logException(LOGLEVEL_DEBUG, e); }
  void info(const std::exception& e) { logException(LOGLEVEL_INFO, e); }
  void warn(const std::exception& e) { logException(LOGLEVEL_WARN, e); }
  void error(const std::exception& e) { logException(LOGLEVEL_ERROR, e); }
  void crit(const std::exception& e) { logException(LOGLEVEL_CRIT, e); }
  void fatal(const std::exception& e) { logException(LOGLEVEL_FATAL, e); }
  // Any level, NOTICE, ALERT and EMERG included.
  void log(LogLevel level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void vlog(LogLevel level, const char* fmt, va_list args) __attribute__((format(printf, 3, 0)));

  // Whether a message at `level` would pass the channel: one load and one
  // compare once initialised.
  bool isEnabled(LogLevel level) const;
  bool isDebugEnabled() const { return isEnabled(LOGLEVEL_DEBUG); }

  // printf into `out` (replacing it), with every "%m" the text of `errnum`
  // (errno in the first form) from strerror_r, or "UNKNOWN ERROR". The
  // error text is put into the format before formatting, so a "%" in it
  // would be read as a directive; "%%m" stays a literal "%m". Returns out.
  static Str& format(Str& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  static Str& format(Str& out, int errnum, const char* fmt, ...)
      __attribute__((format(printf, 3, 4)));
  static Str& vformat(Str& out, int errnum, const char* fmt, va_list args)
      __attribute__((format(printf, 3, 0)));

  // Audit records at INFO: "Audit:[<text>, signature=<sig>]", signed by
  // `signer`; with no signer, or when signing fails, the signature reads
  // "encryption error - not valid".
  void auditInfo(const MAuditSigner* signer, const Str& text);
  void auditInfo(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void auditInfo(const std::exception& e);
  static Str auditInfoInternal(const MAuditSigner* signer, const Str& text);

  // Logs what the deduplication still holds back; nothing without dedup.
  void flushDedup();

  // Every channel made so far, by name, with its level's text.
  static void getAllChannels(std::map<Str, Str>& out);
  // Sets the level of `channel` (made if new) from its text ("DEBUG" ...);
  // false, changing nothing, for a text that is no level.
  static bool setChannelLevel(const char* channel, const Str& level);

  // The channel name; empty for a logger used before its construction.
  const char* name() const { return _name != nullptr ? _name : ""; }
  size_t nameLength() const { return _nameLen; }
  // The channel this logger writes to: its own once initialised, the root
  // channel before.
  LogChannel* channel() const;

 private:
  friend void cpp_do_log(Logger* logger, LogLevel level, const Str& message);
  friend class LogDedupper;

  LoggerStream stream(LogLevel level) {
    return LoggerStream(isEnabled(level) ? this : nullptr, level);
  }
  void logException(LogLevel level, const std::exception& e);
  // Whether this logger waits in the pending list. Before initialize() only.
  bool internal_isPending() const;

  const char* _name;
  size_t _nameLen;
  std::atomic<LogChannel*> _channel;  // null until initialize()
  Logger* _next;                      // pending list, under its mutex
  std::unique_ptr<LogDedupper> _dedupper;
};

// The end of every logging call: drops `message` below the channel's level,
// else stamps it and writes it to the channel's appenders. Before
// initialize(), a logger that is not pending (not yet constructed) writes
// "LEVEL - message\n" to descriptor 2 in one write, unless quiet.
void cpp_do_log(Logger* logger, LogLevel level, const Str& message);
// Formats as Logger::vformat with errno as the error, then as above.
void cpp_do_log(Logger* logger, LogLevel level, const char* fmt, va_list args)
    __attribute__((format(printf, 3, 0)));
