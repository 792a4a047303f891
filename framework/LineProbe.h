// String and file modes of dateprobe: lines of text handed to the parser
// one at a time, with what it made of each printed.
#pragma once

#include <cstdio>

#include "framework/MDateprobeBack.h"
#include "util/Str.h"

// Parses `line` against a fresh reading of the clock and prints the result:
//   Unable to parse '<line>'
// when nothing was found, else
//   From:\t<line>
//   Parsed:\t<Timeval::asctime of the result>
//   UTC Time:\t<seconds>
//   Time Region:\t<start>-<end>
//   Date Region:\t<start>-<end>
// and, when the line held subsecond digits, "Subseconds:\t0.<digits>" with
// exactly that many digits, padded with '0' past the sixth.
void probeLine(MDateprobeBack& back, const Str& line, FILE* out);

// Opens `fileName`, names it to the parser as "source::<fileName>|<context>",
// and probes each of its lines (line feed removed, and a carriage return
// before it), printing "<k> lines" after every thousandth and
// "count=<total>" at the end. Returns 0. When the file cannot be opened,
// prints "Cannot open file \"<fileName>\"!" with no line end, touches the
// parser not at all, and returns 4.
int probeFile(MDateprobeBack& back, const Str& fileName, const Str& context, FILE* out);
