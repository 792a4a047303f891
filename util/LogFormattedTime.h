// LogFormattedTime: the time of a log line as "%d{...}" asks for it, with
// the local breakdown cached per thread and second.
#pragma once

#include "util/Str.h"
#include "util/TimeFormat.h"
#include "util/Timeval.h"

// Immutable once made: render() is safe from any thread.
class LogFormattedTime {
 public:
  // The pattern for `arg`: empty or "ISO8601" gives "%Y-%m-%d %H:%M:%S,%l"
  // ("2024-03-05 14:07:09,042"), "DATE" "%d %b %Y %H:%M:%S,%l", "ABSOLUTE"
  // "%H:%M:%S,%l"; anything else is a TimeFormat pattern itself, and one
  // that TimeFormat refuses gives the first form.
  explicit LogFormattedTime(const Str& arg);

  // Appends `t` in the process's local time.
  void render(Str& out, const Timeval& t) const;

  // The pattern in use after the fallbacks.
  const Str& pattern() const { return _pattern; }

 private:
  Str _pattern;
  TimeFormat _format;
};
