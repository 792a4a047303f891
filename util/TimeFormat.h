// TimeFormat: a strftime-style format compiled once into atoms, which then
// both parse text into a TimeFormatRawParseResult (rawParse) and render a
// broken-down time (render). It knows subseconds, and it is forgiving about
// white space and widths.
#pragma once

#include <cstdint>
#include <memory>

#include "util/DateTime.h"
#include "util/Str.h"
#include "util/TimeFormatRawParseResult.h"

// Compiling (setFtime, reset) needs one owner; once compiled, rawParse and
// render are const and safe from any number of threads.
class TimeFormat {
 public:
  // The record of function slots through which render reaches a view's
  // epoch, zone name and offset (util/DateTime.h).
  typedef ::render_tm_ops render_tm_ops;

  // What an atom does. The codes are fixed: the parser and the renderer
  // branch on their ranges (0-4 zone offsets, 5-24 numbers, 25-30 names).
  enum atom_type_t {
    TZ_COLONOFFSET = 0,      // %:z   +hh:mm
    TZ_COLONSECOFFSET = 1,   // %::z  +hh:mm:ss
    TZ_AS_NEEDEDOFFSET = 2,  // %:::z +hh, +hh:mm or +hh:mm:ss
    TZ_MINUTESOFFSET = 3,    // %Ez   minutes east
    TZ_OFFSET = 4,           // %z    +hhmm
    EPOCH_NUM = 5,           // %s
    YEAR_NUM = 6,            // %Y %o
    CENTURY_NUM = 7,         // %C
    SHORTYEAR_NUM = 8,       // %y
    ISOYEAR_NUM = 9,         // %G
    ISOSHORTYEAR_NUM = 10,   // %g
    MONTH_NUM = 11,          // %m
    SUNDAYWEEK_NUM = 12,     // %U
    MONDAYWEEK_NUM = 13,     // %W
    ISOWEEK_NUM = 14,        // %V
    MONTHWEEK_NUM = 15,      // no directive
    MDAY_NUM = 16,           // %d %e
    YDAY_NUM = 17,           // %j
    WDAY_NUM = 18,           // %w
    WDAY1_NUM = 19,          // %u
    HOUR_NUM = 20,           // %H %k
    HOUR12_NUM = 21,         // %I, and %l read as an hour
    MINUTE_NUM = 22,         // %M
    SECOND_NUM = 23,         // %S
    SUBSEC_NUM = 24,         // %N %Q %f %q, and %l read as milliseconds
    WDAY_ABBREV = 25,        // %a
    WDAY_FULL = 26,          // %A
    MONTH_ABBREV = 27,       // %b %h
    MONTH_FULL = 28,         // %B
    AMPM = 29,               // %p %P
    TZ_NAME = 30,            // %Z
    WHITESPACE = 31,         // %n %t
    LITERAL = 32,            // plain text and %%
  };
  enum { PAD_UNSET = 0, PAD_SPACE = 1, PAD_ZERO = 2, PAD_NONE = 3 };
  enum { CASE_NONE = 0, CASE_UPPER = 1, CASE_REVERSE = 2 };
  enum { FMODIFY_NONE = 0, FMODIFY_E = 1, FMODIFY_O = 2 };

  struct conv_t {
    uint8_t padding;  // PAD_...
    uint8_t act;      // CASE_...
    uint8_t mod;      // FMODIFY_...
  };
  struct atom {
    atom_type_t what;
    union {
      conv_t conv;          // every code but WHITESPACE and LITERAL
      const char* literal;  // WHITESPACE and LITERAL: `width` bytes
    } x;
    uint64_t width;  // digits or characters; a literal's length
  };

  // An unset format: rawParse fails and render must not be called.
  TimeFormat() = default;
  // setFtime(format); check isSet() for the outcome.
  explicit TimeFormat(const char* format);
  // Copies keep their literals in their own pool.
  TimeFormat(const TimeFormat& other);
  TimeFormat& operator=(const TimeFormat& other);
  ~TimeFormat();

  // Compiles `format`. A directive takes flags ("-" "_" "0" padding, "^"
  // upper case, "#" swapped case or, on %d %H %I %M %S %U %W %m %y %j, no
  // padding), then a width, then a modifier "E" or "O", each at most once
  // and in that order. "%c", "%+", "%x", "%D", "%F", "%T", "%X", "%R",
  // "%r", "%v", "%#c" and "%#x" expand to their atoms. "%l" is three-digit
  // subseconds right behind "%S" or "%s" (a lone "." or "," between is
  // allowed), unless it has flags, width or modifier of its own or the
  // format has a minute but no hour; anywhere else it is the 12-hour hour.
  // Examples:
  //   "%Y-%m-%d %H:%M:%S.%3N %z"  true
  //   "%H:%M:%S,%l"               true: %l is milliseconds
  //   "%l:%M %p", "%M:%S.%l"      true: %l is the hour
  //   "%Ey", "%Ez", "%Od"         true; "%OY", "%EH", "%Oc" false
  //   "%0a", "%2b", "%-Q", "%5F"  false: no zeros on names, no short
  //                               months, subseconds pad only with zeros,
  //                               combined directives take no width
  //   "%i", "%J", "abc%"          false: unknown, or cut off
  // On false nothing is kept and the object stays unset. Allocates the atoms
  // and the literal pool. REQUIRES: an unset object (new, or after reset()).
  bool setFtime(const char* format);
  // Frees the atoms and the pool; the object is unset again.
  void reset();
  // Whether a format is compiled.
  bool isSet() const { return _atoms != nullptr; }

  // A hint for the size of one rendering, used to reserve the output.
  uint64_t expectedWidth() const { return _expectedWidth; }
  const atom* atomsBegin() const { return _atoms.get(); }
  const atom* atomsEnd() const { return _atomsEnd; }

  // Parses the text in [start, end) against the atoms, storing what it reads
  // in *pr by its store rule (pr is not cleared first; its zone name points
  // into the text). Returns the first unconsumed byte, or null when the text
  // does not fit or the format is unset. Leading white space before each
  // non-literal atom is skipped, numbers may be shorter than their width,
  // and "%S.%3N" accepts "12", "12.345" and "12,345". Examples:
  //   "%H%M" on "1234"         hour 12, minute 34: the cut at the width
  //   "%H:%M" on "7:05"        hour 7
  //   "%-d" on "32"            mday 3, stopping before "2"; "%d" fails
  //   "%Y" on "1970", "3000"   null: years run from 1971 to 2999
  //   "%b" on "JanFoo"         month 0, stopping at "Foo"
  //   "%Ez" on "-420"          offset -25200
  // Allocates nothing.
  const char* rawParse(TimeFormatRawParseResult* pr, const char* start, const char* end) const;

  // Appends the rendering of `tm` (with `usec` microseconds for the
  // subsecond atoms) to `out`. `ops` gives the view's epoch, zone name and
  // offset; an offset of UNKNOWN_TZ_OFFSET renders the offset atoms empty.
  // Out-of-range names render as "???" ("??" at width 2).
  // REQUIRES: isSet().
  void render(Str& out, const StructTm& tm, unsigned long usec, const render_tm_ops* ops) const;

  // What tz_sec_offset answers when the view does not know its offset.
  static constexpr long UNKNOWN_TZ_OFFSET = 1073741824;

  // Reads a numeric zone offset at `p` (before `end`): a sign, then hh, hhmm
  // or hh:mm[:ss] ("+5", "-0800", "+05:30", "+05:30:15"), minutes and
  // seconds at most 59, the total below 86400. Stores seconds east in
  // *seconds and returns the byte after the offset; null on failure, with
  // *seconds untouched.
  static const char* parseTzOffset(const char* p, const char* end, long* seconds);

 private:
  // Each literal atom of a copy is moved to the same offset in the copy's
  // pool; fixed-pool literals stay.
  void internal_copyFrom(const TimeFormat& other);

  std::unique_ptr<atom[]> _atoms;  // null while unset
  atom* _atomsEnd = nullptr;
  Str _punct;                      // literal text, addressed by the atoms
  uint64_t _expectedWidth = 0;
};
