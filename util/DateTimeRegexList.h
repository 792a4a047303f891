// The ordered lists of time and date patterns of one pattern file, and the
// scoring state that a list's parse fills from one match.
#pragma once

#include <cstddef>
#include <vector>

#include "util/DateTimeRegex.h"
#include "util/Str.h"
#include "util/TimeFormatRawParseResult.h"

class DateParser;

// The raw fields of one pattern match plus the zone text that the raw
// result's `tzName` view may point at. One owner at a time.
class DP_parseState : public TimeFormatRawParseResult {
 public:
  // Owns the text that `tzName` points at once the parser keeps a zone.
  Str zoneName;
  // A zone text that failed the zone check; empty when none did.
  Str badZone;
};

// An ordered list of patterns, in the order of the file; the same pattern
// may stand twice. Borrows the patterns: the DateParserRegexConf that holds
// the list owns them. Filled while the configuration is loaded, immutable
// after, and then safe from any thread.
class DateTimeRegexList {
 public:
  DateTimeRegexList() = default;
  virtual ~DateTimeRegexList() = default;
  DateTimeRegexList(const DateTimeRegexList&) = delete;
  DateTimeRegexList& operator=(const DateTimeRegexList&) = delete;

  // Scores one match into `ps`: the higher the better, -1 when the
  // extractions do not make a valid value.
  virtual int parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const = 0;
  // Whether a winning candidate in `ps` may stand for `parser`. The base
  // accepts every candidate.
  virtual bool valid(DP_parseState* ps, DateParser* parser) const;

  // Appends `regex`, borrowed. REQUIRES: regex != nullptr.
  void append(const DateTimeRegex* regex);
  size_t size() const { return _regexes.size(); }
  bool empty() const { return _regexes.empty(); }
  // REQUIRES: i < size().
  const DateTimeRegex* at(size_t i) const { return _regexes[i]; }
  std::vector<const DateTimeRegex*>::const_iterator begin() const { return _regexes.begin(); }
  std::vector<const DateTimeRegex*>::const_iterator end() const { return _regexes.end(); }

 private:
  std::vector<const DateTimeRegex*> _regexes;
};

// The time patterns: hours, minutes, seconds, zones, epochs. Keeps the
// base valid(). Defined with the date parser.
class TimeRegexList : public DateTimeRegexList {
 public:
  int parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const override;
};

// The date patterns: day, month, year, day of the year. valid() admits only
// a date that the parser's guesser can complete inside its window. Defined
// with the date parser.
class DateRegexList : public DateTimeRegexList {
 public:
  int parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const override;
  bool valid(DP_parseState* ps, DateParser* parser) const override;
};
