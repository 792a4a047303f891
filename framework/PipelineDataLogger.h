// Logging about one event: each message names the tag of the problem and
// the input channel the event came through, so that a report can be traced
// to its stream.
#pragma once

#include <cstdarg>

#include "util/LogLevel.h"
#include "util/Logger.h"
#include "util/Str.h"

class CowPipelineData;

// Thread story: as safe as Logger; the event's channel is looked up (and
// created once if the event has none), which takes the channel set's mutex.
class PipelineDataLogger {
 public:
  explicit PipelineDataLogger(const char* channel) : _logger(channel) {}

  // Logs "<tag>: <message> (input=\"<channel key>\")" at the level. A null
  // `pd` logs without the channel part.
  void debugp(CowPipelineData* pd, const char* tag, const char* fmt, ...)
      __attribute__((format(printf, 4, 5)));
  void infop(CowPipelineData* pd, const char* tag, const char* fmt, ...)
      __attribute__((format(printf, 4, 5)));
  void warnp(CowPipelineData* pd, const char* tag, const char* fmt, ...)
      __attribute__((format(printf, 4, 5)));
  void errorp(CowPipelineData* pd, const char* tag, const char* fmt, ...)
      __attribute__((format(printf, 4, 5)));
  void vlogp(LogLevel level, CowPipelineData* pd, const char* tag, const char* fmt, va_list args)
      __attribute__((format(printf, 5, 0)));

  // Sends bad timestamp expressions of the date set-up through errorp on
  // the event's channel. Installed by a static initialiser of the event
  // record, so any program that builds events has it; callable again.
  static void installDatetimeRegexReporter();

 private:
  Logger _logger;
};
