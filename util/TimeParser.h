// TimeParser: the text of a time span, as configuration writes it ("30s",
// "5m", "2h", "1d", or plain seconds), turned into milliseconds.
// Pure functions over caller-owned text: no shared state, safe from any
// thread.
#pragma once

#include "util/Str.h"

class TimeParser {
 public:
  // Reads a span: optional blanks and tabs, a decimal number of the unit
  // (digits with an optional fraction, ".5" and "12." too), optional blanks
  // and tabs, an optional unit, optional blanks and tabs, and nothing else.
  // Units are lower case only:
  //   "ms"                                     milliseconds
  //   none, "s", "sec", "secs", "second", "seconds"   seconds
  //   "m", "min", "mins", "minute", "minutes"  minutes
  //   "h", "hr", "hrs", "hour", "hours"        hours
  //   "d", "day", "days"                       days
  // Examples: "30s" 30000, "5m" 300000, "1.5h" 5400000, "2 d" 172800000,
  // "250ms" 250, "0.5ms" 1 (half a millisecond or more rounds up), "0.4ms"
  // 0, "90" 90000, "0.0004" 1 (a non-zero fraction of a second never gives
  // 0, as convert_string_to_milliseconds reads it). The number is read in
  // thousandths of its unit, so "0.00001m" is 60: the smallest non-zero
  // span is a thousandth of the unit.
  //
  // Stores the milliseconds in `msec` and returns true. On failure returns
  // false, leaves `msec` alone, and, when `why` is given, replaces *why
  // with the reason, one of:
  //   "empty time span"                        "", "  "
  //   "no number in time span"                 "s", "-5s", "+5s", "x"
  //   "unknown time unit \"<unit>\""           "5M", "5 weeks", "5y", "5s5"
  //   "time span too large"                    a product past 64 bits
  static bool timeSpanToMsec(const Str& text, unsigned long long& msec, Str* why = nullptr);
};
