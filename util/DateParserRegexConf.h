// DateParserRegexConf: one loaded timestamp pattern file, its named
// patterns and its time and date lists, shared by reference count.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>

#include "util/DateTimeRegex.h"
#include "util/DateTimeRegexList.h"
#include "util/Str.h"
#include "util/Timeval.h"

class Logger;
class Pathname;
class XmlNode;

// Filled once by readPatterns while one thread owns it, then immutable and
// shared without locks by every parser that holds a reference; the count is
// atomic. A default-constructed one is empty: no pattern in either list.
class DateParserRegexConf {
 public:
  DateParserRegexConf();
  ~DateParserRegexConf();
  DateParserRegexConf(const DateParserRegexConf&) = delete;
  DateParserRegexConf& operator=(const DateParserRegexConf&) = delete;

  // Reads the patterns under `root`, the document's root element, whose
  // name is free: first every `define` child in file order, then the
  // `timePatterns` and `datePatterns` children. `path` only names the file
  // in messages. Every failure throws DateParseException with `errLogger`
  // (may be null) as its logger; a failure while the defines are read,
  // a pattern that does not compile included, is wrapped as "Error parsing
  // regex XML file: <path> - <text>". A composed expression past 1 MiB is
  // refused ("regex of define \"<name>\" grows past 1048576 bytes"): uses
  // that double at every step would otherwise grow without bound. Debug lines go to the channel
  // "LoadDateParserRegexes". After a throw this object is only fit to be
  // destroyed. REQUIRES: called once, on a default-constructed object.
  void readPatterns(const XmlNode& root, const Pathname& path, Logger* errLogger);

  // The `define` name under which `regex` is stored; null when it is none
  // of this file's (after a redefinition the replaced one is gone).
  const Str* getPatternName(const DateTimeRegex* regex) const;
  // The pattern stored under `name`, or null.
  const DateTimeRegex* find(const Str& name) const;

  const TimeRegexList& getTimeList() const { return timeList; }
  const DateRegexList& getDateList() const { return dateList; }

  // Adds one reference.
  void addRef() const { refCount.fetch_add(1, std::memory_order_relaxed); }
  // Drops one reference and returns true when it was the last, in which
  // case the caller deletes the object. REQUIRES: a reference is held.
  bool dropRef() const;
  int32_t getRefCount() const { return refCount.load(std::memory_order_acquire); }

  // Every `define` by name; owns the patterns.
  std::map<Str, std::unique_ptr<DateTimeRegex>> regexes;
  // `datePatterns` and `timePatterns`, in file order; borrow from `regexes`.
  DateRegexList dateList;
  TimeRegexList timeList;
  // The file's modification time when it was read.
  Timeval mtime;
  // When `mtime` was last confirmed; written by the cache under its mutex.
  int64_t lastChecked = 0;
  // The cache's own reference counts as one.
  mutable std::atomic<int32_t> refCount{0};
};
