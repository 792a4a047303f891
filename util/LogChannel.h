// LogChannel: a named level and list of appenders that loggers resolve to,
// the root channel, and the process-wide map of channels.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include "util/LogLevel.h"
#include "util/Str.h"

class LogAppender;

// Channels live to the end of the process. The level is read and written
// atomically from any thread; the appender list and the configuration
// methods belong to start-up (before other threads log) or to tests.
class LogChannel {
 public:
  // The root: level INFO and no appenders (so the root appender) until
  // configured. Made on first use, never destroyed.
  static LogChannel& root();
  // The channel of that name, made as a copy of the root's level and
  // appenders when new. Never null; safe from any thread.
  static LogChannel* find(const Str& name);
  // Every channel but the root, by name.
  static std::map<Str, LogChannel*> getAll();

  int level() const { return _level.load(std::memory_order_relaxed); }
  // Whether a level word was applied by configuration.
  bool isLevelExplicit() const { return _explicit; }
  void setLevel(LogLevel level) { _level.store(level, std::memory_order_relaxed); }
  // Sets the level from its exact upper-case text; false, changing nothing,
  // otherwise ("warn", "WARNING").
  bool changeLevel(const Str& word);

  // Applies a list of words separated by blanks, tabs and commas: "WARN,
  // main, rootAppender". Returns false when any word failed; the others are
  // applied all the same.
  bool setConfig(const char* text);
  // One word: a level name sets the level and marks it explicit; the name of
  // an existing appender ("rootAppender" for the root one) joins the list,
  // the first such word of a list replacing the inherited appenders (tracked
  // in *clearedAppenders, false at the start of a list). False for anything
  // else.
  bool applyConfWord(const Str& word, bool* clearedAppenders);

  // Writes the message to every appender, or to the root appender when the
  // list is empty; the second form skips `exceptAppender` (the logging
  // system's own reports about a failing appender).
  void write(const LogMsgMetadata& metadata, const Str& message) const;
  void write(const LogMsgMetadata& metadata, const Str& message,
             const LogAppender* exceptAppender) const;

  const std::vector<LogAppender*>& appenders() const { return _appenders; }
  void setAppenders(const std::vector<LogAppender*>& appenders) { _appenders = appenders; }

 private:
  LogChannel(int level, const std::vector<LogAppender*>& appenders)
      : _level(level), _explicit(false), _appenders(appenders) {}

  std::atomic<int32_t> _level;
  bool _explicit;
  std::vector<LogAppender*> _appenders;
};
