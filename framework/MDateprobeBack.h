// The seam between the front of dateprobe (arguments, the sample table, what
// is printed) and its back (the date parser, set up as the server would).
#pragma once

#include "util/Str.h"
#include "util/Timeval.h"

// What one detailed parse found. Regions are byte offsets into the line,
// end exclusive, -1 when that part was not found. A plain value; one owner at
// a time.
struct DateprobeParse {
  Timeval time;
  int timeStart = -1;
  int timeEnd = -1;
  int dateStart = -1;
  int dateEnd = -1;
  // Subsecond digits the line held: 0 for seconds without a fraction,
  // negative when there were no seconds, no time of day, or the time is the
  // clock's.
  int subsecDigits = 0;
};

// The parser that dateprobe drives. One parser serves a whole run, so every
// parse may see what earlier ones left behind (the previous event's time
// above all). Implementations belong to one thread at a time.
//
// The front calls, in this order: initProcess() once; then, if the
// arguments are good, setUp() once; then, for file mode only, setSource();
// then any number of parse() or parseDetailed() calls. Failures of
// configuration throw std::exception subclasses, which the entry reports;
// a line that yields nothing is no failure.
class MDateprobeBack {
 public:
  virtual ~MDateprobeBack() = default;

  // Process-wide start-up that comes before the arguments are looked at.
  virtual void initProcess() = 0;
  // Sets the parser up for `context` ("*", a sourcetype, "source::<file>"
  // or "host::<name>"), as the server would for that source.
  virtual void setUp(const Str& context) = 0;
  // File mode: tells the parser the source it reads, as the text
  // "source::<filename>|<context>", both for its log lines and for a date
  // found in the file's name.
  virtual void setSource(const Str& text) = 0;

  // Parses `line` against `now` without asking for parse details, as a row
  // of the sample table is parsed. Returns true and stores the time in *out
  // when the line yields one (its own, or the previous event's); returns
  // false and leaves *out alone otherwise.
  virtual bool parse(const Str& line, const Timeval& now, Timeval* out) = 0;
  // The same with regions and subsecond digits, as a line of file or
  // string mode is parsed. On false *out is left alone.
  virtual bool parseDetailed(const Str& line, const Timeval& now, DateprobeParse* out) = 0;

  // Name of the date pattern the parser last used; empty when none.
  virtual Str lastPatternName() const = 0;
};
