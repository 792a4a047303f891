// The severity of a log message, its text, and the record of one logging
// call that every appender and format sees.
#pragma once

#include <cstdint>

#include "util/Str.h"
#include "util/Timeval.h"

class Logger;

// Ordered: a channel passes a message whose level is at least its own. Any
// 32-bit value may be stored; those outside the list print as "???".
enum LogLevel : int32_t {
  LOGLEVEL_DEBUG = 0,
  LOGLEVEL_INFO = 1,
  LOGLEVEL_NOTICE = 2,
  LOGLEVEL_WARN = 3,
  LOGLEVEL_ERROR = 4,
  LOGLEVEL_CRIT = 5,
  LOGLEVEL_ALERT = 6,
  LOGLEVEL_FATAL = 7,
  LOGLEVEL_EMERG = 8,
};

// "DEBUG", "INFO", "NOTICE", "WARN", "ERROR", "CRIT", "ALERT", "FATAL",
// "EMERG"; any other value "???". Static storage.
const char* logLevelText(int level);
// The level whose text is exactly `word` (upper case only: "warn" and
// "WARNING" fail). False, leaving *level alone, for anything else.
bool logLevelFromText(const StrSegment& word, LogLevel* level);

// One logging call: when it happened, by which logger, at which level. A
// plain value made on the calling thread.
class LogMsgMetadata {
 public:
  // Reads the clock (Timeval's clock seam).
  LogMsgMetadata(const Logger* by, LogLevel at) : logger(by), level(at) {}

  CurrentTimeval time;
  const Logger* logger;  // borrowed; may be null for the logging system's own lines
  LogLevel level;
};
