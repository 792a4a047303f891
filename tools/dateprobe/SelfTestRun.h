// Test mode of dateprobe: the sample table run through the parser, one row
// judged at a time, with a line for each pass and a block for each failure.
#pragma once

#include <cstdio>
#include <span>

#include "framework/MDateprobeBack.h"
#include "tools/dateprobe/SelfTestCase.h"
#include "util/DateTime.h"
#include "util/Timeval.h"

enum class SelfTestVerdict { NOTHING_EXPECTED, PASSED, FAILED };

// Judges `row` against `t`, the time its line yielded (zero seconds for
// nothing). A row with year 0 and a t of zero seconds is NOTHING_EXPECTED,
// and *brokenDown is left alone. Otherwise t is broken down into
// *brokenDown: as local time when zone_offset is -1, else as GMT of t plus
// zone_offset seconds (all zero fields when even that is refused). Month,
// day, hour, minute and second must match; the year is compared only for a
// row with year -1, where it must be currentYear or currentYear - 1. So a
// row listing 2004 passes on a 2031 result with the same five fields, and a
// row with year 0 that is handed a time fails.
// REQUIRES: zone_offset is -1 or within +-(2^32 - 1).
SelfTestVerdict judgeSelfTestRow(const SelfTestCase& row, const Timeval& t, int currentYear,
                                 StructTm* brokenDown);

// Runs `rows` through `back.parse`, all against `now`, printing to `out`.
// Without a start row, or with a negative one, every row runs and the run
// ends with "\nPASSED <passes> / <rows.size()>\n". A start row of rows.size()
// or more runs nothing and prints nothing. Any other start row begins a
// single-row run there: rows that pass by expecting nothing are skipped
// silently, the first row that is compared ends the run, and no summary
// follows. A compared row that passes prints a line of 56 '*'; one that
// fails prints the block that begins "--------------------BEGIN-------------------".
// Returns the number of passes, silent ones included.
int runSelfTest(MDateprobeBack& back, std::span<const SelfTestCase> rows, bool hasStartRow,
                long startRow, const Timeval& now, int currentYear, FILE* out);
