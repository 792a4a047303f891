// PipeToLogger: the lines that come through a pipe (a child process's
// output, say) go into the log, one message per line; PipeParsedToLogger
// also reads each line's level from its first word.
#pragma once

#include <cstddef>

#include "util/LogLevel.h"
#include "util/Logger.h"
#include "util/PolledFd.h"
#include "util/Str.h"
#include "util/Timeout.h"

class EventLoop;

// A pipe in `loop` whose writer is someone else: hand writeEnd() to it and
// closeWriteEnd() here. Loop-thread object; the logger may be shared.
class PipeToLogger : public PolledReadPipe {
 public:
  // A partial line waits this long for its end before it is logged alone.
  static constexpr unsigned long long PARTIAL_LINE_MSEC = 1000;
  // A line longer than this is logged in pieces of this size, which a log
  // line holds whole.
  static constexpr size_t MAX_LINE = 16384;

  // Lines go to `logger` at `level`. The loop and the logger must outlive
  // this object.
  PipeToLogger(EventLoop* loop, Logger* logger, LogLevel level);
  // Takes its timer out of the loop. REQUIRES: removed from the loop.
  ~PipeToLogger() override;

  // Reads what is there and logs every complete line, without its "\n"
  // (and a "\r" before it). What follows the last "\n" waits for the rest,
  // for PARTIAL_LINE_MSEC at most. At the end of the pipe the rest is
  // logged and the member is finished.
  bool when_events(PollableDescriptor fd) override;
  void remove_from_eventloop(EventLoop* loop) override;

 protected:
  // Logs one line; the parsed variant picks its level.
  virtual void logLine(const Str& line);

  Logger* _logger;
  LogLevel _level;

 private:
  // Logs the partial line that waited too long.
  class PipeToLoggerTimeout : public OneShotTimeout {
   public:
    explicit PipeToLoggerTimeout(PipeToLogger* owner) : _owner(owner) {}
    void fire() override { _owner->flushPartial(); }

   private:
    PipeToLogger* _owner;
  };

  void flushPartial();

  EventLoop* _loop;
  Str _partial;
  PipeToLoggerTimeout _timeout{this};
};

// A PipeToLogger whose lines may begin with a level word and a space:
// "ERROR disk full" is logged at ERROR as "disk full". A line without one
// ("error: disk full", "WARNING x") goes at the default level, whole.
class PipeParsedToLogger : public PipeToLogger {
 public:
  using PipeToLogger::PipeToLogger;

 protected:
  void logLine(const Str& line) override;
};
