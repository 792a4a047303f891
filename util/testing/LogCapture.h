// ScopedLogCapture: sends one log channel into a file of a fresh temporary
// directory for the length of a test, so the test can read what was logged.
// Test code only.
#pragma once

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "util/LogAppender.h"
#include "util/LogChannel.h"
#include "util/Logger.h"
#include "util/testing/TestTempDir.h"

// One owner: the test that made it. Connects the loggers first
// (Logger::initialize()) if nobody did. While it lives, the channel (the
// root channel for a null name, which carries the logging system's own
// reports) writes only to the capture, at every level; its old level and
// appenders come back at the end.
class ScopedLogCapture {
 public:
  explicit ScopedLogCapture(const char* channel, const char* pattern = "%p %m%n") {
    if (!Logger::isInitialized()) Logger::initialize();
    static unsigned serial = 0;
    _channel = channel != nullptr ? LogChannel::find(Str(channel)) : &LogChannel::root();
    _savedLevel = _channel->level();
    _savedAppenders = _channel->appenders();
    _path = _dir / "capture.log";
    _appender = LogAppender::find(Str().format("testCapture%u", ++serial), true);
    const std::map<Str, Pathname> none;
    _appender->setAttribute("fileName", _path, none);
    _appender->setAttribute("layout.ConversionPattern", pattern, none);
    _channel->setAppenders({_appender});
    _channel->setLevel(LOGLEVEL_DEBUG);
  }
  ~ScopedLogCapture() {
    _channel->setAppenders(_savedAppenders);
    _channel->setLevel(static_cast<LogLevel>(_savedLevel));
    _appender->setAttribute("fileName", "", {});  // closes the file
  }
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  // Everything written so far.
  std::string text() const { return readTestFile(_path); }
  // text() split at line feeds, without them.
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    std::istringstream in(text());
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
  // Whether some line of lines() is exactly `line`.
  bool hasLine(const std::string& line) const {
    for (const std::string& l : lines()) {
      if (l == line) return true;
    }
    return false;
  }
  const Pathname& path() const { return _path; }

 private:
  TestTempDir _dir;
  Pathname _path;
  LogChannel* _channel;
  int _savedLevel;
  std::vector<LogAppender*> _savedAppenders;
  LogAppender* _appender;
};
