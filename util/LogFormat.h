// LogFormat: the pattern that turns one logging call into one line
// ("%R %p %c %m%n"), and the path by which the logging system reports its
// own problems.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "util/LogLevel.h"
#include "util/Str.h"

class LogAppender;
class LogFormattedTime;

// A compiled pattern. Immutable once made: apply() is safe from any thread.
//
// A conversion is "%", then "-" (pad on the right) or "0" (pad with zeros),
// then digits for the minimum width, then "." and digits for the maximum
// width, then the letter, then an optional "{argument}":
//   %m  the message              %n  a line feed      %%  a percent sign
//   %c  the channel name         %p  the level text   %t  the thread name
//   %r  %R  milliseconds since logging started        %u  the process clock()
//   %d  %d{arg}  the local time (see LogFormattedTime)
// An unknown letter adds nothing; other text is copied. Any single text over
// 16384 bytes becomes "{<length> byte str!}"; then a text over the maximum
// width is cut, and one under the minimum is padded: "%-8p" gives "WARN    ",
// "%8p" "    WARN", "%05c" "000ab", "%.3p" "WAR".
class LogFormat {
 public:
  enum AtomKind {
    MESSAGE = 0,
    LITERAL = 1,
    CHANNEL = 2,
    LEVEL = 3,
    THREAD = 4,
    RELATIVE_TIME = 5,
    RELATIVE_TIME_R = 6,
    PROCESS_CLOCK = 7,
    DATE = 8,
  };
  // The longest text an atom renders as it is.
  static constexpr size_t MAX_ATOM_TEXT = 16384;

  struct Atom {
    int kind;
    const void* data;  // LITERAL: the bytes; DATE: a LogFormattedTime
    size_t dataLength;
    uint32_t minWidth = 0;
    uint32_t maxWidth = 0xffffffff;
    char pad = ' ';  // 0: pad on the right with blanks
  };

  explicit LogFormat(const Str& pattern);
  ~LogFormat();
  LogFormat(const LogFormat&) = delete;
  LogFormat& operator=(const LogFormat&) = delete;

  // Appends the line for one call to `out`.
  void apply(Str& out, const LogMsgMetadata& metadata, const Str& message) const;

  const Str& pattern() const { return _pattern; }
  const std::vector<Atom>& atoms() const { return _atoms; }

  // The shared formats: "%m%n", "%R %p %c %m%n" and "%-8p: %m%n". Never
  // destroyed.
  static const std::shared_ptr<const LogFormat>& defaultFormat();
  static const std::shared_ptr<const LogFormat>& basicLayout();
  static const std::shared_ptr<const LogFormat>& simpleLayout();

  // Reports a problem of the logging system itself: formats as
  // Logger::format (errno for "%m") and writes through the root channel's
  // appenders, skipping `failing`, so that a broken appender is never asked
  // to report on itself. Dropped below the root channel's level. Keeps
  // errno.
  static void internal(const LogAppender* failing, LogLevel level, const char* fmt, ...)
      __attribute__((format(printf, 3, 4)));

 private:
  void parse();

  Str _pattern;  // the literal atoms point into it
  std::vector<Atom> _atoms;
  std::vector<std::unique_ptr<LogFormattedTime>> _times;
};
