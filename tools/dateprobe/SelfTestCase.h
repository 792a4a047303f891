// The built-in table of sample log lines that `dateprobe test` runs through
// the date parser, each with the date and time a correct parser reads in it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/Str.h"

// One sample line and what it must yield. A plain record, filled once during
// static initialisation and read-only afterwards, so safe from any thread.
struct SelfTestCase {
  // 0: the line must yield no timestamp (the other numbers are then 0).
  // -1: a line without a year; the year read must be the current year or
  // the one before. Any other value is the year the line shows, kept for the
  // reader and never compared.
  int32_t year;
  int32_t month;   // 1 to 12
  int32_t day;     // day of the month
  int32_t hour;    // 0 to 23
  int32_t minute;  // 0 to 59
  int32_t second;  // 0 to 59
  // -1: the fields above are wall time in the machine's local zone. Any
  // other value: seconds added to the parsed UTC time before it is broken
  // down as GMT, so -28800 for a "-0800" line listed in its own wall time
  // and 0 for a line listed in UTC.
  int64_t zone_offset;
  Str line;
};

constexpr size_t SELF_TEST_CASE_COUNT = 92;

// The table, in run order. Rows that expect no timestamp come first: once a
// row yields a time, the shared parser hands that time to every later row as
// the previous event's, both as the fallback for a line it cannot read and
// as the context that fixes the year of a line without one.
extern const SelfTestCase selfTestCases[SELF_TEST_CASE_COUNT];
