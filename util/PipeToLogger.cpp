#include "util/PipeToLogger.h"

#include <unistd.h>

#include <cerrno>

#include "util/EventLoop.h"
#include "util/StrSegment.h"

PipeToLogger::PipeToLogger(EventLoop* loop, Logger* logger, LogLevel level)
    : _logger(logger), _level(level), _loop(loop) {}

PipeToLogger::~PipeToLogger() {
  if (_timeout.isScheduled()) _loop->remove(&_timeout);
}

void PipeToLogger::logLine(const Str& line) { _logger->log(_level, "%s", line.c_str()); }

void PipeToLogger::flushPartial() {
  if (_partial.empty()) return;
  Str line;
  line.swap(_partial);
  logLine(line);
}

void PipeToLogger::remove_from_eventloop(EventLoop* loop) {
  if (_timeout.isScheduled()) _loop->remove(&_timeout);
  PolledReadPipe::remove_from_eventloop(loop);
}

bool PipeToLogger::when_events(PollableDescriptor fd) {
  char buf[8192];
  bool ended = false;
  for (;;) {
    const ssize_t n = ::read(fd.fd(), buf, sizeof(buf));
    if (n > 0) {
      _partial.append(buf, static_cast<size_t>(n));
      size_t start = 0;
      for (;;) {
        const size_t nl = _partial.find('\n', start);
        if (nl != Str::npos && nl - start <= MAX_LINE) {
          size_t end = nl;
          if (end > start && _partial[end - 1] == '\r') --end;
          logLine(Str(_partial.substr(start, end - start)));
          start = nl + 1;
        } else if (_partial.size() - start >= MAX_LINE) {
          logLine(Str(_partial.substr(start, MAX_LINE)));
          start += MAX_LINE;
        } else {
          break;
        }
      }
      _partial.erase(0, start);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    ended = n == 0 || errno != EAGAIN;
    break;
  }
  if (ended) {
    if (_timeout.isScheduled()) _loop->remove(&_timeout);
    flushPartial();
    return true;
  }
  if (_partial.empty()) {
    if (_timeout.isScheduled()) _loop->remove(&_timeout);
  } else if (!_timeout.isScheduled()) {
    _loop->add(&_timeout, PARTIAL_LINE_MSEC);
  }
  return false;
}

void PipeParsedToLogger::logLine(const Str& line) {
  const size_t space = line.find(' ');
  LogLevel level;
  if (space != Str::npos && logLevelFromText(StrSegment(line.data(), space), &level)) {
    _logger->log(level, "%s", line.c_str() + space + 1);
    return;
  }
  PipeToLogger::logLine(line);
}
