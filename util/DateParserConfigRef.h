// DateParserConfigRef, a counted handle to a loaded pattern file, and
// CachedDateParserConfig, the process-wide cache of loaded files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "util/Pathname.h"

class DateParser;
class DateParserRegexConf;

// A handle of one pointer with three kinds of value: null (no patterns, the
// file name "NONE"), CURRENT (the file name "CURRENT": every event takes the
// clock) and a counted reference to a DateParserRegexConf. One owner at a
// time; the configuration it points at is shared and immutable.
class DateParserConfigRef {
 public:
  DateParserConfigRef() = default;
  // Copies add a reference; the copy and the original release separately.
  DateParserConfigRef(const DateParserConfigRef& other);
  DateParserConfigRef& operator=(const DateParserConfigRef& other);
  ~DateParserConfigRef() { release(); }

  // Releases the current value, then: "NONE" leaves it null, "CURRENT" sets
  // the special value, and any other path takes a reference to the cached
  // configuration of that file, loading it when it is not cached or its
  // modification time changed (looked at no more than once in 30 seconds).
  // Throws DateParseException on failure, leaving the value null and no
  // cache entry for `path`; with `logErrors` the text is also logged at
  // error level on the channel "LoadDateParserRegexes".
  void load(const Pathname& path, bool logErrors);
  // Drops the reference, if any (the last one deletes the configuration),
  // and becomes null. Lock-free.
  void release();
  // Gives `parser` this configuration. The parser takes no reference: this
  // handle has to outlive the parser's use of it.
  void assignTo(DateParser* parser) const;

  bool isNone() const { return _conf == nullptr; }
  bool isCurrent() const { return _conf == currentValue(); }
  // The configuration, or null for "NONE" and "CURRENT".
  const DateParserRegexConf* get() const { return isCurrent() ? nullptr : _conf; }

 private:
  // The special pointer value 1 that stands for "CURRENT"; a function, so
  // that it needs no static initialisation.
  static DateParserRegexConf* currentValue() {
    return reinterpret_cast<DateParserRegexConf*>(uintptr_t{1});
  }

  DateParserRegexConf* _conf = nullptr;
};

// The process-wide cache from path to loaded configuration, all of it under
// one Mutex; safe from any thread.
class CachedDateParserConfig {
 public:
  // The configuration of `path` with a reference added for the caller,
  // loading it as DateParserConfigRef::load says. Throws DateParseException.
  static DateParserRegexConf* acquire(const Pathname& path, bool logErrors);

  // The clock that the 30-second rule reads, time(0) by default. Returns the
  // one it replaces; null restores the default. For tests.
  typedef time_t (*ClockFunction)();
  static ClockFunction setClock(ClockFunction clock);

  // The number of cached files.
  static size_t size();
  // Whether `path` has an entry.
  static bool contains(const Pathname& path);
};
