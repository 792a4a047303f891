// DateTimeRegex: one compiled timestamp pattern of the pattern file, with the
// meaning of each of its capture groups, and the extractions of one match.
#pragma once

#include <cstddef>
#include <vector>

#include "util/Regex.h"
#include "util/Str.h"
#include "util/StrSegment.h"

// What one match of a DateTimeRegex yields: for each real extraction code
// the bytes of its group, or nothing. A plain value that points into the
// matched text, which the caller keeps alive. One owner at a time.
class DateTimeRegexExtractions {
 public:
  // The 13 real codes, DateTimeRegex::YEAR to DateTimeRegex::HEXEPOCH.
  static constexpr int NUM_CODES = 13;

  DateTimeRegexExtractions() { clear(); }
  // Back to nothing set.
  void clear();
  // Whether `code` was set by the match. REQUIRES: 0 <= code < NUM_CODES.
  bool has(int code) const { return ptr[code] != nullptr; }
  // The text of `code`; an empty segment when it is unset.
  // REQUIRES: 0 <= code < NUM_CODES.
  StrSegment get(int code) const {
    return ptr[code] ? StrSegment(ptr[code], len[code]) : StrSegment(nullptr, 0);
  }

  // Start of each code's text in the subject, null when unset.
  const char* ptr[NUM_CODES];
  // Length of each code's text; never 0 for a set code.
  size_t len[NUM_CODES];
  // The number of groups stored: the codes set, unless two groups of one
  // code both took part.
  size_t count;
};

// A Regex compiled caseless, in UTF-8 mode and studied, plus `extractions`:
// one code per capture group, in group order. Immutable once built; any
// number of threads may evaluate with it at once.
class DateTimeRegex : public Regex {
 public:
  // The extraction codes, with their names in the pattern file.
  enum Extraction : int {
    YEAR = 0,        // "year": one or two characters a short year, else full
    MONTH = 1,       // "month": month number
    LITMONTH = 2,    // "litmonth": month as a word
    DAY = 3,         // "day": day of the month
    AMPM = 4,        // "ampm": AM or PM marker
    HOUR = 5,        // "hour"
    MINUTE = 6,      // "minute"
    SECOND = 7,      // "second"
    SUBSECOND = 8,   // "subsecond": fraction of a second, digits only
    ZONE = 9,        // "zone": zone name or numeric offset
    ORD = 10,        // "ord": day of the year, from 1
    UTCEPOCH = 11,   // "utcepoch": epoch seconds, or an external "@" label
    HEXEPOCH = 12,   // "hexepoch": epoch seconds in hexadecimal
    IGNORED = 13,    // any name beginning "ignored_": the text is dropped
  };

  // Compiles `text` through _internal_init(text, true, CASELESS) and maps
  // each name of `extractNames` to its code. A name that is neither in the
  // table nor begins "ignored_" logs the warning "Found unknown extraction
  // \"<name>\" in RE \"<text>\", ignoring it" on the channel "DateParser"
  // and takes its place as IGNORED. Throws RegexException when `text` does
  // not compile.
  DateTimeRegex(const Str& text, const std::vector<Str>& extractNames);

  // The code of an extraction name: "hour" is HOUR, "ignored_x" IGNORED;
  // false for any other name, leaving *code alone. Case matters.
  static bool extractionFromName(const StrSegment& name, Extraction* code);
  // The file's name of a real code ("hour"); "ignored" for IGNORED.
  static const char* extractionName(Extraction code);

  // Searches `text`, which does not move; bytes that are not UTF-8 match no
  // pattern item but do not fail the search. On a match sets `start` and `end`
  // to the byte offsets of the whole match in `text`, fills `out` (cleared
  // first) by walking groups and `extractions` in step up to the shorter of
  // the two, storing each group of non-zero length whose code is real, and
  // returns true. Without a match returns false with `out` cleared and
  // `start`/`end` untouched. Extraction names beyond the groups are unused.
  bool evaluate(StrSegment& text, DateTimeRegexExtractions& out, int& start, int& end) const;

  // One code per capture group, in group order.
  std::vector<Extraction> extractions;
};
