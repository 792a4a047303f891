// The daemon's timestamp probe: what `dateprobe "<line>" "<context>"` would
// print, as text, for one request.
#pragma once

#include "util/Pathname.h"
#include "util/Str.h"

// Sets up a parser for `context` ("*" when empty) exactly as dateprobe does,
// from the install at `home`, parses `line` against the clock, and returns
// the lines dateprobe's string mode prints. A configuration failure (a
// broken pattern file, say) gives "Exception hit <what>\n", as dateprobe
// prints it. Each call builds its own parser: safe from any thread.
Str probeTimestamp(const Pathname& home, const Str& line, const Str& context);
