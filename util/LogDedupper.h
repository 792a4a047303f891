// LogDedupper: holds back repeats of a logger's messages and later says how
// many were held back. The key of a message is its format text, not the
// finished message, so "%s failed" with any argument counts as one.
#pragma once

#include <cstdarg>
#include <map>

#include "util/LogLevel.h"
#include "util/Mutex.h"
#include "util/Str.h"
#include "util/Timeval.h"

class Logger;

// What the dedupper knows of one format. A plain value under the dedupper's
// mutex.
class LogSummary {
 public:
  Str key;
  Str message;  // the latest rendering
  LogLevel level = LOGLEVEL_INFO;
  unsigned occurrences = 0;
  unsigned count = 0;    // occurrences logged before holding back
  unsigned seconds = 0;  // how long a held-back state lasts
  Timeval first = Timeval::max();  // first held-back occurrence; max() when none

  // Whether a held-back state began more than `seconds` before `now`.
  bool expired(const Timeval& now) const;
};

// Owned by its Logger. log() and flush() are safe from any thread: one mutex
// covers the map, and it is taken before any appender's lock.
//
// With count 100 and seconds 60: the first 100 calls with one format are
// logged as they come; the 101st and later are held back, the first of them
// stamped; the first call (of any format) more than 60 s after that stamp
// logs the held-back format's latest message with
// "\n\t\t\t\t<n> similar messages suppressed.  First occurred at: <time>",
// n being the calls past 100, and the format starts afresh.
class LogDedupper {
 public:
  LogDedupper(Logger* logger, unsigned seconds, unsigned count)
      : _logger(logger), _count(count), _seconds(seconds) {}

  // Renders `fmt` (with `errnum` for "%m") and logs or holds it back as
  // above. The caller has checked the level.
  void log(LogLevel level, int errnum, const char* fmt, va_list args)
      __attribute__((format(printf, 4, 0)));
  // Logs every summary that has occurrences, with the suffix when some were
  // held back, and forgets them all.
  void flush();

 private:
  // Logs the summary's message; returns whether the summary is to be erased.
  bool emit(LogSummary& summary);

  Logger* _logger;
  full_Mutex _mutex;
  std::map<Str, LogSummary> _summaries;  // guarded by _mutex
  unsigned _count;
  unsigned _seconds;
};
